#pragma once

#include <string>
#include <vector>

namespace bench {

// What one run of a program took.
struct Run {
  double seconds = 0;
  // Largest resident size of the program itself; its children do not count.
  long peakKilobytes = 0;
};

// Runs `program` (a path inside the appliance; empty: the tool), beginning with an idle server. Throws
// std::runtime_error when it does not end with status 0 or when anything was logged meanwhile: a figure of a run that
// failed is none.
Run runOnce(const std::string& program, const std::vector<std::string>& arguments);

// The run of the median time.
Run median(std::vector<Run> runs);

}  // namespace bench
