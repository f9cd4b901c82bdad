#include "events_fixture.h"
#include "race_point.h"
#include "together.h"

#include <future>
#include <mutex>

namespace HX {
namespace {

class Subscriptions : public EventsFixture {};

TEST_F(Subscriptions, MethodsWithoutEffectSaySo) {
  const kit::CaptureLog log({"hxmemory"});
  memory->unregisterModuleReference("M");
  memory->subscribeOnDataSetTimePolicy("E", "M", 10);
  memory->subscribeOnDataSetSynchronizeResponse("E", "M", true);
  EXPECT_THAT(log.entries(), ElementsAre(Entry{mw::LogLevel::Warning, "hxmemory", "unregisterModuleReference",
                                               "unregisterModuleReference is deprecated and can be removed."},
                                         Entry{mw::LogLevel::Error, "hxmemory", "subscribeOnDataSetTimePolicy",
                                               "HXMemory::subscribeOnDataSetTimePolicy is NO-OP"},
                                         Entry{mw::LogLevel::Error, "hxmemory", "subscribeOnDataSetSynchronizeResponse",
                                               "HXMemory::subscribeOnDataSetSynchronizeResponse is NO-OP"}));
}

TEST_F(Subscriptions, LookNobodyUpForAnEventThatNobodyExtracts) {
  broker->session()->setResolver([](const std::string& name) -> mw::Future<mw::AnyObject> {
    ADD_FAILURE() << name << " is looked up";
    return {};
  });
  const kit::CaptureLog log({"hxmemory"});
  for (const char* nobody : {"", "Unknown"}) {
    memory->declareEvent("E", nobody);
    memory->subscribeToEvent("E", "M", "cb");
    memory->unsubscribeToEvent("E", "M");
  }
  memory->declareEvent("F");
  memory->subscribeToEvent("F", "M", "cb");
  memory->unsubscribeToEvent("F", "M");
  EXPECT_THAT(log.entries(), IsEmpty());
}

TEST_F(Subscriptions, MissTheExtractorOnceWhenTheyEndOnWhatIsNoEvent) {
  const kit::CaptureLog log({"hxmemory"});
  memory->insertData("D", 1);
  memory->subscribeToMicroEvent("D", "M", "", "cb");
  memory->unsubscribeToEvent("D", "M");
  EXPECT_THAT(log.entries(),
              ElementsAre(Entry{mw::LogLevel::Info, "hxmemory", "stopExtractor", "stopExtractor no extractor for D"}));
  memory->subscribeToEvent("D", "M", "cb");
  memory->unsubscribeToEvent("D", "M");
  EXPECT_EQ(log.entries().size(), 1U) << "the subscription has left an entry, which says that there is none";
}

TEST_F(Subscriptions, LogUnderNoLockThatWhoeverHearsItMayNeed) {
  const kit::CaptureLog quiet({"heard"});
  subscribed("a")->react = [](const kit::Listener::Notification& heard) {
    if (heard.value == HXValue(1)) mw::log::info("heard", "react", "inside");
  };
  bool isFree = false;
  std::future<void> raise;  // It outlives the sink: its end waits for the raise.
  const auto sink = mw::log::addSink([&](const mw::LogRecord& record) {
    if (record.category != "heard") return;
    raise = std::async(std::launch::async, [&] { memory->raiseEvent("E", HXValue(2)); });
    isFree = raise.wait_for(std::chrono::seconds(20)) == std::future_status::ready;
  });
  memory->raiseEvent("E", HXValue(1));
  mw::log::removeSink(sink);
  EXPECT_TRUE(isFree);
}

TEST_F(Subscriptions, MissNothingWhileTheyAreReplaced) {
  const auto a = subscribed("a");
  kit::AtRacePoint meanwhile("a subscription is being replaced", [this] { memory->raiseEvent("E", HXValue(1)); });
  memory->subscribeToEvent("E", "a", "heardToo");
  EXPECT_TRUE(meanwhile.join());
  EXPECT_THAT(a->notifications(), ElementsAre(kit::Listener::Notification{"heardToo", "E", HXValue(1), ""}));
}

/// A frame manager that notes the events that boxes leave.
class Boxes : public EventsFixture {
 protected:
  class FrameManager : public mw::DynamicObject {
   public:
    explicit FrameManager(std::vector<std::string>& calls) {
      mw::ObjectBuilder builder;
      builder.setThreadingModel(mw::ObjectThreadingModel::MultiThread);
      builder.advertiseMethod(mw::MetaMethodBuilder("_unsubscribeBoxToEvent", {}, {}),
                              mw::AnyFunction::from([&calls](const std::string& event, const std::string&, bool) {
                                static std::mutex mutex;
                                const std::lock_guard lock(mutex);
                                calls.push_back(event);
                              }));
      setType(builder.build());
    }
  };

  void offerFrameManager() {
    broker->session()->registerService("HXFrameManager", mw::AnyObject(std::make_shared<FrameManager>(calls_)));
  }

  std::vector<std::string> calls_;
};

TEST_F(Boxes, CannotSubscribeWithoutAFrameManager) {
  const std::vector<std::pair<std::string, std::function<void()>>> rows{
      {"xBoxSubscribeToEvent", [this] { memory->subscribeToEvent("E", "_BehaviorBox", "cb"); }},
      {"xBoxSubscribeToEvent", [this] { memory->subscribeToMicroEvent("E", "_BehaviorBox", "", "cb"); }},
      {"xBoxUnsubscribeToEvent", [this] { memory->unsubscribeToEvent("E", "_BehaviorBox"); }},
      {"xBoxUnsubscribeToEvent", [this] { memory->unsubscribeToMicroEvent("E", "_BehaviorBox"); }}};
  for (const auto& [function, use] : rows) {
    const kit::CaptureLog log({"hxmemory"});
    EXPECT_EQ(errorOf(use), "Cannot get frame manager proxy");
    EXPECT_THAT(log.entries(),
                ElementsAre(Entry{mw::LogLevel::Error, "hxmemory", function, "Cannot get frame manager proxy"}));
  }
}

TEST_F(Boxes, FollowAFrameManagerThatIsReplaced) {
  offerFrameManager();
  memory->unsubscribeToEvent("first", "_BehaviorBox");
  const std::weak_ptr<HXProxy> proxy = broker->getProxy("HXFrameManager");
  EXPECT_FALSE(proxy.expired());
  withdraw("HXFrameManager");
  EXPECT_TRUE(proxy.expired()) << "the memory does not keep it";
  EXPECT_THROW(memory->unsubscribeToEvent("none", "_BehaviorBox"), std::runtime_error);
  offerFrameManager();
  memory->unsubscribeToEvent("second", "_BehaviorBox");
  EXPECT_THAT(calls_, ElementsAre("first", "second"));
}

TEST_F(Boxes, FollowAFrameManagerWhoseLeavingNobodyHasHeardOf) {
  offerFrameManager();
  memory->unsubscribeToEvent("first", "_BehaviorBox");
  {
    const mw::Session::NoticeHold hold(*broker->session());
    leave("HXFrameManager");
    offerFrameManager();
    memory->unsubscribeToEvent("second", "_BehaviorBox");
  }
  mw::defaultLoop().drain();
  const auto held = broker->getProxy("HXFrameManager");
  leave("HXFrameManager");
  mw::defaultLoop().drain();
  offerFrameManager();
  memory->unsubscribeToEvent("third", "_BehaviorBox");
  EXPECT_THAT(calls_, ElementsAre("first", "second", "third"));
  EXPECT_FALSE(broker->isCurrent(*held));
}

TEST_F(Boxes, AskForTheFrameManagerAllAtOnce) {
  offerFrameManager();
  kit::together(4, [this] {
    for (int round = 0; round < 100; ++round) memory->unsubscribeToEvent("E", "_BehaviorBox");
  });
  EXPECT_EQ(calls_.size(), 400U);
}

}  // namespace
}  // namespace HX
