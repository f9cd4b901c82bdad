#include "events_fixture.h"

namespace HX {
namespace {

/// A frame manager that logs its calls.
class Boxes : public EventsFixture {
 protected:
  class FrameManager : public mw::DynamicObject {
   public:
    explicit FrameManager(std::vector<std::string>& calls) {
      mw::ObjectBuilder builder;
      const auto subscribe = [&calls](const std::string& event, const std::string& box, const HXValue& message,
                                      const std::string& method, bool micro) {
        calls.push_back("+ " + event + " " + box + " " + message.toString() + " " + method + (micro ? " micro" : ""));
      };
      const auto unsubscribe = [&calls](const std::string& event, const std::string& box, bool micro) {
        calls.push_back("- " + event + " " + box + (micro ? " micro" : ""));
        if (event == "unwanted") throw std::runtime_error("never heard of it");
      };
      builder.advertiseMethod(mw::MetaMethodBuilder("_subscribeBoxToEvent", {}, {}), mw::AnyFunction::from(subscribe));
      builder.advertiseMethod(mw::MetaMethodBuilder("_unsubscribeBoxToEvent", {}, {}),
                              mw::AnyFunction::from(unsubscribe));
      setType(builder.build());
    }
  };

  void offerFrameManager() {
    broker->session()->registerService("HXFrameManager", mw::AnyObject(std::make_shared<FrameManager>(calls_)));
  }

  std::vector<std::string> calls_;
};

TEST_F(Boxes, AreHandedToTheFrameManager) {
  offerFrameManager();
  memory->declareEvent("E", "missing extractor");
  memory->subscribeToEvent("E", "_BehaviorBox", "cb");
  memory->subscribeToEvent("E", "_BehaviorBox", "m", "cb");
  memory->subscribeToMicroEvent("unknown", "_Behavior", "m", "cb");
  memory->unsubscribeToEvent("E", "_BehaviorManager");
  memory->unsubscribeToMicroEvent("unknown", "_BehaviorBox");
  EXPECT_THAT(calls_,
              ElementsAre("+ E _BehaviorBox \"\" cb", "+ E _BehaviorBox \"m\" cb", "+ unknown _Behavior \"m\" cb micro",
                          "- E _BehaviorManager", "- unknown _BehaviorBox micro"));
  EXPECT_THAT(subscribers(), IsEmpty());
  EXPECT_EQ(memory->xGetSTMValue("unknown"), nullptr);
  EXPECT_THROW(memory->unsubscribeToEvent("unwanted", "_BehaviorBox"), std::runtime_error);
}

TEST_F(Boxes, AreKnownByTheirWholePrefixOnly) {
  offerFrameManager();
  const std::vector<std::string> ordinary{"", "_", "_Behavio", "_Behaviour", "_behavior", "x_Behavior"};
  for (const auto& name : ordinary) {
    memory->subscribeToEvent("E", name, "cb");
    memory->subscribeToMicroEvent("U", name, "", "cb");
  }
  EXPECT_THAT(subscribers("E"), testing::UnorderedElementsAreArray(ordinary));
  EXPECT_THAT(subscribers("U"), testing::UnorderedElementsAreArray(ordinary));
  EXPECT_THAT(calls_, IsEmpty());
}

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
  EXPECT_THAT(calls_, ElementsAre("- first _BehaviorBox", "- second _BehaviorBox"));
}

}  // namespace
}  // namespace HX
