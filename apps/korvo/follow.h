#pragma once

#include "event.h"

#include <libmw/trackable.h>

#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace korvo {

class Output;
class RemoteTarget;
class StopSignals;
class Watches;

/// Keeps watches alive while brokers come and go: marks the gap when the connection is lost, and watches anew once it
/// is back and the memory is there again.
///
/// @par Threads  One at a time; what the session tells is taken on its threads.
class Follower {
 public:
  /// Listens from now on, so that nothing between the first watch and `run` is missed.
  Follower(RemoteTarget& target, Output& output, Watches& watches);
  Follower(const Follower&) = delete;
  Follower& operator=(const Follower&) = delete;
  ~Follower();

  /// Returns when a signal arrives, or nobody reads the output any more.
  void run(StopSignals& signals);

 private:
  using News = std::optional<std::string>;  // Why the connection was lost; none: it is back.
  void tell(News news);
  void obeyNews();
  bool watchAnew();

  RemoteTarget& target_;
  Output& output_;
  Watches& watches_;
  Event told_;
  std::vector<std::string> keys_;
  bool restored_ = false;  // The connection is back, the watches are not yet.
  std::mutex mutex_;       // Guards `news_`.
  std::vector<News> news_;
  mw::Lifetime lifetime_;
};

}  // namespace korvo
