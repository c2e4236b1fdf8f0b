#pragma once

#include <string>
#include <vector>

#include "figures.h"

namespace bench {

// An SVG drawing: the time a row at both sizes of each step, where equal bars mean linear growth, and the tool's times
// against what they are compared with.
std::string chartSvg(const Plan& plan, const std::vector<Figure>& figures);

}  // namespace bench
