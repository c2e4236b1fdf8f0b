#include <algorithm>
#include <string_view>

#include "platform/database.h"
#include "platform/handles.h"
#include "scratch_file.h"
#include "smart/translate.h"

namespace {

bool isRefused(char character) {
  constexpr std::string_view kOthers = "|()-";
  return (character >= 'a' && character <= 'z') || (character >= 'A' && character <= 'Z') ||
         kOthers.find(character) != std::string_view::npos;
}

// Whether the quotes in `text` come in pairs, so that none of them ends a quoted text it stands in.
bool quotesArePaired(std::string_view text) {
  while (!text.empty()) {
    if (text.front() == '\'' && text.substr(0, 2) != "''") {
      return false;
    }
    text.remove_prefix(text.front() == '\'' ? 2 : 1);
  }
  return true;
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // A list is handed on as a C string.
  const std::string ids = std::string(data, data + size).c_str();
  require(isIdList(ids) == std::none_of(ids.begin(), ids.end(), isRefused), "the screen refuses what it must");

  const std::string_view before = "SELECT name FROM photo_label WHERE id IN (";
  const std::string frame = std::string(before) + "@KAVO:VAR)";
  const AllocatedText filled(KAVODBEscapeStringEX3(kPostgresqlType, frame.c_str(), ids.c_str()));
  require(filled != nullptr, "a list can be filled in");
  std::string_view statement = filled.get();
  require(statement.substr(0, before.size()) == before && statement.back() == ')', "the frame stands as it was");
  statement.remove_prefix(before.size());
  statement.remove_suffix(1);
  require(quotesArePaired(statement), "no quote of the list is left alone");

  const AllocatedText unchanged(KAVODBEscapeStringEX3(kPostgresqlType, ids.c_str()));
  require(unchanged != nullptr && ids == unchanged.get(), "without a value nothing changes");
  return 0;
}
