#include "platform/file_update.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <string_view>

#include "platform/files.h"
#include "platform/handles.h"

namespace {

// Far more than any file that is read whole has, and little enough for the memory of a small machine.
constexpr off_t kMostBytes = off_t{64} << 20U;

bool writeAndFlush(int descriptor, std::string_view text) {
  while (!text.empty()) {
    const ssize_t length = write(descriptor, text.data(), text.size());
    if (length < 0) {
      return false;
    }
    text.remove_prefix(static_cast<std::size_t>(length));
  }
  return fsync(descriptor) == 0;
}

// Nothing of the old text is written over before there is room for the whole new one.
bool writeInPlace(int descriptor, const struct stat& model, std::string_view text) {
  const auto size = static_cast<off_t>(text.size());
  const int error = size > model.st_size ? posix_fallocate(descriptor, 0, size) : 0;
  if (error != 0) {
    // What was reserved so far has made the file longer.
    const bool isAsBefore = ftruncate(descriptor, model.st_size) == 0;
    errno = isAsBefore ? error : errno;
    return false;
  }
  return writeAndFlush(descriptor, text) && ftruncate(descriptor, size) == 0 && fsync(descriptor) == 0;
}

// A new file beside `path` with the owner and mode of `model`. One that a killed run left there is replaced.
Descriptor makeBeside(const std::string& beside, const struct stat& model) {
  unlink(beside.c_str());
  Descriptor file(open(beside.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
  if (file && (fchown(file.get(), model.st_uid, model.st_gid) != 0 ||
               fchmod(file.get(), model.st_mode & static_cast<mode_t>(07777)) != 0)) {
    unlink(beside.c_str());
    file.reset();
  }
  return file;
}

// The rename itself must reach the disk too.
void flushDirectoryOf(const std::string& path) {
  const Descriptor directory(open(path.substr(0, path.rfind('/') + 1).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (directory) {
    fsync(directory.get());
  }
}

bool renameOver(const std::string& beside, const std::string& path) {
  if (rename(beside.c_str(), path.c_str()) != 0) {
    return false;
  }
  flushDirectoryOf(path);
  return true;
}

void unlinkKeepingError(const std::string& path) {
  const int error = errno;
  unlink(path.c_str());
  errno = error;
}

}  // namespace

FileUpdate updateFile(const std::string& path, const std::string& text) {
  // A rename would replace a link, not what it points to.
  const AllocatedText resolved(realpath(path.c_str(), nullptr));
  if (!resolved) {
    return FileUpdate::kNotOpened;
  }
  const std::string target = resolved.get();
  const Descriptor file = openInPlace(target);
  struct stat model = {};
  if (!file || fstat(file.get(), &model) != 0) {
    return FileUpdate::kNotOpened;
  }
  const std::string beside = target + ".tmp";
  const Descriptor besideFile = makeBeside(beside, model);
  if (besideFile) {
    const bool isWhole = writeAndFlush(besideFile.get(), text);
    if (isWhole && renameOver(beside, target)) {
      return FileUpdate::kWritten;
    }
    unlinkKeepingError(beside);
    if (!isWhole) {
      return FileUpdate::kNotWritten;
    }
    // Something is mounted on the file, so that nothing can take its place.
  }
  return writeInPlace(file.get(), model, text) ? FileUpdate::kWritten : FileUpdate::kNotWritten;
}

bool writeNewFile(const std::string& path, const std::string& text) {
  if (text.size() > static_cast<std::size_t>(kMostBytes)) {
    // It could not be read back.
    errno = EFBIG;
    return false;
  }
  struct stat model = {};
  model.st_uid = geteuid();
  model.st_gid = getegid();
  model.st_mode = 0600;
  const std::string beside = path + ".tmp";
  const Descriptor file = makeBeside(beside, model);
  if (!file) {
    return false;
  }
  if (!writeAndFlush(file.get(), text) || !renameOver(beside, path)) {
    unlinkKeepingError(beside);
    return false;
  }
  return true;
}

bool readWholeFile(const std::string& path, std::string& text) {
  const File file = openToRead(path);
  struct stat status = {};
  if (!file || fstat(fileno(file.get()), &status) != 0) {
    return false;
  }
  text.clear();
  if (status.st_size <= kMostBytes) {
    text.reserve(static_cast<std::size_t>(status.st_size));
  }
  // The size is only what the file system says: a file may grow, and those of the kernel claim to be empty.
  std::array<char, 65536> piece = {};
  off_t size = status.st_size;
  while (size <= kMostBytes) {
    const std::size_t length = std::fread(piece.data(), 1, piece.size(), file.get());
    if (length == 0) {
      return std::ferror(file.get()) == 0;
    }
    text.append(piece.data(), length);
    size = static_cast<off_t>(text.size());
  }
  errno = EFBIG;
  return false;
}
