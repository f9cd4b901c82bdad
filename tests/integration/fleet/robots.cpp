// Many robots of a fleet in one process: modules of one broker, each of which sees its own keys alone.
//
//     fleet_robots URL COUNT
//
// Each line of input is answered by a line of JSON: "status", or "flood ROBOT COUNT", which raises that many events.

#include "hxfleet.h"

#include <hxbase/hxmemory.h>
#include <hxcommon/hxbroker.h>
#include <hxcommon/settings.h>
#include <hxproxies/hxmemoryproxy.h>
#include <hxvalue/json.h>
#include <libmw/log.h>

#include <cstdlib>
#include <fstream>
#include <iostream>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <unistd.h>
#include <vector>

#include <fmt/format.h>

namespace {

using HX::HXValue;

/// What this process has in memory.
std::int64_t residentBytes() {
  std::int64_t all = 0;
  std::int64_t resident = 0;
  std::ifstream("/proc/self/statm") >> all >> resident;
  return resident * ::sysconf(_SC_PAGESIZE);
}

class Robots {
 public:
  Robots(const std::string& url, int count) : broker_(HX::HXBroker::create("robots")) {
    memory_ = HX::HXModule::createModule<HX::HXMemory>(broker_, "HXMemory");
    broker_->session()->registerService("Broker", broker_->getProxy("HXMemory")->asObject());
    before_ = residentBytes();  // NOLINT(cppcoreguidelines-prefer-member-initializer): with the memory.
    for (int i = 1; i <= count; ++i) {
      const std::string module = fmt::format("HXFleet{}", i);
      broker_->provideSettings(
          module, HX::GivenSettings::of(HXValue::map({{"url", url},
                                                      {"robot", fmt::format("sim{}", i)},
                                                      {"insecure", true},
                                                      {"export", HXValue::list({fmt::format("{}/**", i)})}})));
      robots_.push_back(HX::HXModule::createModule<HX::HXFleet>(broker_, module));
      memory_->insertData(fmt::format("{}/Battery", i), i);
    }
  }
  ~Robots() {
    robots_.clear();
    memory_.reset();
    broker_->shutdown();
  }

  HXValue status() {
    int connected = 0;
    int balanced = 0;
    std::map<std::string, int> reasons;
    for (const auto& robot : robots_) {
      const HXValue status = robot->status();
      if (status["state"] == HXValue("connected")) {
        ++connected;
      } else {
        reasons[fmt::format("{}: {}", status["state"].asString(), status["reason"].asString())] += 1;
      }
      const auto number = [&](const char* name) { return status[name].asInt64(); };
      const bool isQuiet = number("queued") == 0 && number("inFlight") == 0;
      if (isQuiet && number("raised") == number("confirmed") + number("dropped") + number("missed")) ++balanced;
    }
    HXValue::Map others;
    for (const auto& [reason, count] : reasons) others[reason] = count;
    return HXValue::map({{"connected", connected},
                         {"balanced", balanced},
                         {"bytes", residentBytes() - before_},
                         {"others", HXValue(std::move(others))}});
  }
  void flood(int robot, int count) {
    const std::string event = fmt::format("{}/Flood", robot);
    for (int i = 0; i < count; ++i) memory_->raiseEvent(event, i);
  }

 private:
  std::shared_ptr<HX::HXBroker> broker_;
  std::shared_ptr<HX::HXMemory> memory_;
  std::vector<std::shared_ptr<HX::HXFleet>> robots_;
  std::int64_t before_ = 0;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  Robots robots(argv[1], std::atoi(argv[2]));
  for (std::string line; std::getline(std::cin, line);) {
    std::istringstream words(line);
    std::string what;
    int robot = 0;
    int count = 0;
    words >> what >> robot >> count;
    if (what == "flood") robots.flood(robot, count);
    std::cout << HX::toJson(robots.status()) << std::endl;
  }
  return 0;
}
