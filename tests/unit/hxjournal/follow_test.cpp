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
