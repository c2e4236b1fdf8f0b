#include "faults/live_rows.h"

#include <algorithm>
#include <map>
#include <set>
#include <utility>

namespace crash {
namespace {

// What tells the rows of a table apart, in columns of named_rows.h.
struct Key {
  std::vector<std::size_t> columns;
  // What reads "(none)" or nothing when the label or category of a link has got another number.
  std::vector<std::size_t> linked;
};

Key keyOf(const std::string& table) {
  static const std::map<std::string, Key> keys = {
      {"photo_label", {{0, 1}, {}}},
      {"photo_image_label", {{0, 1, 2}, {1, 2}}},
      {"photo_video_label", {{0, 1, 2}, {1, 2}}},
      {"category_items", {{0, 1, 3}, {0}}},
      {"photo_comment", {{0, 1, 4}, {}}},
      {"video_comment", {{0, 1, 4}, {}}},
      {"photo_config", {{0, 1}, {}}},
      {"photo_log", {{0, 3}, {}}},
      {"photo_access_right", {{0, 1}, {}}},
      {"photo_upload_right", {{0, 1}, {}}},
      {"photo_manage_right", {{0, 1}, {}}},
      {"photo_group_permission", {{0, 1}, {}}},
      {"photo_user_group", {{0, 1}, {}}},
      {"photo_personal_collection", {{1}, {}}},
      {"photo_personal_collection_for_hox_account", {{1}, {}}},
  };
  const auto place = keys.find(table);
  if (place != keys.end()) {
    return place->second;
  }
  const bool isLink = table.find("_for_hox_account") != std::string::npos || named::isVideoMember(table) ||
                      table.rfind("photo_personal_collection_photo", 0) == 0;
  return {isLink ? std::vector<std::size_t>{0, 1} : std::vector<std::size_t>{0}, {}};
}

std::vector<std::string> part(const std::vector<std::string>& row, const std::vector<std::size_t>& columns) {
  std::vector<std::string> fields;
  fields.reserve(columns.size());
  for (const std::size_t column : columns) {
    fields.push_back(row[column]);
  }
  return fields;
}

std::map<std::string, long> counted(const named::Rows& rows, const std::vector<std::size_t>* columns) {
  std::map<std::string, long> counts;
  for (const std::vector<std::string>& row : rows) {
    if (!linksToNothing(joined(row))) {
      ++counts[joined(columns == nullptr ? row : part(row, *columns))];
    }
  }
  return counts;
}

// A row of a link without what it links to.
std::string withoutLink(const std::vector<std::string>& row, const Key& key) {
  std::vector<std::string> fields;
  for (std::size_t column = 0; column < row.size(); ++column) {
    if (std::find(key.linked.begin(), key.linked.end(), column) == key.linked.end()) {
      fields.push_back(row[column]);
    }
  }
  return joined(fields);
}

// Takes those out of `lost` that are in the table with a link to nothing.
void takeCutLinks(std::vector<LostRow>& lost, const Key& key, const named::Rows& now) {
  if (key.linked.empty()) {
    return;
  }
  std::multiset<std::string> cut;
  for (const std::vector<std::string>& row : now) {
    if (row[key.linked.front()] == "(none)") {
      cut.insert(withoutLink(row, key));
    }
  }
  std::erase_if(lost, [&](const LostRow& one) {
    const auto place = cut.find(withoutLink(one.row, key));
    if (place == cut.end()) {
      return false;
    }
    cut.erase(place);
    return true;
  });
}

// A row with what belongs to it, by the column that names it.
struct Unit {
  const char* table;
  std::vector<std::pair<const char*, std::size_t>> belonging;
};

const std::vector<Unit>& units() {
  static const std::vector<Unit> all = {
      {"photo_image", {{"photo_image", 0}, {"photo_comment", 0}, {"photo_image_label", 0}}},
      {"photo_user",
       {{"photo_user", 0}, {"photo_access_right", 0}, {"photo_upload_right", 0}, {"photo_manage_right", 0}}},
      {"photo_group", {{"photo_group", 0}, {"photo_group_permission", 0}, {"photo_user_group", 1}}},
  };
  return all;
}

std::map<std::string, std::multiset<std::string>> rowsByName(const named::Tables& tables, const Unit& unit) {
  std::map<std::string, std::multiset<std::string>> all;
  for (const auto& [table, column] : unit.belonging) {
    const Key key = keyOf(table);
    for (const std::vector<std::string>& row : tables.at(table)) {
      all[row[column]].insert(std::string(table) + ": " + withoutLink(row, key));
    }
  }
  all.erase("(none)");
  return all;
}

}  // namespace

std::string joined(const std::vector<std::string>& fields) {
  std::string text;
  for (const std::string& field : fields) {
    text += (text.empty() ? "" : " | ") + field;
  }
  return text;
}

std::vector<std::string> halfMerged(const named::Tables& before, const named::Tables& after, const named::Tables& now) {
  std::vector<std::string> found;
  for (const Unit& unit : units()) {
    const auto unitsBefore = rowsByName(before, unit);
    const auto unitsAfter = rowsByName(after, unit);
    const auto unitsNow = rowsByName(now, unit);
    std::set<std::string> names;
    for (const auto* some : {&unitsBefore, &unitsAfter, &unitsNow}) {
      for (const auto& [name, rows] : *some) {
        names.insert(name);
      }
    }
    const auto rowsOf = [](const auto& some, const std::string& name) {
      const auto place = some.find(name);
      return place == some.end() ? std::multiset<std::string>() : place->second;
    };
    for (const std::string& name : names) {
      const auto rows = rowsOf(unitsNow, name);
      if (rows != rowsOf(unitsBefore, name) && rows != rowsOf(unitsAfter, name)) {
        found.push_back(std::string(unit.table) + " " + name);
      }
    }
  }
  return found;
}

bool linksToNothing(const std::string& row) { return row.find("(none)") != std::string::npos; }

std::map<std::string, long> counted(const named::Rows& rows) { return counted(rows, nullptr); }

long countOf(const std::map<std::string, long>& counts, const std::string& text) {
  const auto place = counts.find(text);
  return place == counts.end() ? 0 : place->second;
}

std::vector<LostRow> lostRows(const named::Tables& before, const std::vector<const named::Tables*>& ends,
                              const named::Tables& now, bool labelsAreReplaced) {
  std::vector<LostRow> all;
  for (const auto& [table, rowsBefore] : before) {
    const Key key = keyOf(table);
    std::vector<LostRow> lost;
    std::set<std::string> told;
    for (const std::vector<std::size_t>* columns :
         {&key.columns, static_cast<const std::vector<std::size_t>*>(nullptr)}) {
      std::map<std::string, long> required = counted(rowsBefore, columns);
      for (const named::Tables* end : ends) {
        const auto held = counted(end->at(table), columns);
        for (auto& [text, count] : required) {
          count = std::min(count, countOf(held, text));
        }
      }
      const auto found = counted(now.at(table), columns);
      for (const auto& [text, count] : required) {
        const auto row = std::find_if(rowsBefore.begin(), rowsBefore.end(), [&, &wanted = text](const auto& one) {
          return joined(columns == nullptr ? one : part(one, *columns)) == wanted;
        });
        for (long missing = count - countOf(found, text); missing > 0; --missing) {
          const bool isNew = told.insert(joined(part(*row, key.columns))).second;
          if (columns != nullptr || isNew) {
            lost.push_back({table, *row});
          }
        }
      }
    }
    if (labelsAreReplaced) {
      takeCutLinks(lost, key, now.at(table));
    }
    all.insert(all.end(), lost.begin(), lost.end());
  }
  return all;
}

}  // namespace crash
