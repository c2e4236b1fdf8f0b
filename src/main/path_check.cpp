#include "main/path_check.h"

#include <string>
#include <string_view>

#include "platform/log.h"
#include "platform/progress.h"
#include "platform/query.h"
#include "platform/share.h"
#include "platform/text.h"

namespace {

constexpr std::size_t kColumnCapacity = 8192;

// Sets `relative` to what stands after the third "/"; a path with fewer leaves it as it was.
void readRelativePart(std::string_view path, std::string& relative) {
  std::size_t slash = path.find('/');
  for (int more = 2; more > 0 && slash != std::string_view::npos; --more) {
    slash = path.find('/', slash + 1);
  }
  if (slash != std::string_view::npos) {
    relative = path.substr(slash + 1);
  }
}

}  // namespace

int KavophotoCheckPath(DBConnect_tag* connection, const char* /*database*/, const char* table, const char* column,
                       const char* /*key*/) {
  if (connection == nullptr) {
    KAVO_LOG("Bad parameters.");
    return -1;
  }
  KAVOShare* found = nullptr;
  if (KAVOShareGet("photo", &found) < 0) {
    KAVO_LOG("KAVOShareGet failed.");
    return -1;
  }
  const ShareHandle share(found);
  progressTable(table);
  const std::string sharePath = cutText(share->path, kPathCapacity);

  Result rows;
  if (!execute(connection, formatText("Select %s from %s", column, table), rows)) {
    return -1;
  }
  // Kept from row to row: a path without a relative part of its own takes the last one.
  std::string relative;
  while (fetchRow(rows)) {
    const std::string oldPath = fieldText(rows, column, kColumnCapacity);
    if (oldPath.find(sharePath) != std::string::npos) {
      continue;
    }
    readRelativePart(cutText(oldPath, kPathCapacity), relative);
    const std::string newPath = escapeText(cutText(sharePath + relative, kColumnCapacity));
    const std::string escapedOldPath = escapeText(oldPath);
    if (!execute(connection, formatText("Update %s set %s = '%s' where %s = '%s'", table, column, newPath.c_str(),
                                        column, escapedOldPath.c_str()))) {
      return -1;
    }
  }
  return 0;
}
