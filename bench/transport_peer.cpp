// The other processes that bench_transport talks to.

#include "redis_reader.h"
#include "shared_tally.h"
#include "socket_peer.h"

#include <hxcommon/feed.h>
#include <hxcommon/hxbroker.h>
#include <hxcommon/hxproxy.h>
#include <libmw/dynamicobject.h>
#include <libmw/local.h>
#include <libmw/session.h>

#include <iostream>
#include <memory>
#include <thread>

namespace {

/// Has a method that sleeps.
class Sleeper : public mw::DynamicObject {
 public:
  Sleeper() {
    mw::ObjectBuilder builder;
    builder.setTypeName("Sleeper").setThreadingModel(mw::ObjectThreadingModel::MultiThread);
    builder.advertiseMethod({"sleep", "", "", 0}, mw::AnyFunction::from([](int microseconds) {
                              std::this_thread::sleep_for(std::chrono::microseconds(microseconds));
                            }));
    setType(builder.build());
  }
};

/// Writes as fast as it can: to a hundred keys in turn.
class Writer : public mw::DynamicObject {
 public:
  explicit Writer(std::shared_ptr<HX::HXProxy> memory) {
    mw::ObjectBuilder builder;
    builder.setTypeName("Writer").setThreadingModel(mw::ObjectThreadingModel::MultiThread);
    builder.advertiseMethod({"write", "", "", 0}, mw::AnyFunction::from([memory = std::move(memory)](int count) {
                              for (int i = 0; i < count; ++i) memory->call("insertData", bench::streamedKey(i), i);
                            }));
    setType(builder.build());
  }
};

void runBroker() {
  const auto broker = HX::HXBroker::create("bench");
  broker->loadModule("hxmemory");
  broker->loadModule("journal");
  broker->session()->registerService("Sleeper", mw::AnyObject(std::make_shared<Sleeper>()));
  broker->session()->registerService("Writer", mw::AnyObject(std::make_shared<Writer>(broker->getProxy("HXMemory"))));
  const mw::LocalServer server(*broker->session(), "bench");
  ::pause();
}

/// Has the broker sleep for a millisecond as often as it is told on the standard input, and says each time that it did.
void runSleeper() {
  mw::Session session;
  const mw::LocalClient client(session, "bench");
  const auto sleeper = session.service("Sleeper").take();
  for (std::uint32_t times = 0; ::read(STDIN_FILENO, &times, sizeof times) == sizeof times;) {
    for (; times > 0; --times) sleeper->call("sleep", 1000);
    if (::write(STDIN_FILENO, "", 1) != 1) break;
  }
}

/// Sends back what comes, to one peer at a time.
void runEcho(const std::string& path) {
  const int listening = ::socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  if (::bind(listening, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      ::listen(listening, 1) != 0) {
    throw std::runtime_error("cannot listen on " + path);
  }
  std::vector<char> buffer(std::size_t{1} << 18);
  while (true) {
    const int peer = ::accept(listening, nullptr, nullptr);
    while (true) {
      const ssize_t received = ::recv(peer, buffer.data(), buffer.size(), 0);
      if (received <= 0) break;
      for (ssize_t sent = 0; sent < received;) {
        sent += std::max<ssize_t>(
            0, ::send(peer, buffer.data() + sent, static_cast<std::size_t>(received - sent), MSG_NOSIGNAL));
      }
    }
    ::close(peer);
  }
}

/// Follows the signal of the event "Tick".
void runListener(const std::string& tally, std::size_t number) {
  bench::SharedTally shared(tally);
  mw::Session session;
  const mw::LocalClient client(session, "bench");
  const auto memory = session.service("HXMemory").take();
  const auto tick = memory->call<mw::AnyObject>("subscriber", "Tick");
  tick->connect("signal",
                mw::SignalSubscriber([&](const HX::HXValue& sent) { shared.receive(number, sent.toInt64()); }))
      .value();
  memory->call("insertData", "Ready/" + std::to_string(number), true);
  ::pause();
}

/// The same of a channel of Redis: messages are lines, of which the last is the time.
void runRedisListener(const std::string& path, const std::string& tally, std::size_t number) {
  bench::SharedTally shared(tally);
  bench::PlainSocket socket(path);
  socket.send("*2\r\n$9\r\nSUBSCRIBE\r\n$4\r\nTick\r\n");
  std::string text;
  std::vector<char> buffer(std::size_t{1} << 16);
  while (true) {
    text.append(buffer.data(), socket.receiveSome(buffer.data(), buffer.size()));
    // Seven lines a message; the confirmation has six, and its last is a number.
    for (std::size_t end = 0; (end = text.find("\r\n")) != std::string::npos; text.erase(0, end + 2)) {
      if (end == 15 && text[0] != '$' && text[0] != '*') shared.receive(number, std::stoll(text.substr(0, end)));
    }
  }
}

/// Follows every change of the keys that are written for it. The key "Time" says when it was written.
void runFollower(const std::string& tally) {
  bench::SharedTally shared(tally);
  const auto broker = HX::HXBroker::create("follower");
  const mw::LocalClient client(*broker->session(), "bench");
  HX::journal::FollowOptions options;
  options.onComplete = [&](HX::journal::Position) { shared.count(1, 1); };
  HX::journal::Filter filter({"Stream/"});
  const auto follower = HX::follow(
      broker, filter.addKey("Time"),
      [&](const HX::journal::Change& change) {
        if (change.isState) return;
        if (change.key == "Time") {
          shared.receive(0, change.value.toInt64());
        } else {
          shared.count(0, 1);
        }
      },
      std::move(options));
  ::pause();
}

/// The same of a stream of Redis, or of the notices of its keys.
void runRedisReader(const std::string& path, const std::string& tally, bool isStream) {
  bench::SharedTally shared(tally);
  bench::RedisReader redis(path);
  if (!isStream) redis.send(bench::redisRequest({"PSUBSCRIBE", "__keyspace@0__:Stream/*"}));
  std::string last = "$";
  shared.count(1, 1);
  while (true) {
    if (isStream) {
      redis.send(bench::redisRequest({"XREAD", "COUNT", "512", "BLOCK", "0", "STREAMS", "changes", last}));
    }
    const auto answer = redis.read();
    if (!isStream) {
      if (answer.parts.size() == 4) shared.count(0, 1);
      continue;
    }
    for (const auto& entry : answer.parts.at(0).parts.at(1).parts) {
      last = entry.parts.at(0).text;
      const auto& fields = entry.parts.at(1).parts;
      if (fields.at(0).text == "Time") {
        shared.receive(0, std::stoll(fields.at(1).text));
      } else {
        shared.count(0, 1);
      }
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  const std::string role = argc > 1 ? argv[1] : "";
  try {
    if (role == "broker") runBroker();
    if (role == "sleeper") runSleeper();
    if (role == "echo" && argc > 2) runEcho(argv[2]);
    if (role == "listener" && argc > 3) runListener(argv[2], std::stoul(argv[3]));
    if (role == "redis-listener" && argc > 4) runRedisListener(argv[2], argv[3], std::stoul(argv[4]));
    if (role == "follower" && argc > 2) runFollower(argv[2]);
    if (role == "redis-stream" && argc > 3) runRedisReader(argv[2], argv[3], true);
    if (role == "redis-notices" && argc > 3) runRedisReader(argv[2], argv[3], false);
  } catch (const std::exception& error) {
    std::cerr << "bench_transport_peer " << role << ": " << error.what() << '\n';
  }
  return 1;
}
