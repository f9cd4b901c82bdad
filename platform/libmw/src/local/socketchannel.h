#pragma once

#include "../remote/readingturn.h"
#include "poller.h"
#include "socketinput.h"
#include "socketoutput.h"

#include <hxerror/mutex.h>
#include <libmw/local.h>

#include <atomic>
#include <string>

namespace mw::local {

/// A connected Unix-domain socket.
///
/// `ReadingTurn` says who reads it, `SocketInput` makes messages of that, and `SocketOutput` writes; here the three and
/// the poller are kept in step.
///
/// **Parked.** Where nothing but answers to calls is to be expected, a caller that has read leaves the socket
/// unwatched, since as a rule it calls again: to watch in between costs two calls of the system a call. The end of the
/// peer is told all the same, by the kernel; a notice that comes meanwhile waits for a tenth of a second at most.
class HX_API SocketChannel final : public remote::Channel,
                                   public remote::CallerReading,
                                   public Pollable,
                                   public std::enable_shared_from_this<SocketChannel> {
 public:
  using Clock = std::chrono::steady_clock;

  /// @param socket  Connected.
  /// @throws std::system_error when the process is out of files.
  SocketChannel(File socket, const LinkOptions& options);
  ~SocketChannel() override;

  void start(const std::shared_ptr<remote::ChannelSink>& sink) override;
  void send(remote::Message& message, remote::Sending when) override;
  void flush() override;
  void post(remote::Work work) override;
  void end(const std::string& reason) override;
  const std::string& peer() const override { return peer_; }
  std::chrono::milliseconds silence() const override;
  remote::CallerReading* callerReading() override { return this; }

  bool beginReading() override;
  void read(int wakeFile, Clock::time_point deadline) override;
  void endReading() override;
  void expectMore() override { take(turn_.watch()); }

  void onReady(std::uint32_t events, std::vector<remote::Work>& works) override;

 private:
  using Turn = remote::ReadingTurn;
  enum class Received : std::uint8_t {
    All,   ///< That was there.
    Part,  ///< As much as one turn takes.
    End,
  };

  void follow(const SocketOutput::Outcome& outcome);
  bool take(Turn::Step step);
  void watch();
  bool remindIn(Clock::duration time, std::atomic<bool>& isReminded, void (SocketChannel::*what)());
  bool readSoon(std::vector<remote::Work>& works);
  Received receive(std::vector<remote::Work>& works);

  const LinkOptions options_;
  Poller& poller_;
  const File socket_;
  const std::string peer_;
  std::weak_ptr<remote::ChannelSink> sink_;  // set once, by `start`, under `watchMutex_`: the end may come before

  Turn turn_;
  std::atomic<bool> ended_{false};
  std::atomic<Clock::rep> lastReceived_;

  // For the thread that has the turn.
  SocketInput input_;
  bool answersFast_ = true;

  SocketOutput output_;

  HX::Mutex watchMutex_;  // Makes what is watched agree with `turn_` and `output_`. Outer to those of the poller.
  std::uint64_t number_ HX_GUARDED_BY(watchMutex_) = 0;  // at the poller; 0 when it is not watched

  // Somebody comes to do it before long.
  std::atomic<bool> willFlush_{false};
  std::atomic<bool> willWatch_{false};
};

}  // namespace mw::local
