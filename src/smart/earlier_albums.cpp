#include "smart/earlier_albums.h"

#include <json/json.h>
#include <unistd.h>

#include <cstdio>
#include <memory>

#include "platform/file_update.h"
#include "platform/files.h"

namespace {

constexpr const char* kFile = "/var/packages/Lumora/etc/smart_albums.before";

// Nothing when no killed run left anything, or only a part of it.
Json::Value readKept() {
  std::string text;
  Json::Value kept;
  if (!readWholeFile(kFile, text)) {
    return kept;
  }
  const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
  const bool isWhole = reader->parse(text.data(), text.data() + text.size(), &kept, nullptr) && kept.isObject() &&
                       kept["run"].isInt() && kept["before"].isString() && kept["after"].isArray();
  return isWhole ? kept : Json::Value();
}

bool wasWritten(const Json::Value& kept, const std::string& text) {
  for (const Json::Value& after : kept["after"]) {
    if (after.isString() && after.asString() == text) {
      return true;
    }
  }
  return false;
}

bool writeKept(const std::string& path, const Json::Value& kept) {
  File file = openToWrite(path);
  if (!file) {
    return false;
  }
  const std::string text = Json::writeString(Json::StreamWriterBuilder(), kept);
  const bool isWhole = std::fwrite(text.data(), 1, text.size(), file.get()) == text.size() &&
                       std::fflush(file.get()) == 0 && fsync(fileno(file.get())) == 0;
  return closeWritten(std::move(file)) && isWhole;
}

}  // namespace

std::string textBeforeKilledRun(const std::string& text) {
  const Json::Value kept = readKept();
  return !kept.isNull() && wasWritten(kept, text) ? kept["before"].asString() : text;
}

void keepTextBefore(const std::string& before, const std::string& after) {
  Json::Value kept = readKept();
  if (kept.isNull() || kept["before"].asString() != before) {
    kept = Json::Value(Json::objectValue);
  }
  kept["run"] = static_cast<int>(getpid());
  kept["before"] = before;
  // The file may still hold what the killed run wrote when this one is killed
  // too.
  kept["after"].append(after);
  const std::string beside = std::string(kFile) + ".tmp";
  if (!writeKept(beside, kept) || std::rename(beside.c_str(), kFile) != 0) {
    unlink(beside.c_str());
  }
}

void dropTextBefore() {
  const Json::Value kept = readKept();
  if (!kept.isNull() && kept["run"].asInt() == static_cast<int>(getpid())) {
    unlink(kFile);
  }
}
