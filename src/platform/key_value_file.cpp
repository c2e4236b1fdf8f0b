#include "platform/key_value_file.h"

#include <unistd.h>

#include <algorithm>
#include <string_view>

#include "platform/file_update.h"
#include "platform/files.h"
#include "platform/text.h"

namespace {

std::string_view trimmed(std::string_view text) {
  constexpr std::string_view kBlanks = " \t\r\n\v\f";
  const std::size_t first = text.find_first_not_of(kBlanks);
  return first == std::string_view::npos ? std::string_view()
                                         : text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

std::string_view unquoted(std::string_view text) {
  const bool quoted = text.size() >= 2 && text.front() == '"' && text.back() == '"';
  return quoted ? text.substr(1, text.size() - 2) : text;
}

// Calls use(key, value) for every pair of the file. False with errno set when the file cannot be read; nothing was
// called then.
template <typename Use>
bool forEachPair(const char* path, Use use) {
  std::string text;
  if (!readWholeFile(path, text)) {
    return false;
  }
  std::string_view rest = text;
  while (!rest.empty()) {
    const std::string_view line = rest.substr(0, rest.find('\n'));
    rest.remove_prefix(std::min(rest.size(), line.size() + 1));
    const std::string_view pair = trimmed(line);
    const std::size_t equals = pair.find('=');
    // A blank before the "#" makes no difference: written back, such a key would stand at the line's beginning.
    if (equals != std::string_view::npos && pair.front() != '#') {
      use(trimmed(pair.substr(0, equals)), unquoted(trimmed(pair.substr(equals + 1))));
    }
  }
  return true;
}

}  // namespace

int KLIBCFileGetKeyValue(const char* path, const char* key, std::string& value, std::size_t capacity) {
  bool found = false;
  const bool read = forEachPair(path, [&](std::string_view foundKey, std::string_view foundValue) {
    if (foundKey == key) {
      value = cutText(foundValue, capacity);
      found = true;
    }
  });
  return read && found ? 0 : -1;
}

int KLIBCFileGetPair(const char* path, SzHash& hash) {
  int count = 0;
  const bool read = forEachPair(path, [&](std::string_view key, std::string_view value) {
    KLIBCSzHashSetValue(hash, key, value);
    ++count;
  });
  return read ? count : -1;
}

int KLIBCFileSetPair(const char* path, const SzHash& hash) {
  File file = openToWrite(path);
  if (!file) {
    return -1;
  }
  for (const auto& [key, value] : hash.pairs) {
    // Written by length, not by format, so that a binary zero inside a value stays.
    const std::string line = std::string(key).append("=\"").append(value).append("\"\n");
    std::fwrite(line.data(), 1, line.size(), file.get());
  }
  const bool flushed = std::fflush(file.get()) == 0 && std::ferror(file.get()) == 0 && fsync(fileno(file.get())) == 0;
  const bool closed = std::fclose(file.release()) == 0;
  return flushed && closed ? 0 : -1;
}
