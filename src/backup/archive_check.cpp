#include "backup/archive_check.h"

#include <archive.h>
#include <archive_entry.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <memory>
#include <set>
#include <string_view>
#include <system_error>
#include <vector>

#include "platform/files.h"
#include "platform/handles.h"

namespace {

constexpr std::string_view kThemeMember = "theme_bak/";

struct ArchiveCloser {
  void operator()(archive* reader) const { archive_read_free(reader); }
};
using ArchiveHandle = std::unique_ptr<archive, ArchiveCloser>;

// An archive that is read from front to back. `member` is the one that the reading stands at: null before the first and
// after the last one, and after a failure.
struct Reading {
  // Before the archive, which is freed first.
  File file;
  ArchiveHandle archive;
  archive_entry* member = nullptr;
  int status = ARCHIVE_FATAL;
};

void stepToNextMember(Reading& reading) {
  reading.status = archive_read_next_header(reading.archive.get(), &reading.member);
  if (reading.status != ARCHIVE_OK) {
    reading.member = nullptr;
  }
}

Reading openArchive(const std::string& path) {
  Reading reading;
  reading.file = openToRead(path);
  reading.archive.reset(archive_read_new());
  archive* const reader = reading.archive.get();
  archive_read_support_filter_gzip(reader);
  archive_read_support_format_tar(reader);
  // Makes the reader go on behind the end mark of the tar archive to the end of the gzip stream, where a stream cut in
  // its very tail shows.
  archive_read_set_option(reader, "tar", "read_concatenated_archives", "1");
  if (reading.file && archive_read_open_FILE(reader, reading.file.get()) == ARCHIVE_OK &&
      archive_filter_code(reader, 0) == ARCHIVE_FILTER_GZIP) {
    stepToNextMember(reading);
  }
  return reading;
}

std::string_view memberName(const Reading& reading) {
  const char* name = reading.member != nullptr ? archive_entry_pathname(reading.member) : nullptr;
  return name != nullptr ? name : std::string_view();
}

// Compares the next bytes of a file; with no file there is nothing to compare to.
bool continuesWith(const File& file, const void* bytes, std::size_t size) {
  if (!file) {
    return true;
  }
  std::array<char, 16384> piece = {};
  const char* expected = static_cast<const char*>(bytes);
  while (size > 0) {
    const std::size_t length = std::fread(piece.data(), 1, std::min(size, piece.size()), file.get());
    if (length == 0 || std::memcmp(piece.data(), expected, length) != 0) {
      return false;
    }
    expected += length;
    size -= length;
  }
  return true;
}

bool isAtEnd(const File& file) { return !file || std::fgetc(file.get()) == EOF; }

// Reads the content of the member. The tool's archives have no holes, so blocks that do not follow each other are not
// of its making; and a hole could claim any size.
bool contentIsWhole(const Reading& reading, const File& original) {
  la_int64_t position = 0;
  for (;;) {
    const void* block = nullptr;
    std::size_t size = 0;
    la_int64_t offset = 0;
    const int status = archive_read_data_block(reading.archive.get(), &block, &size, &offset);
    if (status == ARCHIVE_EOF) {
      return position == archive_entry_size(reading.member) && isAtEnd(original);
    }
    if (status != ARCHIVE_OK || offset != position || !continuesWith(original, block, size)) {
      return false;
    }
    position += static_cast<la_int64_t>(size);
  }
}

// The reading stands at a plain file of this name; steps behind it.
bool takeFile(Reading& reading, std::string_view name, const std::string& origin) {
  if (memberName(reading) != name || archive_entry_filetype(reading.member) != AE_IFREG ||
      archive_entry_hardlink(reading.member) != nullptr) {
    return false;
  }
  File original;
  if (!origin.empty()) {
    original = openToRead(std::string(origin).append(name));
    if (!original) {
      return false;
    }
  }
  if (!contentIsWhole(reading, original)) {
    return false;
  }
  stepToNextMember(reading);
  return true;
}

std::size_t countFiles(const std::string& path) {
  const Directory directory(opendir(path.c_str()));
  std::size_t count = 0;
  while (const dirent* entry = directory ? readdir(directory.get()) : nullptr) {
    const std::string_view name = entry->d_name;
    if (name != "." && name != "..") {
      ++count;
    }
  }
  return count;
}

// The reading stands at the theme directory; steps behind it and its files.
bool takeThemes(Reading& reading, const std::string& origin) {
  if (memberName(reading) != kThemeMember || archive_entry_filetype(reading.member) != AE_IFDIR) {
    return false;
  }
  stepToNextMember(reading);
  std::set<std::string> names;
  while (memberName(reading).substr(0, kThemeMember.size()) == kThemeMember) {
    const std::string name(memberName(reading));
    const bool isBelow = name.size() > kThemeMember.size() && name.find('/', kThemeMember.size()) == std::string::npos;
    if (!isBelow || !names.insert(name).second || !takeFile(reading, name, origin)) {
      return false;
    }
  }
  return origin.empty() || names.size() == countFiles(origin + "theme_bak");
}

// True behind the last member when nothing follows the compressed stream: gzip ends with an error for what does.
bool isAtEndOfFile(const Reading& reading, const std::string& path) {
  std::error_code unread;
  return reading.status == ARCHIVE_EOF &&
         std::filesystem::file_size(path, unread) ==
             static_cast<std::uintmax_t>(archive_filter_bytes(reading.archive.get(), -1));
}

}  // namespace

bool archiveIsWhole(const std::string& path, const std::string& origin) {
  Reading reading = openArchive(path);
  return takeFile(reading, "kavophoto_backup.dump", origin) && takeFile(reading, "kavophoto_backup_time.txt", origin) &&
         takeFile(reading, "kavophoto_backup_hox_account.txt", origin) &&
         takeFile(reading, "kavophoto_backup_hox_group_account.txt", origin) && takeThemes(reading, origin) &&
         takeFile(reading, "settings.conf.bak", origin) && isAtEndOfFile(reading, path);
}
