#pragma once

#include "wire.h"

#include <libmw/signal.h>
#include <libmw/trackable.h>

#include <cstddef>
#include <iterator>
#include <utility>
#include <vector>

#include <boost/container/small_vector.hpp>

namespace mw::remote {

/// The arguments of a call or an emission that has come.
using ArgumentValues = boost::container::small_vector<AnyValue, 2>;

/// Calls `use` with references to the arguments.
template <class Use>
auto withReferences(const ArgumentValues& arguments, const Use& use) {
  boost::container::small_vector<AnyReference, 4> all;
  for (const AnyValue& argument : arguments) all.push_back(argument.reference());
  return use(GenericFunctionParameters(all.data(), all.size()));
}

/// Values of a message that are many: read by whoever needs them, not by the thread that reads the connection.
class UnreadValues {
 public:
  /// @param index  Where it belongs among the arguments.
  void add(std::size_t index, std::span<const std::byte> bytes) {
    all_.emplace_back(index, Bytes(bytes.begin(), bytes.end()));
  }
  /// @throws ProtocolError for what is no value.
  void readInto(ArgumentValues& arguments) {
    for (const auto& [index, bytes] : std::exchange(all_, {})) arguments[index] = AnyValue(Reader(bytes).value());
  }

 private:
  std::vector<std::pair<std::size_t, Bytes>> all_;
};

/// What a signal of the peer's has emitted.
struct Emission {
  explicit Emission(std::size_t bytes) : size(bytes) {}
  Emission(Emission&&) noexcept = default;  ///< Where many wait, they move when their memory grows.
  Emission& operator=(Emission&&) = default;
  ~Emission() = default;

  ArgumentValues arguments;
  UnreadValues unread;
  bool hasObjects = false;  ///< Among the arguments.
  std::size_t size;         ///< Of the message, in bytes; 0 once it has been let go of.
};

/// Emissions that wait for their subscriber, in their order. They lie in memory that is used again, since a signal
/// emits as a rule what it emitted before.
///
/// @par Threads  One at a time.
class EmissionQueue {
 public:
  /// What a burst has made larger is given back.
  static constexpr std::size_t kKept = 256;

  /// @param emissions  Left as they are when there is no memory; nothing that matters is in them otherwise.
  /// @return True when nobody takes from the queue: the caller sees that it is done.
  bool add(std::vector<Emission>& emissions) {
    if (waiting_.empty()) {
      waiting_.swap(emissions);
    } else {
      waiting_.insert(waiting_.end(), std::move_iterator(emissions.begin()), std::move_iterator(emissions.end()));
    }
    return !std::exchange(isTaken_, true);
  }

  /// @param taken  Empty; receives all that wait. Its memory is used for those that come next.
  /// @return False when none waits: the caller does not take any more, and the next `add` returns true.
  bool take(std::vector<Emission>& taken) {
    if (taken.capacity() > kKept) taken = std::vector<Emission>();
    isTaken_ = !waiting_.empty();
    if (isTaken_ || waiting_.capacity() < taken.capacity()) waiting_.swap(taken);
    return isTaken_;
  }

 private:
  std::vector<Emission> waiting_;
  bool isTaken_ = false;
};

/// A subscriber of this process on a signal of the peer's.
class Subscription {
 public:
  explicit Subscription(SignalSubscriber subscriber) : subscriber_(std::move(subscriber)) {}

  /// The subscriber is called in a pass. @return None when the subscription has ended.
  CallGate::Pass enter() const { return gate_.enter(); }
  /// The subscriber is not called any more.
  bool isOver() const { return gate_.isClosed(); }
  /// Calls the subscriber. What it throws is logged.
  /// @return False when the subscriber is of no more use.
  bool deliver(const Emission& emission, SignalLink link) const;

  /// Returns when no other thread is in a pass.
  void end() { gate_.drain(); }
  /// The same without waiting for a delivery that is under way.
  void close() { gate_.close(); }

  EmissionQueue waiting;  ///< Guarded by the lock of the link.

 private:
  const SignalSubscriber subscriber_;
  CallGate gate_{1};
};

}  // namespace mw::remote
