#pragma once

#include <string>

// A run translates the numbers in the smart-album file before its last steps.
// When it is killed in these, the same command is run again, and must not take
// the translated numbers for the source's. So the text that a run found in the
// file is kept beside the application's settings until the run has come to its
// end.

// The text to translate: `text`, unless it is what a killed run wrote, and then
// the text that that run had found.
std::string textBeforeKilledRun(const std::string& text);

// Keeps `before`, the text that is translated, for as long as the file holds
// `after` or what killed runs made of it. It is on the disk when this returns.
// Where it cannot be kept the run goes on without.
void keepTextBefore(const std::string& before, const std::string& after);

// Drops what this run keeps. What a killed run left stays for whoever runs that
// one again.
void dropTextBefore();
