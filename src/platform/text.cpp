#include "platform/text.h"

#include <cstdarg>
#include <cstdio>

std::string formatText(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  va_list again;
  va_copy(again, arguments);
  // Most statements fit here, and then one pass does.
  char first[2048];
  // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): va_start has initialised it.
  const int length = vsnprintf(first, sizeof first, format, arguments);
  va_end(arguments);
  std::string text;
  if (length >= 0 && static_cast<std::size_t>(length) < sizeof first) {
    text.assign(first, static_cast<std::size_t>(length));
  } else if (length >= 0) {
    text.resize(static_cast<std::size_t>(length));
    vsnprintf(text.data(), text.size() + 1, format, again);
  }
  va_end(again);
  return text;
}

namespace {

bool isContinuation(char byte) { return (static_cast<unsigned char>(byte) & 0xC0U) == 0x80U; }

// Bytes of the character that `lead` begins; 1 for what begins none.
std::size_t characterLength(char lead) {
  const auto byte = static_cast<unsigned char>(lead);
  if (byte >= 0xF0U && byte <= 0xF4U) {
    return 4;
  }
  if (byte >= 0xE0U && byte < 0xF0U) {
    return 3;
  }
  return byte >= 0xC2U && byte < 0xE0U ? 2 : 1;
}

}  // namespace

std::string cutText(std::string_view text, std::size_t capacity) {
  if (text.size() < capacity) {
    return std::string(text);
  }
  const std::size_t room = capacity == 0 ? 0 : capacity - 1;
  std::size_t lead = room;
  for (int back = 0; back < 3 && lead > 0 && isContinuation(text[lead]); ++back) {
    --lead;
  }
  // Only a character that really reaches over the cut is given up whole; stray continuation bytes belong to none.
  const bool splitsCharacter = lead < room && lead + characterLength(text[lead]) > room;
  return std::string(text.substr(0, splitsCharacter ? lead : room));
}

std::string joinPath(std::string_view directory, std::string_view name) {
  std::string path = std::string(directory).append(name);
  return path.size() < kPathCapacity ? path : std::string();
}

std::string asPrinted(std::string_view text) {
  std::string printed;
  printed.reserve(text.size());
  for (std::size_t at = 0; at < text.size(); ++at) {
    printed += text[at];
    if (text.substr(at, 2) == "%%") {
      ++at;
    }
  }
  return printed;
}
