#pragma once

#include "wire.h"

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>

namespace mw::remote {

/// What is done for a message: work for a thread that may block.
using Work = std::function<void()>;

/// The reason of an end that is nobody's fault.
inline constexpr std::string_view kPeerClosed = "it closed the connection";

/// Receives what comes over a channel.
class ChannelSink {
 public:
  virtual ~ChannelSink() = default;
  /// One message. Called by one thread at a time, in their order; must not wait, and must not call what is foreign.
  /// @return What is to be done for it once reading goes on elsewhere; empty when nothing is left.
  /// @throws ProtocolError to end the channel.
  virtual Work onFrame(std::span<const std::byte> frame) = 0;
  /// The channel has ended. Called once, after the last message, on any thread.
  virtual void onEnd(const std::string& reason) = 0;
};

/// When a message leaves.
enum class Sending : bool {
  Now,
  Soon,  ///< Together with others that follow at once: with the next one that leaves now, in a tenth of a millisecond.
};

/// Ordered messages to and from one other process: the seam between what calls mean and how bytes travel. Ends exactly
/// once, with a reason.
///
/// @par Threads  Any. Nothing waits, but `read`.
class Channel {
 public:
  virtual ~Channel() = default;

  /// Begins to receive. Once.
  virtual void start(const std::shared_ptr<ChannelSink>& sink) = 0;
  /// Messages of a channel that has ended are dropped.
  virtual void send(Bytes frame, Sending when) = 0;
  /// Sends what was to be sent soon.
  virtual void flush() {}
  /// Ends the channel.
  virtual void end(const std::string& reason) = 0;

  /// "process 4711", for errors and the log.
  virtual const std::string& peer() const = 0;
  /// How long nothing has come, although all that came was read.
  virtual std::chrono::milliseconds silence() const = 0;

  /// A thread that waits for a message may read the channel itself, which saves waking it up by another.
  ///
  /// @return False when another thread is reading, or the channel cannot be read so.
  virtual bool beginReading() { return false; }
  /// Between `beginReading` and `endReading`: waits until something has come and been handed to the sink, until
  /// `wakeFile` can be read, or `timeout` has passed. What the sink leaves to be done is put on the event loop.
  virtual void read(int wakeFile, std::chrono::milliseconds timeout) {
    static_cast<void>(wakeFile);
    static_cast<void>(timeout);
  }
  virtual void endReading() {}
};

}  // namespace mw::remote
