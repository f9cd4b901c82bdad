#include "commands/inspecttext.h"
#include "hxjournal.h"
#include "memory_fixture.h"

#include <hxauthor/author.h>
#include <hxjournal/journal.h>
#include <hxvalue/json.h>
#include <libmw/clock.h>
#include <libmw/dynamicobject.h>

#include <chrono>
#include <functional>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using HX::Author;
using HX::HXValue;
using testing::AllOf;
using testing::ContainsRegex;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using namespace std::chrono_literals;

const char* const kUnknown = "unknown: the journal does not record (korvo run --journal keep)";

class Questions : public kit::MemoryFixture {
 protected:
  void SetUp() override {
    MemoryFixture::SetUp();
    now_ = mw::SystemTimePoint(1'800'000'000s);
    mw::exchangeSystemClock([]() noexcept { return now_; });
    journal_ = HX::HXModule::createModule<HX::HXJournal>(broker, "HXJournal");
  }
  void TearDown() override {
    journal_->exit();
    journal_.reset();
    MemoryFixture::TearDown();
    mw::exchangeSystemClock(nullptr);
  }

  void write(const std::string& key, const HXValue& value, const std::string& author) {
    const Author writer(author);
    const Author::Scope scope(writer);
    memory->insertData(key, value);
  }
  HXValue explain(const std::string& key) { return broker->getProxy("HXJournal")->call<HXValue>("explain", key); }
  HXValue demand(const std::string& name = "") { return broker->getProxy("HXJournal")->call<HXValue>("demand", name); }
  HXValue report() { return broker->getProxy("HXJournal")->call<HXValue>("report"); }
  /// As people see it.
  static std::string text(const std::vector<std::string>& lines) { return fmt::format("{}", fmt::join(lines, "\n")); }
  std::string explained(const std::string& key) { return text(korvo::explainText(explain(key), now_, 100)); }
  std::string demanded() { return text(korvo::demandText(demand(), now_)); }
  std::string reported() { return text(korvo::doctorText({}, report(), {}, now_)); }

  /// A service that does `onCall` whatever it is called for.
  mw::ServiceId offer(
      const std::string& name, bool isExtractor, const std::function<void()>& onCall = [] {}) {
    mw::ObjectBuilder builder;
    builder.setTypeName(name);
    builder.setThreadingModel(mw::ObjectThreadingModel::MultiThread);
    const auto add = [&](const char* method, auto callable) {
      builder.advertiseMethod(mw::MetaMethodBuilder(method, name, ""), mw::AnyFunction::from(callable));
    };
    add("onEvent", [onCall](const std::string&, const HXValue&, const HXValue&) { onCall(); });
    add("subscribe", [onCall](const std::string&) { onCall(); });
    add("unsubscribe", [onCall](const std::string&) { onCall(); });
    if (isExtractor) add("getCurrentPrecision", [] { return 1; });
    return broker->session()->registerService(
        name, mw::AnyObject(std::make_shared<mw::DynamicObject>(builder.build(), nullptr)));
  }

  static inline mw::SystemTimePoint now_;
  std::shared_ptr<HX::HXJournal> journal_;
};

TEST_F(Questions, TellOfChangesWhatTheJournalKnowsAndThatItDoesNot) {
  memory->insertData("Arm/Pose", HXValue(1.5));
  memory->setDescription("Arm/Pose", "where it is");
  HXValue told = explain("Arm/Pose");
  EXPECT_EQ(told["value"], HXValue(1.5));
  EXPECT_EQ(told["type"].asString() + " " + told["kind"].asString(), "double Data");
  EXPECT_EQ(told["last"].asString(), kUnknown);
  EXPECT_EQ(told["rate"].asString(), kUnknown);
  EXPECT_EQ(told["changes"].asString(), kUnknown);
  EXPECT_EQ(report()["changesPerSecond"].asString(), kUnknown);
  EXPECT_THAT(explained("Arm/Pose"), AllOf(HasSubstr("where it is"), HasSubstr(kUnknown)));
  EXPECT_FALSE(memory->journal().isRecording()) << "because it was asked";

  memory->journal().keep(true);
  EXPECT_EQ(explain("Arm/Pose")["last"].asString(), "unknown: no change of it is retained");
  for (int i = 0; i < 120; ++i, now_ += 500ms) write("Arm/Pose", 0.5 * i, "Arm");
  now_ -= 400ms;
  told = explain("Arm/Pose");
  EXPECT_EQ(told["changes"].toInt64(), 120);
  EXPECT_EQ(told["rate"]["second"].toDouble(), 2);
  EXPECT_NEAR(told["rate"]["minute"].toDouble(), 2, 0.02);
  EXPECT_EQ(told["last"]["author"].asString(), "Arm");
  EXPECT_EQ(told["last"]["what"].asString(), "stored");
  EXPECT_EQ(static_cast<std::uint64_t>(told["last"]["revision"].toInt64()), memory->journal().position().revision);
  EXPECT_EQ(told["last"]["time"].toInt64(),
            std::chrono::floor<std::chrono::microseconds>((now_ - 100ms).time_since_epoch()).count());
  EXPECT_THAT(told["odd"].asList(), testing::IsEmpty());
  EXPECT_EQ(report()["changesPerSecond"].toDouble(), 2);
  EXPECT_THAT(explained("Arm/Pose"), HasSubstr("100 ms ago: stored by Arm, revision"));
}

TEST_F(Questions, CountWhatASubscriberMissedSinceItWasDropped) {
  const auto missed = [&] { return broker->getProxy("HXJournal")->call<HXValue>("missed", "Bell", "Deaf"); };
  memory->declareEvent("Bell");
  EXPECT_EQ(missed(), HXValue()) << "it never was subscribed";
  const auto lose = [&](int raises) {
    const auto id = offer("Deaf", false);
    memory->subscribeToEvent("Bell", "Deaf", "onEvent");
    broker->session()->unregisterService(id);
    for (int i = 0; i < raises; ++i, now_ += 1s) memory->raiseEvent("Bell", i);
  };
  lose(2);
  EXPECT_EQ(missed(), HXValue()) << "nothing was recorded";
  memory->journal().keep(true);
  memory->raiseEvent("Bell", 5);
  EXPECT_EQ(missed(), HXValue()) << "the first one was not recorded";
  lose(0);
  EXPECT_EQ(missed(), HXValue(0));
  lose(3);
  memory->insertData("Bell", 7);
  EXPECT_EQ(missed().toInt64(), 3);
}

TEST_F(Questions, TellWhatIsOdd) {
  memory->journal().keep(true);
  write("Pose", 1, "Arm");
  write("Pose", "x", "Leg");
  write("Pose", "y", "Leg");
  write("Pose", 1, "Arm");
  memory->declareEvent("Pose");
  now_ += 5min;
  write("Single", 1, "Arm");
  write("Removed", 1, "Arm");
  memory->removeData("Removed");
  write("Removed", 1, "Arm");
  EXPECT_THAT(explain("Pose")["odd"].asList(),
              ElementsAre(HXValue("retyped 2 times in 5 min by 2 authors"), HXValue("written by Arm and Leg")));
  EXPECT_THAT(explain("Single")["odd"].asList(), testing::IsEmpty());
  EXPECT_THAT(explain("Removed")["odd"].asList(), ElementsAre(HXValue("removed once in 5 min")));
  EXPECT_THAT(reported(), HasSubstr("Pose is written by Arm and Leg"));
}

TEST_F(Questions, NameAKeyThatIsNotThere) {
  EXPECT_THROW(explain("Nothing"), HX::HXError);
  EXPECT_FALSE(memory->xGetSTMValue("Nothing")) << "and declare none";
  EXPECT_THROW(demand("Nobody"), std::runtime_error);
}

TEST_F(Questions, TellWhoMakesAnExtractorRun) {
  offer("Lidar", true);
  offer("Camera", false);
  offer("Mapper", false);
  memory->declareEvent("Scan", "Lidar");
  memory->declareEvent("Image", "Camera");
  memory->declareEvent("Echo", "Sonar");
  EXPECT_THAT(demanded(),
              AllOf(HasSubstr("Scan: Lidar is off: nobody is subscribed"),
                    HasSubstr("Image: Camera is not told of subscribers"), HasSubstr("Echo: Sonar is not there")));
  EXPECT_THAT(report()["wrong"].asList(), testing::IsEmpty());
  memory->subscribeToEvent("Scan", "Mapper", "onEvent");
  memory->subscribeToEvent("Scan", "Ghost", "onEvent");
  EXPECT_THROW(memory->subscribeToEvent("Echo", "Mapper", "onEvent"), std::runtime_error);
  EXPECT_THAT(explained("Scan"), AllOf(HasSubstr("Lidar is on for Ghost since "), HasSubstr(" and Mapper since "),
                                       HasSubstr("Ghost is subscribed and not there")));
  EXPECT_THAT(demand("Lidar").asList(), testing::SizeIs(1));
  EXPECT_THAT(reported(), HasSubstr("Sonar does not produce Echo although asked: it is not there"));

  memory->raiseEvent("Scan", 1);  // Ends Ghost's.
  EXPECT_THAT(reported(), Not(HasSubstr("for nobody")));
  memory->unsubscribeToEvent("Scan", "Mapper");
  EXPECT_THAT(demanded(), HasSubstr("Scan: Lidar is on for nobody: Ghost has gone without unsubscribing"));
  EXPECT_THAT(reported(), AllOf(HasSubstr("Lidar produces Scan for nobody"), HasSubstr("Ghost"),
                                Not(HasSubstr("the subscription of Ghost"))));
}

TEST_F(Questions, TellOfSubscribersThatFailAreSlowOrHang) {
  std::promise<void> entered;
  std::promise<void> leave;
  offer("Deaf", false, [] { throw std::runtime_error("no ears"); });
  offer("Slow", false, [] { std::this_thread::sleep_for(120ms); });
  offer("Stuck", false, [&, left = leave.get_future().share()] {
    entered.set_value();
    left.wait();
  });
  memory->subscribeToMicroEvent("Bell", "Deaf", "", "onEvent");
  memory->subscribeToMicroEvent("Bell", "Slow", "", "onEvent");
  memory->raiseMicroEvent("Bell", 1);
  EXPECT_THAT(reported(), AllOf(HasSubstr("the subscription of Deaf to Bell has ended: no ears"),
                                ContainsRegex("Slow took [0-9.]+ s for Bell: who raises it waits")));
  EXPECT_THAT(explained("Bell"),
              AllOf(ContainsRegex("Slow.onEvent  in the broker.* took [0-9]"), Not(HasSubstr("Deaf"))));
  const HXValue figures = journal_->figures();
  EXPECT_EQ(figures["subscriptions"].toInt(), 1);
  EXPECT_EQ(figures["slow"].toInt(), 1);
  EXPECT_EQ(figures["calls"][0][0], HXValue("Slow"));
  const HXValue::List counts = figures["calls"][0][1].asList();
  EXPECT_EQ(counts[5].toInt64() + counts[6].toInt64() + counts[7].toInt64(), 1) << "of more than 100 ms";
  EXPECT_GE(figures["calls"][0][2].toDouble(), 0.12);
  EXPECT_EQ(figures["dropped"][0]["module"], HXValue("Deaf"));
  EXPECT_EQ(journal_->subscribers({"Bell", "Gong"})["Bell"][0]["module"], HXValue("Slow"));
  now_ += 11min;
  EXPECT_THAT(reported(), AllOf(HasSubstr("no ears"), Not(HasSubstr("has ended")))) << "long ago";

  memory->subscribeToMicroEvent("Gong", "Stuck", "", "onEvent");
  std::thread raiser([&] { memory->raiseMicroEvent("Gong", 1); });
  entered.get_future().wait();
  EXPECT_THAT(explained("Gong"), HasSubstr("being called Stuck, for "));
  leave.set_value();
  raiser.join();
}

TEST_F(Questions, TellWhoFollowsAndFallsBehind) {
  const Author logger("Logger");
  HX::journal::Follow follow;
  {
    const Author::Scope scope(logger);
    follow = memory->journal().follow({}, [](const HX::journal::Change&) {});
  }
  follow.pause();
  write("a", 1, "Arm");
  EXPECT_THAT(reported(), AllOf(HasSubstr("Logger"), HasSubstr("paused"), HasSubstr("wrong        nothing")));
  for (int i = 0; i < 70'000; ++i) memory->insertData("a", i);
  std::promise<void> told;
  follow.resume();
  while (report()["followers"].asList().at(0)["gaps"].toInt64() == 0) std::this_thread::yield();
  EXPECT_THAT(reported(), HasSubstr("Logger follows too slowly: it has missed changes once"));
}

TEST_F(Questions, PassOnWhatIsOverdue) {
  mw::ObjectBuilder builder;
  builder.setTypeName("HXFreshness");
  builder.advertiseMethod(
      mw::MetaMethodBuilder("overdue", "", ""), mw::AnyFunction::from([] {
        return HXValue::list({HXValue::list({"Lidar/Scan", 4.2, 0.2}), HXValue::list({"Arm/Pose", 1.9, 1.5}),
                              HXValue::list({"Map", 7260.0, 150.0})});
      }));
  builder.advertiseMethod(mw::MetaMethodBuilder("expectations", "", ""), mw::AnyFunction::from([] {
                            return HXValue::list({HXValue::list({"Lidar/Scan", 4.2, 0.2, true}),
                                                  HXValue::list({"Lidar/Speed", 0.1, 2.0, false})});
                          }));
  const auto id = broker->session()->registerService(
      "HXFreshness", mw::AnyObject(std::make_shared<mw::DynamicObject>(builder.build(), nullptr)));
  EXPECT_THAT(reported(), AllOf(HasSubstr("Lidar/Scan is overdue: not written for 4.2 s, expected every 0.2 s"),
                                HasSubstr("Arm/Pose is overdue: not written for 1.9 s, expected every 1.5 s"),
                                HasSubstr("Map is overdue: not written for 2.0 h, expected every 2.5 min")));
  for (const char* key : {"Lidar/Scan", "Lidar/Speed", "Lidar/Range"}) memory->insertData(key, 1);
  EXPECT_THAT(explained("Lidar/Scan"), HasSubstr("expected     OVERDUE: every 200 ms"));
  EXPECT_THAT(explained("Lidar/Speed"), HasSubstr("expected     every 2 s"));
  EXPECT_THAT(explained("Lidar/Range"), Not(HasSubstr("expected")));
  broker->session()->unregisterService(id);
  EXPECT_THAT(reported(), HasSubstr("nothing"));
}

}  // namespace
