#include "smart/translate.h"

#include <regex.h>

#include <vector>

#include "platform/handles.h"
#include "platform/log.h"
#include "platform/query.h"
#include "platform/text.h"

namespace {

struct Pattern {
  Pattern() = default;
  Pattern(const Pattern&) = delete;
  Pattern& operator=(const Pattern&) = delete;
  ~Pattern() {
    if (isCompiled) {
      regfree(&compiled);
    }
  }

  regex_t compiled = {};
  bool isCompiled = false;
};

enum class Screening { kPassed, kRejected, kUnknown };

Screening screen(const std::string& ids) {
  Pattern pattern;
  pattern.isCompiled = regcomp(&pattern.compiled, "\\([a-zA-Z|(|)|-]\\)", 0) == 0;
  if (!pattern.isCompiled) {
    return Screening::kUnknown;
  }
  return regexec(&pattern.compiled, ids.c_str(), 0, nullptr, 0) == 0 ? Screening::kRejected : Screening::kPassed;
}

// Collects the text of `column` of every row of `statement`. False, with one line logged, when it fails or gives no
// row.
bool collect(DBConnect_tag* connection, const std::string& statement, const char* column,
             std::vector<std::string>& texts) {
  Result rows;
  if (!execute(connection, statement, rows)) {
    return false;
  }
  while (fetchRow(rows)) {
    texts.push_back(fieldText(rows, column));
  }
  if (texts.empty()) {
    KAVO_LOG("No match labels");
  }
  return !texts.empty();
}

bool readNames(DBConnect_tag* source, const std::string& ids, const char* suffix, bool areShares,
               std::vector<std::string>& names) {
  const std::string statement =
      areShares ? formatText("SELECT sharename AS name FROM photo_share%s WHERE shareid IN (@KAVO:VAR)", suffix)
                : formatText("SELECT name FROM photo_label%s WHERE id IN (@KAVO:VAR)", suffix);
  const AllocatedText filled(KAVODBEscapeStringEX3(KAVODBDatabaseTypeGet(source), statement.c_str(), ids.c_str()));
  if (!filled) {
    KAVO_LOG("Failed to KAVODBEscapeStringEX3[%s]", statement.c_str());
    return false;
  }
  return collect(source, filled.get(), "name", names);
}

// The names as 'name1','name2','name3'.
std::string quotedList(DBConnect_tag* destination, const std::vector<std::string>& names) {
  std::string list;
  for (const std::string& name : names) {
    const char* quoted = &name == &names.back() ? "'@KAVO:VAR'" : "'@KAVO:VAR',";
    const AllocatedText filled(KAVODBEscapeStringEX3(KAVODBDatabaseTypeGet(destination), quoted, name.c_str()));
    list += filled ? filled.get() : "";
  }
  return list;
}

bool findIds(DBConnect_tag* destination, const std::vector<std::string>& names, bool areShares,
             std::vector<std::string>& ids) {
  const std::string list = quotedList(destination, names);
  const std::string statement = areShares ? "SELECT shareid AS id FROM photo_share WHERE sharename IN (" + list + ")"
                                          : "SELECT id FROM photo_label WHERE name IN (" + list + ")";
  // Without a value nothing is filled in, also where a name holds the placeholder's own text.
  const AllocatedText complete(KAVODBEscapeStringEX3(KAVODBDatabaseTypeGet(destination), statement.c_str()));
  if (!complete) {
    KAVO_LOG("Failed to KAVODBEscapeStringEX3[%s]", statement.c_str());
    return false;
  }
  return collect(destination, complete.get(), "id", ids);
}

std::string joined(const std::vector<std::string>& ids) {
  std::string list;
  for (const std::string& id : ids) {
    list.append(list.empty() ? "" : ",").append(id);
  }
  return list;
}

}  // namespace

bool isIdList(const std::string& ids) { return screen(ids) == Screening::kPassed; }

int KavophotoTranslateIdList(DBConnect_tag* destination, DBConnect_tag* source, const std::string& ids,
                             std::string& result, const char* suffix, const std::string& kind) {
  const Screening screening = screen(ids);
  if (screening == Screening::kRejected) {
    KAVO_LOG("Invalid ID [%s]", ids.c_str());
  }
  if (screening != Screening::kPassed) {
    return -1;
  }
  const bool areShares = kind == "albums";
  std::vector<std::string> names;
  std::vector<std::string> found;
  if (!readNames(source, ids, suffix, areShares, names) || !findIds(destination, names, areShares, found)) {
    return -1;
  }
  result = joined(found);
  return 0;
}
