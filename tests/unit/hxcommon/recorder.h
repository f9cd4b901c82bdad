#pragma once

#include <hxcommon/hxbroker.h>
#include <hxcommon/hxmodule.h>

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

/// What a module under test does at the turns of its life. Empty functions do nothing.
struct Behaviour {
  std::function<void(HX::HXModule&)> construct = {};
  std::function<void()> init = {};
  std::function<void()> exit = {};
  bool exitLeavesBroker = true;
};

/// A module that does what it is told, and writes down when it exits and is destroyed.
class Recorder : public HX::HXModule {
 public:
  using Log = std::vector<std::string>;

  Recorder(const std::shared_ptr<HX::HXBroker>& broker, const std::string& name, Behaviour behaviour = {},
           Log* log = nullptr)
      : HXModule(broker, name), behaviour_(std::move(behaviour)), log_(log) {
    functionName("nap", name, "Sleeps.");
    bindMethod(this, &Recorder::nap);
    functionName("fail", name, "Fails.");
    bindMethod(this, &Recorder::fail);
    functionName("leave", name, "Leaves the broker from inside a call.");
    bindMethod(this, &Recorder::leave);
    if (behaviour_.construct) behaviour_.construct(*this);
  }
  ~Recorder() override { write("destroyed"); }

  void init() override {
    if (behaviour_.init) behaviour_.init();
  }
  void exit() override {
    write("exit");
    if (behaviour_.exit) behaviour_.exit();
    if (behaviour_.exitLeavesBroker) HXModule::exit();
  }

  void nap(std::int64_t milliseconds) { sleepFor(std::chrono::milliseconds(milliseconds)); }
  void fail(const std::string& message) { throw HX::HXError(getName(), "fail", message, "recorder.h", 7); }
  std::string leave() {
    HXModule::exit();
    return getName() + " still works";
  }

 private:
  void write(const char* what) {
    if (log_) log_->push_back(getName() + " " + what);
  }

  const Behaviour behaviour_;
  Log* const log_;
};
