#include "platform/awake.h"

#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>

#include "support/tool_test.h"

namespace {

namespace fs = std::filesystem;

constexpr const char* kDevice = "/dev/cpu_dma_latency";

class Awake : public appliance::ToolTest {
 protected:
  void TearDown() override {
    appliance::removeAll(kDevice);
    ToolTest::TearDown();
  }

  static std::vector<std::string> importArguments() { return {"-i", appliance::workDirectory(), "-d", "other"}; }
};

// The open flags of the descriptor by which a process holds `path`.
std::optional<int> flagsOfOpenFile(pid_t pid, const std::string& path) {
  const fs::path process = "/proc/" + std::to_string(pid);
  for (const fs::directory_entry& descriptor : fs::directory_iterator(process / "fd")) {
    std::error_code closedMeanwhile;
    if (!fs::equivalent(descriptor, path, closedMeanwhile) || closedMeanwhile) {
      continue;
    }
    std::ifstream info(process / "fdinfo" / descriptor.path().filename());
    std::string word;
    while (info >> word) {
      if (word == "flags:" && info >> word) {
        return std::stoi(word, nullptr, 8);
      }
    }
  }
  return std::nullopt;
}

void waitUntilSomebodyWaitsForALock(appliance::Database& database) {
  const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (database.value("SELECT count(*) FROM pg_locks WHERE NOT granted") == "0") {
    if (std::chrono::steady_clock::now() > limit) {
      throw std::runtime_error("nobody waits for a lock");
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
}

TEST_F(Awake, IsAskedForFromTheFirstConnectionToTheEndOfTheProcess) {
  if (sysconf(_SC_NPROCESSORS_ONLN) < 2) {
    GTEST_SKIP() << "On one processor nothing is asked for.";
  }
  appliance::writeFile(kDevice, "");
  other();
  live().exec("BEGIN; LOCK TABLE photo_label IN ACCESS EXCLUSIVE MODE");
  other().exec("INSERT INTO photo_label (name, category, info) VALUES ('a', 1, '')");

  const pid_t pid = appliance::startTool(importArguments());
  waitUntilSomebodyWaitsForALock(other());
  // A latency of 0 microseconds, in the binary form that the device takes.
  EXPECT_EQ(appliance::readFile(kDevice), std::string(4, '\0'));
  const std::optional<int> flags = flagsOfOpenFile(pid, kDevice);
  live().exec("COMMIT");
  EXPECT_EQ(appliance::waitTool(pid).status, 0);

  ASSERT_TRUE(flags.has_value());
  EXPECT_TRUE((*flags & O_CLOEXEC) != 0) << "A child would hold the request on.";
  EXPECT_EQ(live().count("photo_label"), 1);
  expectNoMessages();
}

TEST_F(Awake, IsNotAskedForOnOneProcessor) {
  appliance::writeFile(kDevice, "");
  other().exec("INSERT INTO photo_label (name, category, info) VALUES ('a', 1, '')");
  std::vector<std::string> arguments = importArguments();
  arguments.insert(arguments.begin(), {"-c", "0", appliance::toolPath()});
  appliance::RunOptions taskset;
  taskset.program = "/usr/bin/taskset";
  EXPECT_EQ(run(arguments, taskset).status, 0);
  EXPECT_EQ(appliance::readFile(kDevice), "");
  expectNoMessages();
}

TEST_F(Awake, IsDoneWithoutWhereItCannotBeAskedFor) {
  other().exec("INSERT INTO photo_label (name, category, info) VALUES ('a', 1, '')");
  fs::create_symlink("/dev/full", kDevice);
  EXPECT_EQ(run(importArguments()).status, 0);
  appliance::removeAll(kDevice);
  appliance::makeDirectories(kDevice);
  EXPECT_EQ(run(importArguments()).status, 0);
  EXPECT_EQ(live().count("photo_label"), 1);
  expectNoMessages();
}

}  // namespace
