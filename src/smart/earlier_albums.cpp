#include "smart/earlier_albums.h"

#include <json/json.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>
#include <vector>

#include "platform/file_digest.h"
#include "platform/file_update.h"
#include "platform/handles.h"
#include "platform/log.h"
#include "platform/text.h"

namespace {

constexpr const char* kFile = "/var/packages/Lumora/etc/smart_albums.before";

struct Record {
  std::string origin;
  std::string before;
  // The texts that runs of this origin made of `before` and that the file may hold.
  std::vector<std::string> after;
};

bool wrote(const Record& record, const std::string& text) {
  return std::find(record.after.begin(), record.after.end(), text) != record.after.end();
}

Json::Value parsed(const std::string& text) {
  const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
  Json::Value document;
  try {
    const bool isWhole = reader->parse(text.data(), text.data() + text.size(), &document, nullptr);
    return isWhole && document.isArray() ? document : Json::Value();
  } catch (const std::exception&) {
    // Thrown for a document that is nested deeper than the library follows.
    return {};
  }
}

bool isRecord(const Json::Value& value) {
  return value.isObject() && value["origin"].isString() && value["before"].isString() && value["after"].isArray() &&
         std::all_of(value["after"].begin(), value["after"].end(),
                     [](const Json::Value& after) { return after.isString(); });
}

std::vector<Record> readRecords() {
  std::vector<Record> records;
  std::string text;
  if (!readWholeFile(kFile, text)) {
    return records;
  }
  for (const Json::Value& value : parsed(text)) {
    if (!isRecord(value)) {
      continue;
    }
    Record record = {value["origin"].asString(), value["before"].asString(), {}};
    for (const Json::Value& after : value["after"]) {
      record.after.push_back(after.asString());
    }
    records.push_back(record);
  }
  return records;
}

bool writeRecords(const std::vector<Record>& records) {
  Json::Value document(Json::arrayValue);
  for (const Record& record : records) {
    Json::Value value(Json::objectValue);
    value["origin"] = record.origin;
    value["before"] = record.before;
    value["after"] = Json::Value(Json::arrayValue);
    for (const std::string& after : record.after) {
      value["after"].append(after);
    }
    document.append(value);
  }
  return writeNewFile(kFile, Json::writeString(Json::StreamWriterBuilder(), document));
}

// The record of this origin and text, taken out of `records`, or a new one. A record of the same origin and another
// text is of a file that was replaced since.
Record takeRecord(std::vector<Record>& records, const std::string& origin, const std::string& before) {
  Record own = {origin, before, {}};
  for (const Record& record : records) {
    if (record.origin == origin && record.before == before) {
      own = record;
    }
  }
  std::erase_if(records, [&origin](const Record& record) { return record.origin == origin; });
  return own;
}

// A text without blanks and in ASCII, another one for each text: names may be of any bytes, JSON holds UTF-8.
std::string asWord(const std::string& text) {
  std::string word;
  for (const char character : text) {
    const auto byte = static_cast<unsigned char>(character);
    const bool isPlain = byte > 0x20 && byte < 0x7F && byte != '%';
    word += isPlain ? std::string(1, character) : formatText("%%%02x", static_cast<unsigned int>(byte));
  }
  return word;
}

// Two names of one directory are one origin.
std::string originOf(const char* mode, const std::string& dir, const std::string& source) {
  const AllocatedText resolved(realpath(dir.c_str(), nullptr));
  return resolved && !source.empty() ? formatText("%s %s %s", mode, asWord(resolved.get()).c_str(), source.c_str())
                                     : std::string();
}

}  // namespace

std::string restoreOrigin(const std::string& dir) {
  return originOf("restore", dir, fileDigest(joinPath(dir, "kavophoto.backup")));
}

std::string importOrigin(const std::string& dir, const std::string& database) {
  return originOf("import", dir, asWord(database));
}

std::string textBefore(const std::string& origin, const std::string& present) {
  if (origin.empty()) {
    return present;
  }
  for (const Record& record : readRecords()) {
    if (record.origin == origin && wrote(record, present)) {
      return record.before;
    }
  }
  return present;
}

void keepTextBefore(const std::string& origin, const std::string& present, const std::string& before,
                    const std::string& after) {
  if (origin.empty()) {
    return;
  }
  std::vector<Record> records = readRecords();
  Record own = takeRecord(records, origin, before);
  if (!wrote(own, after)) {
    own.after.push_back(after);
  }
  records.push_back(own);
  // The file holds one of these two from now on, also when this run is killed before it writes; other texts are gone.
  for (Record& record : records) {
    std::erase_if(record.after, [&](const std::string& text) { return text != present && text != after; });
  }
  std::erase_if(records, [](const Record& record) { return record.after.empty(); });
  if (!writeRecords(records)) {
    KAVO_LOG("Failed to write file [%s] (%s), the smart albums are translated twice when this is run again", kFile,
             std::strerror(errno));
  }
}
