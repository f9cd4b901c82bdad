#pragma once

#include "interpreter.h"

#include <hxview/view.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace HX {
class HXBroker;
}

namespace korvo::python {

/// What a view or a stream saw. Unlike the one of C++ it is the program's own, and does not change with the next read.
class SeenValue {
 public:
  using Seen = HX::Seen<HX::HXValue>;

  explicit SeenValue(Seen seen) : seen_(std::move(seen)) {}

  py::object state() const;
  std::uint64_t revision() const { return seen_.revision; }
  bool isReconnected() const { return seen_.isReconnected; }
  /// @throws std::runtime_error that says the state, unless it is Present.
  py::object value() const;
  py::object last() const;
  /// @return Seconds.
  double age() const;
  /// @param limit  Of the age, in seconds.
  bool isFresh(double limit) const;
  /// What it unpacks to: (value or None, age, revision, state).
  py::iterator parts() const;
  std::string text() const;

 private:
  Seen seen_;
};

/// How something is viewed.
struct Sight {
  std::string key;
  std::size_t capacity = 0;  ///< Bytes of the largest value.
  double aliveWithin = 0;    ///< How soon a broker that does not run any more is noticed, in seconds.
};

/// That only one thread at a time uses a view. Taken and given back with the GIL, which a wait lets go of.
class Turn {
 public:
  /// @throws std::runtime_error when another one does.
  explicit Turn(bool& isTaken);
  Turn(const Turn&) = delete;
  Turn& operator=(const Turn&) = delete;
  ~Turn() { isTaken_ = false; }

 private:
  bool& isTaken_;
};

/// A key that is read at the speed of memory. Reads keep the GIL: they wait for nothing.
class NativeView {
 public:
  /// Without the GIL.
  NativeView(const std::shared_ptr<HX::HXBroker>& broker, const Sight& sight);

  SeenValue read();
  /// @param limit  Seconds.
  bool isAlive(double limit);
  /// @param limit  Seconds; none for no limit.
  /// @return Whether there is something newer, or the broker has gone or come.
  bool wait(std::uint64_t revision, std::optional<double> limit);

 private:
  HX::View<HX::HXValue> view_;
  bool isUsed_ = false;
};

/// Every value that is written under a key.
class NativeStream {
 public:
  /// Without the GIL.
  /// @param depth  How many values are kept for who reads late.
  NativeStream(const std::shared_ptr<HX::HXBroker>& broker, const Sight& sight, std::size_t depth);

  /// Waits for the next value, also while there is no broker.
  /// @param limit  Seconds; none for no limit.
  /// @return None when the time is over, or the robot is closed.
  std::optional<SeenValue> next(std::optional<double> limit);
  /// How many values were overwritten before they were read.
  std::uint64_t lost() const { return stream_.lost(); }
  /// What ends it, when the robot is closed.
  std::shared_ptr<Endable> ending() const { return end_; }

 private:
  /// The wait itself ends with the connection.
  struct End : Endable {
    void end() override { isReached = true; }
    std::atomic<bool> isReached{false};
  };

  HX::Stream<HX::HXValue> stream_;
  const std::shared_ptr<End> end_ = std::make_shared<End>();
  bool isUsed_ = false;
};

}  // namespace korvo::python
