#pragma once

#include <hxerror/api.h>
#include <hxjournal/change.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string_view>
#include <utility>

namespace HX::journal {

/// How soon a follower that sleeps hears of a change: at once, or within some 20 ms, which spares writers the waking.
enum class Promptness : std::uint8_t { Prompt, Relaxed };

/// How to follow. The callbacks run like the one for changes: one at a time, with no lock held.
struct FollowOptions {
  bool snapshot = true;      ///< Begin with the states of all wanted keys. Without: with the next change.
  double rate = 0;           ///< At most so many a second for each key; then the latest state. 0: every change.
  std::uint64_t behind = 0;  ///< Being more changes behind than this counts as having missed them. 0: no such bound.
  std::optional<Position> since;  ///< Go on after this place, with a gap when that is not possible any more.
  Promptness promptness = Promptness::Prompt;

  std::function<void(const Gap&)> onGap;
  /// What was told so far is the table at this place. After the snapshot, whatever gave rise to it; once what was
  /// missed since `since` has been told. With a rate: but for those that are due later.
  std::function<void(Position)> onComplete;
  /// A key that has not changed since the beginning of the gap, with the place of its last change.
  std::function<void(std::string_view, Position)> onUnchanged;
  /// All is told that there is at the moment. For who passes changes on in batches.
  std::function<void()> onPause;
};

/// What a `Follow` is the handle of: a follower of this process's journal, or of one in another process. Its functions
/// do what those of the handle say.
///
/// @par Threads  Any.
class HX_API Following {
 public:
  virtual ~Following();
  virtual void end() noexcept = 0;
  virtual Position position() const noexcept = 0;
  virtual void pause() noexcept = 0;
  virtual void resume() = 0;
};

/// Follows for as long as it lives. Empty when made without arguments or moved from.
///
/// Destroying it waits for a callback that runs on another thread, and for none on this: from its own callback too it
/// may be destroyed, and ends after that. Two followers that destroy each other from their callbacks wait for ever.
class HX_API Follow {
 public:
  Follow() = default;
  explicit Follow(std::shared_ptr<Following> following) noexcept : following_(std::move(following)) {}
  Follow(Follow&&) noexcept = default;
  Follow& operator=(Follow&& other) noexcept;
  ~Follow();

  /// Whether there is, or was, something that it follows.
  explicit operator bool() const noexcept { return following_ != nullptr; }
  /// As the destructor, and leaves the position to be asked for.
  void end() noexcept;

  /// Where to go on later, as `FollowOptions::since`. While a snapshot is told, the place before it; then what was told
  /// meanwhile is told again. Revision 0 before the first is complete, from where one begins anew.
  Position position() const noexcept;

  /// Stops telling, after the callback that runs; nothing is kept meanwhile, so that there may be a gap afterwards.
  void pause() noexcept;
  void resume();

 private:
  std::shared_ptr<Following> following_;
};

}  // namespace HX::journal
