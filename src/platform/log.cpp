#include "platform/log.h"

#include <syslog.h>

#include <string_view>
#include <utility>

namespace {

std::vector<std::string>* gCollected = nullptr;

bool isContinuation(char byte) { return (static_cast<unsigned char>(byte) & 0xC0U) == 0x80U; }

// The first UTF-8 character of `text`, or its first byte where that begins none.
std::string_view firstCharacter(std::string_view text) {
  const auto lead = static_cast<unsigned char>(text.front());
  const std::size_t length = lead < 0xC2 || lead > 0xF4 ? 1 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
  for (std::size_t at = 1; at < length; ++at) {
    if (at == text.size() || !isContinuation(text[at])) {
      return text.substr(0, 1);
    }
  }
  return text.substr(0, length);
}

// Terminals obey the controls U+0080 to U+009F like those of ASCII.
bool isControl(std::string_view character) {
  const auto lead = static_cast<unsigned char>(character.front());
  return lead < 0x20 || lead == 0x7F ||
         (lead == 0xC2 && character.size() == 2 && static_cast<unsigned char>(character[1]) < 0xA0);
}

std::string escaped(std::string_view character) {
  if (!isControl(character)) {
    return std::string(character);
  }
  switch (character.front()) {
    case '\n':
      return "\\n";
    case '\t':
      return "\\t";
    case '\r':
      return "\\r";
    default:
      break;
  }
  std::string bytes;
  for (const char byte : character) {
    bytes += formatText("\\x%02x", static_cast<unsigned>(static_cast<unsigned char>(byte)));
  }
  return bytes;
}

std::size_t escapedLength(std::string_view text) {
  std::size_t length = 0;
  while (!text.empty()) {
    const std::string_view character = firstCharacter(text);
    length += isControl(character) ? escaped(character).size() : character.size();
    text.remove_prefix(character.size());
  }
  return length;
}

}  // namespace

std::string escapedForLog(const char* text) {
  std::string_view rest = text != nullptr ? text : "(null)";
  const std::size_t length = escapedLength(rest);
  const bool isWhole = length <= kLoggedTextCapacity;
  std::string beginning;
  std::string end;
  std::size_t leftOut = 0;
  for (std::size_t at = 0; !rest.empty();) {
    const std::string_view character = firstCharacter(rest);
    const std::size_t next = at + escapedLength(character);
    if (isWhole || next <= kLoggedTextCapacity / 2) {
      beginning += escaped(character);
    } else if (at >= length - kLoggedTextCapacity / 2) {
      end += escaped(character);
    } else {
      leftOut += character.size();
    }
    at = next;
    rest.remove_prefix(character.size());
  }
  return isWhole ? beginning : beginning + formatText("[... %zu bytes left out ...]", leftOut) + end;
}

std::vector<std::string>* collectMessages(std::vector<std::string>* messages) {
  return std::exchange(gCollected, messages);
}

void sendToLog(const std::string& message) {
  if (gCollected != nullptr) {
    gCollected->push_back(message);
    return;
  }
  syslog(LOG_ERR, "%s", message.c_str());
}
