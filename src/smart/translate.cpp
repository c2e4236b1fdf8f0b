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
bool collect(DBConnect_tag* connection, const Statement& statement, const char* column,
             std::vector<std::string>& texts) {
  Result rows;
  if (!execute(connection, rows, statement)) {
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

Statement selectNames(bool areShares, const char* suffix, const List& ids) {
  return areShares ? sql("SELECT sharename AS name FROM photo_share%s WHERE shareid IN (%s)", Name(suffix), ids)
                   : sql("SELECT name FROM photo_label%s WHERE id IN (%s)", Name(suffix), ids);
}

bool readNames(DBConnect_tag* source, const std::string& ids, const char* suffix, bool areShares,
               std::vector<std::string>& names) {
  const AllocatedText escaped(KAVODBEscapeStringEX3(KAVODBDatabaseTypeGet(source), "@KAVO:VAR", ids.c_str()));
  if (!escaped) {
    KAVO_LOG("Failed to KAVODBEscapeStringEX3[%s]",
             statementText(selectNames(areShares, suffix, {"@KAVO:VAR"})).c_str());
    return false;
  }
  return collect(source, selectNames(areShares, suffix, List::ofNumbers(escaped.get())), "name", names);
}

Statement selectIds(bool areShares, const List& names) {
  return areShares ? sql("SELECT shareid AS id FROM photo_share WHERE sharename IN (%s)", names)
                   : sql("SELECT id FROM photo_label WHERE name IN (%s)", names);
}

bool findIds(DBConnect_tag* destination, const std::vector<std::string>& names, bool areShares,
             std::vector<std::string>& ids) {
  if (KAVODBDatabaseTypeGet(destination) != kPostgresqlType) {
    KAVO_LOG("Failed to KAVODBEscapeStringEX3[%s]", statementText(selectIds(areShares, {})).c_str());
    return false;
  }
  return collect(destination, selectIds(areShares, List::of(names, ",")), "id", ids);
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
