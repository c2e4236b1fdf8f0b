#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "support/tool_test.h"

namespace {

using ::testing::Contains;
using ::testing::Each;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::Matcher;
using ::testing::MatchesRegex;
using ::testing::SizeIs;
using ::testing::StartsWith;

// A pseudo-terminal, and everything that was written to it.
class Terminal {
 public:
  explicit Terminal(unsigned short columns) {
    master_ = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    std::array<char, 64> path = {};
    if (master_ < 0 || grantpt(master_) != 0 || unlockpt(master_) != 0 ||
        ptsname_r(master_, path.data(), path.size()) != 0) {
      throw std::runtime_error("no pseudo-terminal can be made");
    }
    path_ = path.data();
    // Held open, so that reading ends only when this and the program's end are closed.
    slave_ = open(path_.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
    const winsize size = {24, columns, 0, 0};
    if (slave_ < 0 || ioctl(slave_, TIOCSWINSZ, &size) != 0) {
      throw std::runtime_error("the pseudo-terminal " + path_ + " cannot be opened");
    }
    reader_ = std::thread([this] {
      std::array<char, 4096> piece = {};
      for (ssize_t length = 0; (length = read(master_, piece.data(), piece.size())) > 0;) {
        text_.append(piece.data(), static_cast<std::size_t>(length));
      }
    });
  }
  Terminal(const Terminal&) = delete;
  Terminal& operator=(const Terminal&) = delete;
  ~Terminal() {
    finish();
    close(master_);
  }

  const std::string& path() const { return path_; }

  // To be called when the program has ended.
  std::string finish() {
    if (slave_ >= 0) {
      close(slave_);
      slave_ = -1;
      reader_.join();
    }
    return text_;
  }

 private:
  int master_ = -1;
  int slave_ = -1;
  std::string path_;
  std::string text_;
  std::thread reader_;
};

struct Shown {
  appliance::Outcome outcome;
  std::string text;
  // The lines that were drawn one over the other, without the blanks that wipe out an older one.
  std::vector<std::string> lines;
  double seconds = 0;
};

std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines;
  for (std::size_t begin = 0; begin < text.size();) {
    const std::size_t end = std::min(text.find('\r', begin), text.size());
    std::string line = text.substr(begin, end - begin);
    line.erase(line.find_last_not_of(' ') + 1);
    if (!line.empty()) {
      lines.push_back(line);
    }
    begin = end + 1;
  }
  return lines;
}

class Progress : public appliance::ToolTest {
 protected:
  // Runs the tool with its standard error on a terminal.
  Shown show(const std::string& arguments, unsigned short columns = 200) {
    Terminal terminal(columns);
    const auto start = std::chrono::steady_clock::now();
    Shown shown;
    appliance::RunOptions shell;
    shell.program = "/bin/sh";
    shown.outcome = run({"-c", "exec " + appliance::toolPath() + " " + arguments + " 2>" + terminal.path()}, shell);
    shown.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    shown.text = terminal.finish();
    shown.lines = linesOf(shown.text);
    return shown;
  }

  // Makes every insertion into a live table take so long that the table is seen.
  void slowDown(const std::string& table, const std::string& seconds) {
    live().exec("CREATE FUNCTION wait() RETURNS trigger LANGUAGE plpgsql AS $$ BEGIN PERFORM pg_sleep(" + seconds +
                "); RETURN NEW; END $$; CREATE TRIGGER wait BEFORE INSERT ON " + table +
                " FOR EACH ROW EXECUTE FUNCTION wait()");
  }

  void fillConfig(int rows) {
    other().exec("INSERT INTO photo_config SELECT 'module', i, 'value' FROM generate_series(1, " +
                 std::to_string(rows) + ") i");
  }

  const std::string import_ = "-i " + appliance::workDirectory() + " -d other";
};

// The line is wiped with blanks and the cursor stands at its beginning.
void expectCleared(const Shown& shown) {
  ASSERT_THAT(shown.lines, ::testing::Not(::testing::IsEmpty()));
  EXPECT_THAT(shown.text, EndsWith("\r" + std::string(shown.lines.back().size(), ' ') + "\r"));
}

TEST_F(Progress, ShowsPhaseTablePlaceRowsRateAndTimeLeftAtMostTenTimesASecond) {
  fillConfig(300);
  slowDown("photo_config", "0.005");
  const Shown shown = show(import_);
  EXPECT_EQ(shown.outcome.status, 0);
  EXPECT_EQ(live().count("photo_config"), 300);
  EXPECT_THAT(shown.lines,
              Contains(MatchesRegex("merging photo_config \\(4 of 33\\), [0-9]+ of 300 rows, [0-9]+ a second, "
                                    "0:[0-9][0-9] left")));
  EXPECT_LE(static_cast<double>(shown.lines.size()), 10 * (std::ceil(shown.seconds) + 1));
  EXPECT_EQ(shown.outcome.out, "");
  expectCleared(shown);
}

TEST_F(Progress, CountsTheListingOfATableAndNotItsLookUps) {
  appliance::writeFile("/var/services/photo/a.jpg", "x");
  // Two labels are looked up for every photo, and one listing has more rows than any look-up.
  other().exec(
      "INSERT INTO photo_label (name, category, info) SELECT i, 0, '' FROM generate_series(1, 2) i;"
      "INSERT INTO photo_image (path, size, resolutionx, resolutiony, iso, timetaken, version, create_time) "
      "SELECT '/var/services/photo/' || repeat('./', i) || 'a.jpg', 1, 1, 1, 1, now(), 1, now() "
      "FROM generate_series(1, 60) i;"
      "INSERT INTO photo_image_label (image_id, label_id, status) "
      "SELECT image, label, 't' FROM generate_series(1, 60) image, generate_series(1, 2) label");
  slowDown("photo_image", "0.02");
  const Shown shown = show(import_);
  EXPECT_EQ(live().count("photo_image_label"), 120);
  EXPECT_THAT(shown.lines, Contains(StartsWith("merging photo_image (5 of 33), ")));
  for (const std::string& line : shown.lines) {
    if (line.find("photo_image") != std::string::npos && line.find(" rows") != std::string::npos) {
      EXPECT_THAT(line, HasSubstr(" of 60 rows"));
    }
  }
}

TEST_F(Progress, IsCutToTheWidthOfTheTerminal) {
  fillConfig(100);
  slowDown("photo_config", "0.005");
  const Shown shown = show(import_, 30);
  EXPECT_EQ(live().count("photo_config"), 100);
  EXPECT_THAT(shown.lines, Each(SizeIs(::testing::Le(29U))));
  EXPECT_THAT(shown.lines, Contains("merging photo_config (4 of 33"));
  expectCleared(shown);
}

TEST_F(Progress, TellsHoursAsSuch) {
  fillConfig(20000);
  live().exec(
      "CREATE FUNCTION wait() RETURNS trigger LANGUAGE plpgsql AS $$ BEGIN PERFORM pg_sleep(0.5); IF NEW.config_key = "
      "'4' THEN RAISE 'enough'; END IF; RETURN NEW; END $$;"
      "CREATE TRIGGER wait BEFORE INSERT ON photo_config FOR EACH ROW EXECUTE FUNCTION wait()");
  const Shown shown = show(import_);
  EXPECT_THAT(shown.lines, Contains(MatchesRegex("merging photo_config \\(4 of 33\\), .+ of 20000 rows, .+ "
                                                 "[0-9]+:[0-5][0-9]:[0-5][0-9].*")));
  expectMessagesMatch({StartsWith("Failed to exec [Insert into photo_config "), "Table photo_config sync failed.\n"});
  expectCleared(shown);
}

TEST_F(Progress, TakesATerminalOfUnknownWidthForAUsualOne) {
  fillConfig(100);
  slowDown("photo_config", "0.005");
  const Shown shown = show(import_, 0);
  EXPECT_EQ(live().count("photo_config"), 100);
  EXPECT_THAT(shown.lines, Each(SizeIs(::testing::Le(79U))));
  EXPECT_THAT(shown.lines, Contains(StartsWith("merging photo_config (4 of 33), ")));
}

TEST_F(Progress, NamesThePhasesOfABackup) {
  for (const char* program : {"/usr/bin/pg_dump", "/bin/tar"}) {
    appliance::replaceProgram(program, R"(sleep 0.2; exec "$REAL" "$@" 2>/dev/null)");
  }
  appliance::replaceProgram("/usr/bin/psql", R"(sleep 0.02; exec "$REAL" "$@")");
  const Shown shown = show("-b " + appliance::workDirectory());
  EXPECT_TRUE(appliance::exists(appliance::workDirectory() + "kavophoto.backup"));
  for (const Matcher<std::string>& phase :
       {Matcher<std::string>("staging"), Matcher<std::string>(MatchesRegex("staging [a-z_]+ \\([0-9]+ of 33\\)")),
        Matcher<std::string>("dumping"), Matcher<std::string>("packing"),
        Matcher<std::string>(MatchesRegex("renaming back [a-z_]+ \\([0-9]+ of 33\\)"))}) {
    EXPECT_THAT(shown.lines, Contains(phase));
  }
  expectCleared(shown);
}

TEST_F(Progress, NamesThePhasesOfARestore) {
  appliance::makeArchive(appliance::workDirectory(), other().name());
  for (const char* program : {"/usr/bin/pg_restore", "/bin/tar", "/usr/bin/psql"}) {
    appliance::replaceProgram(program, R"(sleep 0.1; exec "$REAL" "$@")");
  }
  const Shown shown = show("-r " + appliance::workDirectory());
  EXPECT_EQ(shown.outcome.status, 0);
  for (const char* phase : {"unpacking", "loading", "repairing paths", "merging"}) {
    EXPECT_THAT(shown.lines, Contains(StartsWith(phase)));
  }
  expectCleared(shown);
}

TEST_F(Progress, IsClearedWhenTheRunFails) {
  appliance::makeArchive(appliance::workDirectory(), other().name());
  appliance::replaceProgram("/usr/bin/pg_restore", R"([ "$3" = -l ] || { sleep 0.2; exit 1; }; exec "$REAL" "$@")");
  const Shown shown = show("-r " + appliance::workDirectory());
  EXPECT_EQ(shown.outcome.status, 255);
  expectMessages({"KavophotoRestoreDB failed when restore dump file.\n", "Cant restore Photo DB.\n"});
  EXPECT_THAT(shown.lines, Contains("loading"));
  expectCleared(shown);
}

TEST_F(Progress, NothingIsWrittenWhenStandardErrorIsNoTerminal) {
  fillConfig(100);
  slowDown("photo_config", "0.005");
  const appliance::Outcome imported = run({"-i", appliance::workDirectory(), "-d", "other"});
  EXPECT_EQ(imported.status, 0);
  EXPECT_EQ(imported.out, "");
  EXPECT_EQ(imported.err, "");
  EXPECT_EQ(live().count("photo_config"), 100);

  appliance::makeArchive(appliance::workDirectory(), other().name());
  const appliance::Outcome restored = run({"-r", appliance::workDirectory()});
  EXPECT_EQ(restored.status, 0);
  EXPECT_EQ(restored.out, "");
  EXPECT_EQ(restored.err, "");
}

TEST_F(Progress, NothingIsWrittenBeforeTheFirstPhase) {
  Shown shown = show("-h");
  EXPECT_EQ(shown.outcome.status, 255);
  EXPECT_EQ(shown.text, "");
  // Staged tables that a killed run left are listed first.
  live().exec("CREATE TABLE photo_label_bak AS SELECT * FROM photo_label");
  shown = show("-e " + appliance::workDirectory());
  EXPECT_EQ(shown.outcome.status, 0);
  EXPECT_EQ(shown.text, "");
  expectMessagesMatch({::testing::StartsWith("Table photo_label_bak is left alone")});
}

}  // namespace
