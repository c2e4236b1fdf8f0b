#pragma once

#include <vector>

#include "figures.h"

namespace bench {

// Measures everything, inside an appliance that was entered, and reports each figure on standard error as it comes.
// Throws std::runtime_error when a run fails or leaves other rows than it should.
std::vector<Figure> measureAll(const Plan& plan);

}  // namespace bench
