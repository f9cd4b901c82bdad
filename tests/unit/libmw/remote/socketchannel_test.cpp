#include "local/socketchannel.h"

#include "remote/wire.h"

#include <libmw/eventloop.h>

#include <condition_variable>
#include <future>
#include <poll.h>
#include <sys/socket.h>
#include <thread>

#include <gtest/gtest.h>

namespace mw::local {
namespace {

using namespace std::chrono_literals;
using remote::Bytes;
using remote::Message;
using remote::Sending;

/// Collects the numbers that come as messages.
class Numbers final : public remote::ChannelSink {
 public:
  void onFrame(const remote::Frame& frame, std::vector<remote::Work>& /*works*/) override {
    remote::Reader in(frame.bytes, frame.last);
    const bool isLong = in.list() > 1;
    const std::lock_guard lock(mutex_);
    numbers_.push_back(in.number());
    if (isLong) values_.push_back(in.value());
    isWhole_ = isWhole_ && in.atEnd();
    changed_.notify_all();
  }
  bool isIdle() const override { return idle; }
  void onEnd(const std::string& reason) override {
    const std::lock_guard lock(mutex_);
    ends_.push_back(reason);
    changed_.notify_all();
  }

  bool waitFor(std::size_t count) {
    return wait([&] { return numbers_.size() >= count; });
  }
  std::vector<std::string> waitForEnd() {
    wait([&] { return !ends_.empty(); });
    return ends_;
  }
  std::vector<std::uint32_t> numbers() const {
    const std::lock_guard lock(mutex_);
    return numbers_;
  }

  /// What came in messages with a value behind the number.
  std::vector<HX::HXValue> values() const {
    const std::lock_guard lock(mutex_);
    return values_;
  }
  bool isWhole() const {
    const std::lock_guard lock(mutex_);
    return isWhole_;
  }

  std::atomic<bool> idle{true};

 private:
  template <class Condition>
  bool wait(const Condition& holds) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, 20s, holds);
  }
  mutable std::mutex mutex_;  // Guards all below.
  std::condition_variable changed_;
  std::vector<std::uint32_t> numbers_;
  std::vector<HX::HXValue> values_;
  bool isWhole_ = true;
  std::vector<std::string> ends_;
};

Bytes message(std::uint32_t number) {
  Bytes frame;
  remote::Writer out(frame);
  out.list(1);
  out.number(number);
  return frame;
}

/// A channel, and the other end of its socket.
class SocketChannelTest : public testing::Test {
 protected:
  SocketChannelTest() { begin(); }
  void begin() {
    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0) throw std::runtime_error("no sockets");
    other = File(ends[1]);
    channel = std::make_shared<SocketChannel>(File(ends[0]), LinkOptions{});
    channel->start(sink);
  }
  ~SocketChannelTest() override { channel->end("the test is over"); }

  void arrive(std::uint32_t number) const { arrive(message(number)); }
  void arrive(std::span<const std::byte> bytes) const {
    ASSERT_EQ(::send(other.number(), bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
  }
  bool leftWithin(std::chrono::milliseconds time) const {
    pollfd file{other.number(), POLLIN, 0};
    return ::poll(&file, 1, static_cast<int>(time.count())) == 1;
  }

  std::shared_ptr<Numbers> sink = std::make_shared<Numbers>();
  File other;
  std::shared_ptr<SocketChannel> channel;
};

TEST_F(SocketChannelTest, HandsOverMessagesHoweverTheyAreCut) {
  Bytes all;
  for (std::uint32_t i = 0; i < 300; ++i) {
    const Bytes one = message(i * i);
    all.insert(all.end(), one.begin(), one.end());
  }
  for (std::size_t at = 0, size = 1; at < all.size(); at += size, size = size % 7 + 1) {
    arrive(std::span(all).subspan(at, std::min(size, all.size() - at)));
    if (at % 50 == 0) std::this_thread::yield();
  }
  ASSERT_TRUE(sink->waitFor(300));
  for (std::uint32_t i = 0; i < 300; ++i) EXPECT_EQ(sink->numbers()[i], i * i);
}

TEST_F(SocketChannelTest, IsReadByItsCallerAloneAndByOthersAfterwards) {
  for (int round = 0; round < 2; ++round) {
    const std::size_t before = sink->numbers().size();
    while (!channel->beginReading()) std::this_thread::yield();  // Whoever read may be about to leave.
    EXPECT_FALSE(channel->beginReading());
    arrive(1);
    EXPECT_FALSE(leftWithin(0ms));
    EXPECT_EQ(sink->numbers().size(), before) << "another thread reads";
    channel->read(-1, std::chrono::steady_clock::now() + 20s);
    EXPECT_EQ(sink->numbers().size(), before + 1);
    channel->endReading();
    arrive(2);  // It is parked: somebody comes to it nevertheless.
    EXPECT_TRUE(sink->waitFor(before + 2));
  }
}

TEST_F(SocketChannelTest, IsReadByOthersAtOnceWhereMoreIsExpected) {
  sink->idle = false;
  for (std::uint32_t i = 1; i <= 200; ++i) {
    while (!channel->beginReading()) std::this_thread::yield();  // Whoever read may be about to leave.
    arrive(i);  // It comes while a caller has the turn, who does not read it.
    channel->endReading();
    ASSERT_TRUE(sink->waitFor(i));
  }
  sink->idle = true;
  while (!channel->beginReading()) std::this_thread::yield();
  channel->endReading();
  channel->expectMore();
  const auto begin = std::chrono::steady_clock::now();
  arrive(0);
  EXPECT_TRUE(sink->waitFor(201));
  EXPECT_LT(std::chrono::steady_clock::now() - begin, 10s);
}

TEST_F(SocketChannelTest, ReadsToTheEndWhereThatIsToldTogetherWithWhatCameBefore) {
  for (std::uint32_t round = 0; round < 20; ++round) {
    sink = std::make_shared<Numbers>();
    sink->idle = false;
    begin();
    while (!channel->beginReading()) std::this_thread::yield();  // Whoever read may be about to leave.
    arrive(round);
    if (round % 2 == 0) ::shutdown(other.number(), SHUT_WR);
    if (round % 2 == 1) other = File();
    channel->endReading();
    ASSERT_EQ(sink->waitForEnd(), std::vector{std::string(remote::kPeerClosed)});
    EXPECT_EQ(sink->numbers(), std::vector{round});
  }
}

TEST_F(SocketChannelTest, SendsWhatWaitsForOthers) {
  const auto send = [&](Sending when) {
    Message sent{message(1), {}};
    channel->send(sent, when);
  };
  send(Sending::Soon);
  EXPECT_TRUE(leftWithin(20s)) << "though nobody flushes";
  char bytes[1024];
  ASSERT_GT(::recv(other.number(), bytes, sizeof bytes, 0), 0);
  for (int i = 0; i < 3; ++i) send(Sending::Soon);
  send(Sending::Now);
  EXPECT_EQ(::recv(other.number(), bytes, sizeof bytes, MSG_DONTWAIT), static_cast<ssize_t>(4 * message(1).size()));
  send(Sending::Soon);
  channel->end("enough");
  EXPECT_EQ(::recv(other.number(), bytes, sizeof bytes, 0), static_cast<ssize_t>(message(1).size())) << "sent before";
}

TEST_F(SocketChannelTest, WritesMoreThanTheSocketTakesOnceItDoes) {
  // Some of it copied, some shared with a value that changes meanwhile.
  const std::string text(std::size_t{3} << 20, 't');
  HX::HXValue value = text;
  Message copied{Bytes(std::size_t{4} << 20), {}};
  Message shared{Bytes(10), value};
  Message last{Bytes(20), {}};
  const std::string expected = std::string((std::size_t{4} << 20) + 10, '\0') + text + std::string(20, '\0');
  for (Message* const one : {&copied, &shared, &last}) channel->send(*one, Sending::Now);
  value.editString() = "another one";
  std::string got;
  for (std::vector<char> bytes(100'000); got.size() < expected.size();) {
    ASSERT_TRUE(leftWithin(20s)) << got.size();
    got.append(bytes.data(), static_cast<std::size_t>(::recv(other.number(), bytes.data(), bytes.size(), 0)));
  }
  EXPECT_TRUE(got == expected);
}

TEST_F(SocketChannelTest, HandsOverLongTextsAndBinariesWhereverTheyStand) {
  const std::string text(300'000, 't');
  const auto binary = HX::HXValue::binary(HX::HXValue::Binary(3'000'000, std::byte{7}));
  const std::vector<HX::HXValue> expected{text,
                                          binary,
                                          HX::HXValue::list({1, text}),
                                          HX::HXValue::list({HX::HXValue::list({text}), binary}),
                                          HX::HXValue::list({text, 1}),
                                          std::string(40, 's'),
                                          std::string(32 << 10, 'l')};
  const auto receives = [&](bool byCaller) {
    const std::size_t before = sink->values().size();
    if (byCaller) {
      while (!channel->beginReading()) std::this_thread::yield();
    }
    std::thread sender([&] {
      for (std::uint32_t i = 0; i < expected.size(); ++i) {
        Bytes frame;
        remote::Writer out(frame);
        out.list(2);
        out.number(i);
        out.value(expected[i]);
        if (i == 0) arrive(std::span(frame).first(2));
        arrive(i == 0 ? std::span<const std::byte>(frame).subspan(2) : frame);
      }
    });
    while (byCaller && sink->values().size() < before + expected.size())
      channel->read(-1, std::chrono::steady_clock::now() + 20s);
    if (byCaller) channel->endReading();
    sender.join();
    EXPECT_TRUE(sink->waitFor(before + expected.size()));
    for (std::size_t i = 0; i < expected.size(); ++i) EXPECT_TRUE(sink->values()[before + i] == expected[i]) << i;
  };
  receives(false);
  receives(true);
  EXPECT_TRUE(sink->isWhole());
}

TEST_F(SocketChannelTest, DoesWhatIsPostedWhateverTheEventLoopIsBusyWith) {
  std::promise<void> leave;
  const auto left = leave.get_future().share();
  for (std::size_t i = 0; i < defaultLoop().threadCount(); ++i) defaultLoop().post([left] { left.wait(); });
  std::promise<void> done;
  channel->post([&] { done.set_value(); });
  EXPECT_EQ(done.get_future().wait_for(20s), std::future_status::ready);
  leave.set_value();
}

TEST_F(SocketChannelTest, EndsOnceWithTheReasonWhoeverReads) {
  ASSERT_TRUE(channel->beginReading());
  channel->endReading();  // Parked: the end is told at once all the same.
  other = File();
  EXPECT_EQ(sink->waitForEnd(), std::vector{std::string(remote::kPeerClosed)});
  channel->end("again");
  EXPECT_EQ(sink->waitForEnd().size(), 1U);
  EXPECT_FALSE(channel->beginReading());
}

}  // namespace
}  // namespace mw::local
