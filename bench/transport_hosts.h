#pragma once

// The broker, the echo and Redis that the transport's benchmarks talk to, each started with the first use.

#include "socket_peer.h"

#include <hxcommon/hxproxy.h>
#include <libmw/local.h>
#include <libmw/session.h>

#include <filesystem>
#include <memory>
#include <string>
#include <string_view>

namespace bench {

using HX::HXProxy;
using HX::HXValue;

inline std::string peerProgram() {
  return std::filesystem::read_symlink("/proc/self/exe").parent_path() / "bench_transport_peer";
}

/// The process that holds the memory, joined.
struct Broker {
  Broker() {
    socketFolder();
    child = std::make_unique<Child>(std::vector<std::string>{peerProgram(), "broker"});
    for (int i = 0; !client; ++i) {
      try {
        client = std::make_unique<mw::LocalClient>(session, "bench");
      } catch (const mw::NoBrokerError&) {
        if (i == 500) throw;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
      }
    }
    memory = std::make_unique<HXProxy>(session.service("HXMemory").take(), "HXMemory");
  }
  static Broker& instance() {
    static Broker the;
    return the;
  }

  std::unique_ptr<Child> child;
  mw::Session session;
  std::unique_ptr<mw::LocalClient> client;
  std::unique_ptr<HXProxy> memory;
};

struct Echo {
  static PlainSocket& instance() {
    static const std::string path = socketFolder() + "/echo";
    static const Child child({peerProgram(), "echo", path});
    static PlainSocket socket(path);
    return socket;
  }
};

/// Redis, by the text protocol that it speaks.
class Redis {
 public:
  static bool isInstalled() { return std::filesystem::exists("/usr/bin/redis-server"); }
  static Redis& instance() {
    static const std::string path = socketFolder() + "/redis";
    static const Child child(
        {"redis-server", "--port", "0", "--unixsocket", path, "--save", "", "--loglevel", "warning"});
    static Redis redis(path);
    redis.call("*3\r\n$3\r\nSET\r\n$3\r\nkey\r\n$2\r\n42\r\n", 5);
    return redis;
  }
  explicit Redis(const std::string& path) : socket_(path) {}

  std::string call(std::string_view request, std::size_t answer) {
    socket_.send(request);
    std::string bytes(answer, ' ');
    socket_.receive(bytes);
    return bytes;
  }

 private:
  PlainSocket socket_;
};

}  // namespace bench
