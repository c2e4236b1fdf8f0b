#include "platform/string_hash.h"

SzHashHandle KLIBCSzHashAlloc(std::size_t size) {
  auto hash = std::make_unique<SzHash>();
  hash->pairs.reserve(size);
  hash->places.reserve(size);
  return hash;
}

const std::string* KLIBCSzHashGetValue(const SzHash& hash, std::string_view key) {
  const auto place = hash.places.find(std::string(key));
  return place == hash.places.end() ? nullptr : &hash.pairs[place->second].second;
}

void KLIBCSzHashSetValue(SzHash& hash, std::string_view key, std::string_view value) {
  const auto [place, isNew] = hash.places.try_emplace(std::string(key), hash.pairs.size());
  if (isNew) {
    hash.pairs.emplace_back(key, value);
  } else {
    hash.pairs[place->second].second = value;
  }
}

SzListHandle KLIBCSzListAlloc(std::size_t size) {
  auto list = std::make_unique<std::vector<std::string>>();
  list->reserve(size);
  return list;
}

void KLIBCSzHashEnumKey(const SzHash& hash, std::vector<std::string>& list) {
  for (const auto& [key, value] : hash.pairs) {
    list.push_back(key);
  }
}
