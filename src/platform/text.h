#pragma once

#include <cstddef>
#include <string>
#include <string_view>

// Capacity, in bytes and including a terminator, of every file path that the tool joins.
inline constexpr std::size_t kPathCapacity = 1024;

// A text of any length from a literal printf template; nothing is ever cut.
std::string formatText(const char* format, ...) __attribute__((format(printf, 1, 2)));

// The longest beginning of `text` that fits a buffer of `capacity` bytes with its terminator (so at most capacity - 1
// bytes), and that does not end inside a UTF-8 character. Bytes that are no UTF-8 are cut like single-byte characters.
std::string cutText(std::string_view text, std::size_t capacity);

// `directory` immediately followed by `name`. No separator is put between them: the tool's directory argument is a
// plain prefix. The empty text when the path does not fit kPathCapacity: a path that was cut would name another file,
// or the directory itself, and no file has the empty name.
std::string joinPath(std::string_view directory, std::string_view name);

// What printf would print for `text` as its format if the only conversion it knew were "%%": "%%" becomes "%", every
// other character stays as it stands.
std::string asPrinted(std::string_view text);
