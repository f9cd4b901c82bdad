#pragma once

#include <hxbase/hxmemory.h>
#include <hxcommon/hxbroker.h>
#include <libmw/log.h>

#include <algorithm>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <fmt/format.h>

namespace bench {

/// A broker with a memory, as a robot runs it.
class MemoryHost {
 public:
  MemoryHost() {
    mw::log::setLevel(mw::LogLevel::Error);
    broker = HX::HXBroker::create("bench");
    memory = HX::HXModule::createModule<HX::HXMemory>(broker, "HXMemory");
    proxy = broker->getProxy("HXMemory");
  }
  MemoryHost(const MemoryHost&) = delete;
  MemoryHost& operator=(const MemoryHost&) = delete;
  ~MemoryHost() {
    proxy.reset();
    memory.reset();
    broker->shutdown();
  }

  /// The one of this program; a process has at most one memory.
  static MemoryHost& instance() {
    static MemoryHost the;
    return the;
  }

  std::shared_ptr<HX::HXBroker> broker;
  std::shared_ptr<HX::HXMemory> memory;
  std::shared_ptr<HX::HXProxy> proxy;
};

/// `count` names of the length that robots use, in an order that no cache foresees and every run repeats.
inline std::vector<std::string> shuffledKeys(std::size_t count) {
  std::vector<std::string> keys;
  keys.reserve(count);
  for (std::size_t i = 0; i < count; ++i) keys.push_back(fmt::format("Device/Sensor/{:07}/Value", i));
  std::shuffle(keys.begin(), keys.end(), std::mt19937_64(17));
  return keys;
}

}  // namespace bench
