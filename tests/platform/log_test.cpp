#include "platform/log.h"

#include <cerrno>
#include <string>

#include "support/tool_test.h"

namespace {

using appliance::workDirectory;

constexpr std::size_t kHalf = kLoggedTextCapacity / 2;

class Log : public appliance::ToolTest {};

TEST_F(Log, NamesTheToolAndTheLineAndKeepsItsOwnTextToTheLetter) {
  KAVO_LOG("Nothing to fill in\n");
  KAVO_LOG("%s: %d of %5.1f %% \\ \t%c\n", "a \\ b", -3, 2.5, 'x');
  KAVO_LOG_AT(7, "on behalf of %ld, %zu", 1L << 40, std::size_t{9});
  expectMessages({"Nothing to fill in\n", "a \\ b: -3 of   2.5 % \\ \tx\n", "on behalf of 1099511627776, 9"});
}

TEST_F(Log, TakesTextsForTextsOnly) {
  char text[] = "%s%n in an array";
  char* const pointer = text;
  const char* const none = nullptr;
  KAVO_LOG("%s, %s, %s", text, pointer, none);
  expectMessages({"%s%n in an array, %s%n in an array, (null)"});
}

TEST_F(Log, KeepsTheErrorNumber) {
  errno = EXDEV;
  KAVO_LOG("%s", std::string(3 * kLoggedTextCapacity, '\n').c_str());
  EXPECT_EQ(errno, EXDEV);
  EXPECT_EQ(appliance::takeMessages().size(), 1U);
}

TEST_F(Log, EscapesControlCharactersOfTexts) {
  EXPECT_EQ(escapedForLog("a\nb\tc\rd"), "a\\nb\\tc\\rd");
  EXPECT_EQ(escapedForLog("\x01\b\x1b[31m\x1f \x7f"), "\\x01\\x08\\x1b[31m\\x1f \\x7f");
  EXPECT_EQ(escapedForLog("\xC2\x80\xC2\x85\xC2\x9F"), "\\xc2\\x80\\xc2\\x85\\xc2\\x9f");
  for (const char* const text : {"", R"(a\nb \x1b '"%s%n)", "\xC2\xA0\xC3\x85\xE6\xBC\xA2\xF0\x9F\x98\x80", "\xC2",
                                 "\x85\x9F\xFF", "\xE2\x80", "\xF0\x9F\x98x", "\xC1\x85\xF8\x88\x80\x80\x80"}) {
    EXPECT_EQ(escapedForLog(text), text);
  }
  EXPECT_EQ(escapedForLog("\xE2\n\xC2\n"), "\xE2\\n\xC2\\n");
  KAVO_LOG("[%s]\n", "value\nkavophoto_backup:1 forged");
  expectMessages({"[value\\nkavophoto_backup:1 forged]\n"});
}

TEST_F(Log, CutsATextInItsMiddle) {
  const std::string longest(kLoggedTextCapacity, 'x');
  EXPECT_EQ(escapedForLog(longest.c_str()), longest);
  EXPECT_EQ(escapedForLog((longest + 'x').c_str()),
            std::string(kHalf, 'x') + "[... 1 bytes left out ...]" + std::string(kHalf, 'x'));
  const std::string text = "begin" + std::string(300000, 'x') + "end";
  EXPECT_EQ(escapedForLog(text.c_str()), text.substr(0, kHalf) + "[... " +
                                             std::to_string(text.size() - kLoggedTextCapacity) +
                                             " bytes left out ...]" + text.substr(text.size() - kHalf));
  appliance::checked();
}

std::string repeated(const std::string& text, std::size_t times) {
  std::string all;
  for (std::size_t time = 0; time < times; ++time) {
    all += text;
  }
  return all;
}

TEST_F(Log, CutsBetweenCharactersOnly) {
  // Neither half has room for a whole number of these.
  const std::string emoji = "\xF0\x9F\x98\x80";
  EXPECT_EQ(escapedForLog(("x" + repeated(emoji, 20000) + "y").c_str()),
            "x" + repeated(emoji, 8191) + "[... 14472 bytes left out ...]" + repeated(emoji, 8191) + "y");
  EXPECT_EQ(escapedForLog(("x" + repeated("\x1b", 20000) + "y").c_str()),
            "x" + repeated("\\x1b", 8191) + "[... 3618 bytes left out ...]" + repeated("\\x1b", 8191) + "y");
  EXPECT_EQ(escapedForLog(("x" + repeated("\n", 40000) + "y").c_str()),
            "x" + repeated("\\n", 16383) + "[... 7234 bytes left out ...]" + repeated("\\n", 16383) + "y");
  EXPECT_EQ(escapedForLog(("xyz" + repeated("\xC2\x85", 10000)).c_str()),
            "xyz" + repeated("\\xc2\\x85", 4095) + "[... 3618 bytes left out ...]" + repeated("\\xc2\\x85", 4096));
  appliance::checked();
}

TEST_F(Log, SendsThreeTextsOfAnyLength) {
  const std::string text(1000000, 'x');
  KAVO_LOG("%s, %s, %s", text.c_str(), text.c_str(), text.c_str());
  const std::string cut = escapedForLog(text.c_str());
  expectMessages({cut + ", " + cut + ", " + cut});
}

TEST_F(Log, TellsOfAFailedStatementOfAnyLength) {
  const std::string link = "x\nkavophoto_backup:1 forged " + repeated("long \xC3\xA9\n", 100000);
  live().exec("ALTER TABLE photo_personal_collection ADD CONSTRAINT short CHECK (length(sharelink) < 100)");
  other().exec("INSERT INTO photo_personal_collection VALUES (1, 5, 'c', true, NULL, NULL, '" + link +
               "', '2020-01-01', false)");
  EXPECT_EQ(run({"-i", workDirectory(), "-d", "other"}).status, 0);
  const std::string statement =
      "INSERT INTO photo_personal_collection (userid, name, is_shared, start_time, end_time, sharelink, create_date, "
      "hidden) VALUES (5, 'c', 't', NULL, NULL, '" +
      link + "', '2020-01-01 00:00:00', 'f')";
  expectMessages({"Failed to exec [" + escapedForLog(statement.c_str()) +
                      "] (ERROR:  new row for relation \"photo_personal_collection\" violates check constraint "
                      "\"short\"  DETAIL:  "
                      // The number 1 went to the row when it ran beside others.
                      "Failing row contains (2, 5, c, t, null, null, x\\nkavophoto_backup:1 forged long "
                      "\xC3\xA9\\nlong \xC3\xA9\\n"
                      "long \xC3\xA9\\nlong \xC3\xA9\\nlong..., 2020-01-01 00:00:00, f).)",
                  "Table photo_personal_collection sync failed"});
}

}  // namespace
