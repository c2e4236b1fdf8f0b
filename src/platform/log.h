#pragma once

#include <cerrno>
#include <string>
#include <type_traits>
#include <vector>

#include "platform/text.h"

// Sends one diagnostic to syslog at priority LOG_ERR, prefixed with the tool's name and the line that reports it.
// `format` is a string literal, so the compiler checks the arguments against it and data can never act as a format.
// Text arguments appear as escapedForLog gives them, so that none begins a line of its own and none makes the message
// too long to be sent. errno is kept.
#define KAVO_LOG(format, ...) KAVO_LOG_AT(__LINE__, format __VA_OPT__(, ) __VA_ARGS__)

// The same for a shared helper that reports on behalf of its caller's line.
#define KAVO_LOG_AT(line, format, ...)                       \
  (false ? checkLogFormat(format __VA_OPT__(, ) __VA_ARGS__) \
         : logEscaped(static_cast<int>(line), "%s:%d " format __VA_OPT__(, ) __VA_ARGS__))

// Longest form of one text in a message, in bytes, without the mark of a cut.
inline constexpr std::size_t kLoggedTextCapacity = 65536;

// `text` with its control characters as \n, \t, \r or, byte by byte, as \x1b. Everything else stays, backslashes too.
// A form longer than kLoggedTextCapacity is cut in its middle, between two characters, and there it says how many bytes
// of `text` were left out. Null is "(null)".
std::string escapedForLog(const char* text);

template <typename Number, typename = std::enable_if_t<std::is_arithmetic_v<Number>>>
Number escapedForLog(Number number) {
  return number;
}

// From now on messages are added to `messages` instead of being sent, so that they can be sent later, by sendToLog, or
// not at all; null sends them again. The list that was used before.
std::vector<std::string>* collectMessages(std::vector<std::string>* messages);

// What the macros above consist of.

// Never called and therefore not defined: the compiler compares the arguments with the format here, before they are
// escaped.
void checkLogFormat(const char* format, ...) __attribute__((format(printf, 1, 2)));

void sendToLog(const std::string& message);

inline const char* asLogArgument(const std::string& text) { return text.c_str(); }

template <typename Number, typename = std::enable_if_t<std::is_arithmetic_v<Number>>>
Number asLogArgument(Number number) {
  return number;
}

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
template <typename... Arguments>
void logEscaped(int line, const char* format, Arguments... arguments) {
  static_assert((std::is_pointer_v<Arguments> + ... + 0) <= 3, "A message of more texts may be too long to be sent.");
  const int error = errno;
  sendToLog(formatText(format, "kavophoto_backup", line, asLogArgument(escapedForLog(arguments))...));
  errno = error;
}
#pragma GCC diagnostic pop
