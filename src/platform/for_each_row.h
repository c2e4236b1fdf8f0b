#pragma once

#include <algorithm>
#include <cstddef>
#include <optional>
#include <set>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "platform/progress.h"
#include "platform/query.h"
#include "platform/side_by_side.h"

// What `read` makes of a row, and the row's number in the listing, from 1.
template <typename Row>
struct ListedRow {
  Row row;
  long long place;
  std::size_t bytes;
};

// A listing, and how far it has been read.
struct ListingReader {
  Result& listing;
  long long place = 0;
};

// Steps to the next row that `read` does not leave out.
template <typename Read, typename Row>
bool readNextRow(ListingReader& reader, Read& read, std::optional<ListedRow<Row>>& next) {
  Result& listing = reader.listing;
  while (!next && KAVODBFetchRow(listing.handle, &listing.row) == 0) {
    ++reader.place;
    if (std::optional<Row> row = read(std::as_const(listing))) {
      next = {std::move(*row), reader.place, KAVODBRowBytes(listing.handle, listing.row)};
    } else {
      progressRowsUpTo(listing.handle, rowCount(listing), reader.place);
    }
  }
  return next.has_value();
}

// Large rows share a window with few others.
inline constexpr std::size_t kMostWindowBytes = 1U << 20U;

// Reads the rows of one window, at most so many. A row that shares a key with one of them is the first of the next
// window; a row without keys is alone in its own.
template <typename Read, typename Row>
void readWindow(ListingReader& reader, Read& read, std::optional<ListedRow<Row>>& next,
                std::vector<ListedRow<Row>>& window, std::size_t most) {
  std::set<std::string> known;
  std::size_t bytes = 0;
  window.clear();
  while (window.size() < most && bytes < kMostWindowBytes && readNextRow(reader, read, next)) {
    std::vector<std::string> keys = keysOf(next->row);
    if (keys.empty() && !window.empty()) {
      return;
    }
    if (std::any_of(keys.begin(), keys.end(), [&known](const std::string& key) { return known.contains(key); })) {
      return;
    }
    const bool isAlone = keys.empty();
    known.insert(std::make_move_iterator(keys.begin()), std::make_move_iterator(keys.end()));
    bytes += next->bytes;
    window.push_back(std::move(*next));
    next.reset();
    if (isAlone) {
      return;
    }
  }
}

// Merges the rows of a listing.
//
// `read` makes of the current row a value of what is needed of it, or nothing when the row is left out. It is called
// once for each row, in their order, and runs no statements. `merge` runs the statements of one such value; true or 0
// goes on, false (-1) or a negative number ends. keysOf(value), found by argument-dependent lookup, names the rows of
// the destination that it is about: rows with a key in common never run side by side, so that each sees what the ones
// before it wrote, and one without keys runs in a window of its own. Where the tables of the destination connect their
// rows in other ways, every row does (see independent_rows.h). It may be called again for a row whose
// window was rolled back, and is left by an exception then: it uses nothing but `execute`, on these two connections,
// and what it holds is freed by destructors. Its stack is 128 KiB. `state` is what `merge` changes in this process for
// the rows after it; it is copied for each window.
//
// 0 when every row was merged; otherwise the result of the row that ended it. What was merged before stays.
template <typename Read, typename Merge, typename State>
int forEachRow(const Databases& databases, Result& listing, Read read, Merge merge, State& state) {
  using Row = typename std::invoke_result_t<Read, const Result&>::value_type;
  std::optional<ListedRow<Row>> next;
  std::vector<ListedRow<Row>> window;
  ListingReader reader = {listing};
  const void* const shown = listing.handle;
  const long long total = rowCount(listing);
  progressRowsUpTo(shown, total, 0);
  const std::size_t most =
      windowRows() > 1 && total > 1 && rowsAreIndependent(databases.destination, databases.written) ? windowRows() : 1;
  int status = 0;
  while (status >= 0) {
    readWindow(reader, read, next, window, most);
    if (window.empty()) {
      break;
    }
    const State before = state;
    status = runRows(
        databases, window.size(),
        [&](std::size_t row) {
          const auto result = merge(std::as_const(window[row].row));
          progressRowsUpTo(shown, total, window[row].place);
          if constexpr (std::is_same_v<decltype(result), const bool>) {
            return result ? 0 : -1;
          } else {
            return result;
          }
        },
        [&] { state = before; });
  }
  progressRowsEnd(shown);
  return std::min(status, 0);
}

// The same for rows that hand nothing on to each other.
template <typename Read, typename Merge>
int forEachRow(const Databases& databases, Result& listing, Read read, Merge merge) {
  int nothing = 0;
  return forEachRow(databases, listing, std::move(read), std::move(merge), nothing);
}
