#pragma once

#include <string>
#include <vector>

#include "faults/crash_matrix.h"

// A run that is held at one of its steps, and others that are started meanwhile.
namespace crash {

// Every `programStep`th program and every `step`th statement from the `first` on. Until its first statement is done a
// run does not hold the lock, and another one may overtake it.
std::vector<KillPoint> holdPoints(const Reference& reference, long first, long programStep, long step);

// Holds a run of one mode just before the program, or before or after the statement, starts a run of another mode
// twice, and lets the held one go on. Both must be turned away and change nothing: the first by the pid file, which it
// removes, the second by the lock. The held run must end as an undisturbed one. What is not so, in words.
std::vector<std::string> startBesideHeldRun(Mode held, Mode started, const KillPoint& point);

}  // namespace crash
