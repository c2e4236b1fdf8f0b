#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "support/internals.h"

namespace fs = std::filesystem;

namespace appliance::internals {
namespace {

volatile sig_atomic_t watched = 0;

void passOn(int signal) {
  if (watched > 0) {
    kill(static_cast<pid_t>(watched), signal);
  }
}

std::string makeScratchFolder() {
  const char* temporary = getenv("TMPDIR");
  std::string name = std::string(temporary != nullptr && *temporary == '/' ? temporary : "/tmp") + "/appliance.XXXXXX";
  if (mkdtemp(name.data()) == nullptr) {
    failErrno("mkdtemp " + name);
  }
  return name;
}

// The mounts vanish with the last process of the namespace, but the empty folder they
// stood on is the machine's: a process that stayed outside removes it.
void splitOffWatcher(const std::string& scratch) {
  fflush(nullptr);
  const pid_t watcher = getpid();
  const pid_t child = fork();
  if (child < 0) {
    failErrno("fork");
  }
  if (child == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != watcher) {
      _exit(1);
    }
    return;
  }
  watched = child;
  for (int signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) {
    ::signal(signal, passOn);
  }
  const int status = waitFor(child);
  rmdir(scratch.c_str());
  if (WIFSIGNALED(status)) {
    ::signal(WTERMSIG(status), SIG_DFL);
    kill(getpid(), WTERMSIG(status));
  }
  _exit(WIFEXITED(status) ? WEXITSTATUS(status) : 1);
}

void writeProc(const char* path, const std::string& text) {
  const int descriptor = open(path, O_WRONLY | O_CLOEXEC);
  if (descriptor < 0) {
    failErrno(path);
  }
  const bool written = write(descriptor, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  const int error = errno;
  close(descriptor);
  errno = error;
  if (!written) {
    failErrno(path);
  }
}

void leaveMachineNamespaces() {
  const std::string uid = std::to_string(geteuid());
  const std::string gid = std::to_string(getegid());
  const bool root = geteuid() == 0;
  if (unshare(CLONE_NEWNS | CLONE_NEWIPC | (root ? 0 : CLONE_NEWUSER)) != 0) {
    failErrno("unshare (a private mount namespace needs root or unprivileged user namespaces)");
  }
  if (!root) {
    // The identity map keeps the capabilities for mounting in this process, while what it starts runs as the same
    // ordinary user, as the server demands.
    writeProc("/proc/self/setgroups", "deny");
    writeProc("/proc/self/uid_map", uid + " " + uid + " 1");
    writeProc("/proc/self/gid_map", gid + " " + gid + " 1");
  }
  if (mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
    failErrno("make the mounts private");
  }
}

void makeFolder(const std::string& path, mode_t mode = 0755) {
  fs::create_directories(path);
  if (chmod(path.c_str(), mode) != 0) {
    failErrno("chmod " + path);
  }
}

void makeFile(const std::string& path, const std::string& text, mode_t mode = 0644) {
  fs::create_directories(fs::path(path).parent_path());
  std::ofstream file(path);
  file << text;
  file.close();
  if (!file || chmod(path.c_str(), mode) != 0) {
    failErrno("write " + path);
  }
}

bool bindOver(const std::string& source, const std::string& target) {
  return mount(source.c_str(), target.c_str(), nullptr, MS_BIND | MS_REC, nullptr) == 0;
}

void bindOrFail(const std::string& source, const std::string& target) {
  if (!bindOver(source, target)) {
    failErrno("bind " + source + " to " + target);
  }
}

void bindTopLevel(const std::string& root) {
  const std::vector<std::string> fresh = {"tmp", "var", "etc.defaults", "dev", "appliance"};
  for (const fs::directory_entry& entry : fs::directory_iterator("/")) {
    const std::string name = entry.path().filename();
    if (std::find(fresh.begin(), fresh.end(), name) != fresh.end()) {
      continue;
    }
    const std::string target = root + "/" + name;
    if (entry.is_symlink()) {
      fs::copy_symlink(entry.path(), target);
      continue;
    }
    std::error_code ignored;
    if (!entry.is_directory(ignored)) {
      continue;
    }
    makeFolder(target);
    const bool needed = name == "usr" || name == "etc" || name == "proc";
    if (!bindOver(entry.path(), target) && needed) {
      failErrno("bind " + entry.path().string());
    }
  }
}

// /dev/log must be ours, so the folder is; the devices themselves are the machine's.
void makeDevices(const std::string& root) {
  const std::string dev = root + "/dev";
  makeFolder(dev);
  for (const char* name : {"null", "zero", "full", "random", "urandom", "tty"}) {
    makeFile(dev + "/" + name, "");
    bindOrFail(std::string("/dev/") + name, dev + "/" + name);
  }
  makeFolder(dev + "/shm", 01777);
  // An instance of its own, because an ordinary user may not open the machine's multiplexer through a link.
  makeFolder(dev + "/pts");
  if (mount("devpts", (dev + "/pts").c_str(), "devpts", 0, "newinstance,ptmxmode=0666") != 0) {
    bindOver("/dev/pts", dev + "/pts");
  }
  fs::create_symlink("pts/ptmx", dev + "/ptmx");
  fs::create_symlink("/proc/self/fd", dev + "/fd");
  fs::create_symlink("/proc/self/fd/0", dev + "/stdin");
  fs::create_symlink("/proc/self/fd/1", dev + "/stdout");
  fs::create_symlink("/proc/self/fd/2", dev + "/stderr");
}

// A folder of links to the machine's programs, in which single entries can be replaced or removed.
void makeProgramFolder(const std::string& root, const std::string& folder) {
  const std::string host = "/appliance/host" + folder;
  const std::string links = root + "/appliance/programs" + folder;
  makeFolder(root + host);
  bindOrFail(folder, root + host);
  makeFolder(links);
  for (const fs::directory_entry& entry : fs::directory_iterator(folder)) {
    const fs::path link = fs::path(links) / entry.path().filename();
    if (entry.is_symlink()) {
      fs::copy_symlink(entry.path(), link);
    } else {
      fs::create_symlink(fs::path(host) / entry.path().filename(), link);
    }
  }
  // Some distributions put slow wrapper scripts there; the appliance has the programs themselves.
  for (const char* name : {"psql", "pg_dump", "pg_restore"}) {
    const std::string program = serverProgram(name);
    const fs::path link = fs::path(links) / name;
    if (folder != "/usr/bin" || program.empty() || fs::path(program).parent_path() == folder) {
      continue;
    }
    fs::remove(link);
    fs::create_symlink(program, link);
  }
  bindOrFail(links, root + folder);
}

// A build folder that a fresh folder would hide stays visible: coverage counters are written to it.
void keepVisible(const std::string& root, const std::string& path, std::vector<std::string>& preserved) {
  const fs::path full = fs::weakly_canonical(path);
  for (const char* fresh : {"/tmp", "/var"}) {
    const fs::path relative = full.lexically_relative(fresh);
    if (relative.empty() || *relative.begin() == ".." || *relative.begin() == "." || !fs::exists(full)) {
      continue;
    }
    if (fs::exists(root + full.string())) {
      continue;
    }
    makeFolder(root + full.string());
    bindOrFail(full, root + full.string());
    preserved.push_back(std::string(fresh) + "/" + relative.begin()->string());
  }
}

void makeAccountFiles(const std::string& root) {
  for (const char* name : {"passwd", "group"}) {
    const std::string file = root + "/appliance/etc/" + name;
    makeFile(file, "");
    if (fs::exists(root + "/etc/" + name)) {
      bindOrFail(file, root + "/etc/" + name);
    }
  }
  const std::string order = root + "/appliance/etc/nsswitch.conf";
  makeFile(order, "passwd: files\ngroup: files\nshadow: files\nhosts: files\n");
  if (fs::exists(root + "/etc/nsswitch.conf")) {
    bindOrFail(order, root + "/etc/nsswitch.conf");
  }
}

void makeDataFolder(const std::string& root, const std::string& dataDirectory) {
  const std::string data = root + kData;
  makeFolder(data, 0700);
  if (!dataDirectory.empty()) {
    fs::create_directories(dataDirectory);
    bindOrFail(dataDirectory, data);
    if (chmod(data.c_str(), 0700) != 0) {
      failErrno("chmod " + data);
    }
  }
  if (geteuid() == 0 && chown(data.c_str(), serverUid(), serverGid()) != 0) {
    failErrno("chown " + data);
  }
}

}  // namespace

int machineRoot() {
  static const int descriptor = open("/", O_PATH | O_DIRECTORY | O_CLOEXEC);
  return descriptor;
}

unsigned serverUid() {
  static const unsigned uid = [] {
    if (geteuid() != 0) {
      return geteuid();
    }
    const passwd* account = getpwnam("postgres");
    return account != nullptr ? account->pw_uid : 65534U;
  }();
  return uid;
}

unsigned serverGid() {
  static const unsigned gid = [] {
    if (geteuid() != 0) {
      return getegid();
    }
    const passwd* account = getpwnam("postgres");
    return account != nullptr ? account->pw_gid : 65534U;
  }();
  return gid;
}

void enterRoot(const EnterOptions& options, std::vector<std::string>& preserved) {
  // Asked for while the machine's root and accounts are still in sight.
  machineRoot();
  serverUid();
  serverGid();
  const std::string root = makeScratchFolder();
  splitOffWatcher(root);
  umask(022);
  leaveMachineNamespaces();
  if (mount("tmpfs", root.c_str(), "tmpfs", 0, "mode=0755") != 0) {
    failErrno("mount a tmpfs on " + root);
  }
  // Unbindable while the root is built, so that a machine folder that holds it does not drag it along.
  if (mount(nullptr, root.c_str(), nullptr, MS_UNBINDABLE, nullptr) != 0) {
    failErrno("mark " + root);
  }
  makeFolder(root + "/tmp", 01777);
  makeFolder(root + "/var");
  makeFolder(root + "/etc.defaults");
  makeFolder(root + kHome);
  bindTopLevel(root);
  makeDevices(root);
  makeFolder(root + "/appliance/bin");
  const std::string tool = options.tool.empty() ? APPLIANCE_TOOL : options.tool;
  fs::copy_file(tool, root + kTool);
  if (chmod((root + kTool).c_str(), 0755) != 0) {
    failErrno("chmod the tool");
  }
  keepVisible(root, APPLIANCE_BUILD_DIRECTORY, preserved);
  makeFolder(root + kSocketFolder, 0777);
  makeDataFolder(root, options.dataDirectory);

  // From here on the new root's own folders are bound over the machine's.
  if (mount(nullptr, root.c_str(), nullptr, MS_PRIVATE, nullptr) != 0) {
    failErrno("mark " + root);
  }
  makeAccountFiles(root);
  makeProgramFolder(root, "/usr/bin");
  if (!fs::is_symlink("/bin")) {
    makeProgramFolder(root, "/bin");
  }
  if (chroot(root.c_str()) != 0 || chdir("/") != 0) {
    failErrno("chroot " + root);
  }
}

}  // namespace appliance::internals
