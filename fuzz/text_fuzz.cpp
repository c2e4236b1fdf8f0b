#include "platform/statement.h"
#include "platform/text.h"
#include "scratch_file.h"

namespace {

// The number of bytes of the well-formed character at the beginning of `text`; 0 when there is none.
std::size_t characterAt(std::string_view text) {
  const auto lead = static_cast<unsigned char>(text.front());
  const std::size_t length = lead < 0x80   ? 1
                             : lead < 0xC2 ? 0
                             : lead < 0xE0 ? 2
                             : lead < 0xF0 ? 3
                             : lead < 0xF5 ? 4
                                           : 0;
  if (length == 0 || length > text.size()) {
    return 0;
  }
  for (std::size_t at = 1; at < length; ++at) {
    if ((static_cast<unsigned char>(text[at]) & 0xC0U) != 0x80U) {
      return 0;
    }
  }
  return length;
}

bool isUtf8(std::string_view text) {
  while (!text.empty()) {
    const std::size_t length = characterAt(text);
    if (length == 0) {
      return false;
    }
    text.remove_prefix(length);
  }
  return true;
}

std::string unescaped(std::string_view text) {
  std::string plain;
  for (std::size_t at = 0; at < text.size(); ++at) {
    plain += text[at];
    at += text.substr(at, 2) == "''" ? 1U : 0U;
  }
  return plain;
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) {
    return 0;
  }
  const std::size_t capacity = data[0];
  const std::string text(data + 1, data + size);
  const std::string cut = cutText(text, capacity);
  require(cut.empty() || cut.size() < capacity, "a cut text fits its buffer with the terminator");
  require(text.compare(0, cut.size(), cut) == 0, "a cut text is the beginning of the text");
  require(text.size() >= capacity || cut == text, "a text that fits is not cut");
  require(!isUtf8(text) || isUtf8(cut), "what was UTF-8 stays UTF-8");
  require(cut == text || capacity == 0 || cut.size() + 4 >= capacity, "no more than one character is given up");

  const std::string cString = text.c_str();
  const std::string quoted = statementText(sql("'%s'", Text{cString}));
  require(unescaped(std::string_view(quoted).substr(1, quoted.size() - 2)) == cString,
          "an escaped text reads as it was");
  const std::string printed = asPrinted(text);
  require(printed.size() <= text.size() && printed.size() * 2 >= text.size(), "only doubled percent signs vanish");
  return 0;
}
