#pragma once

#include "poller.h"
#include "receivebuffer.h"

#include <libmw/local.h>

#include <atomic>
#include <deque>
#include <mutex>
#include <string>

namespace mw::local {

/// A connected Unix-domain socket.
///
/// **Who reads.** One thread at a time holds the reading: the leader of the poller, when the socket became readable, or
/// a thread that waits for a message and reads meanwhile. It lets go of the reading before anything is done for what
/// came. The socket is not watched for input while a waiting thread reads, or has a claim to: were the claim made only
/// after sending, an answer that comes at once would wake the leader.
///
/// **Parked.** Where nothing but answers to calls is to be expected, a thread that has read leaves the socket
/// unwatched, since as a rule it calls again: to watch in between costs two calls of the system a call. Whoever wants
/// to read takes the reading from there; after some milliseconds the poller does.
class SocketChannel final : public remote::Channel,
                            public Pollable,
                            public std::enable_shared_from_this<SocketChannel> {
 public:
  /// @param socket  Connected; made non-blocking.
  /// @throws std::system_error when the process is out of files.
  SocketChannel(File socket, const LinkOptions& options);
  ~SocketChannel() override;

  void start(const std::shared_ptr<remote::ChannelSink>& sink) override;
  bool send(remote::Bytes& frame, remote::Sending when) override;
  void flush() override;
  void end(const std::string& reason) override;
  const std::string& peer() const override { return peer_; }
  std::chrono::milliseconds silence() const override;
  std::uint64_t claimReading() override;
  bool beginReading(std::uint64_t claim) override;
  bool readSoon() override;
  void read(int wakeFile, std::chrono::milliseconds timeout) override;
  void endReading() override;
  void resumeWatching() override;
  void onReady(std::uint32_t events, std::vector<remote::Work>& works) override;
  void lookAfter() override;

 private:
  using Clock = std::chrono::steady_clock;

  /// Who holds the reading. A greater number is a claim, and an odd one a claim of nobody: parked.
  enum Reading : std::uint64_t { Nobody, Leader, Waiting, FirstClaim };
  static constexpr std::uint64_t kParked = 1;
  static bool isParked(std::uint64_t reading) { return reading >= FirstClaim && (reading & kParked) != 0; }
  bool changeReading(std::uint64_t from, std::uint64_t to);
  bool takeParked(std::uint64_t to);
  void watch();
  std::shared_ptr<remote::ChannelSink> sinkNow();
  bool receive(std::vector<remote::Work>& works);
  bool receive(remote::ChannelSink& sink, std::vector<remote::Work>& works);
  static void postAll(std::vector<remote::Work>& works);
  void deliver(remote::ChannelSink& sink, std::vector<remote::Work>& works);
  void onSendFailed(int error);
  void queueLocked(remote::Bytes& frame);
  int writeLocked();

  const LinkOptions options_;
  Poller& poller_;
  const File socket_;
  const std::string peer_;
  std::weak_ptr<remote::ChannelSink> sink_;  // set once, by `start`, under `watchMutex_`: the end may come before

  std::atomic<std::uint64_t> reading_{Nobody};
  std::atomic<bool> ended_{false};
  std::atomic<bool> toldEnd_{false};
  std::atomic<Clock::rep> lastReceived_;

  // For the thread that holds the reading.
  remote::FrameSplitter splitter_;
  ReceiveBuffer buffer_;
  bool answersFast_ = true;

  std::mutex watchMutex_;     // Guards `number_`, and makes what is watched agree with `reading_` and `hasOutput_`.
                              // Outer to those of the poller.
  std::uint64_t number_ = 0;  // at the poller; 0 when it is not watched
  std::atomic<bool> hasOutput_{false};
  std::atomic<bool> holdsBack_{false};  // messages wait for others to leave with

  std::uint64_t seenClaim_ = 0;  // by the last `lookAfter`, which one thread calls

  std::mutex outputMutex_;            // Guards everything below. Outer to `watchMutex_`.
  std::deque<remote::Bytes> output_;  // messages, short ones together
  remote::Bytes spare_;               // memory for short ones
  std::size_t outputBytes_ = 0;
  std::size_t sent_ = 0;  // of the first of them
  bool refused_ = false;  // the peer takes nothing more
};

}  // namespace mw::local
