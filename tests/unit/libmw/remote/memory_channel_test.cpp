#include "capture_log.h"
#include "service.h"
#include "sitter.h"

#include <array>
#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <memory_channel.h>
#include <remote/link.h>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>

namespace mw::remote {
namespace {

using testing::HasSubstr;

/// Offers one service, and takes back what is released.
class OneService final : public ReservedService {
 public:
  Future<AnyValue> call(std::string_view method, std::span<const AnyValue> arguments) override {
    if (method != "release") throw std::runtime_error("nothing else is offered");
    const auto number = [&](std::size_t i) { return arguments.subspan(i, 1).front().reference().to<std::uint32_t>(); };
    objects->release(number(0), number(1));
    return Future<AnyValue>::ready(AnyValue());
  }
  AnyObject find(const std::string& /*service*/) override { return service; }
  void end() override { ++ends; }

  AnyObject service;
  ObjectTable* objects = nullptr;
  std::atomic<int> ends{0};
};

/// One of two processes. Whatever it had with the other one is gone when the link is.
struct Side {
  explicit Side(const LinkOptions& options = {}) : link(std::make_shared<Link>(channel, this, options)) {
    reserved->objects = &link->objects();
    link->start(reserved, {});
  }
  Side(const Side&) = delete;
  Side& operator=(const Side&) = delete;
  ~Side() {
    if (!channel->isEnded()) {
      EXPECT_EQ(link->servingCount(), 0U);  // What is too much ends the link, and stays counted.
    }
    channel->end("the test is over");  // What is never answered would hold the link.
    link->gone().wait();
    EXPECT_EQ(link->pendingCount(), 0U);
    EXPECT_EQ(link->objects().leaseCount(), 0U);
    EXPECT_EQ(reserved->ends, 1);
  }
  template <class... Args>
  Future<AnyValue> call(Side& other, std::string_view target, const Args&... args) {
    auto answer = link->ask(target, args...);
    kit::carry(*channel, *other.channel);
    return answer;
  }

  std::shared_ptr<kit::MemoryChannel> channel = std::make_shared<kit::MemoryChannel>();
  std::shared_ptr<OneService> reserved = std::make_shared<OneService>();
  std::shared_ptr<Link> link;
};

TEST(Link, LendsAnObjectForAsLongAsThePeerHoldsIt) {
  Side host;
  Side peer;
  const AnyObject lamp = makeService("Lamp")->method("lit", [] { return true; }).build();
  host.reserved->service = makeService("House")->method("lamp", [&] { return lamp; }).build();
  AnyObject first = peer.call(host, "House.lamp").value().reference().to<AnyObject>();
  AnyObject second = peer.call(host, "House.lamp").value().reference().to<AnyObject>();
  EXPECT_EQ(first, second);
  EXPECT_EQ(first->metaObject().findMethods("lit").size(), 1U);
  EXPECT_EQ(host.link->objects().leaseCount(), 1U);
  first.reset();
  kit::carry(*peer.channel, *host.channel);
  EXPECT_EQ(host.link->objects().leaseCount(), 1U);
  second.reset();
  kit::carry(*peer.channel, *host.channel);
  EXPECT_EQ(host.link->objects().leaseCount(), 0U);
}

TEST(Link, DescribesAnObjectAgainWhenTheFirstMessageDidNotLeave) {
  const LinkOptions options{.frameLimit = 4096};
  Side host(options);
  Side peer(options);
  const AnyObject lamp = makeService("Lamp")->method("lit", [] { return true; }).build();
  std::vector<std::string> seen;
  host.reserved->service =
      makeService("House")
          ->method("show", [&](const AnyObject& o, const std::string&) { seen.push_back(o->metaObject().typeName()); })
          .build();
  EXPECT_THAT(
      peer.call(host, "House.show", lamp, std::string(5000, 'x')).error(),
      testing::ContainsRegex("call of 5[0-9]+ bytes cannot go to another process: a message of more than 4096"));
  EXPECT_EQ(peer.link->pendingCount(), 0U);
  EXPECT_FALSE(peer.call(host, "House.show", lamp, std::string()).hasError());
  EXPECT_FALSE(peer.call(host, "House.show", lamp, std::string()).hasError());
  EXPECT_THAT(seen, testing::ElementsAre("Lamp", "Lamp"));
  EXPECT_FALSE(host.channel->isEnded());
}

/// A call as the peer makes it on one of its threads.
Bytes request(std::uint8_t number, std::uint8_t thread, std::uint8_t depth, const std::string& argument) {
  std::array<std::byte, 16> chain{std::byte{1}};
  chain[11] = std::byte{thread};
  chain[15] = std::byte{depth};
  Bytes frame;
  Writer out(frame);
  out.list(4);
  out.number(0);
  out.number(number);
  out.text("House.enter");
  out.list(2);
  out.extension(Extension::Chain, chain);
  out.value(argument);
  return frame;
}

/// Whether the oldest answer is one to that call, and no error.
bool isAnswered(const Side& side, std::uint8_t number) {
  for (Bytes sent = side.channel->takeSent(); !sent.empty(); sent = side.channel->takeSent()) {
    Reader in(sent);
    if (in.list() == 4 && in.number() == 1) return in.number() == number && in.nil();
  }
  return false;
}

TEST(Link, RefusesMoreCallsThanItServesAtOnceAndKeepsNothingOfThem) {
  const Side host({.inputLimit = 1000, .callLimit = 1});
  kit::Sitter sitter;
  host.reserved->service = makeService("House")->method("enter", [&](const std::string&) { sitter.sit(); }).build();
  std::thread first([&] { host.channel->receive(request(1, 1, 0, "first")); });
  sitter.awaitEntry();
  for (std::uint8_t number = 2; number < 100; ++number) {
    host.channel->receive(request(number, number, 0, std::string(100, 'x')));
    ASSERT_FALSE(isAnswered(host, number));
  }
  EXPECT_FALSE(host.channel->isEnded());
  sitter.release();
  first.join();
  EXPECT_TRUE(isAnswered(host, 1));
}

TEST(Link, NamesACallThatWaitsLongBehindAnotherOfItsThread) {
  const kit::CaptureLog log({"mw.link"});
  const Side host({.heartbeat = std::chrono::milliseconds(2)});
  kit::Sitter sitter;
  host.reserved->service = makeService("House")
                               ->method("enter",
                                        [&](const std::string& who) {
                                          if (who == "first") sitter.sit();
                                        })
                               .build();
  std::thread first([&] { host.channel->receive(request(1, 1, 0, "first")); });
  sitter.awaitEntry();
  for (std::uint8_t number = 2; number < 4; ++number) host.channel->receive(request(number, 1, 0, "later"));
  ASSERT_TRUE(log.waitFor(1));
  EXPECT_EQ(log.texts().front(),
            "House.enter of the peer has waited for longer than 10 ms behind House.enter, a call of the same thread");
  sitter.release();
  first.join();
  EXPECT_EQ(log.texts().size(), 1U);
}

TEST(Link, ServesCallsOfChainsThatNobodyWaitsInForAsLongAsTheyAreFew) {
  const Side host({.callLimit = 2});
  host.reserved->service = makeService("House")->method("enter", [](const std::string&) { return true; }).build();
  for (std::uint8_t number = 1; number < 10; ++number) {
    host.channel->receive(request(number, number, 1, ""));
    EXPECT_TRUE(isAnswered(host, number));
  }
}

TEST(Link, PassesByACallThatIsGivenUpBeforeItRuns) {
  const Side host;
  std::vector<std::string> ran;
  const auto enter = [&](const std::string& who) { ran.push_back(who); };
  host.reserved->service = makeService("House")->method("enter", enter).build();
  Bytes cancel;
  Writer out(cancel);
  out.list(3);
  out.number(2);
  out.text("korvo.cancel");
  out.list(1);
  out.number(2);
  for (const std::uint8_t depth : {std::uint8_t{0}, std::uint8_t{1}}) {
    host.channel->receive(request(1, 1, depth, "stays"), request(2, 1, depth, "goes"), cancel);
    EXPECT_TRUE(isAnswered(host, 1));
    EXPECT_FALSE(isAnswered(host, 2));
  }
  EXPECT_THAT(ran, testing::ElementsAre("stays", "stays"));
}

/// Follows a signal of the peer's. @return The number of the link.
std::uint32_t follow(const Side& side, const SignalSubscriber& subscriber) {
  while (!side.channel->takeSent().empty()) continue;
  side.link->connect(1, 0, subscriber);
  const Bytes sent = side.channel->takeSent();
  Reader in(sent);
  in.list();
  for (int i = 0; i < 2; ++i) in.number();
  in.text();
  in.list();
  in.extension(Extension::Chain);
  for (int i = 0; i < 2; ++i) in.number();
  return in.number();
}

Bytes emission(std::uint32_t link, int value, bool inChain = false) {
  Bytes frame;
  Writer out(frame);
  out.list(3);
  out.number(2);
  out.text("korvo.emit");
  out.list(inChain ? 3 : 2);
  if (inChain) out.extension(Extension::Chain, std::array<std::byte, 16>{std::byte{1}});
  out.number(link);
  out.value(value);
  return frame;
}

TEST(Link, DeliversTheEmissionsOfASignalOneAfterAnother) {
  Side side;
  std::vector<int> ended;
  std::vector<std::uint32_t> links;
  const auto subscriber = [&](std::size_t index) {
    return SignalSubscriber([&, index](int value) {
      for (const int next : {10 * value + 1, 10 * value + 2}) {
        if (value < 10) side.channel->receive(emission(links[index], next, next % 2 == 0));
      }
      if (value == 11 && index == 1) side.link->disconnect(links[index]);
      ended.push_back(value + 100 * static_cast<int>(index));
    });
  };
  for (const std::size_t index : {0U, 1U}) links.push_back(follow(side, subscriber(index)));
  const auto expectDelivered = [&](const std::vector<int>& expected) {
    EXPECT_EQ(ended, expected);
    ended.clear();
  };
  side.channel->receive(emission(links[0], 1, true));
  expectDelivered({1, 11, 12});
  side.channel->receive(emission(links[0], 20), emission(links[0], 21), emission(links[1], 30), emission(links[0], 22));
  expectDelivered({20, 21, 22, 130});
  side.channel->receive(emission(links[1], 1));  // The 12 has come when the 11 ends the connection.
  expectDelivered({101, 111});
  const kit::CaptureLog log({"mw.link"});
  Bytes cut = emission(links[0], 24);
  cut.back() = std::byte{0xc1};  // begins no value
  side.channel->receive(emission(links[0], 23), cut, emission(links[0], 25));
  expectDelivered({23});
  EXPECT_THAT(log.texts(), testing::IsEmpty()) << "a part was delivered";
}

template <class T>
Bytes emissionOf(const Side& side, std::uint32_t link, const T& value) {
  while (!side.channel->takeSent().empty()) continue;
  mw::detail::withParameters([&](GenericFunctionParameters all) { side.link->emit(link, all); }, value);
  return side.channel->takeSent();
}

TEST(Link, GoesThoughWhatItDidNotTakeHoldsIt) {
  const Side peer;
  const AnyObject lamp = makeService("Lamp")->method("lit", [] { return true; }).build();
  std::weak_ptr<Link> link;
  {
    const Side side({.inputLimit = 100});
    link = side.link;
    std::uint32_t number = 0;
    const auto more = [&](const AnyValue&) { side.channel->receive(emissionOf(peer, number, lamp)); };
    number = follow(side, SignalSubscriber(more));
    side.channel->receive(emissionOf(peer, number, std::string(300, 'x')));
    EXPECT_TRUE(side.channel->isEnded());
  }
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (!link.expired() && std::chrono::steady_clock::now() < end) std::this_thread::yield();
  EXPECT_TRUE(link.expired());
}

TEST(Link, CountsWhatWaitsAndNotWhatWasDelivered) {
  constexpr int kMany = 40;
  const Side peer;
  const Side side({.inputLimit = 1000});
  const std::string text(200, 'x');
  int delivered = 0;
  std::uint32_t number = 0;
  number = follow(side, SignalSubscriber([&](const std::string&) {
                    for (int more = delivered++ == 0 ? 3 : 1; more > 0 && delivered < kMany; --more) {
                      side.channel->receive(emissionOf(peer, number, text));
                    }
                  }));
  side.channel->receive(emissionOf(peer, number, text));
  EXPECT_FALSE(side.channel->isEnded()) << "after " << delivered;
  EXPECT_GE(delivered, kMany);
}

TEST(Link, GivesAnObjectBackBeforeTheNextIsDelivered) {
  const Side peer;
  const Side side;
  std::vector<bool> givenBack;
  const auto lamp = [] { return makeService("Lamp")->method("lit", [] { return true; }).build(); };
  const std::uint32_t number =
      follow(side, SignalSubscriber([&](const AnyObject&) { givenBack.push_back(!side.channel->takeSent().empty()); }));
  const Bytes first = emissionOf(peer, number, lamp());
  side.channel->receive(first, emissionOf(peer, number, lamp()));
  EXPECT_THAT(givenBack, testing::ElementsAre(false, true));
}

TEST(Link, LeavesLongMessagesToThoseWhoUseThem) {
  // What is read at once is so by the thread that hands it over: what is not, by the works that it leaves.
  HX::HXValue::List numbers;
  for (int i = 0; i < 5000; ++i) numbers.emplace_back(i);
  const HX::HXValue large(numbers);
  Side host;
  Side peer;
  const AnyObject lamp = makeService("Lamp")->method("lit", [] { return true; }).build();
  AnyObject shown;
  host.reserved->service = makeService("House")
                               ->method("turn",
                                        [&](const HX::HXValue& value, const AnyObject& object) {
                                          shown = object;
                                          return value;
                                        })
                               .build();
  const auto answer = peer.link->ask("House.turn", large, lamp);
  std::vector<Work> works;
  const auto handOver = [&](Side& from, Side& to) {
    Bytes sent = from.channel->takeSent();
    for (; works.empty() && !sent.empty(); sent = from.channel->takeSent()) {  // Heartbeats leave nothing to be done.
      to.link->onFrame({sent, kit::MemoryChannel::valuesIn(sent)}, works);
    }
    ASSERT_EQ(works.size(), 1U);
  };
  handOver(peer, host);
  EXPECT_FALSE(shown);
  std::exchange(works, {}).front()();
  EXPECT_TRUE(shown);
  handOver(host, peer);
  EXPECT_TRUE(answer.isRunning());
  works.front()();
  EXPECT_EQ(answer.value().reference().to<HX::HXValue>(), large);
  shown.reset();
  kit::carry(*peer.channel, *host.channel);
}

TEST(Link, FailsACallWhoseLongMessageHoldsNoValue) {
  const Side host;
  host.reserved->service = makeService("House")->method("enter", [](const HX::HXValue&) {}).build();
  HX::HXValue::List numbers(5000, HX::HXValue(1));
  Bytes frame;
  Writer out(frame);
  out.list(4);
  out.number(0);
  out.number(1);
  out.text("House.enter");
  out.list(1);
  out.list(2);
  out.value(HX::HXValue(numbers));
  const std::array wrong{std::byte{0x81}, std::byte{1}, std::byte{1}};  // A map whose key is no text.
  out.encoded(wrong);
  host.channel->receive(frame);
  EXPECT_FALSE(host.channel->isEnded());
  std::string sent;
  for (Bytes bytes = host.channel->takeSent(); !bytes.empty(); bytes = host.channel->takeSent()) {
    sent.append(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  }
  EXPECT_THAT(sent, HasSubstr("House.enter: an argument cannot be kept: "));
}

struct Mortal final : Service {
  using Service::Service;
  ~Mortal() override { atEnd(); }
  std::function<void()> atEnd;
};

TEST(Link, LetsGoOfWhatWasEmittedWhereThatMayWaitForADisconnection) {
  Side host;
  Side peer;
  AnyObject held;
  peer.reserved->service = makeService("House")->method("show", [&](const AnyObject& shown) { held = shown; }).build();
  auto lamp = std::make_shared<Mortal>("Lamp");
  lamp->method("lit", [] { return true; }).build();
  host.call(peer, "House.show", AnyObject(lamp)).value();
  Bytes release;
  const std::uint32_t number =
      follow(host, SignalSubscriber([&](const AnyObject&) { host.channel->receive(release); }));
  std::thread other;
  std::promise<void> disconnected;
  lamp->atEnd = [&] {
    other = std::thread([&] {
      host.link->disconnect(number);
      disconnected.set_value();
    });
    EXPECT_EQ(disconnected.get_future().wait_for(std::chrono::seconds(20)), std::future_status::ready);
  };
  lamp.reset();
  const Bytes emitted = emissionOf(peer, number, held);
  held.reset();
  release = peer.channel->takeSent();
  host.channel->receive(emitted);
  ASSERT_TRUE(other.joinable()) << "the lamp is there";
  other.join();
}

TEST(Link, EndsAPeerThatIsSilentForThreeHeartbeatsAndFailsWhatPends) {
  Side side({.heartbeat = std::chrono::milliseconds(1)});
  const auto pending = side.link->ask("House.lamp");
  side.channel->setSilence(std::chrono::milliseconds(3));
  side.link->gone().wait();
  EXPECT_THAT(pending.error(), AllOf(HasSubstr("the connection to the peer"), HasSubstr("nothing was heard")));
  EXPECT_THAT(side.link->ask("House.lamp").error(), HasSubstr("nothing was heard"));
  EXPECT_EQ(side.link->pendingCount(), 0U);
  EXPECT_EQ(side.reserved->ends, 1);
}

TEST(Link, LetsGoOfWhatItLentWhenItEnds) {
  Side host;
  Side peer;
  std::weak_ptr<GenericObject> lent;
  host.reserved->service = makeService("House")
                               ->method("lamp",
                                        [&] {
                                          const AnyObject lamp = makeService("Lamp")->build();
                                          lent = lamp.pointer();
                                          return lamp;
                                        })
                               .build();
  const AnyObject held = peer.call(host, "House.lamp").value().reference().to<AnyObject>();
  EXPECT_FALSE(lent.expired());
  host.link->end("enough");
  host.link->gone().wait();
  EXPECT_TRUE(lent.expired());
}

}  // namespace
}  // namespace mw::remote
