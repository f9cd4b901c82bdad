#include "events_fixture.h"

namespace HX {
namespace {

/// Subscribing and unsubscribing at an extractor with a given set of methods.
class Extractors : public EventsFixture {
 protected:
  /// An extractor that logs its calls; it fails in those whose names are in `failing`.
  class Extractor : public mw::DynamicObject {
   public:
    Extractor(std::vector<std::string>& calls, const std::vector<std::string>& methods, const std::string& failing) {
      mw::ObjectBuilder builder;
      for (const std::string& method : methods) {
        builder.advertiseMethod(mw::MetaMethodBuilder(method, {}, {}),
                                mw::AnyFunction::from([&calls, method, failing](const std::string& id) {
                                  calls.push_back(method + " " + id);
                                  if (method == failing) throw std::runtime_error(method + " failed");
                                }));
      }
      setType(builder.build());
    }
  };

  void offerExtractor(const std::vector<std::string>& methods, const std::string& failing = {}) {
    broker->session()->registerService("X", mw::AnyObject(std::make_shared<Extractor>(calls_, methods, failing)));
  }

  const std::vector<std::string> kWhole{"getCurrentPrecision", "subscribe", "unsubscribe"};
  std::vector<std::string> calls_;
};

TEST_F(Extractors, AreToldOfEachSubscription) {
  offerExtractor(kWhole);
  memory->declareEvent("E", "X");
  memory->subscribeToEvent("E", "M", "cb");
  memory->subscribeToEvent("E", "N", "cb");
  memory->subscribeToEvent("E", "M", "cb");
  memory->unsubscribeToEvent("E", "M");
  EXPECT_THAT(calls_, ElementsAre("subscribe ME", "subscribe NE", "subscribe ME", "unsubscribe ME"));
}

TEST_F(Extractors, AreNotToldOfMicroEvents) {
  offerExtractor(kWhole);
  memory->declareEvent("E", "X");
  memory->subscribeToMicroEvent("E", "M", "", "cb");
  memory->unsubscribeToMicroEvent("E", "M");
  EXPECT_THAT(calls_, IsEmpty());
}

TEST_F(Extractors, WithoutAPrecisionAreNotTold) {
  offerExtractor({"subscribe", "unsubscribe"});
  memory->declareEvent("E", "X");
  memory->subscribeToEvent("E", "M", "cb");
  memory->unsubscribeToEvent("E", "M");
  EXPECT_THAT(calls_, IsEmpty());
}

TEST_F(Extractors, CalledUnknownOrNothingAreNobody) {
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

TEST_F(Extractors, ThatFailToStartFailTheSubscriptionWhichStays) {
  offerExtractor(kWhole, "subscribe");
  memory->declareEvent("E", "X");
  EXPECT_THROW(memory->subscribeToEvent("E", "M", "cb"), std::runtime_error);
  EXPECT_THAT(subscribers(), ElementsAre("M"));
  memory->unsubscribeToEvent("E", "M");
  EXPECT_THAT(calls_, ElementsAre("subscribe ME", "unsubscribe ME"));
}

TEST_F(Extractors, ThatFailToStopFailTheUnsubscriptionWhichHolds) {
  offerExtractor(kWhole, "unsubscribe");
  memory->declareEvent("E", "X");
  memory->subscribeToEvent("E", "M", "cb");
  EXPECT_THROW(memory->unsubscribeToEvent("E", "M"), std::runtime_error);
  EXPECT_THAT(subscribers(), IsEmpty());
}

TEST_F(Extractors, ThatAreMissingFailTheSubscriptionOnly) {
  memory->declareEvent("E", "X");
  EXPECT_EQ(errorOf([&] { memory->subscribeToEvent("E", "M", "cb"); }), "This object is null");
  EXPECT_THAT(subscribers(), ElementsAre("M"));
  EXPECT_NO_THROW(memory->unsubscribeToEvent("E", "M"));
}

TEST_F(Extractors, OfAnUnsubscriptionFromWhatIsNoEventAreMissedOnce) {
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

TEST_F(Extractors, MayUseTheMemoryWhileTheyAreTold) {
  memory->declareEvent("E", "Y");
  class Declaring : public mw::DynamicObject {
   public:
    explicit Declaring(HXMemory& memory) {
      mw::ObjectBuilder builder;
      builder.advertiseMethod(mw::MetaMethodBuilder("getCurrentPrecision", {}, {}), mw::AnyFunction::from([] {}));
      for (const char* method : {"subscribe", "unsubscribe"}) {
        builder.advertiseMethod(mw::MetaMethodBuilder(method, {}, {}),
                                mw::AnyFunction::from([&memory](const std::string& id) {
                                  memory.declareEvent("E", "Y");
                                  memory.raiseEvent("E", HXValue(id));
                                }));
      }
      setType(builder.build());
    }
  };
  broker->session()->registerService("Y", mw::AnyObject(std::make_shared<Declaring>(*memory)));
  const auto m = subscribed("M");
  EXPECT_THAT(m->values(), ElementsAre(HXValue("ME")));
  memory->unsubscribeToEvent("E", "M");
}

}  // namespace
}  // namespace HX
