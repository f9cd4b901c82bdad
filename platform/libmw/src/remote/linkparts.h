#pragma once

// What the two sources of a Link share: link.cpp calls, link_serving.cpp is called.

#include "link.h"

#include <libmw/eventloop.h>
#include <libmw/log.h>

#include <cstddef>
#include <functional>
#include <string_view>

#include <fmt/format.h>

namespace mw::remote {

inline constexpr const char* kCategory = "mw.link";
/// Bytes to begin a message with.
inline constexpr std::size_t kUsualFrame = 128;
inline constexpr std::string_view kAlive = "korvo.alive";
inline constexpr std::string_view kEmit = "korvo.emit";

/// Whether the calling thread does more calls right after the present one: what these send may then leave together.
inline thread_local bool moreFollows = false;

/// Done here and now where the event loop has ended with the process.
inline void postOrRun(const std::function<void()>& task) {
  if (!defaultLoop().post(task)) task();
}

/// A subscriber of this process on a signal of the peer's.
class Link::Subscription {
 public:
  explicit Subscription(const SignalSubscriber& subscriber) : subscriber_(subscriber) {}

  /// @return False when the subscriber is of no more use.
  bool deliver(const Incoming& emission) const {
    const auto pass = gate_.enter();
    if (!pass) return true;
    try {
      return subscriber_.call(emission.references());
    } catch (...) {
      log::error(kCategory, "deliver",
                 fmt::format("a subscriber failed: {}", mw::detail::describe(std::current_exception())));
      return true;
    }
  }
  void end() { gate_.drain(); }

 private:
  const SignalSubscriber subscriber_;
  CallGate gate_{1};
};

}  // namespace mw::remote
