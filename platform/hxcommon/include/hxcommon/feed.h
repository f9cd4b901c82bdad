#pragma once

#include <hxerror/api.h>
#include <hxjournal/filter.h>
#include <hxjournal/follow.h>
#include <hxjournal/journal.h>

#include <functional>
#include <memory>

namespace HX {

class HXBroker;

/// The changes of the memory, for programs that are no module; modules have `HXModule::follow`. The memory may be in
/// this process or in another one; then the broker there must have the module `journal` (service "HXJournal").
///
/// @par Threads  All functions are safe from any thread. They wait for the broker where that is another process.

/// Follows the changes.
/// @param broker    Whose memory. Not kept: a follower hears nothing any more when its broker has gone.
/// @param filter    Which of the changes.
/// @param onChange  Runs on the event loop, one at a time, with no lock held; may write what it follows, and may end
/// the
///                  follower.
/// @param options   Where to begin, how often, how soon; further callbacks, which run like this one.
/// @return Follows as long as it lives.
/// @throws std::runtime_error when there is no memory, when its broker offers no journal, and when that refuses an
///         option, which it names.
HX_API journal::Follow follow(const std::shared_ptr<HXBroker>& broker, journal::Filter filter,
                              std::function<void(const journal::Change&)> onChange,
                              journal::FollowOptions options = {});

/// What one can go back to: `Journal::retained`.
/// @param broker  Whose memory.
/// @return What its journal holds at this moment.
/// @throws As `follow`.
HX_API journal::Retained retainedChanges(const std::shared_ptr<HXBroker>& broker);

/// The place after which to go on for the changes from a time on: `Journal::at`. For `FollowOptions::since`.
/// @param broker  Whose memory.
/// @param time    By the clock of the memory's machine.
/// @return The place; the oldest retained one when the time is older.
/// @throws As `follow`.
HX_API journal::Position changesAt(const std::shared_ptr<HXBroker>& broker, journal::TimePoint time);

/// The journal itself, where the memory is of this process.
/// @param broker  Whose memory.
/// @return Null otherwise. May be kept; it is closed when the memory goes.
HX_API std::shared_ptr<journal::Journal> ownJournal(const HXBroker& broker);

}  // namespace HX
