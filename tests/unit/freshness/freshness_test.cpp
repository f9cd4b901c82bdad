#include <hxproxies/hxfreshnessproxy.h>

#include <cmath>
#include <expect_error.h>
#include <hxfreshness.h>
#include <manual_executor.h>
#include <map>
#include <memory_fixture.h>
#include <string>
#include <tuple>
#include <vector>

#include <gmock/gmock.h>

namespace HX {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;

/// The memory's journal and the module go by one clock, which the test moves; the memory's own clock goes with it.
class Freshness : public kit::MemoryFixture {
 protected:
  void SetUp() override {
    MemoryFixture::SetUp();
    memory->exit();
    generic.reset();
    memory.reset();
    memory = HXModule::createModule<HXMemory>(broker, "HXMemory", HXMemory::JournalSettings{executor, {}});
    freshness = HXModule::createModule<HXFreshness>(broker, "HXFreshness", executor);
    former_ = mw::exchangeSystemClock(
        []() noexcept { return mw::SystemTimePoint(executor_->now().time_since_epoch() + clockJump_); });
  }
  void TearDown() override {
    freshness.reset();
    MemoryFixture::TearDown();
    executor->clear();
    mw::exchangeSystemClock(former_);
    clockJump_ = {};
  }

  /// What was raised since the last time: "Overdue Key 0.2", with the seconds of silence.
  std::vector<std::string> told() {
    std::vector<std::string> all;
    for (const char* event : {"Overdue", "Recovered"}) {
      const std::string key = std::string("HXFreshness/") + event;
      if (!memory->xGetSTMValue(key)) continue;
      const HXValue history = memory->getEventHistory(key);
      for (std::size_t& i = seen_[event]; i < history.getSize(); ++i) {
        const HXValue& raised = history[i][0];
        all.push_back(std::string(event) + " " + raised[0].toString() + " " + text(raised[1].toDouble()));
      }
    }
    return all;
  }
  std::vector<std::string> overdue() {
    std::vector<std::string> all;
    const HXValue list = freshness->overdue();
    for (std::size_t i = 0; i < list.getSize(); ++i) {
      all.push_back(list[i][0].asString() + " " + text(list[i][1].toDouble()) + " " + text(list[i][2].toDouble()));
    }
    return all;
  }
  /// Writes a key each `period` for so long.
  void keepWriting(const std::string& key, std::chrono::milliseconds period, std::chrono::milliseconds span) {
    for (auto time = 0ms; time < span; time += period) {
      memory->insertData(key, 1);
      executor->advance(period);
    }
  }
  static std::string text(double number) { return std::to_string(std::lround(number * 1000)) + "ms"; }

  std::shared_ptr<kit::ManualExecutor> executor = executor_;
  std::shared_ptr<HXFreshness> freshness;
  static inline const std::shared_ptr<kit::ManualExecutor> executor_ = std::make_shared<kit::ManualExecutor>();
  static inline std::chrono::nanoseconds clockJump_{};

 private:
  std::map<std::string, std::size_t> seen_;
  mw::SystemClockSource former_ = nullptr;
};

TEST_F(Freshness, TellsOnceThatAKeyIsNotWrittenInTimeAndOnceThatItIsAgain) {
  memory->insertData("Scan", 1);
  freshness->expect("Scan", 0.2);
  keepWriting("Scan", 150ms, 3s);
  EXPECT_THAT(told(), IsEmpty());
  executor->advance(10s);
  EXPECT_THAT(told(), ElementsAre("Overdue \"Scan\" 200ms"));
  EXPECT_THAT(overdue(), ElementsAre("Scan 10150ms 200ms"));
  memory->raiseEvent("Scan", 2);
  executor->advance(100ms);
  EXPECT_THAT(told(), ElementsAre("Recovered \"Scan\" 10150ms"));
  EXPECT_THAT(overdue(), IsEmpty());
  executor->advance(200ms);
  EXPECT_THAT(told(), ElementsAre("Overdue \"Scan\" 200ms"));
}

TEST_F(Freshness, CountsWritesOnlyAndKeysThatAreNotThereToo) {
  memory->insertData("Old", 1);
  executor->advance(1s);
  broker->getSpecialisedProxy<HXFreshnessProxy>("HXFreshness")
      ->expect({{"Never", 200ms}, {"Old", 500ms}, {"Declared", 300ms}});
  executor->advance(0ms);
  EXPECT_THAT(told(), ElementsAre("Overdue \"Old\" 1000ms")) << "it was old before it was expected";
  memory->declareEvent("Declared");
  memory->setDescription("Old", "text");
  executor->advance(250ms);
  EXPECT_THAT(told(), ElementsAre("Overdue \"Never\" 200ms"));
  executor->advance(1s);
  EXPECT_THAT(told(), ElementsAre("Overdue \"Declared\" 300ms"));
  memory->insertData("Never", 1);
  executor->advance(20ms);
  EXPECT_THAT(told(), ElementsAre("Recovered \"Never\" 1250ms"));
  memory->removeData("Never");
  executor->advance(1s);
  EXPECT_THAT(told(), ElementsAre("Overdue \"Never\" 200ms")) << "a removal is no write";
}

TEST_F(Freshness, RaisesNoFalseAlarmWhereItIsToldLate) {
  memory->insertData("Fast", 1);
  freshness->expect("Fast", 0.01);
  keepWriting("Fast", 9ms, 1s);  // The follower looks each 20 ms.
  EXPECT_THAT(told(), IsEmpty());
}

TEST_F(Freshness, GoesOnWhenTheClockOfTheMemoryJumps) {
  memory->insertData("Scan", 1);
  freshness->expect("Scan", 0.2);
  keepWriting("Scan", 100ms, 1s);
  clockJump_ = -24h;
  keepWriting("Scan", 100ms, 1s);
  clockJump_ = 24h;
  EXPECT_THAT(told(), IsEmpty());
  executor->advance(1s);
  EXPECT_EQ(told().size(), 1U);
}

TEST_F(Freshness, ExpectsFromTheStartWhatItsSettingsSay) {
  freshness->exit();
  broker->provideSettings("HXFreshness", GivenSettings::of(HXValue::map({{"expect", HXValue::map({{"A", "100ms"}})}})));
  freshness = HXModule::createModule<HXFreshness>(broker, "HXFreshness", executor);
  executor->advance(1s);
  EXPECT_THAT(told(), ElementsAre("Overdue \"A\" 100ms"));
}

TEST_F(Freshness, ForgetsAndChangesLimits) {
  freshness->expectAll({{"A", 0.1}, {"B", 0.1}});
  executor->advance(1s);
  EXPECT_THAT(told(), ElementsAre("Overdue \"A\" 100ms", "Overdue \"B\" 100ms"));
  EXPECT_TRUE(freshness->forget("A"));
  EXPECT_FALSE(freshness->forget("A"));
  memory->insertData("A", 1);
  const auto proxy = broker->getSpecialisedProxy<HXFreshnessProxy>("HXFreshness");
  proxy->expect("B", 5s);
  executor->advance(1s);
  EXPECT_THAT(told(), ElementsAre("Recovered \"B\" 1000ms"));
  ASSERT_EQ(proxy->expectations().size(), 1U);
  const auto standing = proxy->expectations()[0];
  EXPECT_EQ(std::tuple(standing.key, standing.age, standing.limit, standing.isOverdue), std::tuple("B", 2s, 5s, false));
  EXPECT_TRUE(proxy->forget("B"));
  executor->advance(1h);
  EXPECT_THAT(told(), IsEmpty());
}

TEST_F(Freshness, CostsNothingUnusedAndOneTimerForAll) {
  executor->advance(1h);
  const std::size_t idle = executor->waiting();
  EXPECT_FALSE(memory->journal().isRecording());
  std::map<std::string, double> limits;
  for (int i = 0; i < 100; ++i) limits["Key" + std::to_string(i)] = 1000 - i;
  freshness->expectAll(limits);
  EXPECT_LE(executor->waiting(), idle + 3);
  executor->advance(1001s);
  EXPECT_EQ(overdue().size(), 100U);
  const std::size_t posted = executor->posted();
  executor->advance(1h);
  EXPECT_EQ(executor->posted(), posted) << "what is overdue is waited for by nobody";
}

TEST_F(Freshness, RefusesWhatCannotBeExpected) {
  for (const double limit : {0.0, -1.0, std::nan(""), 1e300}) {
    EXPECT_THROW(freshness->expectAll({{"A", 1}, {"B", limit}}), HXError) << limit;
  }
  EXPECT_THROW(freshness->expect("HXFreshness/Overdue", 1), HXError);
  EXPECT_EQ(freshness->expectations().getSize(), 0U) << "all or none";
  memory->exit();
  EXPECT_THROW(freshness->expect("A", 1), std::runtime_error);
  EXPECT_EQ(freshness->expectations().getSize(), 0U);
}

}  // namespace
}  // namespace HX
