#pragma once

#include <libmw/genericobject.h>

#include <atomic>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace korvo {

class Output;

/// The keys whose raises are being printed, a line of JSON each: {"key":…,"value":…,"time":…}.
///
/// @par Threads  Any thread. Lines are printed by the thread that raises. The lock is not held while middleware is
///   called.
class Watches {
 public:
  explicit Watches(Output& output) : output_(output) {}
  Watches(const Watches&) = delete;
  Watches& operator=(const Watches&) = delete;
  ~Watches() { close(); }

  /// Prints every emission of `signal` from now on, in place of what was watched under `key` before.
  /// @param subscriber  An object with a signal "signal", as the memory hands it out for a key.
  /// @throws std::runtime_error when it cannot be connected to, or after `close`.
  void add(const std::string& key, mw::AnyObject subscriber);
  /// Once it has returned nothing is printed for `key` any more.
  /// @return False when `key` is not watched.
  bool remove(const std::string& key);
  /// Ends every watch, and refuses new ones.
  void close();
  /// What is watched, sorted.
  std::vector<std::string> keys() const;

  /// Has gaps printed as lines of JSON among the raises, {"gap":"begins",…} and {"gap":"ends",…}, instead of as
  /// messages on the error stream.
  void markGapsInOutput(bool inOutput) { gapsInOutput_ = inOutput; }
  /// Prints that from now on raises are missed, and why; that they are seen again.
  void beginGap(const std::string& reason);
  void endGap();

 private:
  struct Watch {
    mw::AnyObject subscriber;
    mw::SignalLink link = mw::kInvalidSignalLink;
  };
  static void disconnect(const Watch& watch);

  Output& output_;
  std::atomic<bool> gapsInOutput_ = false;
  mutable std::mutex mutex_;  // Guards all below.
  bool closed_ = false;
  std::map<std::string, Watch> watches_;
};

}  // namespace korvo
