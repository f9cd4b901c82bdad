#pragma once

#include "poller.h"

#include <libmw/local.h>

#include <atomic>
#include <deque>
#include <mutex>
#include <string>

namespace mw::local {

/// A connected Unix-domain socket.
///
/// **Who reads.** One thread at a time holds the reading: the leader of the poller, when the socket became readable, or
/// a thread that waits for a message and reads meanwhile; the socket is then not watched for input. It lets go of the
/// reading before anything is done for what came.
class SocketChannel final : public remote::Channel,
                            public Pollable,
                            public std::enable_shared_from_this<SocketChannel> {
 public:
  /// @param socket  Connected; made non-blocking.
  /// @throws std::system_error when the process is out of files.
  SocketChannel(File socket, const LinkOptions& options);
  ~SocketChannel() override;

  void start(const std::shared_ptr<remote::ChannelSink>& sink) override;
  void send(remote::Bytes frame, remote::Sending when) override;
  void flush() override;
  void end(const std::string& reason) override;
  const std::string& peer() const override { return peer_; }
  std::chrono::milliseconds silence() const override;
  bool beginReading() override;
  void read(int wakeFile, std::chrono::milliseconds timeout) override;
  void endReading() override;
  void onReady(std::uint32_t events, std::vector<remote::Work>& works) override;

 private:
  using Clock = std::chrono::steady_clock;

  void watch();
  std::shared_ptr<remote::ChannelSink> sinkNow();
  bool receive(std::vector<remote::Work>& works);
  static void postAll(std::vector<remote::Work>& works);
  void deliver(remote::ChannelSink& sink, std::vector<remote::Work>& works);
  void flushLate();
  void onSendFailed(int error);
  int writeLocked();

  const LinkOptions options_;
  Poller& poller_;
  const File socket_;
  const std::string peer_;
  std::weak_ptr<remote::ChannelSink> sink_;  // set once, by `start`, under `watchMutex_`: the end may come before

  std::atomic<bool> reading_{false};
  std::atomic<bool> ended_{false};
  std::atomic<bool> toldEnd_{false};
  std::atomic<Clock::rep> lastReceived_;

  // For the thread that holds the reading.
  remote::FrameSplitter splitter_;
  std::vector<std::byte> buffer_;
  std::size_t begin_ = 0;  // of the present message in the buffer
  std::size_t filled_ = 0;
  bool answersFast_ = true;

  std::mutex watchMutex_;              // Guards `number_` and makes what is watched agree with the two flags.
  std::uint64_t number_ = 0;           // at the poller; 0 when it is not watched
  std::atomic<bool> borrowed_{false};  // a thread that waits holds the reading
  std::atomic<bool> hasOutput_{false};

  std::mutex outputMutex_;  // Guards everything below. Outer to `watchMutex_`.
  std::deque<remote::Bytes> output_;
  std::size_t outputBytes_ = 0;
  std::size_t sent_ = 0;  // of the first of them
  bool flushPosted_ = false;
  bool refused_ = false;  // the peer takes nothing more
};

}  // namespace mw::local
