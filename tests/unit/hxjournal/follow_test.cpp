#include "fixture.h"

#include <hxauthor/author.h>

#include <stdexcept>

namespace HX::journal {
namespace {

using namespace std::chrono_literals;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

class Following : public JournalFixture {};

TEST_F(Following, TellsEachChangeInOrderWithWhatIsKnownOfIt) {
  write("a", 1);
  const Author arm("Arm");
  std::string author;
  const auto followed = follow(Filter(), withoutSnapshot());
  const auto second = journal->follow(
      {}, [&](const Change& change) { author = change.author; }, withoutSnapshot());
  EXPECT_THAT(heard(), IsEmpty());
  EXPECT_EQ(followed.position(), journal->position());
  {
    const Author::Scope scope(arm);
    write("a", 2);
  }
  table.items["a"].state.byAddress = true;
  write("a", "x", What::Raised, 3);
  remove("a");
  executor->advance(1ms);
  EXPECT_THAT(heard(), ElementsAre("a=2", "a=\"x\"", "a removed"));
  EXPECT_EQ(author, "");
  ASSERT_EQ(changes.size(), 3U);
  for (std::uint32_t i = 0; i < 3; ++i) {
    EXPECT_EQ(changes[i].nth, i + 2);
    EXPECT_EQ(changes[i].at.revision, changes[0].at.revision + i);
    EXPECT_EQ(changes[i].at.epoch, journal->position().epoch);
    EXPECT_EQ(changes[i].changedKind, i == 1);
    EXPECT_EQ(changes[i].kind, i == 0 ? 1 : 3);
    EXPECT_EQ(changes[i].byAddress, i > 0);
  }
  EXPECT_EQ(changes[1].what, What::Raised);
  EXPECT_EQ(followed.position(), journal->position());
}

TEST_F(Following, NamesTheAuthor) {
  std::vector<std::string> authors;
  Filter filter;
  const auto all = journal->follow({}, [&](const Change& change) { authors.emplace_back(change.author); });
  const auto some = follow(filter.addAuthor("Arm"), withoutSnapshot());
  executor->run();
  const Author within("inner");
  const auto as = [&](const char* name) {
    const Author author(name);
    const Author::Scope scope(author);
    write("a", name);
    const Author::Scope inner(within);
    write("b", name);
  };
  as("Arm");
  as("Leg");
  write("c", 1);
  executor->advance(1ms);
  EXPECT_THAT(authors, ElementsAre("Arm", "inner", "Leg", "inner", ""));
  EXPECT_THAT(heard(), ElementsAre("a=\"Arm\""));
}

TEST_F(Following, TellsEachWantedKeyOnceAsAStateAndThenItsChanges) {
  for (const char* key : {"a", "b", "c", "d"}) write(key, 1);
  std::uint64_t places = 0;
  table.onWalk = [&](std::uint64_t place) {
    ++places;
    // Of what was walked, of what is being walked, and of what is to come.
    if (place == table.placeOf("b")) {
      write("a", 2);
      write("b", 2);
      write("c", 2);
      remove("d");
      write("bb", 1);
    }
  };
  const auto followed = follow();
  EXPECT_THAT(heard(), ElementsAre("a:1", "b:1", "a=2", "b=2", "bb=1", "c:2", "complete"));
  EXPECT_EQ(places, 256U);
  EXPECT_EQ(completeAt, journal->position());
}

TEST_F(Following, LooksUpExactKeys) {
  for (const char* key : {"a", "b", "c"}) write(key, 1);
  table.onWalk = [](std::uint64_t) { FAIL() << "walked"; };
  const auto followed = follow(Filter({"c", "a", "x"}));
  EXPECT_THAT(heard(), ElementsAre("a:1", "c:1", "complete"));
  write("x", 1);
  write("b", 2);
  remove("c");
  executor->advance(1ms);
  EXPECT_THAT(heard(), ElementsAre("x=1", "c removed"));
}

TEST_F(Following, TellsOfTheGapAndOfWhatChangedInIt) {
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

TEST_F(Following, GoesOnFromWhereItWasWhenItIsLappedInASnapshot) {
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

TEST_F(Following, GoesOnFromWhereItWasAmongExactKeysToo) {
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

TEST_F(Following, CountsAsLappedWhenItIsFurtherBehindThanItWants) {
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

TEST_F(Following, ComesBackWithoutAGapWhileTheJournalLingers) {
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

TEST_F(Following, ComesBackAfterAnyTimeToAJournalThatIsKept) {
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

TEST_F(Following, TellsEverythingToWhoComesFromNowhere) {
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

TEST_F(Following, TellsTheLatestStateAtTheEndOfAPeriodOfItsRate) {
  FollowOptions options = withoutSnapshot();
  options.rate = 10;
  const auto followed = follow({}, options);
  for (int i = 1; i <= 5; ++i) write("a", i);
  write("b", 1);
  EXPECT_THAT(heard(), ElementsAre("a=1", "b=1"));
  write("a", 6);
  executor->advance(99ms);
  EXPECT_THAT(heard(), IsEmpty());
  EXPECT_LT(followed.position().revision, journal->position().revision - 3) << "who comes back would miss what is due";
  executor->advance(1ms);
  EXPECT_THAT(heard(), ElementsAre("a:6 +4"));
  executor->advance(90ms);
  write("a", 7);
  write("b", 2);
  executor->advance(1ms);
  EXPECT_THAT(heard(), ElementsAre("b=2"));
  write("a", 8);
  remove("a");
  write("a", 1);
  executor->advance(1ms);
  EXPECT_THAT(heard(), ElementsAre("a removed +2"));
  executor->advance(100ms);
  EXPECT_THAT(heard(), ElementsAre("a:1"));
  executor->advance(1h);
  EXPECT_THAT(heard(), IsEmpty());
}

TEST_F(Following, TellsOfARemovalWhereItsRateHeldBackThatTheKeyHadLeftTheKinds) {
  FollowOptions options = withoutSnapshot();
  options.rate = 10;
  Filter filter;
  const auto followed = follow(filter.addKind(1), options);
  write("a", 1);
  write("of another kind", 1, What::Stored, 3);
  EXPECT_THAT(heard(), ElementsAre("a=1"));
  write("a", 2, What::Stored, 3);
  remove("a");
  executor->advance(1ms);
  EXPECT_THAT(heard(), ElementsAre("a removed +1"));
}

TEST_F(Following, IsWokenAtOnceByWhatComesNowAndThen) {
  const auto followed = follow({}, withoutSnapshot());
  for (int i = 0; i < 3; ++i) {
    executor->advance(20ms);
    write("a", i);
    EXPECT_THAT(heard(), ElementsAre("a=" + std::to_string(i)));
    EXPECT_EQ(executor->waiting(), 0U) << "it looks though nobody writes";
  }
}

TEST_F(Following, IsToldByAWriterThatIsAboutToEnd) {
  executor->letLeave();
  const auto followed = follow({}, withoutSnapshot());
  executor->advance(20ms);
  const std::size_t posted = executor->posted();
  writesLast = true;
  write("a", 1);
  EXPECT_THAT(heard(), IsEmpty()) << "told while it writes";
  executor->runLeft();
  EXPECT_THAT(std::exchange(told, {}), ElementsAre("a=1"));
  EXPECT_EQ(executor->posted(), posted) << "somebody was woken";

  // It does not end after all: whoever writes next has the follower woken.
  executor->advance(20ms);
  write("a", 2);
  write("a", 3);
  EXPECT_THAT(heard(), ElementsAre("a=2", "a=3"));
  executor->runLeft();
  executor->advance(1s);
  EXPECT_THAT(heard(), IsEmpty());

  writesLast = false;
  write("a", 4);
  EXPECT_THAT(heard(), ElementsAre("a=4")) << "left to a writer that goes on";
}

TEST_F(Following, LooksByItselfBesideABusyWriter) {
  const auto followed = follow({}, withoutSnapshot());
  executor->advance(20ms);
  write("a", 1);
  EXPECT_THAT(heard(), ElementsAre("a=1"));
  write("a", 2);
  EXPECT_THAT(heard(), ElementsAre("a=2")) << "not woken again";
  const std::size_t posted = executor->posted();
  write("a", 3);
  write("a", 4);
  EXPECT_EQ(executor->posted(), posted) << "a writer woke who looks by itself";
  executor->advance(500us);
  EXPECT_THAT(heard(), ElementsAre("a=3", "a=4"));
  executor->advance(1s);
  EXPECT_EQ(executor->waiting(), 0U);
}

TEST_F(Following, SharesALookWhenItNeedsNoPromptness) {
  FollowOptions options = withoutSnapshot();
  options.promptness = Promptness::Relaxed;
  const auto one = follow({}, options);
  const auto other = follow({}, options);
  executor->advance(5ms);
  write("a", 1);
  EXPECT_THAT(heard(), IsEmpty());
  executor->advance(20ms);
  EXPECT_THAT(heard(), ElementsAre("a=1", "a=1"));
  executor->advance(1h);
  EXPECT_EQ(executor->waiting(), 0U) << "a table at rest is being looked at";
  write("a", 2);
  executor->advance(20ms);
  EXPECT_THAT(heard(), ElementsAre("a=2", "a=2"));
}

TEST_F(Following, EndsInsideItsOwnCallback) {
  Follow followed;
  int calls = 0;
  auto held = std::make_shared<int>();
  const std::weak_ptr<int> callback = held;
  followed = journal->follow(
      {},
      [&, kept = std::move(held)](const Change&) {
        ++calls;
        followed.end();
        EXPECT_FALSE(callback.expired()) << "ended while it runs";
      },
      withoutSnapshot());
  write("a", 1);
  write("a", 2);
  executor->run();
  EXPECT_EQ(calls, 1);
  EXPECT_TRUE(callback.expired());
  executor->advance(1h);
  EXPECT_FALSE(table.recording);
}

TEST_F(Following, GoesOnAfterACallbackThatThrows) {
  std::vector<int> heard;
  const auto followed = journal->follow(
      {},
      [&](const Change& change) {
        heard.push_back(change.value.asInt());
        if (heard.size() == 1) throw std::runtime_error("no");
      },
      withoutSnapshot());
  write("a", 1);
  write("a", 2);
  EXPECT_THROW(executor->run(), std::runtime_error);
  executor->run();
  EXPECT_THAT(heard, ElementsAre(1, 2));
}

TEST_F(Following, WritesWhatItFollows) {
  const auto followed = journal->follow({}, [&](const Change& change) {
    if (change.value.asInt() < 3000) write("a", change.value.asInt() + 1);
  });
  write("a", 1);
  executor->advance(10s);
  EXPECT_EQ(table.items["a"].state.value, HXValue(3000));
}

TEST_F(Following, TellsNothingWhilePausedAndOfTheGapAfterwards) {
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

TEST_F(Following, EndsWithTheJournal) {
  auto followed = follow();
  executor->run();
  journal->close();
  EXPECT_FALSE(table.recording);
  write("a", 1);
  EXPECT_THAT(heard(), Not(Contains("a=1")));
  EXPECT_THROW(follow(), std::runtime_error);
  followed.end();
}

// 200 texts of a kilobyte each do not fit a budget of 64.
TEST_F(Following, KeepsNoMoreBytesThanItsBudget) {
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

TEST_F(Following, KeepsTheNamesOfRemovedKeysUntilTheirChangesAreForgotten) {
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

TEST_F(Following, CanGoBackToATimeAsFarAsChangesAreRetained) {
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

TEST_F(Following, SaysThatAllIsToldAlsoWhereATaskEndsThere) {
  constexpr int kChangesOfATask = 512;
  int count = 0;
  int toldAtPause = 0;
  auto options = withoutSnapshot();
  options.onPause = [&] { toldAtPause = count; };
  const auto followed = journal->follow(
      {}, [&](const Change&) { ++count; }, options);
  for (int i = 0; i < kChangesOfATask; ++i) write("a", i);
  executor->run();
  EXPECT_EQ(toldAtPause, kChangesOfATask);

  // And where nothing was wanted of what came: its place has moved on.
  bool isSaid = false;
  options.onPause = [&] { isSaid = true; };
  const auto other = journal->follow(
      Filter({"b"}), [](const Change&) {}, options);
  executor->run();
  isSaid = false;
  write("a", 1);
  executor->advance(1ms);
  EXPECT_TRUE(isSaid);
}

}  // namespace
}  // namespace HX::journal
