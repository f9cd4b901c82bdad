#pragma once

#include "wire.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

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
  /// @param works  Receives what is to be done once reading goes on elsewhere, for this message or for those before.
  /// @throws ProtocolError to end the channel.
  virtual void onFrame(std::span<const std::byte> frame, std::vector<Work>& works) = 0;
  /// As many messages as had come have been handed over, or as could be. As `onFrame`.
  virtual void onPause(std::vector<Work>& works) { static_cast<void>(works); }
  /// Whether nothing is to be expected from the peer, as long as nothing is sent to it. Must not wait.
  virtual bool isIdle() const { return false; }
  /// The channel has ended. Called once, after the last message, on any thread.
  virtual void onEnd(const std::string& reason) = 0;
};

/// When a message leaves.
enum class Sending : bool {
  Now,
  Soon,  ///< Together with others that follow at once: with the next one that leaves now, or when it is flushed. Who
         ///< forgets to is helped out after some milliseconds.
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
  /// @param frame  Copied or taken; nothing that matters is in it afterwards.
  /// @return Whether it is the first of those that wait to be flushed.
  virtual bool send(Bytes& frame, Sending when) = 0;
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
  /// The calling thread is about to send, and to wait for the answer: from now on no other begins to read. Where it
  /// does not come to read within some milliseconds, the claim is void.
  /// @return For `beginReading`; 0 when another thread is reading, or the channel cannot be read so.
  virtual std::uint64_t claimReading() { return 0; }
  /// @param claim  What `claimReading` returned to this thread.
  /// @return False when another thread is reading, or the channel cannot be read so.
  virtual bool beginReading(std::uint64_t claim) {
    static_cast<void>(claim);
    return false;
  }
  /// Between `beginReading` and `endReading`: looks for some microseconds, where answers come fast. What the sink
  /// leaves to be done is put on the event loop.
  /// @return Whether something has come and been handed to the sink, or the channel has ended.
  virtual bool readSoon() { return false; }
  /// The same, until something has come, until `wakeFile` can be read, or `timeout` has passed.
  virtual void read(int wakeFile, std::chrono::milliseconds timeout) {
    static_cast<void>(wakeFile);
    static_cast<void>(timeout);
  }
  /// Where the sink is idle, it may take some milliseconds until another thread reads.
  virtual void endReading() {}
  /// Something is expected that no thread waits for by reading itself.
  virtual void resumeWatching() {}
};

}  // namespace mw::remote
