#include "smart/smart_albums.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <filesystem>

#include "merge/merge.h"
#include "platform/handles.h"
#include "platform/query.h"
#include "support/tool_test.h"

namespace {

namespace fs = std::filesystem;

using appliance::Outcome;
using appliance::readFile;
using appliance::RunOptions;
using appliance::workDirectory;
using appliance::writeFile;
using testing::Contains;
using testing::ElementsAre;
using testing::StartsWith;

const std::string kFolder = "/var/services/photo/@eaDir";
const std::string kFile = kFolder + "/KAVOPHOTO_SMART_ALBUM_CONFIG";
const std::string kUnparsable = "Failed to parse smart album file [" + kFile + "]";
const std::string kUnusable = "No usable database connection, smart album file [" + kFile + "] is left as it is";
const std::string kNotOpened = "Failed to open file [" + kFile + "]";

// An album whose only rule names label 1 of the source, which is label 7 in the destination.
const std::string kOneRule = R"({"smart_albums":{"a":{"rule_sets":[[{"field":"people","value":"1"}]]}}})";
std::string remappedTo(const std::string& label) {
  return R"({
   "smart_albums" : {
      "a" : {
         "rule_sets" : [
            [
               {
                  "field" : "people",
                  "value" : ")" +
         label + R"("
               }
            ]
         ]
      }
   }
}
)";
}
const std::string kOneRuleRemapped = remappedTo("7");
const std::string kEmptied = "{\n   \"smart_albums\" : {}\n}\n";

// A smart-album file with one album of one rule set of one rule.
std::string withRule(const std::string& rule) { return R"({"smart_albums":{"a":{"rule_sets":[[)" + rule + "]]}}}"; }

class SmartAlbums : public appliance::ToolTest {
 protected:
  void SetUp() override {
    ToolTest::SetUp();
    other().exec("INSERT INTO photo_label (id, name, category) VALUES (1, 'Anna', 0), (2, 'Rome', 1), (3, 'gone', 2)");
    other().exec("INSERT INTO photo_share (shareid, sharename) VALUES (1, 'trips'), (2, 'kids'), (3, 'gone')");
    live().exec("INSERT INTO photo_label (id, name, category) VALUES (8, 'Rome', 1), (7, 'Anna', 0), (1, 'Ben', 0)");
    live().exec("ALTER SEQUENCE photo_label_id_seq RESTART 100");
    live().exec("INSERT INTO photo_share (shareid, sharename) VALUES (5, 'kids'), (9, 'trips'), (1, 'else')");
    destination_ = connectTo("photo");
    source_ = connectTo("other");
  }
  void TearDown() override {
    destination_.reset();
    source_.reset();
    ToolTest::TearDown();
  }

  int remap() { return KavophotoRemapSmartAlbums(destination_.get(), source_.get(), ""); }

  // The file's text after a remap that succeeded.
  std::string remapped(const std::string& text) {
    writeFile(kFile, text);
    EXPECT_EQ(remap(), 0) << text;
    return readFile(kFile);
  }

  void expectLeftAlone(const std::string& text, const std::vector<std::string>& messages) {
    writeFile(kFile, text);
    EXPECT_EQ(remap(), -1) << text.substr(0, 200);
    EXPECT_EQ(readFile(kFile), text);
    expectMessages(messages);
  }

  Outcome import(const RunOptions& options = {}) { return run({"-i", workDirectory(), "-d", "other"}, options); }

  // A merge that overwrites labels gives them new numbers.
  std::string annasNumber() { return live().value("SELECT id FROM photo_label WHERE name = 'Anna'"); }

  static RunOptions unprivileged() {
    RunOptions options;
    options.dropPrivileges = true;
    return options;
  }

  void expectNothingBeside() {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(kFolder)) {
      names.push_back(entry.path().filename());
    }
    EXPECT_THAT(names, ElementsAre("KAVOPHOTO_SMART_ALBUM_CONFIG"));
  }

  Connection destination_;
  Connection source_;
};

TEST_F(SmartAlbums, TranslatesTheRulesThatNameSharesOrLabels) {
  EXPECT_EQ(remapped(R"({
    "smart_albums": {
      "smart_2": {"name": "Second", "rule_sets": [[{"field": "desc", "value": "2,1", "op": "in"}]], "hidden": false},
      "smart_1": {"name": "First", "rule_sets": [
        [{"field": "people", "value": "1"}, {"field": "date", "value": "2013-05-07,1"}],
        [{"field": "albums", "value": "1,2,3"}, {"field": "geo", "value": "2"}]
      ]}
    }
  })"),
            R"({
   "smart_albums" : {
      "smart_1" : {
         "name" : "First",
         "rule_sets" : [
            [
               {
                  "field" : "people",
                  "value" : "7"
               },
               {
                  "field" : "date",
                  "value" : "2013-05-07,1"
               }
            ],
            [
               {
                  "field" : "albums",
                  "value" : "5,9"
               },
               {
                  "field" : "geo",
                  "value" : "8"
               }
            ]
         ]
      },
      "smart_2" : {
         "hidden" : false,
         "name" : "Second",
         "rule_sets" : [
            [
               {
                  "field" : "desc",
                  "op" : "in",
                  "value" : "8,7"
               }
            ]
         ]
      }
   }
}
)");
}

TEST_F(SmartAlbums, RewritesAFileWithoutAlbums) {
  EXPECT_EQ(remapped("{}"), kEmptied);
  EXPECT_EQ(remapped(R"({"smart_albums":{}})"), kEmptied);
  EXPECT_EQ(remapped(R"({"smart_albums":null})"), kEmptied);
}

TEST_F(SmartAlbums, KeepsNoOtherMemberOfTheDocument) {
  EXPECT_EQ(remapped(R"({"version":3,"smart_albums":{},"zz":{"a":[1]}})"), kEmptied);
}

TEST_F(SmartAlbums, WritesTheStyledLayoutAlsoWhenNothingChanged) {
  const std::string rule = R"({"field":"date","value":"1"})";
  const std::string styled = remapped(withRule(rule));
  EXPECT_THAT(styled, StartsWith("{\n   \"smart_albums\" : {\n      \"a\" : {\n         \"rule_sets\" : [\n"));
  EXPECT_EQ(remapped(styled), styled);
}

TEST_F(SmartAlbums, CopiesRulesOfOtherFieldsUnchanged) {
  for (const char* field : {"Albums", "PEOPLE", "date", "people ", "", "rating"}) {
    const std::string rule = std::string(R"({"field":")") + field + R"(","value":"1,nothing"})";
    const std::string text = remapped(withRule(rule));
    EXPECT_THAT(text, testing::HasSubstr(std::string("\"field\" : \"") + field + "\",\n"));
    EXPECT_THAT(text, testing::HasSubstr("\"value\" : \"1,nothing\"\n"));
  }
}

TEST_F(SmartAlbums, DropsAnAlbumWhoseOnlyRuleCannotBeTranslated) {
  EXPECT_EQ(remapped(withRule(R"({"field":"albums","value":"3"})")), kEmptied);
  expectMessages({"No match labels"});
}

TEST_F(SmartAlbums, DropsOnlyTheRuleSetThatIsLeftWithoutRules) {
  EXPECT_EQ(remapped(R"({"smart_albums":{"a":{"rule_sets":[
      [{"field":"people","value":"3"},{"field":"geo","value":"99"}],
      [{"field":"people","value":"1"}],
      [{"field":"desc","value":"3"}]]}}})"),
            kOneRuleRemapped);
  expectMessages({"No match labels", "No match labels", "No match labels"});
}

TEST_F(SmartAlbums, DropsOnlyTheRuleThatCannotBeTranslated) {
  EXPECT_EQ(remapped(R"({"smart_albums":{
      "a":{"rule_sets":[[{"field":"geo","value":"1;2"},{"field":"people","value":"1"},{"field":"desc","value":"x"}]]},
      "b":{"rule_sets":[[{"field":"people","value":"-1"}]]}}})"),
            kOneRuleRemapped);
  expectMessages(
      {"Failed to exec [SELECT name FROM photo_label WHERE id IN (1;2)] (ERROR:  syntax error at or near \";\")",
       "Invalid ID [x]", "Invalid ID [-1]"});
}

TEST_F(SmartAlbums, DropsAlbumsWithoutRules) {
  EXPECT_EQ(remapped(R"({"smart_albums":{"a":{"name":"x"},"b":{"rule_sets":[]},"c":{"rule_sets":[[]]},
      "d":{"rule_sets":null},"e":{"rule_sets":[null]},"f":null}})"),
            kEmptied);
}

TEST_F(SmartAlbums, ReadsValuesThatAreNoTextAsTheLibraryConvertsThem) {
  EXPECT_EQ(remapped(withRule(R"({"field":"people","value":1})")), kOneRuleRemapped);
  EXPECT_EQ(remapped(withRule(R"({"field":"people","value":true})")), kEmptied);
  EXPECT_EQ(remapped(withRule(R"({"field":"people","value":null})")), kEmptied);
  EXPECT_EQ(remapped(withRule(R"({"field":"people"})")), kEmptied);
  expectMessages(
      {"Invalid ID [true]",
       "Failed to exec [SELECT name FROM photo_label WHERE id IN ()] (ERROR:  syntax error at or near \")\")",
       "Failed to exec [SELECT name FROM photo_label WHERE id IN ()] (ERROR:  syntax error at or near \")\")"});
}

TEST_F(SmartAlbums, CopiesRulesWhoseFieldConvertsToNoKnownOne) {
  for (const char* rule : {R"({"field":5,"value":"x"})", R"({"field":null})", R"({"value":{"a":[]}})", "{}"}) {
    EXPECT_THAT(remapped(withRule(rule)), testing::HasSubstr("\"a\" : {\n")) << rule;
  }
}

TEST_F(SmartAlbums, DropsWhatCannotBeConvertedWithALine) {
  const std::string good = R"([{"field":"people","value":"1"}])";
  for (const std::string& odd : {std::string("5"), std::string("\"text\""), std::string("[]"), std::string("true")}) {
    EXPECT_EQ(remapped(R"({"smart_albums":{"a":{"rule_sets":[)" + good + R"(]},"b":)" + odd + "}}"), kOneRuleRemapped);
    expectMessages({kUnparsable});
  }
  for (const char* odd : {"5", "\"text\"", "{}", R"({"0":[]})", "true"}) {
    EXPECT_EQ(remapped(R"({"smart_albums":{"a":{"rule_sets":[)" + good + R"(]},"b":{"rule_sets":)" + odd + "}}}"),
              kOneRuleRemapped);
    EXPECT_EQ(remapped(R"({"smart_albums":{"a":{"rule_sets":[)" + std::string(odd) + "," + good + "]}}}"),
              kOneRuleRemapped);
    expectMessages({kUnparsable, kUnparsable});
  }
  const char* rules[] = {"5",
                         "\"text\"",
                         "[]",
                         R"({"field":{"a":1},"value":"1"})",
                         R"({"field":["people"]})",
                         R"({"field":"people","value":{"a":1}})",
                         R"({"field":"albums","value":["1"]})"};
  for (const char* odd : rules) {
    EXPECT_EQ(remapped(R"({"smart_albums":{"a":{"rule_sets":[[)" + std::string(odd) + "]," + good + "]}}}"),
              kOneRuleRemapped)
        << odd;
    expectMessages({kUnparsable});
  }
}

TEST_F(SmartAlbums, KeepsTextsOfAnyKind) {
  const std::string text = remapped(
      "{\"smart_albums\":{\"it's \\\"k\\\\ey\":{\"name\":\"\xc3\xa9\xe6\xbc\xa2\xf0\x9f\x98\x80 100%n\",\"n\":[1,-2.5,"
      "null,true],\"rule_sets\":[[{\"field\":\"x\"}]]}}}");
  EXPECT_THAT(text, testing::HasSubstr("\"it's \\\"k\\\\ey\" : {"));
  EXPECT_THAT(text, testing::HasSubstr("100%n\""));
  EXPECT_THAT(text, testing::HasSubstr("[ 1, -2.5, null, true ]"));
  // Whether the writer escapes them or not, the characters are the same when the file is read again.
  EXPECT_EQ(remapped(text), text);
  EXPECT_TRUE(text.find("\xc3\xa9\xe6\xbc\xa2\xf0\x9f\x98\x80") != std::string::npos ||
              text.find("\\u00e9\\u6f22\\ud83d\\ude00") != std::string::npos)
      << text;
}

TEST_F(SmartAlbums, KeepsCommentsWithinAlbums) {
  EXPECT_THAT(remapped("{\"smart_albums\":{\"a\":{// why\n\"name\":\"x\",\"rule_sets\":[[{\"field\":\"y\"}]]}}}"),
              testing::HasSubstr("// why"));
}

TEST_F(SmartAlbums, IsSilentWithoutAFile) {
  EXPECT_EQ(remap(), -1);
  expectNoMessages();
  fs::create_directories(kFolder);
  fs::create_symlink("/nowhere", kFile);
  EXPECT_EQ(remap(), -1);
  EXPECT_TRUE(fs::is_symlink(kFile));
}

TEST_F(SmartAlbums, IsSilentAboutAFileThatMayNotBeRead) {
  writeFile(kFile, kOneRule, 0000);
  EXPECT_EQ(import(unprivileged()).status, 0);
  expectNoMessages();
  EXPECT_EQ(readFile(kFile), kOneRule);
}

TEST_F(SmartAlbums, ReportsADirectoryInItsPlace) {
  fs::create_directories(kFile);
  EXPECT_EQ(remap(), -1);
  expectMessages({"Failed to open smart album [" + kFile + "] Is a directory"});
  EXPECT_TRUE(fs::is_directory(kFile));
}

TEST_F(SmartAlbums, ReportsASocketInItsPlace) {
  fs::create_directories(kFolder);
  const Descriptor socketFile(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  ASSERT_LT(kFile.size(), sizeof address.sun_path);
  std::memcpy(address.sun_path, kFile.c_str(), kFile.size() + 1);
  ASSERT_EQ(bind(socketFile.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  EXPECT_EQ(remap(), -1);
  expectMessages({"Failed to open smart album [" + kFile + "] No such device or address"});
}

TEST_F(SmartAlbums, ReportsAFileThatCannotBeReadToItsEnd) {
  fs::create_directories(kFolder);
  // Its first page is never there.
  fs::create_symlink("/proc/self/mem", kFile);
  EXPECT_EQ(remap(), -1);
  expectMessages({"Failed to open smart album [" + kFile + "] Input/output error"});
}

TEST_F(SmartAlbums, LeavesAFileThatDoesNotParse) {
  for (const char* text : {"", "\n", "{", R"({"smart_albums":{"a":})", "no json", "{'a':1}"}) {
    expectLeftAlone(text, {kUnparsable});
  }
}

TEST_F(SmartAlbums, LeavesAFileThatHoldsNoAlbumsByKey) {
  for (const char* text : {"[]", "5", "null", "\"x\"", R"({"smart_albums":[]})", R"({"smart_albums":"x"})"}) {
    expectLeftAlone(text, {kUnparsable});
  }
}

TEST_F(SmartAlbums, LeavesAFileThatIsNotUtf8) {
  const char* const bytes[] = {"\xff",
                               "\x80",
                               "\xc3",
                               "\xc3(",
                               "\xc0\xaf",
                               "\xe0\x9f\xbf",
                               "\xe2\x82",
                               "\xed\xa0\x80",
                               "\xf0\x8f\xbf\xbf",
                               "\xf4\x90\x80\x80",
                               "\xf8\x88\x80\x80\x80",
                               "caf\xe9"};
  for (const char* some : bytes) {
    expectLeftAlone(std::string(R"({"smart_albums":{"a":{"rule_sets":[[{"field":")") + some + "\"}]]}}}",
                    {kUnparsable});
    expectLeftAlone(std::string("{}") + some, {kUnparsable});
  }
}

TEST_F(SmartAlbums, LeavesAFileWithNamesThatCannotBeWritten) {
  const std::string rule = R"({"field":"people","value":"1"})";
  for (const std::string& zero : {std::string("\\u0000"), std::string(1, '\0')}) {
    expectLeftAlone(R"({"smart_albums":{"a":{"rule_sets":[[)" + rule + R"(]]},"a)" + zero + R"(b":{"rule_sets":[[)" +
                        rule + "]]}}}",
                    {kUnparsable});
    expectLeftAlone(withRule(R"({"field)" + zero + R"(":"people","value":"1"})"), {kUnparsable});
  }
}

TEST_F(SmartAlbums, LeavesAFileThatIsNestedTooDeep) {
  const std::string deep = std::string(2000, '[') + std::string(2000, ']');
  expectLeftAlone(deep, {kUnparsable});
  expectLeftAlone(R"({"smart_albums":{"a":{"x":)" + deep + R"(,"rule_sets":[[{"field":"y"}]]}}})", {kUnparsable});
}

TEST_F(SmartAlbums, RewritesAFileOfFiftyMegabytes) {
  const std::string filler(10000, 'x');
  std::string text = R"({"smart_albums":{)";
  std::string albums;
  for (int number = 10000; number < 15000; ++number) {
    albums += (albums.empty() ? "\"" : ",\"") + std::to_string(number) + R"(":{"name":")" + filler +
              R"(","rule_sets":[[{"field":"date","value":"1"}]]})";
  }
  text += albums + R"(,"last":{"rule_sets":[[{"field":"people","value":"1"}]]}}})";
  ASSERT_GT(text.size(), 50000000U);
  const std::string written = remapped(text);
  EXPECT_GT(written.size(), text.size());
  EXPECT_NE(written.find("\"value\" : \"7\""), std::string::npos);
  std::size_t kept = 0;
  for (std::size_t at = written.find(filler); at != std::string::npos; at = written.find(filler, at + filler.size())) {
    ++kept;
  }
  EXPECT_EQ(kept, 5000U);
}

TEST_F(SmartAlbums, LeavesAFileOfMoreThanAnyoneWrites) {
  writeFile(kFile, kOneRule);
  fs::resize_file(kFile, (std::uintmax_t{64} << 20U) + 1);
  const Outcome outcome = import();
  EXPECT_EQ(outcome.status, 0);
  EXPECT_LT(outcome.peakKilobytes, 64 << 10U);
  expectMessages({"Failed to open smart album [" + kFile + "] File too large"});
  EXPECT_EQ(fs::file_size(kFile), (std::uintmax_t{64} << 20U) + 1);
  EXPECT_FALSE(appliance::exists("/var/packages/Lumora/etc/smart_albums.before"));
}

TEST_F(SmartAlbums, KeepsOwnerGroupAndMode) {
  // Only root can give a file away.
  const uid_t owner = geteuid() == 0 ? 1026 : geteuid();
  const gid_t group = geteuid() == 0 ? 65600 : getegid();
  writeFile(kFile, kOneRule, 0640);
  ASSERT_EQ(chown(kFile.c_str(), owner, group), 0);
  EXPECT_EQ(remap(), 0);
  EXPECT_EQ(readFile(kFile), kOneRuleRemapped);
  struct stat status = {};
  ASSERT_EQ(stat(kFile.c_str(), &status), 0);
  EXPECT_EQ(status.st_uid, owner);
  EXPECT_EQ(status.st_gid, group);
  EXPECT_EQ(status.st_mode & 07777U, 0640U);
  expectNothingBeside();
}

TEST_F(SmartAlbums, WritesThroughASymbolicLink) {
  const std::string target = "/var/services/photo/elsewhere/albums.json";
  writeFile(target, kOneRule);
  fs::create_directories(kFolder);
  fs::create_symlink("../elsewhere/albums.json", kFile);
  EXPECT_EQ(remap(), 0);
  EXPECT_TRUE(fs::is_symlink(kFile));
  EXPECT_EQ(fs::read_symlink(kFile), "../elsewhere/albums.json");
  EXPECT_EQ(readFile(target), kOneRuleRemapped);
  expectNothingBeside();
}

TEST_F(SmartAlbums, ReplacesWhatAKilledRunLeftBeside) {
  writeFile(kFile + ".tmp", std::string(100000, 'x'));
  EXPECT_EQ(remapped(kOneRule), kOneRuleRemapped);
  expectNothingBeside();
}

TEST_F(SmartAlbums, NeverWritesThroughALinkThatStandsBeside) {
  writeFile("/var/victim", "untouched");
  fs::create_directories(kFolder);
  fs::create_symlink("/var/victim", kFile + ".tmp");
  EXPECT_EQ(remapped(kOneRule), kOneRuleRemapped);
  EXPECT_EQ(readFile("/var/victim"), "untouched");
  expectNothingBeside();
}

TEST_F(SmartAlbums, WritesInPlaceWhereNothingCanBeMadeBeside) {
  fs::create_directories(kFile + ".tmp/folder");
  EXPECT_EQ(remapped(kOneRule + std::string(1000, '\n')), kOneRuleRemapped);
  EXPECT_TRUE(fs::is_directory(kFile + ".tmp"));
}

TEST_F(SmartAlbums, WritesInPlaceInAReadOnlyDirectory) {
  writeFile(kFile, kOneRule);
  fs::permissions(kFolder, fs::perms::owner_read | fs::perms::owner_exec);
  EXPECT_EQ(import(unprivileged()).status, 0);
  EXPECT_EQ(readFile(kFile), remappedTo(annasNumber()));
  expectNothingBeside();
}

TEST_F(SmartAlbums, AreWrittenInADirectoryThatMayNotBeListed) {
  writeFile(kFile, kOneRule);
  fs::permissions(kFolder, fs::perms::owner_write | fs::perms::owner_exec);
  EXPECT_EQ(import(unprivileged()).status, 0);
  fs::permissions(kFolder, fs::perms::owner_all);
  EXPECT_EQ(readFile(kFile), remappedTo(annasNumber()));
  expectNothingBeside();
}

TEST_F(SmartAlbums, AreWrittenInPlaceWhereTheirOwnerCannotBeKept) {
  if (geteuid() != 0) {
    GTEST_SKIP() << "Only root can give a file away.";
  }
  writeFile(kFile, kOneRule);
  ASSERT_EQ(chown(kFile.c_str(), 1026, 65600), 0);
  RunOptions options;
  options.program = "/usr/bin/setpriv";
  EXPECT_EQ(run({"--bounding-set=-chown", appliance::toolPath(), "-i", workDirectory(), "-d", "other"}, options).status,
            0);
  expectNoMessages();
  EXPECT_EQ(readFile(kFile), remappedTo(annasNumber()));
  struct stat status = {};
  ASSERT_EQ(stat(kFile.c_str(), &status), 0);
  EXPECT_EQ(status.st_uid, 1026U);
  expectNothingBeside();
}

TEST_F(SmartAlbums, ReportsAFileThatMayNotBeWritten) {
  writeFile(kFile, kOneRule, 0444);
  EXPECT_EQ(import(unprivileged()).status, 0);
  expectMessages({kNotOpened});
  EXPECT_EQ(readFile(kFile), kOneRule);
  expectNothingBeside();
}

TEST_F(SmartAlbums, ReportsAReadOnlyFileSystem) {
  writeFile(kFile, kOneRule);
  appliance::mountReadOnly(kFolder);
  EXPECT_EQ(remap(), -1);
  expectMessages({kNotOpened});
  EXPECT_EQ(readFile(kFile), kOneRule);
}

TEST_F(SmartAlbums, KeepsTheOldTextOnAFullDisk) {
  appliance::mountSmall(kFolder, 64 * 4096);
  writeFile(kFile, R"({"smart_albums":{"a":{"name":")" + std::string(40 * 4096, 'x') +
                       R"(","rule_sets":[[{"field":"people","value":"1"}]]}}})");
  const std::string before = readFile(kFile);
  EXPECT_EQ(remap(), -1);
  expectMessages({"Failed to write file [" + kFile + "] (No space left on device)"});
  EXPECT_TRUE(readFile(kFile) == before);
  expectNothingBeside();
}

TEST_F(SmartAlbums, KeepsTheOldTextOnAFullDiskAlsoInPlace) {
  appliance::mountSmall(kFolder, 16 * 4096);
  std::string text = R"({"smart_albums":{"a":{"rule_sets":[[)";
  // Styled, a rule takes several times its room.
  for (int rule = 0; rule < 1000; ++rule) {
    text += R"({"field":"x","value":"1"},)";
  }
  text += R"({"field":"people","value":"1"}]]}}})";
  writeFile(kFile, text);
  fs::permissions(kFolder, fs::perms::owner_read | fs::perms::owner_exec);
  EXPECT_EQ(import(unprivileged()).status, 0);
  expectMessages({"Failed to write file [" + kFile + "] (No space left on device)"});
  EXPECT_TRUE(readFile(kFile) == text) << "only " << readFile(kFile).size() << " bytes are left";
}

TEST_F(SmartAlbums, LeavesTheFileWithoutAConnection) {
  writeFile(kFile, kOneRule);
  EXPECT_EQ(KavophotoRemapSmartAlbums(nullptr, source_.get(), ""), -1);
  EXPECT_EQ(KavophotoRemapSmartAlbums(destination_.get(), nullptr, ""), -1);
  EXPECT_EQ(KavophotoRemapSmartAlbums(nullptr, nullptr, "_bak"), -1);
  expectMessages({kUnusable, kUnusable, kUnusable});
  EXPECT_EQ(readFile(kFile), kOneRule);
}

TEST_F(SmartAlbums, LeavesTheFileWhenTheDestinationIsLostOnTheWay) {
  appliance::server::terminateBackends("photo");
  writeFile(kFile, kOneRule);
  EXPECT_EQ(remap(), -1);
  expectMessagesMatch(
      {StartsWith("Failed to exec [SELECT id FROM photo_label WHERE name IN ('Anna')] (FATAL:"), kUnusable});
  EXPECT_EQ(readFile(kFile), kOneRule);
  // From now on the loss is known.
  expectLeftAlone(kOneRule, {kUnusable});
}

TEST_F(SmartAlbums, LeavesTheFileWhenTheSourceIsLostOnTheWay) {
  appliance::server::terminateBackends("other");
  writeFile(kFile, kOneRule);
  EXPECT_EQ(remap(), -1);
  expectMessagesMatch({StartsWith("Failed to exec [SELECT name FROM photo_label WHERE id IN (1)] (FATAL:"), kUnusable});
  EXPECT_EQ(readFile(kFile), kOneRule);
  expectLeftAlone(kOneRule, {kUnusable});
}

TEST_F(SmartAlbums, LeavesTheFileWhenTheServerVanished) {
  appliance::server::killHard();
  writeFile(kFile, kOneRule);
  EXPECT_EQ(remap(), -1);
  EXPECT_EQ(readFile(kFile), kOneRule);
  EXPECT_EQ(appliance::takeMessages().back(), kUnusable);
  appliance::server::start();
}

TEST_F(SmartAlbums, LeavesTheFileAfterAFailedLogMerge) {
  other().exec("ALTER TABLE photo_log ALTER COLUMN create_time TYPE text");
  other().exec("INSERT INTO photo_log VALUES (1, 'never', 'l', true, 'u')");
  EXPECT_EQ(KavophotoSyncLog(destination_.get(), source_.get(), ""), -1);
  expectMessagesMatch({StartsWith("Failed to exec [Select * from photo_log where create_time = 'never'")});
  expectLeftAlone(kOneRule, {kUnusable});
  expectLeftAlone("{}", {kUnusable});
}

TEST_F(SmartAlbums, IsLeftByAnImportWhoseLogMergeFailed) {
  other().exec("ALTER TABLE photo_log ALTER COLUMN create_time TYPE text");
  other().exec("INSERT INTO photo_log VALUES (1, 'never', 'l', true, 'u')");
  writeFile(kFile, kOneRule);
  EXPECT_EQ(import().status, 0);
  EXPECT_THAT(appliance::takeMessages(), Contains(kUnusable).Times(1));
  EXPECT_EQ(readFile(kFile), kOneRule);
}

TEST_F(SmartAlbums, FollowAnImport) {
  writeFile(kFile, kOneRule);
  EXPECT_EQ(import().status, 0);
  EXPECT_NE(annasNumber(), "7");
  EXPECT_EQ(readFile(kFile), remappedTo(annasNumber()));
}

TEST_F(SmartAlbums, FollowARestoreInBothModes) {
  for (const bool overwrite : {false, true}) {
    writeFile(kFile, withRule(R"({"field":"people","value":"1"},{"field":"albums","value":"2,1"})"));
    appliance::makeArchive(workDirectory(), "other");
    std::vector<std::string> arguments = {"-r", workDirectory()};
    if (overwrite) {
      arguments.emplace_back("-o");
    }
    EXPECT_EQ(run(arguments).status, 0);
    EXPECT_EQ(annasNumber() == "7", !overwrite);
    const std::string text = readFile(kFile);
    EXPECT_THAT(text, testing::HasSubstr("\"value\" : \"" + annasNumber() + "\"\n"));
    EXPECT_THAT(text, testing::HasSubstr("\"value\" : \"5,9\"\n"));
  }
}

class SmartAlbumsAgain : public SmartAlbums {
 protected:
  void SetUp() override {
    SmartAlbums::SetUp();
    writeFile(kFile, kOneRule);
  }

  std::string number(const std::string& label) {
    return live().value("SELECT id FROM photo_label WHERE name = '" + label + "'");
  }

  // A source in which label 1 is Ben's, and Rome's are the numbers that Anna has had in the live database.
  void makeThird(const std::string& annas) {
    appliance::createDatabase("third");
    appliance::Database("third").exec("INSERT INTO photo_label (id, name, category) VALUES (1, 'Ben', 0), (" + annas +
                                      ", 'Rome', 1)");
  }

  void expectRun(const std::vector<std::string>& arguments) {
    EXPECT_EQ(run(arguments).status, 0);
    expectNoMessages();
  }

  // Ends an import of "other" when it has written the file.
  void killImport() {
    const std::string text = readFile(kFile);
    other().exec("BEGIN; LOCK TABLE photo_personal_collection_photo");
    const pid_t tool = appliance::startTool({"-i", workDirectory(), "-d", "other"});
    for (int round = 0; round < 30000 && readFile(kFile) == text; ++round) {
      usleep(1000);
    }
    kill(tool, SIGKILL);
    EXPECT_EQ(appliance::waitTool(tool).status, -SIGKILL);
    other().exec("ROLLBACK");
    EXPECT_EQ(readFile(kFile), remappedTo(number("Anna")));
  }

  const std::string work_ = workDirectory();
};

TEST_F(SmartAlbumsAgain, ComeOutOfASecondImportAsOfTheFirst) {
  for (int time = 0; time < 3; ++time) {
    expectRun({"-i", work_, "-d", "other"});
    EXPECT_EQ(readFile(kFile), remappedTo(number("Anna")));
  }
}

TEST_F(SmartAlbumsAgain, ComeOutOfASecondRestoreAsOfTheFirst) {
  appliance::makeArchive(work_, "other");
  for (const std::vector<std::string>& arguments : {std::vector<std::string>{"-r", work_},
                                                    {"-r", work_},
                                                    {"-r", work_, "-o"},
                                                    {"-r", work_, "-o"},
                                                    {"-r", work_}}) {
    expectRun(arguments);
    EXPECT_EQ(readFile(kFile), remappedTo(number("Anna")));
  }
}

TEST_F(SmartAlbumsAgain, ComeOutOfRunsAfterKilledOnesAsOfOne) {
  killImport();
  killImport();
  for (int time = 0; time < 2; ++time) {
    expectRun({"-i", work_, "-d", "other"});
    EXPECT_EQ(readFile(kFile), remappedTo(number("Anna")));
  }
}

TEST_F(SmartAlbumsAgain, AreTheOnesInTheFileForARestoreAfterAKilledImport) {
  killImport();
  makeThird(number("Anna"));
  appliance::makeArchive(work_, "third");
  expectRun({"-r", work_});
  EXPECT_EQ(readFile(kFile), remappedTo(number("Rome")));
}

TEST_F(SmartAlbumsAgain, AreTheOnesInTheFileForAnotherArchive) {
  makeThird("7");
  appliance::makeArchive(work_, "other");
  expectRun({"-r", work_});
  appliance::makeArchive(work_, "third");
  expectRun({"-r", work_});
  EXPECT_EQ(readFile(kFile), remappedTo("8"));
}

TEST_F(SmartAlbumsAgain, AreTheOnesInTheFileForAnotherDirectory) {
  other().exec("INSERT INTO photo_label (id, name, category) VALUES (7, 'Ben', 0)");
  appliance::makeArchive(work_, "other");
  expectRun({"-r", work_});
  EXPECT_EQ(readFile(kFile), remappedTo("7"));
  appliance::makeDirectories("/tmp/second");
  fs::copy(work_ + "kavophoto.backup", "/tmp/second/kavophoto.backup");
  expectRun({"-r", "/tmp/second/"});
  EXPECT_EQ(readFile(kFile), remappedTo("1"));
}

TEST_F(SmartAlbumsAgain, AreTheOnesInTheFileForAnotherMode) {
  makeThird("7");
  appliance::makeArchive(work_, "other");
  expectRun({"-r", work_});
  expectRun({"-i", work_, "-d", "third"});
  EXPECT_EQ(readFile(kFile), remappedTo(number("Rome")));
}

TEST_F(SmartAlbumsAgain, AreTheOnesInTheFileForAnotherDatabase) {
  expectRun({"-i", work_, "-d", "other"});
  makeThird(number("Anna"));
  expectRun({"-i", work_, "-d", "third"});
  EXPECT_EQ(readFile(kFile), remappedTo(number("Rome")));
}

TEST_F(SmartAlbumsAgain, AreTheOnesInTheFileWhenItWasChangedInBetween) {
  expectRun({"-i", work_, "-d", "other"});
  writeFile(kFile, withRule(R"({"field":"people","value":"2"})"));
  expectRun({"-i", work_, "-d", "other"});
  EXPECT_EQ(readFile(kFile), remappedTo(number("Rome")));
}

TEST_F(SmartAlbumsAgain, AreTheFirstOnesAlsoWhenAnotherCommandDidNotGetToWriteTheFile) {
  expectRun({"-i", work_, "-d", "other"});
  const std::string text = readFile(kFile);
  makeThird(number("Anna"));
  appliance::makeArchive(work_, "third");
  appliance::mountReadOnly(kFolder);
  EXPECT_EQ(run({"-r", work_}).status, 0);
  expectMessages({kNotOpened});
  EXPECT_EQ(readFile(kFile), text);
  appliance::unmountAll();
  expectRun({"-i", work_, "-d", "other"});
  EXPECT_EQ(readFile(kFile), remappedTo(number("Anna")));
}

TEST_F(SmartAlbumsAgain, AreTranslatedAlsoWhereTheEarlierOnesCannotBeKept) {
  appliance::mountReadOnly("/var/packages/Lumora/etc");
  EXPECT_EQ(import().status, 0);
  expectMessages(
      {"Failed to write file [/var/packages/Lumora/etc/smart_albums.before] (Read-only file system), the smart albums "
       "are translated twice when this is run again"});
  EXPECT_EQ(readFile(kFile), remappedTo(number("Anna")));
}

TEST_F(SmartAlbumsAgain, AreTheOnesInTheFileWhereTheEarlierOnesCannotBeUnderstood) {
  const std::string before = "/var/packages/Lumora/etc/smart_albums.before";
  const std::string deep(100000, '[');
  writeFile(before, deep);
  appliance::makeDirectories("/tmp/second");
  expectRun({"-e", "/tmp/second/"});
  expectRun({"-b", "/tmp/second/"});
  EXPECT_EQ(readFile(before), deep);
  expectRun({"-i", work_, "-d", "other"});
  EXPECT_EQ(readFile(kFile), remappedTo(number("Anna")));
  writeFile(before, deep);
  writeFile(kFile, kOneRule);
  appliance::makeArchive(work_, "other");
  expectRun({"-r", work_});
  EXPECT_EQ(readFile(kFile), remappedTo(number("Anna")));
}

}  // namespace
