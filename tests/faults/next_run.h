#pragma once

#include <string>

#include "faults/crash_matrix.h"

// The tool killed in one mode and run to its end in any mode, on rows and files that serve all of them.
namespace crash {

// Where a run makes its archive or its account files, apart from what the others read: the run that is killed or held,
// and the one that follows.
inline constexpr const char* kFirstDirectory = "/tmp/first/";
inline constexpr const char* kNextDirectory = "/tmp/next/";

std::vector<std::string> commandLine(Mode mode, const std::string& directory);
// Runs whose programs are not counted make their files in kFirstDirectory, on layOutForEveryMode().
const Reference& sharedReferenceOf(Mode mode);

// Kills a run of one mode at the point and runs another to its end. Then a last backup, because nothing but a backup
// and a restore drops the staged copies of a killed restore. What is expected of the rows:
// - None is lost that was there before and is there after an undisturbed run of either mode, nor one whose natural key
//   is. Where the killed run replaces labels and categories, links may hold their earlier numbers.
// - None is there more often than before, after either of the two or after the one and then the other.
// - Where neither run writes to rows that were there, each of them is as it was.
Trial killAndRunNext(Mode killed, Mode next, const KillPoint& point);

}  // namespace crash
