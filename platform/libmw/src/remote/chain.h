#pragma once

#include "../runtime/callerscope.h"

#include <hxauthor/author.h>
#include <hxerror/api.h>

#include <compare>
#include <cstdint>

namespace mw::remote {

class CallStop;

/// Names the thread that a chain of calls began on: the process and the thread in it.
struct Caller {
  std::uint64_t endpoint = 0;
  std::uint32_t thread = 0;
  auto operator<=>(const Caller&) const = default;
  explicit operator bool() const { return endpoint != 0; }
};

/// A place in a chain of calls. A call that is made while another one is served belongs to the same chain, one step
/// deeper; so the processes that a chain goes through act for it like one thread.
///
/// The process of a thread that waits for an answer may be called back by the very call that it waits for. Were
/// another thread to serve that, it would meet the locks that the waiting one holds, and both would wait for ever. So
/// the waiting thread serves the calls of its chain itself.
struct Chain {
  Caller caller;
  std::uint32_t depth = 0;
};

/// A part of a process that is called into by a way of its own: a session. A chain may go through several of them in
/// one process, and each has its own waiting thread.
using Domain = const void*;

/// No chain goes deeper: each step takes stack in some process.
inline constexpr std::uint32_t kDeepestChain = 256;

/// The id of this process among all that are connected; never 0.
std::uint64_t thisEndpoint();

/// The chain for a call that the calling thread makes now.
/// @throws std::runtime_error beyond `kDeepestChain`.
HX_API Chain chainOfThisThread();

/// What the calling thread works for.
struct Served {
  Chain chain;  ///< Its own one while it serves nobody, once it has made a call.
  Domain domain = nullptr;
  bool relays = false;  ///< Hands the present call on, and will not wait for its answer.
  CallStop* stop = nullptr;
  const HX::Author* author = nullptr;  ///< Who has called; null while it serves nobody.
};
Served& servedByThisThread();

/// While one lives, the calling thread works for `chain`, in `domain`.
class Serving {
 public:
  /// @param stop    Of the call; null where nobody waits for its end. Must outlive this.
  /// @param author  Who has called: in that name the thread acts. Must outlive this.
  /// @param relays  The thread hands the call on to another process, and does not wait for the answer.
  Serving(const Chain& chain, Domain domain, CallStop* stop, const HX::Author& author, bool relays = false);
  Serving(const Serving&) = delete;
  Serving& operator=(const Serving&) = delete;
  ~Serving();

 private:
  const Served outer_;
  const mw::detail::CallerScope caller_;
  const HX::Author::Scope inTheCallersName_;
};

}  // namespace mw::remote
