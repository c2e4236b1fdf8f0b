#pragma once

#include <cstddef>

// The progress line: one line on standard error that says where a long run stands. It is drawn only when standard error
// is a terminal, which is decided once; otherwise nothing is ever written and these functions do nothing. It is drawn
// at most ten times in any second, is cut to the width of the terminal, and is gone when the process exits, on whatever
// path. Nothing is logged and errno is left alone.

// Begins a part of the run. `phase` is a string literal.
void progressPhase(const char* phase);

// Begins a table of the phase: the `place`th, from 1, of `of`; without a number of tables the place is not shown.
// `table` stays valid until the next table or phase begins.
void progressTable(const char* table, std::size_t place = 0, std::size_t of = 0);

// Counts a row fetched from `result`, which has `total` rows. The first result of a table that has several is its
// listing: only its rows are shown, with their rate and the time left, and what is looked up for each of them is not.
void progressRow(const void* result, long long total);

// The same for a listing whose rows are dealt with later than they are fetched: it has got as far as its row number
// `place`, from 1. 0 makes the result the listing before its first row.
void progressRowsUpTo(const void* result, long long total, long long place);

// `result` has been read to its end; the next one may be a listing.
void progressRowsEnd(const void* result);
