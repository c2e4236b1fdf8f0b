#include "platform/pid_file.h"

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "support/tool_test.h"

namespace {

constexpr const char* kFile = "/tmp/some.pid";
constexpr uid_t kNobody = 65534;

class PidFile : public appliance::ToolTest {
 protected:
  bool isAlive(const std::string& text) {
    appliance::writeFile(kFile, text);
    appliance::checked();
    return KLIBCProcAliveByPidFile(kFile);
  }
};

// The exit status of `work` done in a child.
template <typename Work>
int statusOfChild(Work work) {
  const pid_t child = fork();
  if (child == 0) {
    _exit(work());
  }
  int status = -1;
  waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST_F(PidFile, NamesALivingProcess) {
  const std::string own = std::to_string(getpid());
  EXPECT_TRUE(isAlive(own));
  EXPECT_TRUE(isAlive(own + "\n"));
}

TEST_F(PidFile, NamesAProcessThatEnded) {
  const pid_t child = fork();
  if (child == 0) {
    _exit(0);
  }
  ASSERT_EQ(waitpid(child, nullptr, 0), child);
  EXPECT_FALSE(isAlive(std::to_string(child)));
}

TEST_F(PidFile, NamesALivingProcessOfAnotherUser) {
  appliance::writeFile(kFile, std::to_string(geteuid() == 0 ? getpid() : 1));
  const int alive = statusOfChild([] {
    if (geteuid() == 0 && setresuid(kNobody, kNobody, kNobody) != 0) {
      return 2;
    }
    return KLIBCProcAliveByPidFile(kFile) ? 1 : 0;
  });
  EXPECT_EQ(alive, 1);
  appliance::checked();
}

TEST_F(PidFile, NamesNoProcessWithoutAPositiveNumber) {
  for (const char* text : {"", "\n", "0", "-1", "abc", "99999999999999999999", "-"}) {
    EXPECT_FALSE(isAlive(text)) << text;
  }
}

TEST_F(PidFile, IsBelievedOfRootAndTheOwnUserOnly) {
  if (geteuid() != 0) {
    GTEST_SKIP() << "only root can give a file away";
  }
  EXPECT_TRUE(isAlive(std::to_string(getpid())));
  ASSERT_EQ(chown(kFile, kNobody, 0), 0);
  EXPECT_FALSE(KLIBCProcAliveByPidFile(kFile));
  const int alive = statusOfChild([] {
    if (setresuid(kNobody, kNobody, kNobody) != 0) {
      return 2;
    }
    return KLIBCProcAliveByPidFile(kFile) ? 1 : 0;
  });
  EXPECT_EQ(alive, 1);
}

TEST_F(PidFile, NamesNoProcessWhenItIsALinkOrAPipe) {
  appliance::writeFile("/tmp/target", std::to_string(getpid()));
  ASSERT_EQ(symlink("/tmp/target", kFile), 0);
  EXPECT_FALSE(KLIBCProcAliveByPidFile(kFile));
  ASSERT_EQ(mkfifo("/tmp/pipe.pid", 0644), 0);
  EXPECT_FALSE(KLIBCProcAliveByPidFile("/tmp/pipe.pid"));
  appliance::checked();
}

TEST_F(PidFile, NamesNoProcessWhenItIsMissingOrAFolder) {
  EXPECT_FALSE(KLIBCProcAliveByPidFile("/tmp/missing.pid"));
  EXPECT_FALSE(KLIBCProcAliveByPidFile("/tmp"));
  appliance::checked();
}

}  // namespace
