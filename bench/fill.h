#pragma once

#include <string>

// Test libraries of any size, made by the server itself. Every function throws std::runtime_error on a failure.
namespace bench {

// How many rows of each kind belong to a library of `photos` photos.
struct Library {
  explicit Library(long photoCount);

  long photos;
  long shares;
  long users;
  long groups = 10;
  long logEntries;
  long videos;
  long collections;
  long members;
};

// The labels that photos refer to; every database that photos are merged into without them needs these.
void fillLabels(const std::string& database);
// Photos with one comment and two label links each; the labels must be there.
void fillPhotos(const std::string& database, const Library& library);
// Everything else: log entries, shares, users with rights, groups, videos, categories, settings, collections.
void fillRest(const std::string& database, const Library& library);

// `count` log entries that begin at entry number `first`; the same number is the same entry in every database.
void fillLog(const std::string& database, long first, long count);
// Photos that were stored on another machine: their paths lie under no folder of this one.
void fillForeignPhotos(const std::string& database, long count);

// The files and folders that the paths of the library stand for.
void makeFiles(const Library& library);

}  // namespace bench
