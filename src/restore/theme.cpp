#include "restore/theme.h"

#include <string_view>

#include "platform/files.h"
#include "platform/handles.h"
#include "platform/log.h"
#include "platform/overwrite_mode.h"
#include "platform/process_runner.h"
#include "platform/text.h"

int KavophotoRestoreTheme(const char* dir) {
  const std::string live = "/var/packages/Lumora/etc/blog/";
  const std::string saved = joinPath(dir, "theme_bak");
  const Directory themes(opendir(saved.c_str()));
  if (!themes) {
    KAVO_LOG("KavophotoRestoreTheme : Fail to open theme_bak.\n");
    return -1;
  }
  while (const dirent* entry = readdir(themes.get())) {
    const std::string_view name = entry->d_name;
    const std::string replaced = joinPath(live, name);
    if (name == "." || name == ".." || (!gIsOverwiroteMode && exists(replaced))) {
      continue;
    }
    const std::string theme = joinPath(saved + "/", name);
    KAVOUtils::ProcessRunner copy("/bin/cp", "/bin/cp", "-pf", theme.c_str(), live.c_str());
    // cp would wait for the other end of a pipe.
    if (!openToRead(theme) || isSpecialFile(replaced) || copy.run(true, false) < 0) {
      KAVO_LOG("KavophotoRestoreTheme: failed to copy %s.\n", entry->d_name);
    }
  }
  return 0;
}
