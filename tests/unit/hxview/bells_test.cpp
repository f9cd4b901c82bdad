#include <algorithm>
#include <set>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

namespace {

/// How who waits and who writes agree, walked through in every order of their steps. The reader says what he waits for,
/// looks, and sleeps if nothing has come; the writer publishes, looks at the bell, and wakes. What may go wrong: the
/// reader sleeps for good although what he waits for is there.
enum class Fault { None, WriterClearsTheBell, WriterLooksBeforeItPublishes, SleepDoesNotCompare };

constexpr int kWrites = 3;

struct Situation {
  int sequence = 0;
  int bell = 0;
  int rung = 0;
  int writes = 0;  // Begun.
  int writer = 0;  // What it does next: 0 to begin a write, 1 to look, 2 to wake, and with a fault 3 to publish.
  int seen = 0;
  int reader = 0;  // What he does next: 0 to say, 1 to look, 2 to fall asleep; 3 asleep.
  int compared = 0;
  auto key() const { return std::tuple(sequence, bell, rung, writes, writer, seen, reader, compared); }
  bool operator<(const Situation& other) const { return key() < other.key(); }
};

bool isBellDue(const Situation& at, Fault fault) {
  if (fault == Fault::WriterClearsTheBell) return at.bell != 0;
  const int published = at.sequence + (fault == Fault::WriterLooksBeforeItPublishes ? 1 : 0);
  return at.bell != 0 && at.bell <= published && at.bell != at.rung;
}

/// One step of the writer. @return False when it has nothing left to do.
bool write(Situation& at, Fault fault) {
  const bool isLate = fault == Fault::WriterLooksBeforeItPublishes;
  switch (at.writer) {
    case 0:
      if (at.writes == kWrites) return false;
      ++at.writes;
      if (!isLate) ++at.sequence;
      at.writer = 1;
      return true;
    case 1:
      at.writer = isLate ? 3 : 0;
      if (!isBellDue(at, fault)) return true;
      at.rung = at.bell;
      at.writer = 2;
      return true;
    case 2:
      if (fault == Fault::WriterClearsTheBell) at.bell = 0;
      if (at.reader == 3) at.reader = 0;
      at.writer = isLate ? 3 : 0;
      return true;
    default:
      ++at.sequence;
      at.writer = 0;
      return true;
  }
}

/// One step of the reader. @return False when he sleeps, or has seen everything.
bool read(Situation& at, Fault fault) {
  switch (at.reader) {
    case 0:
      if (at.seen == kWrites) return false;
      at.bell = at.seen + 1;
      at.reader = 1;
      return true;
    case 1:
      at.compared = at.sequence;
      at.reader = at.sequence > at.seen ? 0 : 2;
      if (at.sequence > at.seen) {
        at.seen = at.sequence;
        at.bell = 0;
      }
      return true;
    case 2:
      at.reader = fault == Fault::SleepDoesNotCompare || at.sequence == at.compared ? 3 : 0;
      return true;
    default:
      return false;
  }
}

/// @return Whether somebody sleeps for good beside what he waits for.
bool losesAWakeUp(Fault fault) {
  std::set<Situation> known{Situation{}};
  std::vector<Situation> open{Situation{}};
  while (!open.empty()) {
    const Situation at = open.back();
    open.pop_back();
    bool isOver = true;
    for (const auto step : {&write, &read}) {
      Situation next = at;
      if (!step(next, fault)) continue;
      isOver = false;
      if (known.insert(next).second) open.push_back(next);
    }
    if (isOver && at.seen < at.sequence) return true;
  }
  return false;
}

TEST(Bells, LoseNoWakeUpInAnyOrderOfSteps) { EXPECT_FALSE(losesAWakeUp(Fault::None)); }

TEST(Bells, WouldLoseOneIfTheyWereMadeOtherwise) {
  EXPECT_TRUE(losesAWakeUp(Fault::WriterClearsTheBell));
  EXPECT_TRUE(losesAWakeUp(Fault::WriterLooksBeforeItPublishes));
  EXPECT_TRUE(losesAWakeUp(Fault::SleepDoesNotCompare));
}

}  // namespace
