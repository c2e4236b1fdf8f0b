#pragma once

#include <map>
#include <string>
#include <vector>

#include "support/named_rows.h"

// What of the rows that were live before a run has to be live at any moment of it and after it.
namespace crash {

struct LostRow {
  std::string table;
  std::vector<std::string> row;
};

// One row for each natural key of `before` that `now` lacks, as often as it lacks it, although each of the `ends` holds
// it; and one for each row that it lacks to the letter. With `labelsAreReplaced`, a link that is still there may hold
// the earlier number of its label or category: these are merged before what links to them, in transactions of their
// own, and get other numbers.
std::vector<LostRow> lostRows(const named::Tables& before, const std::vector<const named::Tables*>& ends,
                              const named::Tables& now, bool labelsAreReplaced);

// The photos with their comments and links, users with their rights, and groups with their permissions and members that
// are neither as before nor as after.
std::vector<std::string> halfMerged(const named::Tables& before, const named::Tables& after, const named::Tables& now);

std::string joined(const std::vector<std::string>& fields);
bool linksToNothing(const std::string& row);
// The rows of one table without those that link to nothing, as texts, each as often as it is there.
std::map<std::string, long> counted(const named::Rows& rows);
long countOf(const std::map<std::string, long>& counts, const std::string& text);

}  // namespace crash
