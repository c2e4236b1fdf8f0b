#pragma once

#include <functional>
#include <optional>
#include <string>

#include "platform/database.h"

// Rewrites the smart-album file "/var/services/photo/@eaDir/KAVOPHOTO_SMART_ALBUM_CONFIG": every rule that names shares
// or labels by the source's numbers gets those of the same names in the destination. A rule that cannot be translated
// is dropped, then a rule set or an album without rules. To be called when all tables are merged.
//
// `origin` identifies the source (smart/earlier_albums.h). When the file still holds what a run of the same origin
// wrote, the text from before that run is translated once more, so that running twice is running once; an empty origin
// translates what is in the file.
//
// 0 when the file was rewritten. -1, with one line logged and the file left byte for byte as it was, when it cannot be
// opened, parsed or written, or when a connection can no longer run statements; -1 without a message when there is no
// file to read. The file keeps its owner, group and mode.
int KavophotoRemapSmartAlbums(DBConnect_tag* destination, DBConnect_tag* source, const char* suffix,
                              const std::string& origin = "");

// Translates an identifier list of the kind `field`; without a value when that cannot be done.
using ListTranslator = std::function<std::optional<std::string>(const std::string& ids, const std::string& field)>;

// The rewritten text of a smart-album file; without a value when `text` does not parse. What in it has another form
// than a smart album's is dropped and logged with `path`.
std::optional<std::string> remappedSmartAlbums(const std::string& text, const char* path,
                                               const ListTranslator& translate);
