#include "capture_log.h"
#include "end_broker.h"
#include "expect_error.h"
#include "recorder.h"

#include <hxcommon/hxproxy.h>
#include <libmw/eventloop.h>

#include <future>
#include <limits>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using HX::HXBroker;
using HX::HXError;
using HX::HXModule;
using testing::ElementsAre;
using testing::HasSubstr;

enum class Grip : std::uint8_t { Open, Closed };

class Arm : public HXModule {
 public:
  Arm(const std::shared_ptr<HXBroker>& broker, const std::string& name) : HXModule(broker, name) {
    functionName("join", getName(), "Adds numbers.");
    bindMethodOverload(HX::createFunctor(this, static_cast<int (Arm::*)(int, int)>(&Arm::join)));
    functionName("join", getName(), "Joins texts.");
    bindMethodOverload(
        HX::createFunctor(this, static_cast<std::string (Arm::*)(const std::string&, const std::string&)>(&Arm::join)));
    functionName("arms", getName(), "Counts.");
    bindMethod(this, &Arm::arms);
    functionName("level", getName(), "Gives the number back.");
    bindMethod(this, &Arm::level);
    functionName("part", getName(), "The end of a text.");
    bindMethod(this, &Arm::part);
    functionName("grip", getName(), "The other grip.");
    bindMethod(this, &Arm::grip);
    functionName("next", getName(), "The number after it, if there is one.");
    bindMethod(this, &Arm::next);
    bindSignal("moved", moved);
  }
  std::uint8_t level(std::uint8_t given, std::size_t /*count*/) { return given; }
  std::string_view part(std::string_view text, std::uint16_t from) const { return text.substr(from); }
  Grip grip(Grip given) noexcept { return given == Grip::Open ? Grip::Closed : Grip::Open; }
  std::optional<int> next(std::optional<int> number) { return number ? std::optional(*number + 1) : std::nullopt; }
  int join(int left, int right) { return left + right; }
  std::string join(const std::string& left, const std::string& right) { return left + right; }
  int arms() const { return 2; }
  void bindLate() { bindMethod(this, &Arm::arms); }
  void bindNothing() {
    functionName("nothing", getName(), "");
    bindMethodOverload(nullptr);
  }
  void bindUndescribed() { bindMethod(this, &Arm::arms); }
  void bindAgain() {
    functionName("level", getName(), "");
    bindMethod(this, &Arm::level);
  }
  mw::Signal<int> moved;
};

class Modules : public testing::Test {
 protected:
  void TearDown() override {
    if (broker) kit::endBroker(*broker);
  }

  std::shared_ptr<Recorder> make(Behaviour behaviour) {
    return HXModule::createModule<Recorder>(broker, "Recorder", std::move(behaviour), &log);
  }

  std::vector<std::string> log;
  std::shared_ptr<HXBroker> broker = HXBroker::create("modules");
};

TEST_F(Modules, AreCalledByTheNamesOfTheirMethods) {
  const auto arm = HXModule::createModule<Arm>(broker, "Arm");
  const auto proxy = broker->getProxy("Arm");
  EXPECT_EQ(proxy->call<int>("join", 1, 2), 3);
  EXPECT_EQ(proxy->call<std::string>("join", "a", std::string("b")), "ab");
  EXPECT_EQ(proxy->call<std::int64_t>("arms"), 2);
  EXPECT_THAT(errorOf([&] { proxy->call<std::string>("arms"); }), HasSubstr("cannot convert int to string"));
  EXPECT_THAT(errorOf([&] { proxy->call("join", 1); }),
              HasSubstr("Arm.join(int): no overload takes these arguments; there is join(int, int), join(string"));
  int moved = 0;
  proxy->asObject()->connect("moved", mw::SignalSubscriber([&](int by) { moved += by; })).value();
  arm->moved(5);
  EXPECT_EQ(moved, 5);
}

TEST_F(Modules, TakeAndReturnWhatAMethodNames) {
  const auto arm = HXModule::createModule<Arm>(broker, "Arm");
  const auto proxy = broker->getProxy("Arm");
  EXPECT_EQ(proxy->call<std::uint8_t>("level", 255, 1), 255);
  EXPECT_EQ(proxy->call<HX::HXValue>("level", std::int8_t{7}, 1U), HX::HXValue(7));
  EXPECT_EQ(proxy->call<std::string>("part", std::string_view("elbow"), 2), "bow");
  EXPECT_EQ(proxy->call<HX::HXValue>("grip", 0), HX::HXValue(1));
  EXPECT_EQ(proxy->call<Grip>("grip", Grip::Closed), Grip::Open);
  EXPECT_EQ(proxy->call<int>("next", 1), 2);
  EXPECT_EQ(proxy->call<HX::HXValue>("next", HX::HXValue()), HX::HXValue());
  EXPECT_EQ(errorOf([&] { proxy->call("level", 300, 1); }), "Arm.level: argument 1: 300 does not fit uint8");
  EXPECT_EQ(errorOf([&] { proxy->call("level", 1, -1); }), "Arm.level: argument 2: -1 does not fit uint64");
  EXPECT_EQ(errorOf([&] { proxy->call<std::int8_t>("level", 200, 1); }), "200 does not fit int8");
  EXPECT_EQ(errorOf([&] { proxy->call("level", "x", 1); }),
            "Arm.level(string, int): no overload takes these arguments; there is level(uint8, uint64)");
}

TEST_F(Modules, BindOnlyWhileTheyAreConstructed) {
  const auto arm = HXModule::createModule<Arm>(broker, "Arm");
  EXPECT_THROW(arm->bindLate(), std::logic_error);
  EXPECT_THROW(arm->initModule(), std::logic_error);
  EXPECT_THAT(errorOf([&] { Arm(broker, "Other").bindNothing(); }), HasSubstr("nothing"));
  EXPECT_EQ(errorOf([&] { Arm(broker, "Other").bindUndescribed(); }),
            "module Other: functionName is called before each method that is bound");
  EXPECT_EQ(errorOf([&] { Arm(broker, "Other").bindAgain(); }), "method level(uint8, uint64) is bound already");
}

TEST_F(Modules, ThatFailToConstructLeaveNothing) {
  EXPECT_EQ(errorOf([&] { make({.construct = [](HXModule&) { throw std::runtime_error("no arms"); }}); }), "no arms");
  EXPECT_THAT(broker->modules(), ElementsAre());
  bool callable = false;
  make({.init = [&] { callable = broker->getProxy("Recorder") != nullptr; }});
  EXPECT_TRUE(callable) << "as early as in init";
}

/// `exit` after an `init` that threw an HXError: the error must arrive, and the module be gone, whatever it does.
class FailedInit : public Modules, public testing::WithParamInterface<Behaviour> {};
INSTANTIATE_TEST_SUITE_P(Exits, FailedInit,
                         testing::Values(Behaviour{}, Behaviour{.exit = [] { throw std::runtime_error("again"); }},
                                         Behaviour{.exit = [] { throw 1; }}, Behaviour{.exitLeavesBroker = false}));

TEST_P(FailedInit, EndsInExitAndTheErrorWithItsFields) {
  const kit::CaptureLog errors({"hxcommon.module"});
  Behaviour behaviour = GetParam();
  behaviour.init = [] { throw HXError("Recorder", "init", "no power", "file.cpp", 42); };
  try {
    make(behaviour);
    ADD_FAILURE() << "init did not fail";
  } catch (const HXError& error) {
    EXPECT_STREQ(error.what(), "Recorder.init: no power");
    EXPECT_EQ(error.line(), 42);
  }
  EXPECT_THAT(log, ElementsAre("Recorder exit", "Recorder destroyed"));
  EXPECT_THAT(broker->modules(), ElementsAre());
  EXPECT_EQ(errors.entries().size(), behaviour.exit ? 1U : 0U);
}

TEST_F(Modules, PassOtherFailuresOfInitUnchangedAndLeave) {
  EXPECT_THROW(make({.init = [] { throw std::out_of_range("odd"); }}), std::out_of_range);
  EXPECT_THROW(make({.init = [] { throw 3; }}), int);
  EXPECT_THAT(log, ElementsAre("Recorder destroyed", "Recorder destroyed"));
  EXPECT_THAT(broker->modules(), ElementsAre());
}

TEST_F(Modules, WhoseNameIsTakenLeaveTheFirstAlone) {
  const auto first = make({});
  EXPECT_THAT(errorOf([&] { make({}); }), HasSubstr("Recorder"));
  const auto refused = std::make_shared<Recorder>(broker, "Recorder");
  EXPECT_THROW(refused->initModule(), std::runtime_error);
  refused->exit();
  EXPECT_THAT(broker->modules(), ElementsAre("Recorder"));
  EXPECT_THAT(errorOf([&] { broker->getProxy("Recorder")->call("fail", "still there"); }), HasSubstr("still there"));
}

TEST_F(Modules, NeedABroker) {
  EXPECT_THAT(errorOf([] { Arm(nullptr, "Arm"); }), HasSubstr("Arm needs a broker"));
  const auto arm = HXModule::createModule<Arm>(broker, "Arm");
  EXPECT_EQ(arm->getParentBroker(), broker);
  broker.reset();
  EXPECT_THAT(errorOf([&] { arm->getParentBroker(); }), HasSubstr("the broker of module Arm is gone"));
  EXPECT_NO_THROW(arm->exit());
}

TEST_F(Modules, WakeUpTheirSleepersWhenTheyLeave) {
  const auto module = make({});
  const auto proxy = broker->getProxy("Recorder");
  auto sleeping = std::async(std::launch::async, [&] {
    return errorOf([&] { proxy->call("nap", std::numeric_limits<std::int64_t>::max()); });
  });
  EXPECT_NO_THROW(proxy->call("nap", 0));
  EXPECT_NO_THROW(proxy->call("nap", std::numeric_limits<std::int64_t>::min()));
  module->exit();
  EXPECT_THAT(sleeping.get(), testing::AnyOf("module Recorder is shutting down", "service Recorder is gone"));
  EXPECT_EQ(errorOf([&] { module->nap(0); }), "module Recorder is shutting down");
  EXPECT_EQ(errorOf([&] { module->checkRunning(); }), "module Recorder is shutting down");
}

TEST_F(Modules, MayLeaveFromInsideACallOfTheirOwn) {
  const std::weak_ptr<Recorder> gone = make({});
  const auto proxy = broker->getProxy("Recorder");
  EXPECT_EQ(proxy->call<std::string>("leave"), "Recorder still works");
  mw::defaultLoop().drain();
  EXPECT_TRUE(gone.expired());
  EXPECT_EQ(errorOf([&] { proxy->call("leave"); }), "service Recorder is gone");
}

}  // namespace
