#include "expect_error.h"
#include "joined_sessions.h"
#include "raw_peer.h"
#include "sanitized.h"
#include "service.h"

#include <hxvalue/msgpack.h>
#include <libmw/objecttypebuilder.h>

#include <algorithm>
#include <capture_log.h>
#include <fcntl.h>
#include <future>
#include <malloc.h>
#include <semaphore>
#include <sys/resource.h>
#include <thread>

#include <fmt/format.h>
#include <gmock/gmock.h>

/// What peers may do that mean ill, or are broken. Each costs itself its connection at most: another client is served
/// all the while, the process does not grow, and the log says why.
namespace mw {
namespace {

using HX::HXValue;
using testing::HasSubstr;

std::string bytes(std::initializer_list<int> codes) {
  std::string all;
  for (const int code : codes) all += static_cast<char>(code);
  return all;
}

std::string packed(const HXValue& value) {
  const auto packed = HX::toMsgpack(value);
  return {reinterpret_cast<const char*>(packed.data()), packed.size()};
}

/// A request whose arguments are in MessagePack already, so that they may hold what is no value.
std::string rawRequest(std::string_view method, std::string_view arguments) {
  return bytes({0x94, 0, 7}) + packed(std::string(method)) + std::string(arguments);
}
std::string request(std::string_view method, const HXValue::List& arguments) {
  return rawRequest(method, packed(HXValue(arguments)));
}

std::string extension(int type, std::string_view content) {
  return bytes({0xc8, static_cast<int>(content.size() >> 8), static_cast<int>(content.size() & 0xff), type}) +
         std::string(content);
}

HXValue::List description(int id, const HXValue& kind) {
  const HXValue none = HXValue::list();
  const HXValue method = HXValue::list({id, "m", none, HXValue::list({"t", kind}), true, 0, "", "", none, HXValue()});
  return {"Thing", "", HXValue::list({method}), none, none};
}

HXValue::List idTwice() {
  HXValue::List details = description(3, 0);
  details[3] = HXValue::list({HXValue::list({std::int64_t{3}, "s", "()"})});
  return details;
}

std::string reference(const HXValue::List& parts) { return extension(2, packed(HXValue(parts))); }

std::string thing(int object, int number, const HXValue& details) { return reference({0, object, number, details}); }

constexpr std::size_t kMegabyte = std::size_t{1} << 20;

class HostilePeers : public testing::Test {
 protected:
  explicit HostilePeers(const LinkOptions& options = {}) {
    signal_ = std::make_shared<Signal<std::string>>();
    broker.registerService("Echo", makeService("Echo")
                                       ->method("echo", [](const HXValue& value) { return value; })
                                       .method("much", [] { return std::string(60000, 'x'); })
                                       .signal("said", *signal_)
                                       .build());
    server.emplace(broker, "torso", options);
    joined.emplace(client, "torso", LocalClient::Options{.link = {.heartbeat = options.heartbeat}});
    echo = client.service("Echo").take();
  }

  std::string socket() const { return folder.path() + "/korvo/torso.sock"; }
  void expectOthersAreServed() const { EXPECT_EQ(echo->call<int>("echo", 4711), 4711); }

  void waitForLog(const std::string& text) const {
    std::size_t count = 0;
    const auto isThere = [&] {
      const auto texts = log.entries();
      count = texts.size();
      return std::any_of(texts.begin(), texts.end(), [&](const auto& entry) {
        return entry.level == LogLevel::Warning && entry.text.find(text) != std::string::npos;
      });
    };
    while (!isThere())
      ASSERT_TRUE(log.waitFor(count + 1)) << text << " is not among " << testing::PrintToString(log.texts());
  }

  kit::CaptureLog log{{"mw.link", "mw.object"}};
  kit::SocketFolder folder;
  std::shared_ptr<Signal<std::string>> signal_;
  Session broker;
  std::optional<LocalServer> server;
  Session client;
  std::optional<LocalClient> joined;
  AnyObject echo;
};

struct Offence {
  const char* name;
  std::string bytes;
  const char* reason;
};

class Offences : public HostilePeers, public testing::WithParamInterface<Offence> {};

TEST_P(Offences, EndTheConnectionAndAreLogged) {
  const RawPeer peer(socket());
  peer.send(GetParam().bytes);
  peer.waitForEnd();
  waitForLog(GetParam().reason);
  expectOthersAreServed();
}

std::string nested(std::size_t depth) { return std::string(depth, '\x91'); }

const Offence kOffences[] = {
    {"NoMessagePack", bytes({0xc1}), "begins no MessagePack value"},
    {"Text", "GET / HTTP/1.1\r\n\r\n", "no list where one belongs"},
    {"DeepNesting", nested(300), "nested more than 256 deep"},
    {"NoMessage", bytes({0x90}), "too few parts"},
    {"UnknownMessage", bytes({0x94, 3, 7, 0xc0, 0xc0}), "neither request, response nor notification"},
    {"ShortRequest", bytes({0x93, 0, 7, 0xa0}), "neither request"},
    {"TextForAnId", bytes({0x94, 0, 0xa1, '7', 0xa3, 'a', '.', 'b', 0x90}), "no number"},
    {"NegativeId", bytes({0x94, 0, 0xd0, 0xff, 0xa3, 'a', '.', 'b', 0x90}), "out of range"},
    {"NumberForAMethod", bytes({0x94, 0, 7, 7, 0x90}), "no text"},
    {"MapOfArguments", rawRequest("a.b", bytes({0x80})), "no list"},
    {"ShortChain", rawRequest("a.b", bytes({0x91, 0xd4, 1, 0})), "a chain is 16 bytes"},
    {"ResponseToNothing", bytes({0x94, 1, 7, 0xc0, 0xc0}), "a request 7 that was not made"},
    {"EmissionOfNothing", bytes({0x93, 2, 0xaa}) + "korvo.emit" + bytes({0x90}), "names no link"},
    {"TooManyArguments", request("a.b", HXValue::List(1025)), "more than 1024 arguments"},
    {"ShortReference", rawRequest("a.b", bytes({0x91}) + reference({0, 1, 1})), "four parts"},
    {"ReferenceToNobodys", rawRequest("a.b", bytes({0x91}) + reference({2, 1, 1, HXValue()})), "of nobody"},
    {"ReferenceNeverDescribed", rawRequest("a.b", bytes({0x91}) + thing(1, 1, HXValue())), "not described"},
    {"DescriptionOfOneWord", rawRequest("a.b", bytes({0x91}) + thing(1, 1, "Thing")), "lacks a part"},
    {"DescriptionWithAHugeId", rawRequest("a.b", bytes({0x91}) + thing(1, 1, description(4096, 0))), "id out of range"},
    {"DescriptionOfAnUnknownKind", rawRequest("a.b", bytes({0x91}) + thing(1, 1, description(0, 99))), "kind of type"},
    {"DescriptionWithAnIdTwice", rawRequest("a.b", bytes({0x91}) + thing(1, 1, idTwice())), "an id twice"},
    {"DescriptionWithTextForAKind", rawRequest("a.b", bytes({0x91}) + thing(1, 1, description(0, "x"))), "no number"},
};
INSTANTIATE_TEST_SUITE_P(HostilePeers, Offences, testing::ValuesIn(kOffences),
                         [](const auto& row) { return std::string(row.param.name); });

TEST_F(HostilePeers, AreAnsweredWhenTheyCallWhatMakesNoSense) {
  const RawPeer peer(socket());
  struct Row {
    std::string method;
    HXValue::List arguments;
    const char* answer;  ///< A part of the error; nil when there is none.
  };
  const int own = static_cast<int>(echo->number());
  const std::string at = fmt::format("@{}.", own);
  const std::string huge(1000, 'x');
  const Row rows[] = {
      {"korvo.hello", {}, "argument 1 is missing"},
      {"korvo.hello", {2}, "protocol version 2"},
      {"korvo.service", {"Nobody"}, nullptr},
      {"korvo.register", {"Mine", 5}, "argument 2 does not say an object"},
      {"korvo.register", {"Mine", HXValue()}, ""},
      {"korvo.unregister", {1}, "not one of yours"},
      {"korvo.connect", {own}, ""},
      {"korvo.connect", {99, "said", 1}, "no object 99"},
      {"korvo.connect", {own, "said"}, "argument 3 is missing"},
      {"korvo.connect", {own, "silence", 1}, "no such signal"},
      {"korvo.connect", {own, std::int64_t{4294967295}, 1}, "signal"},
      {"korvo.connect", {own, HXValue(), 1}, "argument 2 does not say a signal"},
      {"korvo.disconnect", {99}, nullptr},
      {"korvo.property", {own, 99}, ""},
      {"korvo.release", {99, 1}, nullptr},
      {"korvo.nothing", {}, "korvo.nothing: no such method\xa6method"},  // with the kind of error
      {".", {}, "no service named"},
      {"@99.echo", {1}, "no object @99"},
      {"@99999999999999999999.echo", {1}, "no object"},
      {at + "echo", {1}, nullptr},
      {at + "echo", {}, "echo"},
      {at + "4294967295", {}, ""},
      {"Echo." + huge, {}, "no such method"},
      {huge + ".echo", {}, "no service named"},
  };
  ASSERT_TRUE(peer.send(request("korvo.service", {"Echo"})));
  peer.awaitText("Echo");
  for (const Row& row : rows) {
    SCOPED_TRACE(fmt::format("{} {}", row.method, HXValue(row.arguments).toString()));
    ASSERT_TRUE(peer.send(request(row.method, row.arguments)));
    const std::string answer = peer.awaitText(bytes({0x94, 1, 7}));
    ASSERT_FALSE(answer.empty()) << "the connection has ended: " << log.texts().back();
    const bool isError = answer.find("runtime") != std::string::npos || answer.find("other") != std::string::npos;
    EXPECT_EQ(isError, row.answer != nullptr) << answer;
    EXPECT_THAT(answer, HasSubstr(row.answer ? row.answer : ""));
  }
  expectOthersAreServed();
}

std::string chain(int caller, int depth) {
  return bytes({0xd8, 1, 0, 0, 0, 0, 0, 0, 0, caller, 0, 0, 0, 1, 0, 0, depth >> 8, depth & 0xff});
}

TEST_F(HostilePeers, LoseACallWithAValueThatCannotBeKeptAndNoMore) {
  const RawPeer peer(socket());
  const std::string fits = packed(HXValue(5));
  const std::pair<std::string, const char*> rows[] = {
      {bytes({0x91, 0xcf, 0x80, 0, 0, 0, 0, 0, 0, 0}), "cannot be kept: "},               // 2^63
      {bytes({0x91, 0xd6, 0xff, 0, 0, 0, 0}), "cannot be kept: "},                        // a time
      {bytes({0x91, 0x81, 1, 2}), "cannot be kept: "},                                    // a number for a key
      {bytes({0x91, 0x92}) + fits + thing(1, 1, description(0, 0)), "cannot be kept: "},  // an object inside a list
      {bytes({0x91, 0xd4, 9, 0}), "cannot be kept: "},                                    // an unknown extension
      {bytes({0x92}) + chain(1, 300) + fits, "more than 256 deep"},
      {bytes({0x91}) + fits, ""},
  };
  for (const auto& [arguments, reason] : rows) {
    SCOPED_TRACE(testing::PrintToString(arguments));
    ASSERT_TRUE(peer.send(rawRequest("Echo.echo", arguments)));
    const std::string answer = peer.awaitText(bytes({0x94, 1, 7}));
    EXPECT_THAT(answer, HasSubstr(reason));
    EXPECT_EQ(answer.find("runtime") == std::string::npos, std::string_view(reason).empty());
  }
  peer.send(bytes({0x93, 2}) + packed("Echo.echo") + bytes({0x91, 0x81, 1, 2}));
  waitForLog("Echo.echo");
  expectOthersAreServed();
}

TEST_F(HostilePeers, MayLeaveInTheMiddleOfAMessage) {
  const std::string message = request("Echo.echo", {"a text"});
  for (std::size_t size = 0; size < message.size(); ++size) {
    const RawPeer peer(socket());
    peer.send(std::string_view(message).substr(0, size));
  }
  expectOthersAreServed();
  for (const auto& entry : log.entries()) EXPECT_EQ(entry.level, LogLevel::Verbose) << entry.text;
}

class WithLowLimits : public HostilePeers {
 protected:
  WithLowLimits() : HostilePeers(options()) {}
  /// Nor is any of them ended for its silence, however slow the machine.
  static LinkOptions options() {
    return {
        .heartbeat = std::chrono::minutes(10), .outputLimit = kMegabyte, .inputLimit = kMegabyte, .connectionLimit = 4};
  }
};

TEST_F(WithLowLimits, APeerThatDoesNotReadItsEmissionsIsEnded) {
  const RawPeer peer(socket());
  ASSERT_TRUE(peer.send(request("korvo.service", {"Echo"}) +
                        request("korvo.connect", {static_cast<int>(echo->number()), "said", 5})));
  std::counting_semaphore<> seen(0);
  const SignalLink link = echo->connect("said", SignalSubscriber([&](const std::string&) { seen.release(); })).take();
  peer.awaitText(bytes({0x94, 1, 7, 0xc0, 0xc0}));
  const std::size_t before = ::mallinfo2().uordblks;
  std::size_t most = 0;
  constexpr std::size_t kEmissions = 1000;
  constexpr std::size_t kSize = std::size_t{16} << 10;
  for (std::size_t i = 0; i < kEmissions; ++i) {
    (*signal_)(std::string(kSize, 'x'));
    seen.acquire();
    if (i % 100 == 0) expectOthersAreServed();
    most = std::max(most, ::mallinfo2().uordblks);
  }
  waitForLog("it does not read");
  EXPECT_LT(most, before + 4 * options().outputLimit) << "of " << kEmissions * kSize << " bytes that it did not read";
  echo->disconnect(link).value();
  expectOthersAreServed();
}

/// How two peers make the process hold three megabytes each, where there is less room.
struct Hoard {
  const char* name;
  LinkOptions options;
  int stay;  ///< How many of the two.
  std::string request;
  int times;
  const char* reason;
};

class Hoards : public HostilePeers, public testing::WithParamInterface<Hoard> {
 protected:
  Hoards() : HostilePeers(GetParam().options) {}
};

TEST_P(Hoards, CostWhoHoldsTooMuchAndNobodyElse) {
  std::promise<void> leave;
  std::atomic<int> taken{0};
  broker.registerService("Slow", makeService("Slow")
                                     ->method("take",
                                              [&taken, left = leave.get_future().share()](const HXValue&) {
                                                ++taken;
                                                left.wait();
                                              })
                                     .build());
  const RawPeer one(socket());
  const RawPeer other(socket());
  for (const RawPeer* peer : {&one, &other}) {
    for (int i = 0; i < GetParam().times; ++i) peer->send(GetParam().request);
  }
  waitForLog(GetParam().reason);
  for (int i = 0; i < 5; ++i) EXPECT_EQ(echo->call<std::string>("echo", std::string(300'000, 'x')).size(), 300'000U);
  const std::size_t connected = 1 + static_cast<std::size_t>(GetParam().stay);
  while (server->connectionCount() > connected) std::this_thread::yield();
  EXPECT_EQ(server->connectionCount(), connected);
  leave.set_value();
  if (taken == 0) return;
  // What who stays has sent is done; of others no more than was begun.
  const int expected = GetParam().stay * GetParam().times + 2 - GetParam().stay;
  while (taken < expected) std::this_thread::yield();
  expectOthersAreServed();
  EXPECT_EQ(taken, expected);
}

const std::string kUnfinished = bytes({0x94, 0, 7, 0xc6, 3, 0, 0, 0}) + std::string(3 * kMegabyte, 'x');
const std::string kNotBegun = request("Slow.take", {std::string(60000, 'x')});
const std::string kUnread = request("Echo.much", {});
const LinkOptions kForAll{.inputOfAll = 4 * kMegabyte, .outputOfAll = 4 * kMegabyte};
const LinkOptions kForEach{.outputLimit = kMegabyte, .inputLimit = kMegabyte};
const Hoard kHoards[] = {
    {"UnfinishedOfAll", kForAll, 1, kUnfinished, 1, "what has come and is not handled yet"},
    {"NotBegunOfAll", kForAll, 1, kNotBegun, 50, "what has come and is not handled yet"},
    {"UnreadOfAll", kForAll, 1, kUnread, 55, "what waits to be read"},
    {"NotBegun", kForEach, 0, kNotBegun, 50, "it calls faster than it is served"},
    {"Unread", kForEach, 0, kUnread, 55, "it does not read"},
};
INSTANTIATE_TEST_SUITE_P(HostilePeers, Hoards, testing::ValuesIn(kHoards),
                         [](const auto& row) { return std::string(row.param.name); });

class ManyCallers : public HostilePeers, public testing::WithParamInterface<int> {};

TEST_P(ManyCallers, OfOnePeerDoNotTakeAllThreads) {
  std::promise<void> leave;
  broker.registerService(
      "Slow", makeService("Slow")->method("wait", [left = leave.get_future().share()] { left.wait(); }).build());
  const RawPeer peer(socket());
  for (int caller = 1; caller <= 200; ++caller) {
    peer.send(rawRequest("Slow.wait", bytes({0x91}) + chain(caller, GetParam())));
  }
  const std::string refusal = "32 calls of this process are running";
  std::string answers;
  const auto refused = [&] {
    int count = 0;
    for (std::size_t at = 0; (at = answers.find(refusal, at)) != std::string::npos; ++at) ++count;
    return count;
  };
  while (refused() < 200 - 32) answers += peer.receive();
  EXPECT_NO_THROW(expectOthersAreServed());
  leave.set_value();
}

INSTANTIATE_TEST_SUITE_P(HostilePeers, ManyCallers, testing::Values(0, 1),
                         [](const auto& depth) { return depth.param == 0 ? "AtTheBegin" : "WithinAChain"; });

TEST_F(WithLowLimits, ConnectionsBeyondTheLimitAreRefused) {
  std::vector<std::unique_ptr<RawPeer>> peers;
  for (int i = 0; i < 3; ++i) {
    peers.push_back(std::make_unique<RawPeer>(socket()));
    peers.back()->send(request("korvo.hello", {1}));
    peers.back()->awaitText("torso");
  }
  for (int i = 0; i < 1000; ++i) RawPeer(socket()).waitForEnd();
  waitForLog("4 are connected, which is the limit");
  EXPECT_THAT(RawPeer(socket()).receive(), testing::EndsWith("korvo.refused\x91\xd9\x23"
                                                             "4 are connected, which is the limit"));
  Session another;
  EXPECT_THAT(errorOf([&] { LocalClient(another, "torso"); }), HasSubstr("it is refused: \"4 are connected"));
  expectOthersAreServed();
  EXPECT_EQ(server->connectionCount(), 4U);
}

TEST(ConnectionsOfOneProcess, AreLimitedAndTheLastOnesAreKeptForTheProgramItself) {
  const kit::CaptureLog log({"mw.link"});
  const kit::SocketFolder folder;
  Session broker;
  const auto isTaken = [&](const LinkOptions& options, std::size_t others, const char* reason) {
    const LocalServer server(broker, "torso", options);
    std::vector<std::unique_ptr<RawPeer>> peers;
    for (std::size_t i = 0; i <= others; ++i) {
      peers.push_back(std::make_unique<RawPeer>(folder.path() + "/korvo/torso.sock"));
      peers.back()->send(request("korvo.hello", {1}));
      const std::string answer = peers.back()->receive();
      if (answer.find("refused") == std::string::npos) continue;
      EXPECT_EQ(i, others);
      EXPECT_THAT(answer, HasSubstr(reason));
      return false;
    }
    return true;
  };
  EXPECT_FALSE(isTaken({.connectionsOfAProcess = 2}, 2, "it has 2 connections, which is the limit for one process"));
  // A peer of this process executes this program.
  EXPECT_TRUE(isTaken({.connectionLimit = 5, .connectionsKept = 3}, 4, ""));
}

/// Leaves the process no more files than it has.
class NoFiles {
 public:
  NoFiles() {
    ::getrlimit(RLIMIT_NOFILE, &before_);
    rlimit few = before_;
    few.rlim_cur = 256;
    ::setrlimit(RLIMIT_NOFILE, &few);
    for (int file = ::open("/dev/null", O_RDONLY); file >= 0; file = ::open("/dev/null", O_RDONLY)) {
      taken_.push_back(file);
    }
  }
  NoFiles(const NoFiles&) = delete;
  NoFiles& operator=(const NoFiles&) = delete;
  ~NoFiles() {
    while (!taken_.empty()) giveBackOne();
    ::setrlimit(RLIMIT_NOFILE, &before_);
  }

  void giveBackOne() {
    ::close(taken_.back());
    taken_.pop_back();
  }

 private:
  rlimit before_{};
  std::vector<int> taken_;
};

std::chrono::microseconds processorTime() {
  rusage usage{};
  ::getrusage(RUSAGE_SELF, &usage);
  const auto of = [](const timeval& time) {
    return std::chrono::seconds(time.tv_sec) + std::chrono::microseconds(time.tv_usec);
  };
  return of(usage.ru_utime) + of(usage.ru_stime);
}

TEST_F(HostilePeers, WaitWhileTheyHoldAllFiles) {
  if (kit::kSanitized) GTEST_SKIP() << "a sanitizer needs files of its own to tell whether an object is one";
  const auto shortages = [this] {
    const auto entries = log.entries();
    return std::ranges::count(entries, LogLevel::Error, &kit::CaptureLog::Entry::level);
  };
  NoFiles files;
  std::vector<std::unique_ptr<RawPeer>> peers;
  for (int shortage = 0; shortage < 2; ++shortage) {
    auto told = shortages();
    auto used = processorTime();
    // What others still held, and those who have left, lets some in.
    do {
      told = shortages();
      used = processorTime();
      files.giveBackOne();
      peers.push_back(std::make_unique<RawPeer>(socket()));
      peers.back()->send(request("korvo.hello", {1}));
    } while (peers.back()->hasMore(std::chrono::milliseconds(500)));
    EXPECT_LT(processorTime() - used, std::chrono::milliseconds(200)) << "a busy loop";
    EXPECT_EQ(shortages() - told, 1) << testing::PrintToString(log.texts());
    expectOthersAreServed();
    files.giveBackOne();
    EXPECT_NE(peers.back()->awaitText("torso"), "");
  }
}

}  // namespace
}  // namespace mw
