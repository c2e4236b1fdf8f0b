#include "smart/earlier_albums.h"

#include <json/json.h>
#include <unistd.h>

#include <memory>

#include "platform/file_update.h"

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
  // The file may still hold what the killed run wrote when this one is killed too.
  kept["after"].append(after);
  writeNewFile(kFile, Json::writeString(Json::StreamWriterBuilder(), kept));
}

void dropTextBefore() {
  const Json::Value kept = readKept();
  if (!kept.isNull() && kept["run"].asInt() == static_cast<int>(getpid())) {
    unlink(kFile);
  }
}
