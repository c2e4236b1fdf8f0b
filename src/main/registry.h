#pragma once

#include <array>

#include "merge/merge.h"

// Every table that is backed up, staged, restored and imported, in the order in which they are merged: later tables
// depend on earlier ones.
extern const std::array<const char*, 33> kTableList;

// Which table is merged by which routine; ended by a row with an empty name.
extern const std::array<MergeEntry, 14> kMergeRoutines;
