#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

// What every fuzzer exports.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

// The path of a file, one for the whole process and removed when it exits, that now holds these bytes.
std::string scratchFile(const std::uint8_t* data, std::size_t size);

// Ends the process with a message when a property does not hold, which is how a fuzzer reports.
void require(bool holds, const char* property);
