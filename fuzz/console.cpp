#include "harness.h"

#include <hxbase/hxmemory.h>
#include <hxcommon/hxbroker.h>
#include <libmw/log.h>

#include <algorithm>
#include <base/output.h>
#include <base/target.h>
#include <commands/watches.h>
#include <console/console.h>
#include <cstdlib>
#include <memory>
#include <optional>
#include <sstream>

namespace fuzz {
namespace {

/// A broker with a memory, and a console on it. Modules cannot be loaded: the file system is nobody's input.
class Broker final : public korvo::Target {
 public:
  Broker() {
    mw::log::setStderrSink(false);
    ::setenv("XDG_DATA_HOME", "/dev/null", 1);
    ::setenv("XDG_DATA_DIRS", "/dev/null", 1);
    broker_ = HX::HXBroker::create("fuzz");
    HX::HXModule::createModule<HX::HXMemory>(broker_, "HXMemory");
    target_.emplace(broker_);
  }
  Broker(const Broker&) = delete;
  Broker& operator=(const Broker&) = delete;
  ~Broker() override {
    target_.reset();
    broker_->shutdown();
  }

  std::shared_ptr<HX::HXProxy> find(const std::string& service) override { return target_->find(service); }
  std::vector<std::string> services() override { return target_->services(); }
  mw::Future<std::vector<mw::ServiceInfo>> askServices() override { return target_->askServices(); }
  void loadModule(const std::string& /*library*/) override { throw std::runtime_error("not here"); }
  const std::shared_ptr<HX::HXBroker>& ownBroker() override { return broker_; }

 private:
  std::shared_ptr<HX::HXBroker> broker_;
  std::optional<korvo::BrokerTarget> target_;
};

/// The commands that wait, that print at length, or that open files by design.
bool isLeftOut(std::string_view line) {
  for (const char* word :
       {"OnChange", "perf", "import", "export", "hz", "--rate", "--count", "--for", "--wait", "\\u"}) {
    if (line.find(word) != std::string_view::npos) return true;
  }
  return false;
}

void execute(korvo::Target& target, std::string_view lines) {
  std::ostringstream values;
  std::ostringstream errors;
  korvo::Output output(values, errors);
  korvo::Watches watches(output);
  korvo::Console console({target, output, watches});
  while (!lines.empty()) {
    const std::size_t end = std::min(lines.find('\n'), lines.size());
    if (!isLeftOut(lines.substr(0, end))) {
      console.execute(lines.substr(0, end));
      console.complete(lines.substr(0, end / 2));
    }
    lines.remove_prefix(std::min(end + 1, lines.size()));
  }
  watches.close();
  std::istringstream reported(errors.str());
  for (std::string error; std::getline(reported, error);) {
    require(error.starts_with("error: "), "an error takes one line");
  }
}

}  // namespace

void console(Input input) {
  // Keys stay, and would slow the memory down in the end.
  static std::unique_ptr<Broker> broker;
  static int uses = 0;
  if (uses++ % 500 == 0) {
    broker.reset();
    broker = std::make_unique<Broker>();
  }
  execute(*broker, textOf(input));
}

}  // namespace fuzz
