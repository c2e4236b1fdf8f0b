#include "main/options.h"

#include <unistd.h>

#include "platform/overwrite_mode.h"

bool parseOptions(int count, char** arguments, Options& options) {
  for (int option = 0; (option = getopt(count, arguments, "b:r:oe:i:d:h")) != -1;) {
    switch (option) {
      case 'b':
        options.mode = Mode::kBackup;
        options.path = optarg;
        break;
      case 'r':
        options.mode = Mode::kRestore;
        options.path = optarg;
        break;
      case 'e':
        options.mode = Mode::kExport;
        options.path = optarg;
        break;
      case 'i':
        options.mode = Mode::kImport;
        options.path = optarg;
        gIsOverwiroteMode = true;
        break;
      case 'd':
        options.temporaryDatabase = optarg;
        break;
      case 'o':
        gIsOverwiroteMode = true;
        break;
      default:
        return false;
    }
  }
  return true;
}
