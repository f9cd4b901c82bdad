#include "remote/readingturn.h"

#include <array>
#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <utility>

#include <gtest/gtest.h>

namespace mw::remote {
namespace {

/// Two threads and a channel that messages come over, as a model: every step is one that the threads can be interrupted
/// behind. All orders of the steps are tried.
///
/// The kernel of the model keeps one edge for whoever waits at it: it is raised when a message comes while the channel
/// is told of, and when the telling begins anew while one lies there.
class Model {
 public:
  enum class Role : std::uint8_t {
    Poller,         ///< Waits at the kernel; reads when told; ends, or leaves when it has read once.
    Claimer,        ///< Claims, begins, reads until its message is there, gives back.
    Caller,         ///< The same without a claim.
    WithdrawingOne  ///< Claims, and gives back without having read.
  };

  Model(Role first, Role second, int messages) : actors_{Actor{first}, Actor{second}}, toCome_(messages) {}
  Model(const Model& other)
      : turn_(other.turn_.moment()),
        actors_(other.actors_),
        toCome_(other.toCome_),
        unread_(other.unread_),
        isTold_(other.isTold_),
        isEdge_(other.isEdge_),
        isTimerSet_(other.isTimerSet_),
        seen_(other.seen_),
        trace_(other.trace_) {}
  Model& operator=(const Model&) = delete;

  /// Tries every order from here on. @return What went wrong in one of them.
  std::optional<std::string> explore(std::set<std::string>& seen) const {
    if (!seen.insert(key()).second) return std::nullopt;
    bool moved = false;
    for (std::size_t i = 0; i <= actors_.size(); ++i) {
      Model next = *this;
      if (!(i < actors_.size() ? next.step(next.actors_[i]) : next.arrive())) continue;
      moved = true;
      if (next.readers() > 1) return "two read at once" + next.trace_;
      if (auto wrong = next.explore(seen)) return wrong;
    }
    if (!moved && unread_ > 0) return "nobody reads what has come" + trace_;
    return std::nullopt;
  }

 private:
  using Step = ReadingTurn::Step;
  static constexpr int kDone = 100;
  struct Actor {
    Role role;
    int at = 0;  // what it does next
    bool reads = false;
  };

  std::string key() const {
    std::string text = std::to_string(static_cast<int>(turn_.state())) + (turn_.moment() == seen_ ? "s" : "n");
    for (const Actor& one : actors_) text += "," + std::to_string(one.at) + (one.reads ? "r" : "");
    for (const int number : {toCome_, unread_, int{isTold_}, int{isEdge_}, int{isTimerSet_}}) {
      text += "," + std::to_string(number);
    }
    return text;
  }
  int readers() const { return int{actors_[0].reads} + int{actors_[1].reads}; }

  bool arrive() {
    if (toCome_ == 0) return false;
    --toCome_;
    ++unread_;
    if (isTold_) isEdge_ = true;
    trace_ += " comes";
    return true;
  }
  /// As a channel sets what the kernel tells: after the step, from the state as it is by then.
  void tellKernel() {
    isTold_ = turn_.isTold();
    if (isTold_ && unread_ > 0) isEdge_ = true;
  }

  bool step(Actor& actor) {
    trace_ += " " + std::to_string(&actor - actors_.data()) + "@" + std::to_string(actor.at);
    return actor.role == Role::Poller ? stepPoller(actor) : stepCaller(actor);
  }

  bool stepPoller(Actor& actor) {
    switch (actor.at) {
      case 0:  // It waits. The timer is one of the things that it is told of.
        if (isEdge_) {
          isEdge_ = false;
          actor.at = 1;
        } else if (isTimerSet_) {
          isTimerSet_ = false;
          actor.at = 5;
        } else {
          return false;
        }
        return true;
      case 1:
        actor.reads = turn_.beginPoller();
        actor.at = actor.reads ? 2 : 0;
        return true;
      case 2:
        actor.at = unread_ > 1 ? 3 : 4;
        if (unread_ > 0) --unread_;
        return true;
      case 3:  // As much as one turn takes.
        actor.reads = false;
        turn_.leavePoller();
        actor.at = 6;
        return true;
      case 4:
        actor.reads = false;  // From the step on, another one may.
        if (!turn_.endPoller()) {
          actor.reads = true;
          actor.at = 2;
        } else {
          actor.at = 0;
        }
        return true;
      case 5: {
        const auto moment = turn_.moment();
        actor.at = turn_.lapse(std::exchange(seen_, moment)) == Step::TakenAndMarked ? 6 : 7;
        return true;
      }
      case 7:
        if (turn_.state() == ReadingTurn::State::Parked) isTimerSet_ = true;
        actor.at = 0;
        return true;
      default:
        tellKernel();
        actor.at = 0;
        return true;
    }
  }

  bool stepCaller(Actor& actor) {
    const auto taken = [&](Step step, int next) {
      // Refused, it sleeps until somebody else has read: here it has nothing more to do.
      actor.at = step == Step::Refused ? kDone : step == Step::TakenAndMarked ? next : next + 1;
      return true;
    };
    switch (actor.at) {
      case 0:
        if (actor.role == Role::Claimer || actor.role == Role::WithdrawingOne) return taken(turn_.claim(), 1);
        actor.at = 4;
        return true;
      case 1:
        tellKernel();
        actor.at = 2;
        return true;
      case 2:
        actor.at = 7;
        if (actor.role == Role::WithdrawingOne) return true;
        turn_.beginClaimed();
        actor.reads = true;
        actor.at = 6;
        return true;
      case 4: {
        const Step step = turn_.beginCaller();
        actor.reads = step != Step::Refused;
        return taken(step, 5);
      }
      case 5:
        tellKernel();
        actor.at = 6;
        return true;
      case 6:  // One message at a time: what comes behind its own is left.
        if (unread_ == 0 && toCome_ > 0) return false;
        if (unread_ > 0) --unread_;
        actor.at = 7;
        return true;
      case 7:
        actor.reads = false;
        turn_.park();
        actor.at = 8;
        return true;
      case 8:  // It has asked whether more is expected: both answers, by how much is to come.
        isTimerSet_ = isTimerSet_ || toCome_ % 2 == 0;
        actor.at = toCome_ % 2 == 0 ? kDone : 9;
        return true;
      case 9:
        actor.at = turn_.watch() == Step::TakenAndMarked ? 10 : kDone;
        return true;
      case 10:
        tellKernel();
        actor.at = kDone;
        return true;
      default:
        return false;
    }
  }

  ReadingTurn turn_;
  std::array<Actor, 2> actors_;
  int toCome_;
  int unread_ = 0;
  bool isTold_ = true;
  bool isEdge_ = false;
  bool isTimerSet_ = false;
  std::uint32_t seen_ = 0;
  std::string trace_;
};

TEST(ReadingTurn, LeavesNothingUnreadAndHasOneReaderInEveryOrderOfTwoThreads) {
  using Role = Model::Role;
  std::size_t states = 0;
  for (const Role second : {Role::Poller, Role::Claimer, Role::Caller, Role::WithdrawingOne}) {
    for (int messages = 1; messages <= 4; ++messages) {
      std::set<std::string> seen;
      const auto wrong = Model(Role::Poller, second, messages).explore(seen);
      EXPECT_FALSE(wrong) << "with role " << static_cast<int>(second) << ": " << *wrong;
      states += seen.size();
    }
  }
  EXPECT_GT(states, 1000U);
}

TEST(ReadingTurn, HasOneReaderInEveryOrderOfTwoCallers) {
  // Without a poller nobody reads what is left: they are told apart by who gets the turn.
  ReadingTurn turn;
  EXPECT_EQ(turn.claim(), ReadingTurn::Step::TakenAndMarked);
  EXPECT_EQ(turn.claim(), ReadingTurn::Step::Refused);
  EXPECT_EQ(turn.beginCaller(), ReadingTurn::Step::Refused);
  EXPECT_FALSE(turn.beginPoller());
  EXPECT_EQ(turn.watch(), ReadingTurn::Step::Refused);
  turn.beginClaimed();
  EXPECT_EQ(turn.beginCaller(), ReadingTurn::Step::Refused);
  turn.park();
  const auto parked = turn.moment();
  EXPECT_EQ(turn.beginCaller(), ReadingTurn::Step::Taken);
  turn.park();
  EXPECT_EQ(turn.lapse(parked), ReadingTurn::Step::Refused) << "another time";
  EXPECT_EQ(turn.lapse(turn.moment()), ReadingTurn::Step::TakenAndMarked);
}

}  // namespace
}  // namespace mw::remote
