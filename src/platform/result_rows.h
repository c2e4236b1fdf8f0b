#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "platform/handles.h"

// The rows of one statement, kept outside the process's memory but for a first piece, so that a listing of a whole
// table costs no more memory than a look-up of one row. Rows are appended all first and then read once, in the same
// order.
//
// A row is stored as its length and its fields' texts, each ended by a zero byte. The pieces follow each other: `head`
// in memory, then the first `spilled` bytes of the file, then `tail` in memory (the piece that was not written yet, or
// all the rest where no file could be made or the disk is full: a result is never cut for want of disk). No row stands
// in two pieces.
struct ResultRows {
  std::string head;
  Descriptor file;
  std::uint64_t spilled = 0;
  std::string tail;
  bool canSpill = true;
  long long count = 0;

  std::size_t headRead = 0;
  std::uint64_t fileRead = 0;
  std::size_t tailRead = 0;
  std::string window;
  std::size_t windowRead = 0;
  std::vector<const char*> fields;
};

// Where the files of large results are made; see KAVODBSpillDirectorySet.
void setSpillDirectory(const char* directory);

// Appends a row; a null field is passed as the empty text.
void appendRow(ResultRows& rows, const std::vector<std::string_view>& fields);

// Steps to the next row and points rows.fields at its texts, which stay valid until the next call. False after the last
// row; false too, with one line logged, when the file cannot be read back.
bool nextRow(ResultRows& rows);
