#include "main/path_check.h"

#include <string>
#include <string_view>

#include "platform/for_each_row.h"
#include "platform/log.h"
#include "platform/progress.h"
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

struct Repair {
  Text oldPath;
  Text newPath;
};

std::vector<std::string> keysOf(const Repair& repair) { return {repair.oldPath.text}; }

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
  if (!execute(connection, rows, "Select %s from %s", Name(column), Name(table))) {
    return -1;
  }
  // Kept from row to row: a path without a relative part of its own takes the last one.
  std::string relative;
  const auto readPath = [&](const Result& row) {
    Repair repair = {textField(row, column, kColumnCapacity), {}};
    if (repair.oldPath.text.find(sharePath) != std::string::npos) {
      return std::optional<Repair>();
    }
    readRelativePart(cutText(repair.oldPath.text, kPathCapacity), relative);
    repair.newPath.text = cutText(sharePath + relative, kColumnCapacity);
    return std::optional(std::move(repair));
  };
  return forEachRow({connection, connection, {{table, {"id", column}}}}, rows, readPath, [&](const Repair& repair) {
    return execute(connection, "Update %s set %s = '%s' where %s = '%s'", Name(table), Name(column), repair.newPath,
                   Name(column), repair.oldPath);
  });
}
