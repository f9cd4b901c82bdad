#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <deque>
#include <exception>
#include <memory>
#include <mutex>
#include <remote/channel.h>
#include <span>
#include <string>
#include <utility>
#include <vector>

namespace kit {

/// A channel without a medium: the test plays the peer, and says when what is sent arrives.
///
/// Whatever comes is handled on the thread that hands it over, the work that it leaves included, so that a test with
/// one thread is in the same state every time.
class MemoryChannel final : public mw::remote::Channel {
 public:
  explicit MemoryChannel(std::string peer = "the peer") : peer_(std::move(peer)) {}

  void start(const std::shared_ptr<mw::remote::ChannelSink>& sink) override { sink_ = sink; }

  void send(mw::remote::Message& message, mw::remote::Sending /*when*/) override {
    const auto shared = message.shared();
    message.bytes.insert(message.bytes.end(), shared.begin(), shared.end());
    const std::lock_guard lock(mutex_);
    if (!ended_) sent_.push_back(std::move(message.bytes));
  }

  void post(mw::remote::Work work) override { work(); }

  void end(const std::string& reason) override {
    if (ended_.exchange(true)) return;
    if (const auto sink = sink_.lock()) sink->onEnd(reason);
  }

  const std::string& peer() const override { return peer_; }
  std::chrono::milliseconds silence() const override { return silence_.load(); }

  /// Messages of the peer's arrive, in one piece.
  template <class... Frames>
  void receive(const Frames&... frames) {
    const auto sink = sink_.lock();
    if (!sink || ended_) return;
    std::vector<mw::remote::Work> works;
    std::string error;
    try {
      (sink->onFrame({frames, valuesIn(frames)}, works), ...);
    } catch (const std::exception& wrong) {
      error = wrong.what();
    }
    try {
      sink->onPause(works);
    } catch (const std::exception& wrong) {
      error = wrong.what();
    }
    for (const auto& work : works) work();
    if (!error.empty()) end(error);
  }

  static std::uint64_t valuesIn(std::span<const std::byte> frame) {
    mw::remote::FrameSplitter splitter(frame.size(), frame.size());
    try {
      splitter.advance(frame);
    } catch (const mw::remote::ProtocolError&) {  // For the sink to notice.
    }
    return splitter.values();
  }

  /// Takes the oldest message that was sent. @return Empty when there is none.
  mw::remote::Bytes takeSent() {
    const std::lock_guard lock(mutex_);
    if (sent_.empty()) return {};
    auto frame = std::move(sent_.front());
    sent_.pop_front();
    return frame;
  }

  bool isEnded() const { return ended_; }
  void setSilence(std::chrono::milliseconds silence) { silence_ = silence; }

 private:
  const std::string peer_;
  std::weak_ptr<mw::remote::ChannelSink> sink_;  // set once, by `start`
  std::atomic<bool> ended_{false};
  std::atomic<std::chrono::milliseconds> silence_{std::chrono::milliseconds(0)};
  std::mutex mutex_;  // Guards `sent_`.
  std::deque<mw::remote::Bytes> sent_;
};

/// Carries messages between two of them until neither has any.
inline void carry(MemoryChannel& one, MemoryChannel& other) {
  for (bool moved = true; moved;) {
    moved = false;
    for (auto [from, to] : {std::pair(&one, &other), std::pair(&other, &one)}) {
      const auto frame = from->takeSent();
      if (frame.empty()) continue;
      to->receive(frame);
      moved = true;
    }
  }
}

}  // namespace kit
