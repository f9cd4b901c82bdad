#include "hosttelemetry.h"

#include "capture_log.h"
#include "listener.h"
#include "memory_fixture.h"
#include "print_value.h"
#include "temporary_folder.h"

#include <libmw/future.h>

#include <cstdlib>
#include <fstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace telemetry {
namespace {

using namespace std::chrono_literals;
using HX::HXValue;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

const std::string kEvent = "Host/Sampled/Memory/Used";

class RunningTelemetry : public kit::MemoryFixture {
 protected:
  RunningTelemetry() { std::ofstream(folder_.path() / "meminfo") << "MemTotal: 4 kB\nMemAvailable: 1 kB\n"; }

  void load() {
    broker->provideSettings("HostTelemetry", HX::GivenSettings::of(HXValue::map({{"period", "10ms"}})));
    telemetry =
        HX::HXModule::createModule<HostTelemetry>(broker, "HostTelemetry", Sensors(folder_.path(), folder_.path()));
  }

  void TearDown() override {
    telemetry.reset();
    MemoryFixture::TearDown();
  }

  void leaveMemory() {
    generic.reset();
    memory->exit();
    memory.reset();
  }

  void returnMemory() {
    memory = HX::HXModule::createModule<HX::HXMemory>(broker, "HXMemory");
    generic = broker->getProxy("HXMemory");
  }

  /// Waits until the memory has the key.
  void waitForKey(const std::string& key) {
    mw::Promise<void> added;
    const auto wrapper = memory->subscriber("HXMemory/KeyAdded");
    const mw::SignalLink link = wrapper->signal.connect(mw::SignalSubscriber([added, key](const HXValue& name) mutable {
      if (name == HXValue(key)) added.trySetValue();
    }));
    // It may have come before the connection did.
    if (memory->xGetSTMValue(key)) added.trySetValue();
    EXPECT_NO_THROW(added.future().value(30s)) << key;
    wrapper->signal.disconnect(link);
  }

  /// What a subscriber is told first.
  mw::Future<HXValue> firstTold() {
    mw::Promise<HXValue> told;
    const auto listener = kit::Listener::make(false);
    listener->react = [told](const auto& heard) mutable { told.trySetValue(heard.value); };
    broker->session()->registerService("Display", mw::AnyObject(listener));
    memory->subscribeToEvent(kEvent, "Display", "heard");
    return told.future();
  }

  std::shared_ptr<HostTelemetry> telemetry;

 private:
  const kit::TemporaryFolder folder_;
};

TEST_F(RunningTelemetry, WaitsForTheMemoryAndSaysSoOnce) {
  leaveMemory();
  const kit::CaptureLog log({"hosttelemetry"});
  load();
  ASSERT_TRUE(log.waitFor(1));
  returnMemory();
  waitForKey("Host/Memory/Used");
  EXPECT_THAT(log.texts(), ElementsAre(HasSubstr("HXMemory")));
}

TEST_F(RunningTelemetry, TellsAMemoryThatComesAgainEverythingAnew) {
  load();
  waitForKey(kEvent);
  leaveMemory();
  returnMemory();
  waitForKey(kEvent);
  EXPECT_THAT(memory->getExtractorEvent("HostTelemetry"), ElementsAre(kEvent));
}

TEST_F(RunningTelemetry, IsGoneAfterItsExit) {
  load();
  const std::weak_ptr<HostTelemetry> gone = telemetry;
  telemetry->exit();
  telemetry.reset();
  EXPECT_TRUE(gone.expired());
}

TEST_F(RunningTelemetry, SamplesAtOnceWhenALongPeriodIsCutShort) {
  load();
  telemetry->setPeriod(3'600'000);
  waitForKey(kEvent);
  const auto told = firstTold();
  telemetry->setPeriod(10);
  EXPECT_EQ(told.value(30s), HXValue(0.75));
}

TEST_F(RunningTelemetry, RefusesAPeriodOutOfRangeAndKeepsTheOldOne) {
  load();
  for (const int period : {-1, 0, 9, 3'600'001}) EXPECT_THROW(telemetry->setPeriod(period), HX::HXError) << period;
  EXPECT_EQ(telemetry->getPeriod(), 10);
}

}  // namespace
}  // namespace telemetry
