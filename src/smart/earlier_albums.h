#pragma once

#include <string>

// A restore or import translates the numbers in the smart-album file from its source's into the live ones. When the
// same command is run again, because it was killed or with "-o", it would take the live numbers in the file for its
// source's. So the text that a run found is recorded, together with what was made of it, in
// "/var/packages/Lumora/etc/smart_albums.before".

// What identifies the source of a restore: the directory, and the archive "kavophoto.backup" in it by its bytes. Empty
// when the archive cannot be read. To be called before the archive is unpacked, which may replace it.
std::string restoreOrigin(const std::string& dir);

// What identifies the source of an import: the directory and the second database. Empty when there is no such
// directory.
std::string importOrigin(const std::string& dir, const std::string& database);

// The text to translate when the file holds `present`: what a run of the same origin found when `present` is what that
// run wrote, otherwise `present`. A record that cannot be read or understood counts as none.
std::string textBefore(const std::string& origin, const std::string& present);

// Records that a run of this origin is about to replace `present` in the file by `after`, made of `before`. The record
// is on the disk when this returns; a failure is logged, and then a second run translates twice. An empty origin
// records nothing.
void keepTextBefore(const std::string& origin, const std::string& present, const std::string& before,
                    const std::string& after);
