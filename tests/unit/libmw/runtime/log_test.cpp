#include "capture_log.h"
#include "sitter.h"

#include <libmw/detail/logdeferral.h>
#include <libmw/log.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <future>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

namespace log = mw::log;
using mw::LogLevel;
using mw::LogRecord;
using testing::ElementsAre;

// Before main(), from a static initialiser, the log has to work already.
const bool isUsedEarly = (log::debug("early", "initialiser", "not visible"), true);

TEST(Log, ShowsRecordsUpToTheLevelSet) {
  const kit::CaptureLog capture({"levels"});
  const std::vector<std::string> names{"fatal", "error", "warning", "info", "verbose", "debug"};
  std::vector<std::string> expected;
  for (int level = 0; level <= static_cast<int>(LogLevel::Debug); ++level) {
    log::setLevel(static_cast<LogLevel>(level), "levels");
    log::fatal("levels", "f", "fatal");
    log::error("levels", "f", "error");
    log::warning("levels", "f", "warning");
    log::info("levels", "f", "info");
    log::verbose("levels", "f", "verbose");
    log::debug("levels", "f", "debug");
    log::write(LogLevel::Silent, "levels", "f", "never");
    expected.insert(expected.end(), names.begin(), names.begin() + level);
  }
  EXPECT_EQ(capture.texts(), expected);
}

TEST(Log, TheLatestMatchingPatternDecidesForCategoriesOldAndNew) {
  EXPECT_TRUE(isUsedEarly);
  auto& old = log::addCategory("pattern.old");
  log::setLevel(LogLevel::Error, "pattern.*");
  log::setLevel(LogLevel::Debug, "pattern.new?");
  EXPECT_EQ(old.level(), LogLevel::Error);
  EXPECT_EQ(log::addCategory("pattern.new1").level(), LogLevel::Debug);
  EXPECT_EQ(log::addCategory("pattern.other").level(), LogLevel::Error);
  EXPECT_EQ(&log::addCategory("pattern.old"), &old);
  EXPECT_EQ(log::addCategory("unruled").level(), LogLevel::Info);
}

TEST(Log, TheMacroBuildsItsTextOnlyWhenItIsVisible) {
  const kit::CaptureLog capture({"macro"});
  auto& category = log::addCategory("macro");
  category.setLevel(LogLevel::Warning);
  int built = 0;
  const auto text = [&] { return std::to_string(++built); };
  HX_LOG(Info, category, text());
  HX_LOG(Warning, category, text());
  HX_LOG_AS(Error, "macro", "stated", text());
  using Entry = kit::CaptureLog::Entry;
  EXPECT_THAT(capture.entries(), ElementsAre(Entry{LogLevel::Warning, "macro", "TestBody", "1"},
                                             Entry{LogLevel::Error, "macro", "stated", "2"}));
}

// --- sinks ---

struct LogSinks : testing::Test {
  bool wasOnStderr = log::setStderrSink(false);
  ~LogSinks() override { log::setStderrSink(wasOnStderr); }
};

TEST_F(LogSinks, AreCalledInOrderByOthersWhileTheThreadHoldsALock) {
  std::atomic<std::thread::id> holder;
  bool isUnderLock = false;
  std::vector<std::string> texts;
  std::promise<void> heard;
  const auto sink = log::addSink([&](const LogRecord& record) {
    if (record.category != "deferred") return;
    isUnderLock = isUnderLock || holder == std::this_thread::get_id();
    texts.emplace_back(record.text);
    if (record.text == "first") heard.set_value();
  });
  {
    const mw::detail::LogDeferral deferral;
    holder = std::this_thread::get_id();
    log::info("deferred", "f", "first");
    EXPECT_EQ(heard.get_future().wait_for(std::chrono::seconds(20)), std::future_status::ready)
        << "what is logged waits for the end of the scope";
    {
      const mw::detail::LogDeferral inner;
      log::info("deferred", "f", "second");
    }
    log::info("deferred", "f", "third");
    holder = std::thread::id();
  }
  log::info("deferred", "f", "fourth");
  log::removeSink(sink);
  EXPECT_FALSE(isUnderLock);
  EXPECT_THAT(texts, ElementsAre("first", "second", "third", "fourth"));
}

/// Each logs under a lock when it is called, and stays there until another thread has handed that over. What comes of a
/// sink is not for it, also on that thread.
TEST_F(LogSinks, DoNotMeetWhatTheyHaveCausedUnderALock) {
  std::map<std::string, std::vector<std::string>> met;
  std::mutex mutex;
  std::condition_variable hasMet;
  std::vector<log::SinkId> sinks;
  for (const auto& [name, other] : {std::pair<std::string, std::string>{"a", "b"}, {"b", "a"}}) {
    sinks.push_back(log::addSink([&, name = name, other = other](const LogRecord& record) {
      if (record.category != "deferred") return;
      const std::string text(record.text);
      const mw::detail::LogDeferral deferral;
      std::unique_lock lock(mutex);
      met[name].push_back(text);
      hasMet.notify_all();
      if (met[name].size() > 10) return;
      lock.unlock();
      log::info("deferred", "f", text + name);
      lock.lock();
      const auto isHandedOver = [&] { return std::ranges::find(met[other], text + name) != met[other].end(); };
      if (text == "-") hasMet.wait_for(lock, std::chrono::seconds(20), isHandedOver);
    }));
  }
  log::info("deferred", "f", "-");
  for (const auto id : sinks) log::removeSink(id);
  EXPECT_THAT(met["a"], testing::UnorderedElementsAre("-", "-b"));
  EXPECT_THAT(met["b"], testing::UnorderedElementsAre("-", "-a"));
}

TEST_F(LogSinks, AreToldWhatWasLeftOutWhileTheyTookTooLong) {
  kit::Sitter sitter;
  std::vector<std::string> texts;
  const auto sink = log::addSink([&](const LogRecord& record) {
    if (record.category != "deferred" && record.category != "log") return;
    texts.emplace_back(record.text);
    if (texts.size() == 1) sitter.sit();
  });
  constexpr int kMostWaiting = 10'000;
  {
    const mw::detail::LogDeferral deferral;
    log::info("deferred", "f", "first");
    sitter.awaitEntry();
    for (int i = 0; i < kMostWaiting + 2; ++i) log::info("deferred", "f", "more");
    sitter.release();
  }
  log::removeSink(sink);
  ASSERT_EQ(texts.size(), 1U + kMostWaiting + 1U);
  EXPECT_EQ(texts.back(), "2 records left out, which came faster than the sinks took them");
}

TEST_F(LogSinks, SeeTheTime) {
  const auto before = mw::exchangeSystemClock([]() noexcept { return mw::SystemTimePoint(std::chrono::seconds(42)); });
  mw::SystemTimePoint seen;
  const auto sink = log::addSink([&](const LogRecord& record) { seen = record.time; });
  log::error("time", "f", "now");
  log::removeSink(sink);
  mw::exchangeSystemClock(before);
  EXPECT_EQ(seen.time_since_epoch(), std::chrono::seconds(42));
}

TEST_F(LogSinks, OneThatThrowsLogsOrRemovesItselfHarmsNobody) {
  std::vector<std::string> seen;
  const auto throwing = log::addSink([](const LogRecord&) { throw std::runtime_error("sink"); });
  const auto logging = log::addSink([](const LogRecord& record) {
    if (record.text == "outer") log::error("sinks", "f", "inner");
  });
  log::SinkId once = 0;
  once = log::addSink([&](const LogRecord& record) {
    seen.push_back("once " + std::string(record.text));
    log::removeSink(once);
  });
  const auto collecting = log::addSink([&](const LogRecord& record) { seen.emplace_back(record.text); });
  log::error("sinks", "f", "outer");
  for (const auto id : {throwing, logging, collecting}) log::removeSink(id);
  log::error("sinks", "f", "unheard");
  EXPECT_THAT(seen, ElementsAre("once inner", "inner", "outer"));
}

TEST_F(LogSinks, RemovalWaitsForTheSinkToReturn) {
  kit::Sitter sitter;
  const auto id = log::addSink([&](const LogRecord&) { sitter.sit(); });
  std::thread writer([] { log::error("sinks", "f", "slow"); });
  sitter.awaitEntry();
  std::thread releaser([&] { sitter.release(); });
  log::removeSink(id);
  EXPECT_TRUE(sitter.left);
  writer.join();
  releaser.join();
}

// --- standard error ---

TEST(Log, WritesOneLineWhateverTheTextHolds) {
  const std::pair<std::string, std::string> lines[] = {{"plain \xc3\xa9", "plain \xc3\xa9"},
                                                       {"a\nerror: b\r\tc", "a\\nerror: b\\r\\tc"},
                                                       {std::string("\0\x1b[31m\x7f", 7), "\\x00\\x1b[31m\\x7f"},
                                                       {"\xc2\x9b[31m\xc2\xa0\xc2", "\\u009b[31m\xc2\xa0\xc2"}};
  for (const auto& [text, line] : lines) {
    testing::internal::CaptureStderr();
    log::warning("lines", "say", text);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "[warning] lines say: " + line + "\n");
  }
}

TEST(Log, WritesSoManyLinesOfACauseASecondAndCountsTheOthers) {
  testing::internal::CaptureStderr();
  const auto begin = std::chrono::steady_clock::now();
  log::warning("flood", "f", std::string(100'000, 'x') + "end");
  for (int i = 1; i < 1000; ++i) log::warning("flood", "f", "again");
  log::warning("flood", "g", "another cause");
  while (std::chrono::steady_clock::now() - begin < std::chrono::milliseconds(1010)) std::this_thread::yield();
  log::warning("flood", "f", "the next second");
  const std::string lines = testing::internal::GetCapturedStderr();
  EXPECT_EQ(std::count(lines.begin(), lines.end(), '\n'), 100 + 1 + 2);
  EXPECT_LT(lines.size(), 2200 + 102U * 70);
  EXPECT_THAT(lines, testing::HasSubstr("xxx… 98003 bytes …xxx"));
  EXPECT_THAT(lines, testing::EndsWith("[warning] flood g: another cause\n"
                                       "[warning] flood f: 900 more like these within a second\n"
                                       "[warning] flood f: the next second\n"));
}

class LogDeathTest : public testing::Test {
 protected:
  LogDeathTest() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

TEST_F(LogDeathTest, SurvivesAStandardErrorThatIsClosedOrThatNobodyReads) {
  EXPECT_EXIT(
      {
        int ends[2];
        if (pipe(ends) != 0) _exit(1);
        dup2(ends[1], STDERR_FILENO);
        close(ends[0]);
        log::error("pipe", "f", "lost");
        close(STDERR_FILENO);
        log::error("closed", "f", "lost");
        sigset_t pending;
        sigpending(&pending);
        _exit(sigismember(&pending, SIGPIPE));
      },
      testing::ExitedWithCode(0), "");
}

struct LogsWhileTheProcessEnds {
  ~LogsWhileTheProcessEnds() { log::error("exit", "f", "still here"); }
};

TEST_F(LogDeathTest, WorksWhileTheProcessEnds) {
  EXPECT_EXIT(
      {
        static const LogsWhileTheProcessEnds atExit;
        std::exit(0);
      },
      testing::ExitedWithCode(0), "\\[error\\] exit f: still here");
}

}  // namespace
