#include <algorithm>
#include <count_allocations.h>
#include <functional>
#include <listener.h>
#include <memory_fixture.h>
#include <new>
#include <ostream>
#include <print_value.h>
#include <string>
#include <vector>

#include <gmock/gmock.h>

namespace HX {
namespace {

const std::string kLong(1000, 'x');  // No string keeps that many within itself.
const std::string kNew = "New" + kLong;

struct Call {
  const char* name;
  std::function<void(HXMemory&)> make;
  bool mayLoseSubscribers = false;  ///< Those that are looked up by it, and cannot be called for want of memory.
};
void PrintTo(const Call& call, std::ostream* out) { *out << call.name; }

class OutOfMemory : public kit::MemoryFixture, public testing::WithParamInterface<Call> {
 protected:
  /// The memory as each of the calls finds it. Its own events have been raised.
  void begin() {
    start();
    for (const char* name : {"near", "nearer"}) {
      broker->session()->registerService(name, mw::AnyObject(kit::Listener::make()));
    }
    memory->insertData("Number", 1);
    memory->insertData("Text", kLong);
    memory->insertData("Gone", 1);
    memory->removeData("Gone");
    memory->declareEvent("Declared", "Somebody");
    for (int value = 0; value < 60; ++value) memory->raiseEvent("Raised", HXValue(value));
    memory->raiseEvent("Was raised", HXValue(1));
    memory->insertData("Was raised", 2);
    memory->raiseMicroEvent("Micro", HXValue(1));
    for (const char* name : {"near", "nearer"}) memory->subscribeToEvent("Heard", name, "heard");
    memory->raiseEvent("Heard", HXValue(1));
    for (const char* name : {"near", "nearer"}) memory->subscribeToEvent("Not heard yet", name, "heard");
  }

  HXValue all() const {
    const auto list = [](const std::vector<std::string>& names) {
      return HXValue(HXValue::List(names.begin(), names.end()));
    };
    auto names = memory->getDataListName();
    std::ranges::sort(names);
    HXValue::List all{list(memory->getEventList()), list(memory->getMicroEventList())};
    for (const char* module : {"", "Unknown", "Somebody", "Another"}) {
      all.push_back(list(memory->getExtractorEvent(module)));
    }
    for (const auto& name : names) {
      HXValue::List history;  // Without the times.
      const HXValue entries = memory->getEventHistory(name);
      for (std::size_t i = 0; i < entries.getSize(); ++i) history.push_back(entries[i][0]);
      all.push_back(HXValue::list(
          {name, memory->getData(name), memory->getStrDataType(name), entries.isValid(), HXValue(std::move(history)),
           memory->getDescriptionList({name}),
           list(GetParam().mayLoseSubscribers ? std::vector<std::string>() : memory->getDataSubscriber(name))}));
    }
    return HXValue(std::move(all));
  }

  HXValue afterwards() {
    begin();
    GetParam().make(*memory);
    return all();
  }

  /// Makes the call while the `nth` request for memory fails, and those after it when that is `forGood`.
  /// @return Whether the call met that.
  bool makeWithout(std::size_t nth, bool forGood) const {
    const kit::OutOfMemory fault(nth, forGood);
    try {
      GetParam().make(*memory);
    } catch (const std::bad_alloc&) {
      EXPECT_TRUE(kit::OutOfMemory::wasMet());
    }
    return kit::OutOfMemory::wasMet();
  }
};

TEST_P(OutOfMemory, LeavesTheMemoryAsBeforeTheCallOrAsAfterIt) {
  const HXValue after = afterwards();
  for (const bool forGood : {false, true}) {
    begin();
    const HXValue before = all();
    std::size_t nth = 0;
    while (makeWithout(++nth, forGood)) {
      SCOPED_TRACE(nth);
      const HXValue now = all();
      if (now == before) continue;
      ASSERT_EQ(now, after);
      begin();
    }
    EXPECT_EQ(all(), after);
  }
}

const Call kCalls[] = {
    {"InsertNewKey", [](HXMemory& memory) { memory.insertData(kNew, kLong); }},
    {"InsertNumber", [](HXMemory& memory) { memory.insertData("Number", HXValue(2)); }},
    {"InsertAnotherType", [](HXMemory& memory) { memory.insertData("Number", kLong); }},
    {"InsertLongerText", [](HXMemory& memory) { memory.insertData("Text", kLong + kLong); }},
    {"InsertWhereAnEventWas", [](HXMemory& memory) { memory.insertData("Raised", 2); }},
    {"RaiseNewEvent", [](HXMemory& memory) { memory.raiseEvent(kNew, HXValue(kLong)); }},
    {"RaiseEvent", [](HXMemory& memory) { memory.raiseEvent("Raised", HXValue(kLong)); }},
    {"RaiseDeclaredEvent", [](HXMemory& memory) { memory.raiseEvent("Declared", HXValue(1)); }},
    {"RaiseWhereDataWas", [](HXMemory& memory) { memory.raiseEvent("Number", HXValue(1)); }},
    {"RaiseHeardEvent", [](HXMemory& memory) { memory.raiseEvent("Heard", HXValue(kLong)); }},
    {"RaiseSubscribedEvent", [](HXMemory& memory) { memory.raiseEvent("Not heard yet", HXValue(1)); }, true},
    {"RaiseNewMicroEvent", [](HXMemory& memory) { memory.raiseMicroEvent(kNew, HXValue(1)); }},
    {"RaiseMicroEvent", [](HXMemory& memory) { memory.raiseMicroEvent("Micro", HXValue(kLong)); }},
    {"DeclareNewEvent", [](HXMemory& memory) { memory.declareEvent(kNew); }},
    {"DeclareNewEventOfAnExtractor", [](HXMemory& memory) { memory.declareEvent(kNew, "Another"); }},
    {"DeclareEventOfAnExtractor", [](HXMemory& memory) { memory.declareEvent("Declared", "Another"); }},
    {"DeclareWhereDataWas", [](HXMemory& memory) { memory.declareEvent("Was raised", "Another"); }},
    {"SubscribeToNewEvent", [](HXMemory& memory) { memory.subscribeToEvent(kNew, "near", kLong, "heard"); }},
    {"SubscribeToEvent", [](HXMemory& memory) { memory.subscribeToEvent("Raised", "near", kLong, "heard"); }},
    {"SubscribeAnew", [](HXMemory& memory) { memory.subscribeToEvent("Heard", "near", kLong, "heard"); }},
    {"SubscribeToMicroEvent", [](HXMemory& memory) { memory.subscribeToMicroEvent(kNew, "near", kLong, "heard"); }},
    {"Unsubscribe", [](HXMemory& memory) { memory.unsubscribeToEvent("Heard", "near"); }},
    {"FollowNewEvent", [](HXMemory& memory) { memory.subscriber(kNew); }},
    {"RemoveData", [](HXMemory& memory) { memory.removeData("Text"); }},
    {"RemoveEvent", [](HXMemory& memory) { memory.removeEvent("Heard"); }},
};
INSTANTIATE_TEST_SUITE_P(Calls, OutOfMemory, testing::ValuesIn(kCalls),
                         [](const auto& row) { return std::string(row.param.name); });

}  // namespace
}  // namespace HX
