#pragma once

#include <hxerror/api.h>

#include <chrono>

namespace mw::detail {

/// How long the end of the process may still wait for threads: two seconds in all, from the first call.
HX_API std::chrono::milliseconds graceAtExit();

/// Whether this process was forked from one that had threads of the middleware, none of which it has. Nothing works in
/// it, and nothing may be waited for at its end. Known from the first call in the parent on.
HX_API bool isForkedChild() noexcept;

/// Files that must not live on in a child: a connection would outlast the process whose it is, and a lock its holder.
/// In the child their numbers stand for a socket that is connected to nothing, so that nobody else gets them.
///
/// @par Threads  Any.
HX_API void closeInChildren(int file) noexcept;
/// It is about to be closed.
HX_API void closedAlready(int file) noexcept;

}  // namespace mw::detail
