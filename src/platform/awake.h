#pragma once

// Asks the kernel to let idle processors wait awake instead of going to sleep, until this process ends in whatever way:
// each statement wakes the server and each reply wakes this process, and getting a sleeping processor back can take
// longer than the statement itself. Only the administrator may ask that; where it cannot be asked, nothing is logged
// and the run is slower. May be called more than once.
void keepProcessorsAwake();
