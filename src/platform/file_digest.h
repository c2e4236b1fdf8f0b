#pragma once

#include <string>

// The SHA-256 digest of the bytes of the ordinary file at `path`, as 64 hexadecimal digits; empty when it is none or
// cannot be read. Nothing is logged.
std::string fileDigest(const std::string& path);
