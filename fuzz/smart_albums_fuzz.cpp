#include <json/json.h>

#include "scratch_file.h"
#include "smart/smart_albums.h"
#include "smart/translate.h"

namespace {

// Another list for every list, and none for what is no list.
std::optional<std::string> translate(const std::string& ids, const std::string& /*field*/) {
  return isIdList(ids) ? std::optional<std::string>("7") : std::nullopt;
}

Json::Value parsed(const std::string& text) {
  const Json::CharReaderBuilder builder;
  Json::Value document;
  std::string errors;
  const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  require(reader->parse(text.data(), text.data() + text.size(), &document, &errors), "the output parses");
  return document;
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(data, data + size);
  const std::optional<std::string> output = remappedSmartAlbums(text, "file", translate);
  if (!output) {
    return 0;
  }
  const Json::Value document = parsed(*output);
  require(document.isObject() && document.size() == 1 && document["smart_albums"].isObject(),
          "the output holds the albums and nothing else");
  for (const Json::Value& album : document["smart_albums"]) {
    require(album["rule_sets"].isArray() && !album["rule_sets"].empty(), "an album without rules is dropped");
    for (const Json::Value& ruleSet : album["rule_sets"]) {
      require(ruleSet.isArray() && !ruleSet.empty(), "a rule set without rules is dropped");
    }
  }
  const std::optional<std::string> again = remappedSmartAlbums(*output, "file", translate);
  require(again && parsed(*again) == document, "what was translated stays as it is");
  return 0;
}
