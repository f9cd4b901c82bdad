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

/// A message that has come.
struct Frame {
  std::span<const std::byte> bytes;
  std::uint64_t values = 0;  ///< How many it consists of, those inside one another included.
  /// The long text or binary that it ends with, where that was received apart: of it only the header is among `bytes`.
  HX::HXValue last = {};

  std::size_t size() const { return bytes.size() + contentOf(last).size(); }
};

/// Receives what comes over a channel.
class ChannelSink {
 public:
  virtual ~ChannelSink() = default;
  /// One message. Called by one thread at a time, in their order; must not wait, and must not call what is foreign.
  /// @param works  Receives what is to be done once reading goes on elsewhere, for this message or for those before.
  /// @throws ProtocolError to end the channel.
  virtual void onFrame(const Frame& frame, std::vector<Work>& works) = 0;
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
  Soon,  ///< In one go with others that follow: with the next one that leaves now, when it is flushed, or when so much
         ///< waits that it is worth it. Who does not come to it is helped out after two milliseconds.
};

/// What a channel offers whose caller may read it: a thread that waits for an answer reads meanwhile, which saves
/// waking it up by another. `ReadingTurn` says how the two get along.
///
/// @par Threads  Any, but what begins and ends on the thread that has the turn.
class CallerReading {
 public:
  virtual ~CallerReading() = default;

  /// The calling thread waits for an answer, or is about to send what it waits for the answer of at once: from now on
  /// no other begins to read.
  /// @return False when another one has the turn already. Otherwise `endReading` follows.
  virtual bool beginReading() = 0;
  /// Hands what comes to the sink: until something has come, and all of it where it is long, the channel has ended,
  /// `wakeFile` can be read, or it is `deadline`; a while without any of it at most. What the sink leaves to be done is
  /// done by other threads.
  virtual void read(int wakeFile, std::chrono::steady_clock::time_point deadline) = 0;
  /// Gives the turn back. Where the sink is idle, it may take a tenth of a second until another thread reads.
  virtual void endReading() = 0;
  /// Something is expected that no thread waits for by reading itself. To be called when the sink is not idle any more
  /// for that reason: whoever gives the turn back asks it then.
  virtual void expectMore() = 0;
};

/// Ordered messages to and from one other process: the seam between what calls mean and how bytes travel, and all that
/// an engine between machines has to offer. Ends exactly once, with a reason.
///
/// @par Threads  Any. Nothing waits.
class Channel {
 public:
  virtual ~Channel() = default;

  /// Begins to receive. Once.
  virtual void start(const std::shared_ptr<ChannelSink>& sink) = 0;
  /// Messages of a channel that has ended are dropped.
  /// @param message  Copied or taken; nothing that matters is in it afterwards.
  virtual void send(Message& message, Sending when) = 0;
  /// Sends what was to be sent soon.
  virtual void flush() {}
  /// Has `work` done as what the sink leaves to be done: by a thread that may block, of which there are enough.
  virtual void post(Work work) = 0;
  /// Ends the channel.
  virtual void end(const std::string& reason) = 0;

  /// "process 4711", for errors and the log.
  virtual const std::string& peer() const = 0;
  /// How long nothing has come, although all that came was read.
  virtual std::chrono::milliseconds silence() const = 0;

  /// Null where a thread that waits for an answer cannot read the channel itself.
  virtual CallerReading* callerReading() { return nullptr; }
};

}  // namespace mw::remote
