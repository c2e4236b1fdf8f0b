#include "smart/smart_albums.h"

#include <json/json.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <exception>
#include <vector>

#include "platform/file_update.h"
#include "platform/log.h"
#include "smart/earlier_albums.h"
#include "smart/translate.h"

namespace {

constexpr const char* kConfigFile = "/var/services/photo/@eaDir/KAVOPHOTO_SMART_ALBUM_CONFIG";

void logUnparsable(const char* path) { KAVO_LOG("Failed to parse smart album file [%s]", path); }

// JSON is UTF-8; what is not would come out of the writer as other bytes than went in.
bool isUtf8(const std::string& text) {
  std::size_t at = 0;
  while (at < text.size()) {
    const auto lead = static_cast<unsigned char>(text[at]);
    const std::size_t length = lead < 0x80   ? 1
                               : lead < 0xC2 ? 0
                               : lead < 0xE0 ? 2
                               : lead < 0xF0 ? 3
                               : lead < 0xF5 ? 4
                                             : 0;
    if (length == 0 || length > text.size() - at) {
      return false;
    }
    unsigned int point = length == 1 ? lead : lead & (0xFFU >> (length + 1));
    for (std::size_t more = 1; more < length; ++more) {
      const auto byte = static_cast<unsigned char>(text[at + more]);
      if ((byte & 0xC0U) != 0x80U) {
        return false;
      }
      point = point << 6U | (byte & 0x3FU);
    }
    constexpr unsigned int kLeast[] = {0, 0, 0x80, 0x800, 0x10000};
    if (point < kLeast[length] || point > 0x10FFFF || (point >= 0xD800 && point <= 0xDFFF)) {
      return false;
    }
    at += length;
  }
  return true;
}

// The library writes a member's name to its first binary zero only, and so under another name.
bool keepsItsNames(const Json::Value& document) {
  std::vector<const Json::Value*> left = {&document};
  while (!left.empty()) {
    const Json::Value& value = *left.back();
    left.pop_back();
    for (auto member = value.begin(); member != value.end(); ++member) {
      if (member.name().find('\0') != std::string::npos) {
        return false;
      }
      left.push_back(&*member);
    }
  }
  return true;
}

// The library's own reader and writer of the file's layout. Their successors write another one.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
bool parse(const std::string& text, Json::Value& document) {
  Json::Reader reader;
  try {
    return reader.parse(text, document, true) && document.isObject();
  } catch (const std::exception&) {
    // Thrown for a document that is nested deeper than the library follows.
    return false;
  }
}

std::string styled(const Json::Value& document) { return Json::StyledWriter().write(document); }
#pragma GCC diagnostic pop

bool namesIdentifiers(const std::string& field) {
  return field == "people" || field == "geo" || field == "desc" || field == "albums";
}

bool isText(const Json::Value& value) { return value.isConvertibleTo(Json::stringValue); }

bool isArrayOrMissing(const Json::Value& value) { return value.isArray() || value.isNull(); }

// What the parts of the walk share.
struct Remap {
  const char* path;
  const ListTranslator& translate;
};

// The rule with its identifiers translated; without a value when it is to be dropped.
std::optional<Json::Value> remappedRule(const Json::Value& rule, const Remap& remap) {
  const bool isRule = rule.isObject() || rule.isNull();
  const Json::Value field = isRule ? rule.get("field", "") : Json::Value();
  if (!isRule || !isText(field)) {
    logUnparsable(remap.path);
    return std::nullopt;
  }
  if (!namesIdentifiers(field.asString())) {
    return rule;
  }
  const Json::Value value = rule.get("value", "");
  if (!isText(value)) {
    logUnparsable(remap.path);
    return std::nullopt;
  }
  const std::optional<std::string> ids = remap.translate(value.asString(), field.asString());
  if (!ids) {
    return std::nullopt;
  }
  Json::Value copy = rule;
  copy["value"] = *ids;
  return copy;
}

Json::Value remappedRuleSet(const Json::Value& ruleSet, const Remap& remap) {
  Json::Value rules(Json::arrayValue);
  if (!isArrayOrMissing(ruleSet)) {
    logUnparsable(remap.path);
    return rules;
  }
  for (const Json::Value& rule : ruleSet) {
    if (const std::optional<Json::Value> remapped = remappedRule(rule, remap)) {
      rules.append(*remapped);
    }
  }
  return rules;
}

Json::Value remappedRuleSets(const Json::Value& album, const Remap& remap) {
  Json::Value ruleSets(Json::arrayValue);
  const bool isAlbum = album.isObject() || album.isNull();
  const Json::Value found = isAlbum ? album.get("rule_sets", Json::Value()) : Json::Value();
  if (!isAlbum || !isArrayOrMissing(found)) {
    logUnparsable(remap.path);
    return ruleSets;
  }
  for (const Json::Value& ruleSet : found) {
    const Json::Value rules = remappedRuleSet(ruleSet, remap);
    if (!rules.empty()) {
      ruleSets.append(rules);
    }
  }
  return ruleSets;
}

Json::Value remappedAlbums(const Json::Value& albums, const Remap& remap) {
  Json::Value kept(Json::objectValue);
  for (const std::string& key : albums.getMemberNames()) {
    const Json::Value ruleSets = remappedRuleSets(albums[key], remap);
    if (!ruleSets.empty()) {
      kept[key] = albums[key];
      kept[key]["rule_sets"] = ruleSets;
    }
  }
  return kept;
}

bool areUsable(DBConnect_tag* destination, DBConnect_tag* source) {
  if (KAVODBIsUsable(destination) && KAVODBIsUsable(source)) {
    return true;
  }
  // Every rule would be dropped, and the file emptied, for want of a server to ask.
  KAVO_LOG("No usable database connection, smart album file [%s] is left as it is", kConfigFile);
  return false;
}

}  // namespace

std::optional<std::string> remappedSmartAlbums(const std::string& text, const char* path,
                                               const ListTranslator& translate) {
  Json::Value document;
  if (!isUtf8(text) || !parse(text, document) || !keepsItsNames(document)) {
    logUnparsable(path);
    return std::nullopt;
  }
  const Json::Value albums = document.get("smart_albums", Json::Value(Json::objectValue));
  if (!albums.isObject() && !albums.isNull()) {
    logUnparsable(path);
    return std::nullopt;
  }
  Json::Value output(Json::objectValue);
  output["smart_albums"] = remappedAlbums(albums, {path, translate});
  return styled(output);
}

int KavophotoRemapSmartAlbums(DBConnect_tag* destination, DBConnect_tag* source, const char* suffix,
                              const std::string& origin) {
  if (access(kConfigFile, R_OK) != 0) {
    return -1;
  }
  std::string present;
  if (!readWholeFile(kConfigFile, present)) {
    KAVO_LOG("Failed to open smart album [%s] %s", kConfigFile, std::strerror(errno));
    return -1;
  }
  if (!areUsable(destination, source)) {
    return -1;
  }
  const std::string text = textBefore(origin, present);
  const ListTranslator translate = [&](const std::string& ids, const std::string& field) -> std::optional<std::string> {
    std::string translated;
    if (KavophotoTranslateIdList(destination, source, ids, translated, suffix, field) < 0) {
      return std::nullopt;
    }
    return translated;
  };
  const std::optional<std::string> output = remappedSmartAlbums(text, kConfigFile, translate);
  // A connection that was lost on the way has dropped rules too.
  if (!output || !areUsable(destination, source)) {
    return -1;
  }
  keepTextBefore(origin, present, text, *output);
  switch (updateFile(kConfigFile, *output)) {
    case FileUpdate::kWritten:
      return 0;
    case FileUpdate::kNotOpened:
      KAVO_LOG("Failed to open file [%s]", kConfigFile);
      return -1;
    case FileUpdate::kNotWritten:
      KAVO_LOG("Failed to write file [%s] (%s)", kConfigFile, std::strerror(errno));
      return -1;
  }
  return -1;
}
