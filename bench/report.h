#pragma once

#include <string>
#include <vector>

#include "figures.h"

namespace bench {

// All figures and goals as one table, in plain text or as Markdown.
std::string tableText(const Plan& plan, const std::vector<Figure>& figures);
std::string tableMarkdown(const Plan& plan, const std::vector<Figure>& figures);

// One line per figure, with a heading; seconds with a decimal point, sizes in KiB.
std::string figuresCsv(const std::vector<Figure>& figures);
std::string goalsCsv(const std::vector<Goal>& goals);

// A number as people write it: 1,000,000.
std::string withCommas(long long number);

}  // namespace bench
