// Who is lapped, pauses or comes back: what is retained for them, and what they are told instead of it.

#include "fixture.h"

namespace HX::journal {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;

class FallingBehind : public JournalFixture {};

TEST_F(FallingBehind, TellsOfTheGapAndOfWhatChangedInIt) {
  make({.chunks = 2, .bytes = 1 << 20, .linger = 1s});
  write("unrecorded", 1);
  const auto followed = follow();
  write("old", 1);
  EXPECT_THAT(heard(), ElementsAre("old:1", "unrecorded:1", "complete"));
  for (int i = 1; i <= 600; ++i) write("new", i);
  executor->advance(1ms);
  EXPECT_THAT(heard(), ElementsAre("gap", "new:600", "old unchanged", "unrecorded unchanged", "complete"));
  EXPECT_EQ(gaps.at(0).to.revision - gaps.at(0).from.revision, 600U);
  EXPECT_EQ(followed.position(), journal->position());
  // After a removal a count may begin anew: everything is told.
  remove("new");
  for (int i = 1; i <= 600; ++i) write("new", i);
  executor->advance(1ms);
  EXPECT_THAT(heard(), ElementsAre("gap, full", "new:600", "old:1", "unrecorded:1", "complete"));
}

TEST_F(FallingBehind, GoesOnFromWhereItWasWhenItIsLappedInASnapshot) {
  make({.chunks = 2, .bytes = 1 << 20, .linger = 1s});
  for (const char* key : {"a", "b", "c"}) write(key, 1);
  bool lapped = false;
  table.onWalk = [&](std::uint64_t place) {
    if (place != table.placeOf("b") || std::exchange(lapped, true)) return;
    for (int i = 1; i <= 600; ++i) write("a", i);
  };
  const auto followed = follow();
  EXPECT_THAT(heard(), ElementsAre("a:1", "b:1", "gap, full", "c:1", "a:600", "b:1", "complete"));
}

TEST_F(FallingBehind, GoesOnFromWhereItWasAmongExactKeysToo) {
  make({.chunks = 2, .bytes = 1 << 20, .linger = 1s});
  std::vector<std::string> keys;
  for (int i = 100; i < 200; ++i) keys.push_back(std::to_string(i));
  for (const auto& key : keys) write(key, 1);
  std::vector<std::string> order;
  bool lapped = false;
  const auto followed = journal->follow(Filter(keys), [&](const Change& change) {
    order.push_back(std::string(change.key) + (change.isState ? "" : " changed"));
    const bool isFirst = !std::exchange(lapped, true);
    for (int i = 1; isFirst && i <= 600; ++i) write("100", i);
    if (order.back() == "199") write("199", 2);
  });
  executor->advance(1ms);
  // As many as it looks up at once, the others, those again, and what changed of one that it had been through.
  std::vector<std::string> expected(keys.begin(), keys.begin() + 64);
  expected.insert(expected.end(), keys.begin() + 64, keys.end());
  expected.insert(expected.end(), keys.begin(), keys.begin() + 64);
  expected.emplace_back("199 changed");
  EXPECT_EQ(order, expected);
}

TEST_F(FallingBehind, CountsAsLappedWhenItIsFurtherBehindThanItWants) {
  FollowOptions options = withoutSnapshot();
  options.behind = 10;
  auto followed = follow({}, options);
  for (int i = 1; i <= 10; ++i) write("a", i);
  EXPECT_EQ(heard().size(), 10U);
  for (int i = 1; i <= 11; ++i) write("a", i);
  executor->advance(1ms);
  EXPECT_THAT(heard(), ElementsAre("gap", "a:11", "complete"));

  // So does one who comes back.
  followed.end();
  for (const int missed : {10, 11}) {
    FollowOptions back = since(journal->position());
    back.behind = 10;
    for (int i = 1; i <= missed; ++i) write("a", i);
    const auto again = follow({}, back);
    EXPECT_EQ(heard().front(), missed == 10 ? "a=1" : "gap");
  }
}

TEST_F(FallingBehind, ComesBackWithoutAGapWhileTheJournalLingers) {
  auto followed = follow();
  write("a", 1);
  executor->run();
  const Position left = followed.position();
  followed.end();
  executor->advance(59s);
  write("a", 2);
  told.clear();
  followed = follow({}, since(left));
  EXPECT_THAT(heard(), ElementsAre("a=2", "complete"));
  EXPECT_EQ(completeAt, journal->position());
  followed.end();
  executor->advance(61s);
  EXPECT_FALSE(table.recording);
  write("a", 3);
  // It does not record: what comes later is not next to what was before.
  const Position before = journal->position();
  followed = follow({}, since(before));
  EXPECT_THAT(heard(), ElementsAre("gap, full", "a:3", "complete"));
  EXPECT_GT(gaps.at(0).to.revision, before.revision);
}

TEST_F(FallingBehind, ComesBackAfterAnyTimeToAJournalThatIsKept) {
  journal->keep(true);
  write("a", 1);
  const Position left = journal->position();
  executor->advance(1h);
  write("a", 2);
  auto followed = follow({}, since(left));
  EXPECT_THAT(heard(), ElementsAre("a=2", "complete"));
  followed.end();
  executor->advance(1h);
  EXPECT_TRUE(table.recording);
  journal->keep(false);
  executor->advance(1h);
  EXPECT_FALSE(table.recording);
}

TEST_F(FallingBehind, TellsEverythingToWhoComesFromNowhere) {
  journal->keep(true);
  write("a", 1);
  const Position now = journal->position();
  const Position nowhere[] = {{now.epoch + 1, now.revision},
                              {now.epoch, now.revision + 1},
                              {now.epoch, 1},
                              {0, 0},
                              {now.epoch, ~std::uint64_t{0}}};
  for (const Position& from : nowhere) {
    const auto followed = follow({}, since(from));
    EXPECT_THAT(heard(), ElementsAre("gap, full", "a:1", "complete")) << from.revision;
    EXPECT_EQ(gaps.back().from, from);
    EXPECT_EQ(gaps.back().to, now);
  }
}

TEST_F(FallingBehind, TellsNothingWhilePausedAndOfTheGapAfterwards) {
  make({.chunks = 2, .bytes = 1 << 20, .linger = 1s});
  auto followed = follow({}, withoutSnapshot());
  followed.pause();
  write("a", 1);
  executor->advance(1s);
  EXPECT_THAT(heard(), IsEmpty());
  followed.resume();
  followed.resume();
  EXPECT_THAT(heard(), ElementsAre("a=1"));
  followed.pause();
  for (int i = 1; i <= 600; ++i) write("a", i);
  executor->advance(1s);
  followed.resume();
  EXPECT_THAT(heard(), ElementsAre("gap", "a:600", "complete"));
}

// 200 texts of a kilobyte each do not fit a budget of 64.
TEST_F(FallingBehind, KeepsNoMoreBytesThanItsBudget) {
  make({.chunks = 4, .bytes = 64 << 10, .linger = 1s});
  std::vector<std::weak_ptr<int>> unused;
  const auto slow = follow({}, withoutSnapshot());
  const HXValue text(std::string(1024, 'x'));
  for (int i = 0; i < 200; ++i) write("a", i % 2 == 0 ? text : HXValue(i));
  write("a", 1);
  EXPECT_THAT(heard(), ElementsAre("gap", "a:1", "complete"));
  const Position now = journal->position();
  const auto resumed = follow({}, since({now.epoch, now.revision - 120}));
  EXPECT_EQ(heard().size(), 121U);
}

TEST_F(FallingBehind, KeepsTheNamesOfRemovedKeysUntilTheirChangesAreForgotten) {
  make({.chunks = 2, .bytes = 1 << 20, .linger = 1s});
  const auto followed = follow({}, withoutSnapshot());
  std::weak_ptr<const std::string> name;
  write("gone", 1);
  name = table.items["gone"].name;
  remove("gone");
  EXPECT_THAT(heard(), ElementsAre("gone=1", "gone removed"));
  EXPECT_FALSE(name.expired());
  for (int i = 0; i < 1024 && !name.expired(); ++i) write("a", i);
  EXPECT_TRUE(name.expired());
}

TEST_F(FallingBehind, CanGoBackToATimeAsFarAsChangesAreRetained) {
  Journal::Options options;
  options.chunks = 2;
  make(options);
  const auto at = [](int milliseconds) { return TimePoint(std::chrono::milliseconds(milliseconds)); };
  const auto write = [&](int milliseconds) {
    auto& item = table.items["a"];
    if (!item.name) item.name = std::make_shared<const std::string>("a");
    Entry entry;
    entry.setName(*item.name);
    entry.time = at(milliseconds);
    Afterwards after(*journal);
    return journal->append(std::move(entry), after);
  };
  EXPECT_FALSE(journal->retained().isRecording);
  EXPECT_EQ(journal->at(at(0)), journal->position());
  journal->keep(true);
  const auto begin = journal->position();
  EXPECT_EQ(journal->retained().from, begin);
  EXPECT_EQ(journal->retained().since, std::nullopt);

  const auto first = write(0);
  for (int i = 1; i < 300; ++i) write(10 * i);
  EXPECT_EQ(journal->retained().from, begin);
  EXPECT_EQ(journal->retained().since, at(0));
  EXPECT_EQ(journal->retained().latest, journal->position());
  EXPECT_EQ(journal->at(at(-5)).revision, first - 1);
  EXPECT_EQ(journal->at(at(10)).revision, first);
  EXPECT_EQ(journal->at(at(2995)), journal->position());
  const auto place = journal->at(at(2'601)).revision;
  EXPECT_EQ(place, first + 260);

  // The ring turns.
  for (int i = 300; i < 600; ++i) write(10 * i);
  EXPECT_EQ(journal->retained().from.revision, first + 255);
  EXPECT_EQ(journal->retained().since, at(2'560));
  EXPECT_EQ(journal->at(at(0)), journal->retained().from);
  EXPECT_EQ(journal->at(at(2'601)).revision, place);
  journal->close();
  EXPECT_FALSE(journal->retained().isRecording);
}

}  // namespace
}  // namespace HX::journal
