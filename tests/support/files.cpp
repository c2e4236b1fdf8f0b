#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "support/internals.h"

namespace fs = std::filesystem;

namespace appliance {
namespace {

using internals::fail;
using internals::failErrno;

std::vector<std::string>& mounts() {
  static std::vector<std::string> paths;
  return paths;
}

struct Replaced {
  std::string path;
  // What the entry linked to; empty when it was no program of the machine.
  std::string link;
};

std::vector<Replaced>& replaced() {
  static std::vector<Replaced> programs;
  return programs;
}

// Takes the program's entry out of its folder and gives the original's path.
std::string takeOut(const std::string& path) {
  const fs::path entry = fs::canonical(fs::path(path).parent_path()) / fs::path(path).filename();
  for (const Replaced& one : replaced()) {
    if (one.path != entry) {
      continue;
    }
    fs::remove(entry);
    return one.link.empty() ? "" : fs::path(entry.parent_path() / one.link).lexically_normal().string();
  }
  std::string link;
  if (fs::is_symlink(entry)) {
    link = fs::read_symlink(entry);
  } else if (fs::exists(entry) && entry.string().rfind("/var/", 0) != 0 && entry.string().rfind("/tmp/", 0) != 0) {
    fail(path + " is not in a folder of replaceable programs");
  }
  fs::remove(entry);
  replaced().push_back({entry, link});
  return link.empty() ? "" : fs::path(entry.parent_path() / link).lexically_normal().string();
}

}  // namespace

void writeFile(const std::string& path, const std::string& text, mode_t mode) {
  const fs::path parent = fs::path(path).parent_path();
  if (!fs::exists(parent)) {
    fs::create_directories(parent);
  }
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file << text;
  file.close();
  if (!file) {
    failErrno("write " + path);
  }
  if (chmod(path.c_str(), mode) != 0) {
    failErrno("chmod " + path);
  }
}

std::string readFile(const std::string& path) {
  internals::observed();
  std::ifstream file(path, std::ios::binary);
  if (!file) {
    failErrno("open " + path);
  }
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

bool exists(const std::string& path) {
  internals::observed();
  struct stat status {};
  return lstat(path.c_str(), &status) == 0;
}

void makeDirectories(const std::string& path) { fs::create_directories(path); }

void removeAll(const std::string& path) { fs::remove_all(path); }

std::string workDirectory() { return internals::kWorkDirectory; }

void replaceProgram(const std::string& path, const std::string& script) {
  const std::string original = takeOut(path);
  writeFile(path, "#!/bin/sh\nREAL='" + original + "'\nexport REAL\n" + script + "\n", 0755);
}

void hideProgram(const std::string& path) { takeOut(path); }

void restorePrograms() {
  for (const Replaced& one : replaced()) {
    fs::remove(one.path);
    if (!one.link.empty()) {
      fs::create_symlink(one.link, one.path);
    }
  }
  replaced().clear();
}

void mountReadOnly(const std::string& path) {
  if (mount(path.c_str(), path.c_str(), nullptr, MS_BIND, nullptr) != 0) {
    failErrno("bind " + path);
  }
  mounts().push_back(path);
  struct statvfs status {};
  if (statvfs(path.c_str(), &status) != 0) {
    failErrno("statvfs " + path);
  }
  // In a namespace of an ordinary user the flags that the machine set on a mount must be repeated.
  unsigned long flags = MS_BIND | MS_REMOUNT | MS_RDONLY;
  if ((status.f_flag & ST_NOSUID) != 0) {
    flags |= MS_NOSUID;
  }
  if ((status.f_flag & ST_NODEV) != 0) {
    flags |= MS_NODEV;
  }
  if ((status.f_flag & ST_NOEXEC) != 0) {
    flags |= MS_NOEXEC;
  }
  if ((status.f_flag & ST_RELATIME) != 0) {
    flags |= MS_RELATIME;
  }
  if ((status.f_flag & ST_NOATIME) != 0) {
    flags |= MS_NOATIME;
  }
  if (mount(nullptr, path.c_str(), nullptr, flags, nullptr) != 0) {
    failErrno("mount " + path + " read-only");
  }
}

void mountSmall(const std::string& path, std::size_t bytes) {
  fs::create_directories(path);
  const std::string options = "mode=0755,size=" + std::to_string(bytes);
  if (mount("tmpfs", path.c_str(), "tmpfs", 0, options.c_str()) != 0) {
    failErrno("mount a small file system on " + path);
  }
  mounts().push_back(path);
}

void unmountAll() {
  while (!mounts().empty()) {
    if (umount2(mounts().back().c_str(), MNT_DETACH) != 0) {
      failErrno("unmount " + mounts().back());
    }
    mounts().pop_back();
  }
}

}  // namespace appliance
