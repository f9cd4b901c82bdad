#include "expect_error.h"
#include "hxrecorder.h"
#include "kit.h"
#include "memory_fixture.h"
#include "recording/table.h"
#include "temporary_folder.h"

#include <hxcommon/feed.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <random>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace HX::recording {
namespace {

using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Key;
using testing::SizeIs;

class Recording : public ::kit::MemoryFixture {
 protected:
  void startModule(HXValue::Map settings) {
    settings.insert_or_assign("folder", folder_.path().string());
    settings.insert_or_assign("min-free", "0B");
    broker->provideSettings("HXRecorder", GivenSettings::of(settings));
    module = HXModule::createModule<HXRecorder>(broker, "HXRecorder");
  }
  void TearDown() override {
    module.reset();
    MemoryFixture::TearDown();
  }
  RecorderOptions options() const {
    RecorderOptions options;
    options.file = folder_.path() / "a.mcap";
    options.minFree = 0;
    return options;
  }
  Feed feed() {
    return {[this](auto filter, auto onChange, auto follow) {
              return HX::follow(broker, std::move(filter), std::move(onChange), std::move(follow));
            },
            [this] { return retainedChanges(broker).latest; }};
  }
  /// What is written before the keys' states are told is among these.
  static void awaitBegin(const Recorder& recorder) {
    while (!recorder.state().hasBegun) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  static std::vector<int> numbersOf(const std::filesystem::path& path, std::string_view key) {
    std::vector<int> numbers;
    for (const Entry& entry : kit::entriesOf(path)) {
      if (entry.key == key && entry.kind == Entry::Kind::Change) numbers.push_back(entry.value.asInt());
    }
    return numbers;
  }

  std::shared_ptr<HXRecorder> module;
  const ::kit::TemporaryFolder folder_;
};

TEST_F(Recording, HasAllThatWasWrittenBeforeItsEnd) {
  memory->insertData("Old", 1);
  Recorder recorder(options(), feed());
  awaitBegin(recorder);
  std::vector<int> written;
  for (int i = 0; i < 2000; ++i) {
    memory->insertData("N", i);
    written.push_back(i);
  }
  recorder.stop();
  EXPECT_EQ(numbersOf(options().file, "N"), written);
  Reader reader(options().file);
  EXPECT_TRUE(reader.isWhole());
  EXPECT_THAT(tableAt(reader, kit::at(1e9), {}), AllOf(Contains(Key("Old")), Contains(Key("N"))));
  EXPECT_EQ(recorder.state().missed, 0U);
  EXPECT_EQ(recorder.state().failure, "");
}

TEST_F(Recording, TellsOfWhatHappenedWhileItPaused) {
  Recorder recorder(options(), feed());
  awaitBegin(recorder);
  memory->insertData("N", 1);
  memory->insertData("Gone", 1);
  while (recorder.state().changes < 2) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  recorder.pause();
  for (int i = 2; i < 100'000; ++i) memory->insertData("N", i);
  memory->removeData("Gone");
  recorder.resume();
  memory->insertData("N", 100'000);
  recorder.stop();
  EXPECT_EQ(recorder.state().gaps, 1U);
  EXPECT_GT(recorder.state().missed, 90'000U);
  Reader reader(options().file);
  const Table table = tableAt(reader, kit::at(1e9), {});
  EXPECT_EQ(table.at("N").value, HXValue(100'000));
  EXPECT_FALSE(table.contains("Gone"));
}

TEST_F(Recording, ThinsOutWhatComesFasterThanWantedAndKeepsTheLast) {
  auto thin = options();
  thin.rates = {{"Lidar/", 0.5}};
  Recorder recorder(std::move(thin), feed());
  awaitBegin(recorder);
  for (int i = 0; i < 500; ++i) {
    memory->insertData("Lidar/Scan", i);
    memory->insertData("Other", i);
  }
  recorder.stop();
  EXPECT_THAT(numbersOf(options().file, "Lidar/Scan"), SizeIs(testing::AllOf(testing::Ge(1U), testing::Le(20U))));
  EXPECT_EQ(numbersOf(options().file, "Lidar/Scan").back(), 499);
  EXPECT_THAT(numbersOf(options().file, "Other"), SizeIs(500));
}

TEST_F(Recording, LosesNothingAtTheSeamOfTwoFiles) {
  std::vector<std::filesystem::path> finished;
  auto split = options();
  split.onFinished = [&](const std::filesystem::path& path) { finished.push_back(path); };
  Recorder recorder(std::move(split), feed());
  awaitBegin(recorder);
  for (int i = 0; i < 3000; ++i) {
    memory->insertData("N", i);
    if (i % 1000 == 999) recorder.split();
  }
  recorder.stop();
  ASSERT_THAT(finished, SizeIs(4));
  std::vector<int> all;
  for (const auto& path : finished) {
    const auto part = numbersOf(path, "N");
    all.insert(all.end(), part.begin(), part.end());
    EXPECT_TRUE(path == finished.front() || kit::entriesOf(path).front().kind == Entry::Kind::State);
  }
  ASSERT_THAT(all, SizeIs(3000));
  for (int i = 0; i < 3000; ++i) ASSERT_EQ(all[static_cast<std::size_t>(i)], i);
}

TEST_F(Recording, KeepsSoMuchAndRemovesTheOldestParts) {
  auto bounded = options();
  bounded.keepBytes = 1 << 16;
  const auto first = bounded.file;
  Recorder recorder(std::move(bounded), feed());
  awaitBegin(recorder);
  std::mt19937 random(1);
  int written = 0;
  while (std::filesystem::exists(first) || recorder.state().parts < 10) {
    memory->insertData("N", ++written);
    memory->insertData("Noise", std::to_string(random()) + std::to_string(random()));
    // It is not to miss any of them, however long it is kept from running.
    const auto isBehind = [&](const RecorderState& state) {
      return written - static_cast<int>(state.changes / 2) > 1000 && state.missed == 0;
    };
    while (isBehind(recorder.state())) std::this_thread::yield();
  }
  const auto parts = recorder.state().parts;
  recorder.stop();
  std::vector<int> kept;
  std::size_t left = 0;
  std::uintmax_t bytes = 0;
  for (const auto& entry : std::filesystem::directory_iterator(folder_.path())) {
    const auto numbers = numbersOf(entry.path(), "N");
    kept.insert(kept.end(), numbers.begin(), numbers.end());
    bytes += entry.file_size();
    ++left;
  }
  EXPECT_LT(left, parts);
  EXPECT_LT(bytes, 16U << 20U) << "what is written until the writer looks again, and not all";
  std::ranges::sort(kept);
  ASSERT_FALSE(kept.empty());
  EXPECT_EQ(kept.back(), written);
  EXPECT_EQ(kept.size(), static_cast<std::size_t>(kept.back() - kept.front() + 1)) << "what is left has no hole";
}

TEST_F(Recording, LeavesTheDiskTheSpaceThatOthersNeed) {
  for (const bool removesOldest : {false, true}) {
    SCOPED_TRACE(removesOldest);
    std::atomic<bool> isFull = false;
    std::atomic<bool> hasFailed = false;
    auto careful = options();
    careful.file = folder_.path() / (removesOldest ? "oldest.mcap" : "stop.mcap");
    const auto first = careful.file;
    careful.minFree = 100;
    careful.removesOldest = removesOldest;
    // As long as the first part is there.
    careful.freeOf = [&](const auto&) { return isFull && std::filesystem::exists(first) ? 10U : 1000U; };
    careful.onFailure = [&](const std::string&) { hasFailed = true; };
    Recorder recorder(std::move(careful), feed());
    awaitBegin(recorder);
    memory->insertData("N", 1);
    while (recorder.state().changes < 1) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    recorder.split();
    while (recorder.state().parts < 2) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    isFull = true;
    while (std::filesystem::exists(first) && !hasFailed) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    EXPECT_EQ(hasFailed, !removesOldest);
    memory->insertData("N", 2);  // The memory has nothing of it.
    if (removesOldest) {
      recorder.stop();
      EXPECT_THAT(numbersOf(recorder.state().file, "N"), Contains(2));
    } else {
      EXPECT_THAT(errorOf([&] { recorder.stop(); }), HasSubstr("the disk has only 0 MiB left"));
      EXPECT_TRUE(Reader(first).isWhole());
      EXPECT_TRUE(Reader(recorder.state().file).isWhole());
    }
  }
}

TEST_F(Recording, IsStartedAndStoppedByCalls) {
  startModule({});
  std::vector<std::string> finished;
  module->finished.connect(mw::SignalSubscriber([&](const std::string& path) { finished.push_back(path); }));
  EXPECT_THAT(errorOf([&] { module->split(); }), HasSubstr("nothing is being recorded"));
  const std::string file = module->start("run.mcap");
  EXPECT_EQ(file, (folder_.path() / "run.mcap").string());
  EXPECT_THAT(errorOf([&] { module->start("other.mcap"); }), HasSubstr("run.mcap"));
  while (!module->state()["begun"].asBool()) module->sleepFor(std::chrono::milliseconds(1));
  memory->insertData("N", 1);
  module->note("kicked it here");
  EXPECT_TRUE(module->state()["recording"].asBool());
  EXPECT_EQ(module->stopRecording(), file);
  EXPECT_FALSE(module->state()["recording"].asBool());
  EXPECT_THAT(finished, ElementsAre(file));
  EXPECT_EQ(numbersOf(file, "N"), std::vector<int>{1});
  EXPECT_THAT(errorOf([&] { module->start("run.mcap"); }), HasSubstr("exists"));
}

TEST_F(Recording, OfABlackBoxStaysWithinItsBoundAndSaysHowFarItReaches) {
  BlackBoxOptions box;
  box.folder = folder_.path();
  box.before = std::chrono::hours(1);
  box.bytes = 1 << 20;
  BlackBox blackBox(std::move(box), feed());
  std::mt19937 random(1);
  for (int i = 0; i < 60'000; ++i) {
    std::string noise;
    for (int j = 0; j < 10; ++j) noise += std::to_string(random());
    memory->insertData("Noise", noise);
    if (i % 1000 == 0)
      std::this_thread::sleep_for(std::chrono::milliseconds(5));  // It follows, and is not to miss them.
    ASSERT_LT(blackBox.state().bytes, (1U << 20U) + (600U << 10U));
  }
  memory->insertData("Last", 1);
  const auto file = blackBox.save();
  const Reader reader(file);
  EXPECT_TRUE(reader.isWhole());
  EXPECT_THAT(reader.about(), Contains(Key("reach")));
  EXPECT_EQ(numbersOf(file, "Last"), std::vector<int>{1});
  EXPECT_LT(kit::entriesOf(file).size(), 60'000U);
}

/// So that it cannot begin anew with all of that each time its memory is full.
TEST_F(Recording, OfABlackBoxGoesBackAlsoWhereTheKeysHoldMoreThanItsBound) {
  constexpr int kLast = 20'000;
  constexpr std::size_t kHeld = 2U << 20U;
  BlackBoxOptions box;
  box.folder = folder_.path();
  box.before = std::chrono::hours(1);
  box.bytes = 1 << 20;
  std::mt19937 random(1);
  HXValue::Binary picture(kHeld);
  for (auto& byte : picture) byte = static_cast<HXValue::Binary::value_type>(random());
  memory->insertData("Picture", HXValue(std::move(picture)));
  BlackBox blackBox(std::move(box), feed());
  while (!blackBox.state().hasBegun) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  for (int i = 1; i <= kLast; ++i) memory->insertData("N", i);
  auto numbers = numbersOf(blackBox.save(), "N");
  while (numbers.empty() || numbers.back() != kLast) numbers = numbersOf(blackBox.save(), "N");
  EXPECT_EQ(numbers.front(), 1);
  EXPECT_LT(blackBox.state().bytes, 3 * kHeld);
}

TEST_F(Recording, OfABlackBoxLeavesSoManyBytesOfFilesAndTheHandlersOfSignalsAsTheyWere) {
  struct sigaction before {};
  struct sigaction meanwhile {};
  struct sigaction after {};
  ::sigaction(SIGFPE, nullptr, &before);
  BlackBoxOptions box;
  box.folder = folder_.path();
  box.before = std::chrono::hours(1);
  box.fileBytes = 1;
  for (int life = 0; life < 2; ++life) {
    BlackBox blackBox(box, feed());
    ::sigaction(SIGFPE, nullptr, &meanwhile);
    EXPECT_NE(meanwhile.sa_sigaction, before.sa_sigaction);
    while (!blackBox.state().hasBegun) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    memory->insertData("N", life);
    const auto first = blackBox.save();
    EXPECT_TRUE(std::filesystem::exists(first)) << "the newest one stays";
    const auto second = blackBox.save();
    EXPECT_FALSE(std::filesystem::exists(first));
    EXPECT_THAT(numbersOf(second, "N"), ElementsAre(life));
  }
  ::sigaction(SIGFPE, nullptr, &after);
  EXPECT_EQ(after.sa_sigaction, before.sa_sigaction);
}

TEST_F(Recording, OfABlackBoxHasEventsThatFollowEachOtherInOneFile) {
  std::atomic<int> written = 0;
  BlackBoxOptions box;
  box.folder = folder_.path();
  box.before = std::chrono::seconds(30);
  box.after = std::chrono::seconds(2);  // Nobody is stopped for so long between the two.
  box.when = {"Fall"};
  box.onFinished = [&](const std::filesystem::path&) { ++written; };
  {
    BlackBox blackBox(std::move(box), feed());
    while (!blackBox.state().hasBegun) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    memory->insertData("Before", 1);
    memory->raiseEvent("Fall", 1);
    memory->raiseEvent("Fall", 2);
    memory->insertData("After", 1);
    while (written == 0) std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  EXPECT_EQ(written, 1);
  const auto file = std::filesystem::directory_iterator(folder_.path())->path();
  EXPECT_EQ(numbersOf(file, "Fall"), (std::vector<int>{1, 2}));
  EXPECT_EQ(numbersOf(file, "Before"), std::vector<int>{1});
  EXPECT_EQ(numbersOf(file, "After"), std::vector<int>{1});
}

}  // namespace
}  // namespace HX::recording
