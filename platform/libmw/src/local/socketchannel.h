#pragma once

#include "../remote/channel.h"
#include "../runtime/threadpool.h"

#include <libmw/local.h>

#include <atomic>
#include <deque>
#include <mutex>
#include <string>

#include <boost/asio/posix/stream_descriptor.hpp>

namespace mw::local {

/// A file of the system, closed when it goes.
class File {
 public:
  File() = default;
  explicit File(int number) noexcept : number_(number) {}
  File(File&& other) noexcept : number_(std::exchange(other.number_, -1)) {}
  File& operator=(File&& other) noexcept {
    std::swap(number_, other.number_);
    return *this;
  }
  ~File();

  int number() const noexcept { return number_; }
  explicit operator bool() const noexcept { return number_ >= 0; }

 private:
  int number_ = -1;
};

/// A connected Unix-domain socket.
///
/// **Who reads.** One thread at a time holds the reading: a worker of the event loop, when the socket became readable,
/// or a thread that waits for a message and reads meanwhile. It hands the reading on before anything is done for what
/// came.
///
/// The socket is not given to Asio's reactor itself, which would go on to wake a worker for each message that a waiting
/// thread reads. It is watched by an epoll of its own, armed for one event at a time, and that epoll is what the
/// reactor watches: taking the reading costs one call of the system and wakes nobody.
class SocketChannel final : public remote::Channel, public std::enable_shared_from_this<SocketChannel> {
 public:
  /// @param socket  Connected; made non-blocking.
  /// @throws std::system_error when the process is out of files.
  SocketChannel(File socket, const LinkOptions& options, std::shared_ptr<detail::ThreadPool> pool);
  ~SocketChannel() override;

  void start(const std::shared_ptr<remote::ChannelSink>& sink) override;
  void send(remote::Bytes frame, remote::Sending when) override;
  void end(const std::string& reason) override;
  const std::string& peer() const override { return peer_; }
  std::chrono::milliseconds silence() const override;
  bool beginReading() override;
  void read(int wakeFile, std::chrono::milliseconds timeout) override;
  void endReading() override;

 private:
  using Clock = std::chrono::steady_clock;

  void watch();
  void onReady();
  void arm();
  bool receive(std::vector<remote::Work>& works);
  void deliver(remote::ChannelSink& sink, std::vector<remote::Work>& works);
  void readAndWork();
  void flush();
  bool writeLocked();

  const LinkOptions options_;
  const std::shared_ptr<detail::ThreadPool> pool_;
  const File socket_;
  const File epoll_;
  const std::string peer_;
  std::weak_ptr<remote::ChannelSink> sink_;  // set once, by `start`

  std::atomic<bool> reading_{false};
  std::atomic<bool> ended_{false};
  std::atomic<Clock::rep> lastReceived_;

  // For the thread that holds the reading.
  remote::FrameSplitter splitter_;
  std::vector<std::byte> buffer_;
  std::size_t begin_ = 0;  // of the present message in the buffer
  std::size_t filled_ = 0;

  std::mutex watchMutex_;  // Guards `watched_`.
  boost::asio::posix::stream_descriptor watched_;

  std::mutex armMutex_;  // Makes what is armed agree with `reading_` and `hasOutput_`.
  std::atomic<bool> hasOutput_{false};

  std::mutex outputMutex_;  // Guards everything below. Outer to `armMutex_`.
  std::deque<remote::Bytes> output_;
  std::size_t outputBytes_ = 0;
  std::size_t sent_ = 0;  // of the first of them
  bool flushPosted_ = false;
};

}  // namespace mw::local
