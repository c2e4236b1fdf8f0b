#include "package/installed.h"

#include <cstdlib>
#include <sstream>
#include <stdexcept>

void unpackPackage() { outputOf(std::string("dpkg-deb -x ") + PACKAGE_FILE + " " + kInstalled); }

appliance::Outcome runShell(const std::string& script, const std::vector<std::string>& variables,
                            const std::string& shell) {
  const char* path = getenv("PATH");
  appliance::RunOptions options;
  options.program = shell;
  options.env = variables;
  options.env.push_back(std::string("PATH=/tmp/programs:") + kInstalled + "/usr/bin:" + (path != nullptr ? path : "") +
                        ":/usr/sbin:/sbin");
  return appliance::runTool({"-c", script}, options);
}

std::string outputOf(const std::string& script) {
  const appliance::Outcome outcome = runShell(script);
  if (outcome.status != 0) {
    throw std::runtime_error(script + " ended with status " + std::to_string(outcome.status) + ": " + outcome.err);
  }
  return outcome.out;
}

std::vector<std::string> linesOf(const std::string& text) {
  std::istringstream stream(text);
  std::vector<std::string> lines;
  for (std::string line; std::getline(stream, line);) {
    lines.push_back(line);
  }
  return lines;
}
