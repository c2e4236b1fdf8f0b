#pragma once

#include <cstddef>
#include <string>

#include "platform/string_hash.h"

// Key/value files: one key="value" a line. Blanks around keys and around values are trimmed, one pair of double quotes
// around a value is stripped; lines without "=" and lines that begin with "#" are ignored; the first "=" ends the key.
// Of a key that stands twice, the last line counts, at the place of the first. A file that is no ordinary one, or
// larger than 64 MiB, cannot be read.

// Reads the value of `key` into `value`, cut to `capacity` bytes. 0 on success; -1 when the file cannot be read or has
// no such key. Nothing is logged.
int KLIBCFileGetKeyValue(const char* path, const char* key, std::string& value, std::size_t capacity);

// Reads all pairs into `hash`, over what it holds. The number of pairs read, or -1 with errno set when the file cannot
// be read.
int KLIBCFileGetPair(const char* path, SzHash& hash);

// Writes all pairs, in the map's order, as key="value" lines, replacing the file's contents, and flushes them to the
// disk. A symbolic link in the place of the file is not followed. 0 on success; -1 with errno set otherwise, when the
// file may hold a part of them.
int KLIBCFileSetPair(const char* path, const SzHash& hash);
