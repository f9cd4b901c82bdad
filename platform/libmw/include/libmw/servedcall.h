#pragma once

#include <hxerror/api.h>

#include <stop_token>

namespace mw {

class GenericObject;

/// Asked to stop when whoever called the method that the calling thread runs does not want its result any more: the
/// future was cancelled, its deadline has passed, or the process has gone. For methods that wait, or take long; they
/// may end as they like, since nobody sees how.
///
/// Callbacks on the token run on a thread that reads a connection: they must not wait, nor call other processes.
///
/// @return One that is never asked where the thread serves no call of another process, and for calls without a result
///         (`post`), which nobody gives up.
/// @par Threads  Any; the token may be handed to others.
HX_API std::stop_token stopOfServedCall();

/// Whether the calling thread does nothing but run a method of `object` for another process, inside no further call,
/// and `EventLoop::postAfterServing` has left it nothing to do yet.
///
/// @param object  Of this process.
/// @return Also false when something else came before it that left something to do, which others do now.
/// @par Threads  Any.
HX_API bool servesNothingBut(const GenericObject& object) noexcept;

}  // namespace mw
