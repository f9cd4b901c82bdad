#pragma once

#include "../remote/budget.h"
#include "../remote/readingturn.h"
#include "poller.h"
#include "receivebuffer.h"
#include "receivedtail.h"

#include <hxerror/mutex.h>
#include <libmw/local.h>

#include <atomic>
#include <deque>
#include <string>

namespace mw::local {

/// A connected Unix-domain socket.
///
/// `ReadingTurn` says who reads it. What it sends is written by whoever sends, and what the socket does not take by a
/// thread of the poller once it does.
///
/// **Parked.** Where nothing but answers to calls is to be expected, a caller that has read leaves the socket
/// unwatched, since as a rule it calls again: to watch in between costs two calls of the system a call. The end of the
/// peer is told all the same, by the kernel; a notice that comes meanwhile waits for a tenth of a second at most.
class HX_API SocketChannel final : public remote::Channel,
                                   public remote::CallerReading,
                                   public Pollable,
                                   public std::enable_shared_from_this<SocketChannel> {
 public:
  /// @param socket  Connected; made non-blocking.
  /// @throws std::system_error when the process is out of files.
  SocketChannel(File socket, const LinkOptions& options);
  ~SocketChannel() override;

  void start(const std::shared_ptr<remote::ChannelSink>& sink) override;
  bool send(remote::Message& message, remote::Sending when) override;
  void flush() override;
  void post(remote::Work work) override;
  void end(const std::string& reason) override;
  const std::string& peer() const override { return peer_; }
  std::chrono::milliseconds silence() const override;
  remote::CallerReading* callerReading() override { return this; }

  bool beginReading() override;
  bool readSoon() override;
  void read(int wakeFile, std::chrono::milliseconds timeout) override;
  void endReading() override;
  void expectMore() override { take(turn_.watch()); }

  void onReady(std::uint32_t events, std::vector<remote::Work>& works) override;

 private:
  using Clock = std::chrono::steady_clock;
  using Turn = remote::ReadingTurn;
  enum class Received : std::uint8_t {
    All,   ///< That was there.
    Part,  ///< As much as one turn takes.
    End,
  };

  bool sendOrQueue(remote::Message& message, remote::Sending when);
  bool take(Turn::Step step);
  void watch();
  bool remindIn(Clock::duration time, std::atomic<bool>& isReminded, void (SocketChannel::*what)());
  void readOn(std::vector<remote::Work>& works);
  std::shared_ptr<remote::ChannelSink> sinkNow();
  Received receive(std::vector<remote::Work>& works);
  Received receive(remote::ChannelSink& sink, std::vector<remote::Work>& works);
  std::span<std::byte> room();
  void deliver(remote::ChannelSink& sink, std::vector<remote::Work>& works);
  std::span<const std::byte> deliver(remote::ChannelSink& sink, std::span<const std::byte> bytes,
                                     std::vector<remote::Work>& works);
  void beginTail(std::span<const std::byte> message);
  void flushHeld();
  void onSendFailed(int error);
  void queueLocked(remote::Message& message) HX_REQUIRES(outputMutex_);
  void setOutputLocked(std::size_t bytes) HX_REQUIRES(outputMutex_);
  int writeLocked() HX_REQUIRES(outputMutex_);

  const LinkOptions options_;
  Poller& poller_;
  const File socket_;
  const std::string peer_;
  std::weak_ptr<remote::ChannelSink> sink_;  // set once, by `start`, under `watchMutex_`: the end may come before

  Turn turn_;
  std::atomic<bool> ended_{false};
  std::atomic<bool> toldEnd_{false};
  std::atomic<Clock::rep> lastReceived_;

  // For the thread that has the turn.
  remote::FrameSplitter splitter_;
  ReceiveBuffer buffer_;
  remote::Bytes head_;  // of the message whose tail is being received
  ReceivedTail tail_;
  remote::Budget::Share unfinished_;  // what is in these; the sink keeps the limit
  bool answersFast_ = true;

  HX::Mutex watchMutex_;                                 // Makes what is watched agree with `turn_` and `hasOutput_`.
                                                         // Outer to those of the poller.
  std::uint64_t number_ HX_GUARDED_BY(watchMutex_) = 0;  // at the poller; 0 when it is not watched
  std::atomic<bool> hasOutput_{false};
  std::atomic<bool> holdsBack_{false};  // messages wait for others to leave with

  // Somebody comes to do it before long.
  std::atomic<bool> willFlush_{false};
  std::atomic<bool> willWatch_{false};

  HX::Mutex outputMutex_;                                           // Outer to `watchMutex_`.
  std::deque<remote::Message> output_ HX_GUARDED_BY(outputMutex_);  // short ones together
  remote::Bytes spare_ HX_GUARDED_BY(outputMutex_);                 // memory for short ones
  std::size_t outputBytes_ HX_GUARDED_BY(outputMutex_) = 0;
  remote::Budget::Share unread_;                      // as many
  std::size_t sent_ HX_GUARDED_BY(outputMutex_) = 0;  // of the first of them
  bool refused_ HX_GUARDED_BY(outputMutex_) = false;  // the peer takes nothing more
};

}  // namespace mw::local
