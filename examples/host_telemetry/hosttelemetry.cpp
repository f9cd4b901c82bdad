#include "hosttelemetry.h"

#include <hxcommon/hxbroker.h>
#include <hxcommon/units.h>
#include <libmw/log.h>

#include <exception>
#include <utility>

#include <fmt/format.h>

namespace telemetry {
namespace {

using std::chrono::milliseconds;

const char* const kCategory = "hosttelemetry";
// A directory beyond this process may take its time to answer, and leaving has to wait for it.
constexpr milliseconds kLookUpLimit{1000};

std::string rangeText() {
  return fmt::format("{} to {} ms", HostTelemetry::kShortestPeriod.count(), HostTelemetry::kLongestPeriod.count());
}

bool isInRange(milliseconds period) {
  return period >= HostTelemetry::kShortestPeriod && period <= HostTelemetry::kLongestPeriod;
}

}  // namespace

HostTelemetry::HostTelemetry(const std::shared_ptr<HX::HXBroker>& broker, const std::string& name, Sensors sensors)
    : HXModule(broker, name), session_(broker->session()), subscribers_(session_, name), sensors_(std::move(sensors)) {
  setModuleDescription(
      "HostTelemetry publishes what this machine's sensors show: its load, memory, temperatures and traffic.");
  addSetting(HX::Setting::duration("period", "1s", "The time from one sample to the next.").between("10ms", "1h"));
  period_ = std::chrono::duration_cast<milliseconds>(HX::toDuration(settings()["period"]));
  bindMethods();
}

HostTelemetry::~HostTelemetry() { stopSampling(); }

void HostTelemetry::bindMethods() {
  functionName("setPeriod", getName(), "Sets the time from one sample to the next.");
  addParam("milliseconds", fmt::format("The time, {}. It holds from the last sample on.", rangeText()));
  bindMethod(this, &HostTelemetry::setPeriod);

  functionName("getPeriod", getName(), "Gets the time from one sample to the next.");
  setReturn("milliseconds", "The time.");
  bindMethod(this, &HostTelemetry::getPeriod);

  functionName("getCurrentPrecision", getName(),
               "Gets how precise the events are. That there is this method has "
               "HXMemory tell the module of its subscribers.");
  setReturn("precision", "The precision, between 0 and 1.");
  bindMethod(this, &HostTelemetry::getCurrentPrecision);

  functionName("subscribe", getName(), "Called by HXMemory when a module subscribes to one of the events.");
  addParam("subscriberId", "The subscriber's name with the event's name behind it. Twice the same counts once.");
  bindMethod(this, &HostTelemetry::subscribe);

  functionName("unsubscribe", getName(), "Called by HXMemory when a module unsubscribes from one of the events.");
  addParam("subscriberId", "As it was given to subscribe.");
  bindMethod(this, &HostTelemetry::unsubscribe);
}

void HostTelemetry::init() {
  // Whoever finds the module finds its values.
  const auto now = Clock::now();
  publish(now);
  thread_ = std::jthread([this, now](const std::stop_token& stop) { run(stop, now); });
}

void HostTelemetry::exit() {
  stopSampling();
  HXModule::exit();
}

void HostTelemetry::setPeriod(int count) {
  const milliseconds period(count);
  if (!isInRange(period)) {
    throw HX::HXError(getName(), "setPeriod", fmt::format("{} ms is out of range: {}", count, rangeText()));
  }
  {
    const std::lock_guard lock(mutex_);
    period_ = period;
  }
  periodChanged_.notify_all();
}

int HostTelemetry::getPeriod() const {
  const std::lock_guard lock(mutex_);
  return static_cast<int>(period_.count());
}

float HostTelemetry::getCurrentPrecision() const { return 1.0F; }

void HostTelemetry::subscribe(const std::string& subscriberId) { subscribers_.add(subscriberId); }

void HostTelemetry::unsubscribe(const std::string& subscriberId) { subscribers_.remove(subscriberId); }

void HostTelemetry::run(const std::stop_token& stop, Clock::time_point sampled) {
  while (true) {
    waitForNextSample(stop, sampled);
    if (stop.stop_requested()) return;
    sampled = Clock::now();
    publish(sampled);
  }
}

void HostTelemetry::publish(Clock::time_point now) {
  try {
    publisher().publish(sensors_.sample(now));
    report({});
  } catch (const std::exception& error) {
    report(error.what());
  } catch (...) {
    report("unknown exception");
  }
}

Publisher& HostTelemetry::publisher() {
  mw::AnyObject memory = session_->service("HXMemory").value(kLookUpLimit);
  if (!publisher_ || memory.pointer() != memory_.pointer()) {
    publisher_.emplace(HX::HXMemoryProxy(std::make_shared<HX::HXProxy>(memory, "HXMemory", author())), subscribers_);
    memory_ = std::move(memory);
  }
  return *publisher_;
}

void HostTelemetry::report(const std::string& failure) {
  if (!failure.empty() && failure != failure_) {
    mw::log::warning(kCategory, "run", "not published, and tried again with each sample: " + failure);
  }
  failure_ = failure;
}

void HostTelemetry::waitForNextSample(const std::stop_token& stop, Clock::time_point sampled) {
  std::unique_lock lock(mutex_);
  milliseconds period{};
  do {
    period = period_;
  } while (periodChanged_.wait_until(lock, stop, sampled + period, [&] { return period_ != period; }));
}

void HostTelemetry::stopSampling() {
  if (!thread_.joinable()) return;
  thread_.request_stop();
  thread_.join();
}

}  // namespace telemetry
