#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

// A string map that remembers the order in which its keys came, so that a rewritten file keeps the order of the one it
// was read from.
struct SzHash {
  std::vector<std::pair<std::string, std::string>> pairs;
  std::unordered_map<std::string, std::size_t> places;
};

using SzHashHandle = std::unique_ptr<SzHash>;
using SzListHandle = std::unique_ptr<std::vector<std::string>>;

// An empty map with room for `size` keys; it grows beyond.
SzHashHandle KLIBCSzHashAlloc(std::size_t size);

// The key's value, valid until the map changes; null when the map does not hold the key.
const std::string* KLIBCSzHashGetValue(const SzHash& hash, std::string_view key);

// Adds the key at the end, or replaces its value where it stands.
void KLIBCSzHashSetValue(SzHash& hash, std::string_view key, std::string_view value);

// An empty list with room for `size` texts; it grows beyond.
SzListHandle KLIBCSzListAlloc(std::size_t size);

// Appends all keys to `list`, in the map's order.
void KLIBCSzHashEnumKey(const SzHash& hash, std::vector<std::string>& list);
