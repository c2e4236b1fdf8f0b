#include "backup/backup_time.h"

#include "platform/text.h"

namespace {

constexpr std::size_t kFileCapacity = 1024;

}  // namespace

std::string backupTimeText(const std::tm& time, const std::string& version, const std::string& photoVersion) {
  const int year = time.tm_year > 99 ? time.tm_year - 100 : time.tm_year;
  return asPrinted(cutText(
      formatText("backuptime=\"%02d-%02d-%02d %02d:%02d\"\nversion=\"%s\"\nphoto_version=\"%s\"\n", year,
                 time.tm_mon + 1, time.tm_mday, time.tm_hour, time.tm_min, version.c_str(), photoVersion.c_str()),
      kFileCapacity));
}
