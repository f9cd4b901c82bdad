#include <hxjournal/replica.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <future>
#include <memory>
#include <memory_fixture.h>
#include <ostream>
#include <print_value.h>
#include <race_point.h>
#include <string>
#include <thread>
#include <together.h>
#include <vector>

#include <gmock/gmock.h>

namespace HX {
namespace {

using journal::Change;
using journal::Filter;
using journal::Follow;
using journal::FollowOptions;
using journal::What;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

FollowOptions withoutSnapshot() {
  FollowOptions options;
  options.snapshot = false;
  return options;
}

struct Told {
  std::string key;
  What what;
  HXValue value;
  int kind;
  std::uint32_t nth;
  bool changedKind = false;

  friend bool operator==(const Told&, const Told&) = default;
};
void PrintTo(const Told& told, std::ostream* out) {
  *out << told.key << ", what " << static_cast<int>(told.what) << ", " << told.value.toString() << ", kind "
       << told.kind << ", nth " << told.nth << (told.changedKind ? ", changed kind" : "");
}

struct Row {
  const char* name;
  std::function<void(HXMemory&)> make;
  std::vector<Told> told;
};
void PrintTo(const Row& row, std::ostream* out) { *out << row.name; }

class MemoryJournal : public kit::MemoryFixture {
 protected:
  Follow follow(Filter filter, FollowOptions options = withoutSnapshot()) {
    return memory->journal().follow(
        std::move(filter),
        [this](const Change& change) {
          const std::lock_guard lock(mutex);
          told.push_back(
              {std::string(change.key), change.what, change.value, change.kind, change.nth, change.changedKind});
        },
        std::move(options));
  }

  /// Once the follower has told all there is.
  std::vector<Told> heard(const Follow& followed) {
    while (followed.position() != memory->journal().position()) std::this_thread::yield();
    const std::lock_guard lock(mutex);
    return std::exchange(told, {});
  }

  std::mutex mutex;  // Guards `told`.
  std::vector<Told> told;
};

class MemoryChanges : public MemoryJournal, public testing::WithParamInterface<Row> {};

TEST_P(MemoryChanges, AreTold) {
  memory->insertData("Data", 1);
  memory->raiseEvent("Event", HXValue(1));
  memory->subscribeToEvent("Asked for", "nobody", "heard");
  memory->getIntPtr("Number");
  const auto followed = follow(Filter().exclude("HXMemory/").addPrefix(""));
  EXPECT_THAT(heard(followed), IsEmpty());
  GetParam().make(*memory);
  EXPECT_THAT(heard(followed), ElementsAreArray(GetParam().told));
}

const Row kRows[] = {
    {"New", [](HXMemory& memory) { memory.insertData("New", 1); }, {{"New", What::Stored, 1, 1, 1}}},
    {"Data", [](HXMemory& memory) { memory.insertData("Data", 2); }, {{"Data", What::Stored, 2, 1, 2}}},
    {"SameAgain", [](HXMemory& memory) { memory.insertData("Data", 1); }, {{"Data", What::Stored, 1, 1, 2}}},
    {"List",
     [](HXMemory& memory) {
       memory.insertListData(HXValue::list({HXValue::list({"Data", 5}), HXValue::list({"New", 6})}));
     },
     {{"Data", What::Stored, 5, 1, 2}, {"New", What::Stored, 6, 1, 1}}},
    {"NewEvent", [](HXMemory& memory) { memory.raiseEvent("New", HXValue(1)); }, {{"New", What::Raised, 1, 3, 1}}},
    {"Event", [](HXMemory& memory) { memory.raiseEvent("Event", HXValue(2)); }, {{"Event", What::Raised, 2, 3, 2}}},
    {"MicroEvent",
     [](HXMemory& memory) { memory.raiseMicroEvent("Event", HXValue(2)); },
     {{"Event", What::RaisedMicro, 2, 4, 2, true}}},
    {"EventWhereDataWas",
     [](HXMemory& memory) { memory.raiseEvent("Data", HXValue(2)); },
     {{"Data", What::Raised, 2, 3, 2, true}}},
    {"DeclaredNew", [](HXMemory& memory) { memory.declareEvent("New"); }, {{"New", What::Declared, {}, 3, 1}}},
    {"DeclaredWithAnExtractor",
     [](HXMemory& memory) { memory.declareEvent("New", "Arm"); },
     {{"New", What::Declared, {}, 3, 1}}},
    {"DeclaredAgain", [](HXMemory& memory) { memory.declareEvent("Event"); }, {{"Event", What::Declared, {}, 3, 2}}},
    {"Subscribed",
     [](HXMemory& memory) { memory.subscribeToEvent("New", "nobody", "heard"); },
     {{"New", What::Declared, {}, 3, 1}}},
    {"SubscribedAgain", [](HXMemory& memory) { memory.subscribeToEvent("Event", "nobody", "heard"); }, {}},
    {"RaisedWhereSubscribed",
     [](HXMemory& memory) { memory.raiseEvent("Asked for", HXValue(1)); },
     {{"Asked for", What::Raised, 1, 3, 2}}},
    {"Signal", [](HXMemory& memory) { memory.subscriber("New"); }, {{"New", What::Declared, {}, 3, 1}}},
    {"Address", [](HXMemory& memory) { memory.getIntPtr("New"); }, {{"New", What::Declared, 0, 1, 1}}},
    {"WhereTheAddressIsKnown",
     [](HXMemory& memory) { memory.insertData("Number", 7); },
     {{"Number", What::Stored, 7, 1, 2}}},
    {"RefusedWhereTheAddressIsKnown",
     [](HXMemory& memory) { EXPECT_THROW(memory.insertData("Number", HXValue("text")), HXError); },
     {}},
    {"Described",
     [](HXMemory& memory) {
       memory.setDescription("Data", "text");
       memory.insertData("Data", 2);
     },
     {{"Data", What::Described, "text", 1, 2}, {"Data", What::Stored, 2, 1, 3}}},
    {"Restored",
     [](HXMemory& memory) { EXPECT_TRUE(memory.restoreData("New", 5, "text", {})); },
     {{"New", What::Stored, 5, 1, 1}, {"New", What::Described, "text", 1, 2}}},
    {"NotRestoredWhereItIs", [](HXMemory& memory) { EXPECT_FALSE(memory.restoreData("Data", 5, "text", {})); }, {}},
    {"Removed",
     [](HXMemory& memory) {
       memory.removeData("Data");
       memory.insertData("Data", 2);
     },
     {{"Data", What::Removed, {}, 1, 2}, {"Data", What::Stored, 2, 1, 1}}},
    {"RemovedEvent", [](HXMemory& memory) { memory.removeEvent("Event"); }, {{"Event", What::Removed, {}, 3, 2}}},
};
INSTANTIATE_TEST_SUITE_P(Writes, MemoryChanges, testing::ValuesIn(kRows),
                         [](const auto& row) { return std::string(row.param.name); });

TEST_F(MemoryJournal, TellsOfTheMemorysOwnEvents) {
  const auto followed = follow(Filter({"HXMemory/"}));
  memory->insertData("New", 1);
  memory->raiseEvent("New", HXValue(1));
  memory->removeData("New");
  std::vector<std::string> keys;
  for (const Told& change : heard(followed)) keys.push_back(change.key + " " + change.value.toString());
  EXPECT_THAT(
      keys, ElementsAre("HXMemory/KeyAdded \"New\"", "HXMemory/KeyTypeChanged \"New\"", "HXMemory/KeyRemoved \"New\""));
}

TEST_F(MemoryJournal, ShowsStatesWithTheirTimesAndKnownAddresses) {
  *memory->getIntPtr("Number") = 5;
  memory->raiseEvent("Event", HXValue("text"));
  journal::Replica replica;
  const auto followed = memory->journal().follow(Filter({"Number", "Event"}), replica.listener(), replica.following());
  while (!replica.completeAt()) std::this_thread::yield();
  const auto number = replica.find("Number").value();
  EXPECT_EQ(number.value, HXValue(5));
  EXPECT_TRUE(number.byAddress);
  const auto event = replica.find("Event").value();
  EXPECT_FALSE(event.byAddress);
  EXPECT_EQ(event.kind, STMValue::Event);
  EXPECT_EQ(event.time.time_since_epoch() / std::chrono::seconds(1), memory->getDataTimestamp("Event")[1].toInt64());
}

// The switch is set with every writer out that saw it off. Here one is on its way: it has looked, and waits for the
// item.
TEST_F(MemoryJournal, MissesNoWriteThatLookedBeforeItWasSwitchedOn) {
  memory->insertData("Key", 1);
  std::atomic<bool> joinedBeforeTheWrite{false};
  Follow followed;
  kit::AtRacePoint point("a value is being shown with its time", [&] {
    // The item is locked by who came to the point, so that the write cannot end.
    auto write = std::async(std::launch::async, [&] { memory->insertData("Key", 2); });
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    followed = follow(Filter({"Key"}));
    joinedBeforeTheWrite = memory->getData("Key") == HXValue(1);
    write.wait();
  });
  memory->getDataTimestamp("Key");
  ASSERT_TRUE(point.join());
  const auto changes = heard(followed);
  if (joinedBeforeTheWrite) {
    EXPECT_THAT(changes, ElementsAre(Told{"Key", What::Stored, 2, 1, 2}));
  } else {
    EXPECT_THAT(changes, IsEmpty());
  }
}

TEST_F(MemoryJournal, LetsNobodySeeTheOldValueOfAChangeThatIsTold) {
  memory->insertData("Key", 1);
  memory->journal().keep(true);
  HXValue seen;
  kit::AtRacePoint point("a change is told, and not shown yet", [&] { seen = memory->getData("Key"); });
  memory->insertData("Key", 2);
  ASSERT_TRUE(point.join());
  EXPECT_EQ(seen, HXValue(2));
}

// One writer, one key: a change's revision and its value go together.
TEST_F(MemoryJournal, ShowsInTheTableWhatItTellsAndTellsWhatTheTableShows) {
  memory->insertData("Key", -1);
  memory->journal().keep(true);
  const auto base = static_cast<std::int64_t>(memory->journal().position().revision) + 1;
  constexpr int kWrites = 300'000;
  std::atomic<bool> done{false};
  const auto write = [&] {
    for (int i = 0; i < kWrites; ++i) memory->insertData("Key", i);
    done = true;
  };
  const auto read = [&] {
    while (!done) {
      const auto toldBefore = static_cast<std::int64_t>(memory->journal().position().revision) - base;
      const std::int64_t shown = memory->getData("Key").asInt();
      const auto toldAfter = static_cast<std::int64_t>(memory->journal().position().revision) - base;
      ASSERT_LE(toldBefore, shown) << "the table is older than the feed";
      ASSERT_LE(shown, toldAfter) << "the feed is older than the table";
    }
  };
  kit::together({write, read});
}

TEST_F(MemoryJournal, LetsFollowersEndBeforeTheMemory) {
  std::atomic<int> calls{0};
  const auto followed = memory->journal().follow({}, [&](const Change&) { ++calls; });
  while (calls == 0) std::this_thread::yield();
  shutDown();
  EXPECT_TRUE(followed) << "which it outlives";
}

}  // namespace
}  // namespace HX
