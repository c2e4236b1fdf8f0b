#include "platform/result_rows.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "platform/log.h"

namespace {

constexpr std::size_t kHeadBytes = std::size_t{256} * 1024;
constexpr std::size_t kPieceBytes = std::size_t{256} * 1024;

using RowLength = std::uint32_t;

std::string& spillDirectory() {
  static std::string directory;
  return directory;
}

// A file without a name in `directory`, gone when its descriptor is closed, however the process ends.
Descriptor makeNamelessFile(const std::string& directory) {
  Descriptor file(open(directory.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600));
  if (!file) {
    // Some file systems know no nameless files.
    std::string path = directory + "/kavophoto_backup.XXXXXX";
    file.reset(mkostemp(path.data(), O_CLOEXEC));
    if (file) {
      unlink(path.c_str());
    }
  }
  return file;
}

Descriptor makeSpillFile() {
  Descriptor file;
  if (!spillDirectory().empty()) {
    file = makeNamelessFile(spillDirectory());
  }
  if (!file) {
    const char* temporary = getenv("TMPDIR");
    file = makeNamelessFile(temporary != nullptr ? temporary : "/tmp");
  }
  return file;
}

bool writeAt(int descriptor, std::string_view text, std::uint64_t offset) {
  while (!text.empty()) {
    const ssize_t length = pwrite(descriptor, text.data(), text.size(), static_cast<off_t>(offset));
    if (length <= 0) {
      return false;
    }
    text.remove_prefix(static_cast<std::size_t>(length));
    offset += static_cast<std::uint64_t>(length);
  }
  return true;
}

bool readAt(int descriptor, char* text, std::size_t size, std::uint64_t offset) {
  while (size > 0) {
    const ssize_t length = pread(descriptor, text, size, static_cast<off_t>(offset));
    if (length <= 0) {
      errno = length < 0 ? errno : EIO;
      return false;
    }
    text += length;
    size -= static_cast<std::size_t>(length);
    offset += static_cast<std::uint64_t>(length);
  }
  return true;
}

void spillTail(ResultRows& rows) {
  if (!rows.file) {
    rows.file = makeSpillFile();
  }
  if (!rows.file || !writeAt(rows.file.get(), rows.tail, rows.spilled)) {
    rows.canSpill = false;
    return;
  }
  rows.spilled += rows.tail.size();
  rows.tail.clear();
}

// Points the fields at the row of `length` bytes at `at` of `text`.
void pointFields(ResultRows& rows, const std::string& text, std::size_t at, RowLength length) {
  rows.fields.clear();
  const char* const end = text.data() + at + length;
  for (const char* field = text.data() + at; field < end; field += std::strlen(field) + 1) {
    rows.fields.push_back(field);
  }
}

// The row at `read` of `text`, which is stepped over it.
void takeRow(ResultRows& rows, const std::string& text, std::size_t& read) {
  RowLength length = 0;
  std::memcpy(&length, text.data() + read, sizeof length);
  pointFields(rows, text, read + sizeof length, length);
  read += sizeof length + length;
}

bool holdsRow(const std::string& text, std::size_t read) {
  RowLength length = 0;
  if (text.size() - read < sizeof length) {
    return false;
  }
  std::memcpy(&length, text.data() + read, sizeof length);
  return text.size() - read - sizeof length >= length;
}

// Moves the window on in the file until it holds the next row whole.
bool fillWindow(ResultRows& rows) {
  rows.window.erase(0, rows.windowRead);
  rows.windowRead = 0;
  while (!holdsRow(rows.window, 0)) {
    const std::size_t held = rows.window.size();
    const auto more = static_cast<std::size_t>(std::min<std::uint64_t>(kPieceBytes, rows.spilled - rows.fileRead));
    rows.window.resize(held + more);
    if (more == 0 || !readAt(rows.file.get(), rows.window.data() + held, more, rows.fileRead)) {
      return false;
    }
    rows.fileRead += more;
  }
  return true;
}

}  // namespace

void setSpillDirectory(const char* directory) { spillDirectory() = directory; }

void appendRow(ResultRows& rows, const std::vector<std::string_view>& fields) {
  std::string& piece = rows.head.size() < kHeadBytes ? rows.head : rows.tail;
  const std::size_t start = piece.size();
  piece.append(sizeof(RowLength), '\0');
  for (const std::string_view field : fields) {
    piece.append(field).push_back('\0');
  }
  const auto length = static_cast<RowLength>(piece.size() - start - sizeof(RowLength));
  std::memcpy(piece.data() + start, &length, sizeof length);
  ++rows.count;
  if (rows.canSpill && rows.tail.size() >= kPieceBytes) {
    spillTail(rows);
  }
}

bool nextRow(ResultRows& rows) {
  if (rows.headRead < rows.head.size()) {
    takeRow(rows, rows.head, rows.headRead);
    return true;
  }
  if (rows.windowRead < rows.window.size() || rows.fileRead < rows.spilled) {
    if (!holdsRow(rows.window, rows.windowRead) && !fillWindow(rows)) {
      KAVO_LOG("Failed to read a result back from its temporary file (%s)", std::strerror(errno));
      return false;
    }
    takeRow(rows, rows.window, rows.windowRead);
    return true;
  }
  if (rows.tailRead < rows.tail.size()) {
    takeRow(rows, rows.tail, rows.tailRead);
    return true;
  }
  return false;
}
