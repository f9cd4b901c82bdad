#include "program.h"
#include "sanitized.h"
#include "temporary_folder.h"

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <utility>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

// How brokers start and end when modules, neighbours or people get in their way.

namespace {

using namespace std::chrono_literals;
using kit::korvo;
using kit::module;
using kit::Process;
using kit::runKorvo;
using testing::HasSubstr;

TEST(ModulesThatHang, AreNamedAndHoldTheEndNoLongerThanItsLimit) {
  const std::pair<const char*, const char*> stages[] = {{"constructor", "entry point of module library "},
                                                        {"init", "init of module Troubled"},
                                                        {"exit", "exit of module Troubled"}};
  std::vector<std::unique_ptr<Process>> all;  // At once: each is waited for until five seconds have passed.
  for (const auto& [stage, what] : stages) {
    all.push_back(std::make_unique<Process>(
        korvo({"run", "--name", stage, "--no-memory", "--module", module("troubled"), "--end-within", "6"}),
        std::vector<std::string>{std::string("TROUBLE=") + stage}));
    ASSERT_TRUE(all.back()->waitFor(stage == std::string("exit") ? "is running" : "in "));
    all.back()->send(SIGTERM);
  }
  const auto early = runKorvo({"services", "--broker", "init"});
  EXPECT_EQ(early.status, 3);
  EXPECT_THAT(early.err, HasSubstr("broker init lets nobody in yet: it loads its modules"));
  for (std::size_t i = 0; i < all.size(); ++i) {
    const auto result = all[i]->finish();
    EXPECT_THAT(result.err, HasSubstr(std::string("[warning] mw.step step: ") + stages[i].second));
    EXPECT_THAT(result.err, HasSubstr("still running, after 5000 ms"));
    EXPECT_THAT(result.err, HasSubstr("not over 6 s after it began: "));
    EXPECT_EQ(result.status, 1);
  }
}

TEST(ModulesThatHang, WhileTheyAreLoadedKeepNobodyElseWaiting) {
  Process broker(korvo({"run", "--end-within", "1"}), {"TROUBLE=init"});
  ASSERT_TRUE(broker.waitFor("is running"));
  EXPECT_EQ(runKorvo({"load", module("troubled"), "--timeout", "0.2"}).status, 1);
  Process host(korvo({"host", "--module", module("greeter")}));
  ASSERT_TRUE(host.waitFor("hosting for"));
  EXPECT_EQ(runKorvo({"call", "Greeter", "greet", "\"you\""}).out, "\"Hello, you\"\n");
  EXPECT_EQ(runKorvo({"call", "Broker", "stop"}).status, 0);
  const auto result = broker.finish();
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.err, HasSubstr("not over 1 s after it began: "));
  EXPECT_THAT(result.err, HasSubstr("init of module Troubled"));
}

TEST(Broker, EndsWithoutTheMemoryThatItWasAskedFor) {
  const kit::TemporaryFolder folder;
  std::filesystem::copy(module("throwsininit"), folder.path() / "libhxmemory.so");
  const auto result = kit::runProcess(korvo({"run", "--module", module("greeter")}), "",
                                      {"KORVO_MODULE_PATH=" + folder.path().string()});
  EXPECT_THAT(result.err, HasSubstr("ThrowsInInit.init: no motor\n"));
  EXPECT_THAT(result.err, HasSubstr("error: the broker has no memory of its own"));
  EXPECT_EQ(result.out, "") << "what needs a memory is not loaded";
  EXPECT_EQ(result.status, 1);
}

TEST(Broker, WhoseFilesWereRemovedSaysSoAndLeavesThoseOfItsSuccessor) {
  Process first(korvo({"run", "--name", "x"}));
  ASSERT_TRUE(first.waitFor("is running"));
  const std::filesystem::path folder = std::string(std::getenv("XDG_RUNTIME_DIR")) + "/korvo";
  for (const char* file : {"x.sock", "x.lock"}) std::filesystem::remove(folder / file);
  ASSERT_TRUE(first.waitFor("broker x cannot be joined any more"));
  Process second(korvo({"run", "--name", "x"}));
  ASSERT_TRUE(second.waitFor("is running"));
  first.send(SIGTERM);
  EXPECT_EQ(first.finish().status, 0);
  EXPECT_EQ(runKorvo({"set", "Foo", "1", "--broker", "x"}).status, 0);
  second.send(SIGTERM);
  EXPECT_EQ(second.finish().status, 0);
  EXPECT_FALSE(std::filesystem::exists(folder / "x.sock"));
}

TEST(Subscriptions, OfAModuleAreThereAgainWithTheBroker) {
  auto broker = std::make_unique<Process>(korvo({"run", "--name", "s"}));
  ASSERT_TRUE(broker->waitFor("is running"));
  Process host(korvo({"host", "--broker", "s", "--module", module("greeter")}));
  ASSERT_TRUE(host.waitFor("hosting for"));
  EXPECT_EQ(runKorvo({"call", "Greeter", "listen", "\"Bell\"", "--broker", "s"}).status, 0);
  broker->send(SIGKILL);
  broker->finish();
  broker = std::make_unique<Process>(korvo({"run", "--name", "s", "--journal", "keep"}));
  ASSERT_TRUE(host.waitFor("module Greeter is subscribed to 1 keys again; raises since the connection was lost may"));
  EXPECT_EQ(runKorvo({"raise", "Bell", "7", "--broker", "s"}).status, 0);
  EXPECT_TRUE(host.waitFor("Bell = 7"));

  // The first raise waits for the frozen one until it counts as gone.
  host.send(SIGSTOP);
  for (const char* value : {"8", "9", "10"}) {
    EXPECT_EQ(runKorvo({"raise", "Bell", value, "--broker", "s", "--timeout", "60"}).status, 0);
  }
  host.send(SIGCONT);
  EXPECT_TRUE(host.waitFor("module Greeter is subscribed to 1 keys again; at least 3 raises were missed: 3 of Bell"));
}

TEST(ForkedChildren, EndByExitAndHoldNoConnectionOfTheirParent) {
  Process broker(korvo({"run", "--name", "f", "--log-level", "verbose"}));
  ASSERT_TRUE(broker.waitFor("is running"));
  Process host(korvo({"host", "--broker", "f", "--module", module("troubled")}));
  ASSERT_TRUE(host.waitFor("hosting for"));
  // A sanitizer looks for leaks at the end, and waits for threads that a child does not have.
  if (!kit::kSanitized) {
    EXPECT_EQ(runKorvo({"call", "Troubled", "fork", "\"exit\"", "--broker", "f", "--timeout", "20"}).out, "7\n");
  }
  EXPECT_EQ(runKorvo({"call", "Troubled", "fork", "\"stay\"", "--broker", "f"}).status, 0);
  host.send(SIGKILL);
  // A connection that somebody still held would end by its silence alone.
  EXPECT_TRUE(broker.waitFor("process " + std::to_string(host.id()) + " has left: it closed the connection"));
}

struct Crash {
  const char* how;
  int signal;
  const char* what;
  const char* words;
};
class Crashes : public testing::TestWithParam<Crash> {};

TEST_P(Crashes, SayInWhichModule) {
  if (kit::kSanitized) GTEST_SKIP() << "a sanitizer reports crashes itself";
  const auto& [how, signal, what, words] = GetParam();
  const auto result = kit::runProcess(
      {"/bin/sh", "-c", "ulimit -c 0; exec " KORVO_PROGRAM " run --no-memory --console --module " + module("troubled")},
      std::string("call Troubled crash \"") + how + "\"\n");
  EXPECT_THAT(result.err, HasSubstr(std::string("[fatal] korvo crash: ") + what + " in module Troubled (" +
                                    module("troubled") + ")"));
  EXPECT_THAT(result.err, HasSubstr(words));
  EXPECT_EQ(result.status, 128 + signal);
}

INSTANTIATE_TEST_SUITE_P(By, Crashes,
                         testing::Values(Crash{"segv", SIGSEGV, "SIGSEGV", ", thread korvo"},
                                         Crash{"call", SIGSEGV, "SIGSEGV", ", thread korvo"},
                                         Crash{"abort", SIGABRT, "SIGABRT", ", thread korvo"},
                                         Crash{"throw", SIGABRT, "an exception that nobody catches",
                                               ": the motor burns\n"},
                                         Crash{"signal", SIGFPE, "SIGFPE", ", thread korvo"},
                                         Crash{"overflow", SIGSEGV, "SIGSEGV", ", thread default"}),
                         [](const auto& row) { return std::string(row.param.how); });

}  // namespace
