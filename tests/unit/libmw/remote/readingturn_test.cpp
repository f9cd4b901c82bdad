#include "remote/readingturn.h"

#include <algorithm>
#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace mw::remote {
namespace {

/// Threads and a channel that messages come over, as a model: every step is one that a thread can be interrupted
/// behind. All orders of the steps are tried.
///
/// The kernel of the model keeps one edge for whoever waits at it: it is raised when a message comes while the channel
/// is told of, and when the telling begins anew while one lies there.
class Model {
 public:
  enum class Role : std::uint8_t {
    Poller,  ///< Waits at the kernel; reads when told; ends, or leaves when it has read once.
    Caller,  ///< Reads until its message is there, and gives back.
    Looker,  ///< Has the turn, and gives it back without having read.
  };

  Model(const std::vector<Role>& roles, int messages) : toCome_(messages) {
    for (const Role role : roles) actors_.push_back({role});
  }
  Model(const Model& other)
      : turn_(other.turn_.state()),
        actors_(other.actors_),
        toCome_(other.toCome_),
        unread_(other.unread_),
        isTold_(other.isTold_),
        isEdge_(other.isEdge_),
        isTimerSet_(other.isTimerSet_),
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
      if (std::ranges::count_if(next.actors_, &Actor::reads) > 1) return "two read at once" + next.trace_;
      if (auto wrong = next.explore(seen)) return wrong;
    }
    if (!moved && unread_ > 0) return "nobody reads what has come" + trace_;
    return std::nullopt;
  }

 private:
  using Step = ReadingTurn::Step;
  /// What an actor does next.
  enum class At : std::uint8_t { Waits, Begins, Reads, Leaves, Ends, Lapses, Tells, Parks, Asks, Done };
  struct Actor {
    Role role;
    At at = At::Waits;
    At then = At::Waits;  ///< Behind `Tells`.
    bool reads = false;
  };

  std::string key() const {
    std::string text = std::to_string(static_cast<int>(turn_.state()));
    for (const Actor& one : actors_) {
      text += "," + std::to_string(static_cast<int>(one.at)) + "/" + std::to_string(static_cast<int>(one.then)) +
              (one.reads ? "r" : "");
    }
    for (const int number : {toCome_, unread_, int{isTold_}, int{isEdge_}, int{isTimerSet_}}) {
      text += "," + std::to_string(number);
    }
    return text;
  }

  bool arrive() {
    if (toCome_ == 0) return false;
    --toCome_;
    ++unread_;
    if (isTold_) isEdge_ = true;
    trace_ += " comes";
    return true;
  }
  bool take() {
    if (unread_ == 0) return false;
    --unread_;
    return true;
  }
  bool go(Actor& actor, At at) {
    actor.at = at;
    return true;
  }
  /// A marked step: what the kernel tells is set behind it.
  bool tellThen(Actor& actor, At then) {
    actor.then = then;
    return go(actor, At::Tells);
  }

  bool step(Actor& actor) {
    trace_ += " " + std::to_string(&actor - actors_.data()) + "@" + std::to_string(static_cast<int>(actor.at));
    if (actor.at == At::Tells) {  // From the state as it is by then.
      isTold_ = turn_.isTold();
      if (isTold_ && unread_ > 0) isEdge_ = true;
      return go(actor, actor.then);
    }
    return actor.role == Role::Poller ? stepPoller(actor) : stepCaller(actor);
  }

  bool stepPoller(Actor& actor) {
    switch (actor.at) {
      case At::Waits:  // What is to be done later is done by some thread that nothing keeps.
        if (std::exchange(isEdge_, false)) return go(actor, At::Begins);
        if (std::exchange(isTimerSet_, false)) return go(actor, At::Lapses);
        return false;
      case At::Begins:
        actor.reads = turn_.beginPoller();
        return go(actor, actor.reads ? At::Reads : At::Waits);
      case At::Reads:  // As much as one turn takes.
        return go(actor, take() && unread_ > 0 ? At::Leaves : At::Ends);
      case At::Leaves:
        actor.reads = false;
        turn_.leavePoller();
        return tellThen(actor, At::Waits);
      case At::Ends:
        actor.reads = false;  // From the step on, another one may.
        if (turn_.endPoller()) return go(actor, At::Waits);
        actor.reads = true;
        return go(actor, At::Reads);
      case At::Lapses:
        return turn_.watch() == Step::TakenAndMarked ? tellThen(actor, At::Waits) : go(actor, At::Waits);
      default:
        return false;
    }
  }

  bool stepCaller(Actor& actor) {
    switch (actor.at) {
      case At::Waits: {
        const Step step = turn_.begin();
        if (step == Step::Refused) return go(actor, At::Done);  // It sleeps until somebody else has read.
        actor.reads = true;
        const At then = actor.role == Role::Looker ? At::Parks : At::Reads;
        return step == Step::TakenAndMarked ? tellThen(actor, then) : go(actor, then);
      }
      case At::Reads:  // One message at a time: what comes behind its own is left.
        if (!take() && toCome_ > 0) return false;
        return go(actor, At::Parks);
      case At::Parks:
        actor.reads = false;
        turn_.park();
        return go(actor, At::Asks);
      case At::Asks:  // Whether more is expected: both answers, by how much is to come.
        if (toCome_ % 2 == 0) {
          isTimerSet_ = true;
          return go(actor, At::Done);
        }
        return turn_.watch() == Step::TakenAndMarked ? tellThen(actor, At::Done) : go(actor, At::Done);
      default:
        return false;
    }
  }

  ReadingTurn turn_;
  std::vector<Actor> actors_;
  int toCome_;
  int unread_ = 0;
  bool isTold_ = true;
  bool isEdge_ = false;
  bool isTimerSet_ = false;
  std::string trace_;
};

TEST(ReadingTurn, LeavesNothingUnreadAndHasOneReaderInEveryOrder) {
  using enum Model::Role;
  const std::vector<std::vector<Model::Role>> all{{Poller, Poller},         {Poller, Caller},
                                                  {Poller, Looker},         {Poller, Caller, Caller},
                                                  {Poller, Caller, Looker}, {Poller, Poller, Caller}};
  std::size_t states = 0;
  for (std::size_t which = 0; which < all.size(); ++which) {
    for (int messages = 1; messages <= 4; ++messages) {
      std::set<std::string> seen;
      const auto wrong = Model(all[which], messages).explore(seen);
      EXPECT_FALSE(wrong) << "row " << which << ": " << *wrong;
      states += seen.size();
    }
  }
  EXPECT_GT(states, 1000U);
}

TEST(ReadingTurn, TellsWhenWhatTheKernelTellsIsToBeSet) {
  using Step = ReadingTurn::Step;
  ReadingTurn turn;
  EXPECT_EQ(turn.watch(), Step::Refused);
  EXPECT_EQ(turn.begin(), Step::TakenAndMarked);
  EXPECT_EQ(turn.begin(), Step::Refused);
  EXPECT_FALSE(turn.beginPoller());
  EXPECT_EQ(turn.watch(), Step::Refused) << "somebody reads";
  turn.park();
  EXPECT_EQ(turn.begin(), Step::Taken) << "the kernel is silent already";
  turn.park();
  EXPECT_EQ(turn.watch(), Step::TakenAndMarked);
  EXPECT_TRUE(turn.isTold());
}

}  // namespace
}  // namespace mw::remote
