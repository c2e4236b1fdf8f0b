#pragma once

#include <string>
#include <vector>

#include "support/appliance.h"

// The folder that the package is unpacked into.
inline constexpr const char* kInstalled = "/tmp/installed";

// Unpacks the files of the package into kInstalled.
void unpackPackage();

// Runs a shell script, with the programs of kInstalled first in its path. `variables` are "NAME=value".
appliance::Outcome runShell(const std::string& script, const std::vector<std::string>& variables = {},
                            const std::string& shell = "/bin/sh");

// The same, and throws with its standard error when it fails. Returns its standard output.
std::string outputOf(const std::string& script);

std::vector<std::string> linesOf(const std::string& text);
