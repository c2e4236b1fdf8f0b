#pragma once

#include <string>

namespace appliance {

struct SampleOptions {
  int shares = 12;
  int users = 40;
  int groups = 8;
  // Of every share.
  int photos = 120;
  int videos = 8;
  int logs = 500;
  // Added to every number that the database gives, so that two samples have different numbers for the same names.
  int firstNumber = 0;
  // The shares are called album<firstShare> and up; two samples with different ones overlap in part.
  int firstShare = 1;
  // Distinguishes the texts that a merge replaces (titles, descriptions, settings) from those of another sample.
  std::string flavour = "live";
  // Media files and share folders on disk, and the smart-album file.
  bool files = true;
};

// Fills every table of an empty database with rows that refer to each other as the application's do.
void fillSample(const std::string& database, const SampleOptions& options = {});

}  // namespace appliance
