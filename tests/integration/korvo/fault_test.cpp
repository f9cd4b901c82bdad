#include "process.h"
#include "temporary_folder.h"

#include <fstream>
#include <iterator>
#include <optional>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

// The program where the machine fails it: disks that are full, standard streams that are closed.

namespace {

using namespace std::chrono_literals;
using kit::Process;
using testing::HasSubstr;

/// What a shell makes of `commands`; in it, $korvo is the program.
std::vector<std::string> shell(const std::string& commands) {
  return {"/bin/sh", "-c", "korvo=" KORVO_PROGRAM "\n" + commands};
}

class FullDisk : public testing::TestWithParam<const char*> {};

TEST_P(FullDisk, IsAnErrorOfOneLine) {
  Process broker(shell("exec $korvo run"));
  ASSERT_TRUE(broker.waitFor(" is running: "));
  const auto result =
      kit::runProcess(shell(std::string("$korvo set Foo 1; exec $korvo ") + GetParam() + " >/dev/full"));
  EXPECT_EQ(result.err, "error: standard output cannot be written\n");
  EXPECT_EQ(result.status, 1);
}

INSTANTIATE_TEST_SUITE_P(UnderTheOutputOf, FullDisk,
                         testing::Values("--help", "--version", "help", "get --help", "manual", "complete -- ge",
                                         "get KorvoReady", "export", "services"),
                         [](const auto& row) { return "Command" + std::to_string(row.index); });

// So many of the longest names are larger than the largest message that a broker sends.
TEST(Listings, ThatFitNoMessageComeInParts) {
  constexpr int kKeys = 1310;
  Process broker(shell("exec $korvo run --name many"));
  ASSERT_TRUE(broker.waitFor(" is running: "));
  std::string exported;
  for (int i = 0; i < kKeys; ++i) {
    const std::string key = "Long/" + std::to_string(10000 + i);
    exported += R"({"key":")" + key + std::string(65536 - key.size(), 'x');
    exported += R"(","kind":"Data","value":1,"description":""})"
                "\n";
  }
  // So many bytes take their time under a sanitizer.
  const auto run = [](const std::string& command, std::string_view input = {}) {
    Process process(shell(command));
    process.write(input);
    return process.finish(120s);
  };
  ASSERT_EQ(run("exec $korvo import - --broker many", exported).err, "");
  const auto counted = [&](const std::string& command) {
    return run("$korvo " + command + " --broker many --timeout 60 | grep -c 'Long/.*xxx'");
  };
  for (const char* const command : {"ls", "export", "descriptions"}) {
    EXPECT_EQ(counted(command).out, std::to_string(kKeys) + "\n") << command;
  }
  const auto named = kit::runProcess(shell("exec $korvo call HXMemory getDataListName --broker many"));
  EXPECT_THAT(named.err, HasSubstr("cannot go to another process")) << "what comes in one piece fails alone";
  EXPECT_EQ(kit::runProcess(shell("exec $korvo ls KorvoReady --broker many")).out, "KorvoReady\n");
}

class StandardStreams : public testing::TestWithParam<const char*> {};

TEST_P(StandardStreams, AreNotNeededByABroker) {
  Process broker(shell(std::string("exec $korvo run --name streams --log-level debug ") + GetParam()));
  const auto ask = [](const std::string& question) {
    return kit::runProcess(shell("exec $korvo " + question + " --broker streams"));
  };
  const auto deadline = Process::Clock::now() + 30s;
  while (ask("set Foo 1").status != 0) ASSERT_LT(Process::Clock::now(), deadline) << "the broker did not start";
  EXPECT_EQ(ask("call HXMemory unregisterModuleReference '\"\"'").status, 0) << "it logs";
  EXPECT_EQ(ask("get Foo").out, "1\n");
  broker.send(SIGTERM);
  EXPECT_EQ(broker.finish(10s).status, 0);
}

INSTANTIATE_TEST_SUITE_P(Missing, StandardStreams,
                         testing::Values("2>&-", "2>/dev/full", ">/dev/full 2>&1", "<&- >&- 2>&-"),
                         [](const auto& row) { return "Case" + std::to_string(row.index); });

class History : public testing::Test {
 protected:
  /// A console on a terminal, in which `line` is typed. @return The history afterwards.
  std::string historyAfter(const std::string& line, const std::string& prelude) const {
    // What is run by script has a terminal. Libedit keeps the names of the functions that it is given: that is no leak.
    Process console(
        {"/usr/bin/script", "-qfec",
         prelude + "export ASAN_OPTIONS=detect_leaks=0; exec " KORVO_PROGRAM " run --no-memory --console", "/dev/null"},
        {"TERM=xterm", "SHELL=/bin/sh", "XDG_STATE_HOME=" + state.path().string()});
    console.write(line + "\ncall Broker stop\n");
    EXPECT_EQ(console.finish().status, 0);
    std::ifstream file(state.path() / "korvo" / "history");
    return {std::istreambuf_iterator<char>(file), {}};
  }

  const kit::TemporaryFolder state;
};

TEST_F(History, StaysWhereTheDiskIsFull) {
  const std::string before = historyAfter("help", "");
  EXPECT_THAT(before, HasSubstr("help\n"));
  // A limit on the size of files fails where a full disk would.
  EXPECT_EQ(historyAfter("help  ", "trap '' XFSZ; ulimit -f 0; "), before);
  const std::filesystem::directory_iterator files(state.path() / "korvo");
  EXPECT_EQ(std::distance(begin(files), end(files)), 1) << "something was left beside it";
  EXPECT_NE(historyAfter("help  ", ""), before);
}

TEST(Import, OfAFileThatWasCutOffSaysWhere) {
  Process broker(shell("exec $korvo run"));
  ASSERT_TRUE(broker.waitFor(" is running: "));
  const auto result =
      kit::runProcess(shell("printf '{\"key\":\"A\",\"value\":1}\n{\"key\":\"B\",\"val' | $korvo import -\n"
                            "$korvo get A\n$korvo get B"));
  EXPECT_EQ(result.out, "1\n");
  EXPECT_THAT(result.err, testing::StartsWith("error: standard input line 2: JSON"));
  EXPECT_THAT(result.err, HasSubstr("Data not found B"));
}

}  // namespace
