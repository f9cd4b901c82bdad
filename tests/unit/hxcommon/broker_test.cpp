#include "capture_log.h"
#include "end_broker.h"
#include "expect_error.h"
#include "recorder.h"

#include <hxcommon/hxbrokermanager.h>
#include <hxcommon/hxproxy.h>
#include <libmw/eventloop.h>

#include <atomic>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using HX::HXBroker;
using HX::HXBrokerManager;
using HX::HXModule;
using testing::ElementsAre;
using testing::HasSubstr;

/// As a generated proxy would be.
struct RecorderProxy {
  explicit RecorderProxy(std::shared_ptr<HX::HXProxy> of) : proxy(std::move(of)) {}
  std::shared_ptr<HX::HXProxy> proxy;
};

class Brokers : public testing::Test {
 protected:
  void TearDown() override {
    if (broker) kit::endBroker(*broker);
  }

  std::shared_ptr<Recorder> make(const std::string& name, Behaviour behaviour = {}) {
    return HXModule::createModule<Recorder>(broker, name, std::move(behaviour), &log);
  }

  Recorder::Log log;
  std::shared_ptr<HXBroker> broker = HXBroker::create("brokers");
};

TEST_F(Brokers, GiveProxiesOfWhatIsThere) {
  make("Arm");
  EXPECT_EQ(broker->getSpecialisedProxy<RecorderProxy>("Arm")->proxy, broker->getProxy("Arm"));
  EXPECT_EQ(broker->getProxy("Nobody"), nullptr);
  EXPECT_THAT(errorOf([&] { broker->getSpecialisedProxy<RecorderProxy>("Nobody"); }), HasSubstr("Nobody"));
  EXPECT_FALSE(broker->unregisterModule("Nobody"));
  broker->session()->setResolver([](const std::string& name) {
    return name == "Null" ? mw::makeReadyFuture(mw::AnyObject()) : mw::Future<mw::AnyObject>::canceled();
  });
  EXPECT_EQ(broker->getProxy("Null"), nullptr);
  EXPECT_EQ(broker->getProxy("Cancelled"), nullptr);
}

TEST_F(Brokers, GiveTheSameProxyAsLongAsTheModuleIsTheSame) {
  const std::weak_ptr<Recorder> gone = make("Arm");
  const auto* first = broker->getProxy("Arm").get();
  EXPECT_EQ(broker->getProxy("Arm").get(), first) << "also when nobody held it meanwhile";
  const auto old = broker->getProxy("Arm");
  EXPECT_TRUE(broker->unregisterModule("Arm"));
  EXPECT_TRUE(gone.expired()) << "proxies do not keep it";
  EXPECT_EQ(broker->getProxy("Arm"), nullptr);
  make("Arm");
  const auto renewed = broker->getProxy("Arm");
  EXPECT_NE(renewed, old);
  EXPECT_EQ(errorOf([&] { old->call("nap", 0); }), "service Arm is gone");
  EXPECT_NO_THROW(renewed->call("nap", 0));
  broker->session()->eventLoop().drain();
  EXPECT_EQ(broker->getProxy("Arm"), renewed) << "the late notice of the predecessor changes nothing";
}

TEST_F(Brokers, ShutDownFromTheLastModuleToTheFirstAlsoWhenTheyGo) {
  for (const char* name : {"first", "second"}) make(name);
  EXPECT_THAT(broker->modules(), ElementsAre("first", "second"));
  broker->shutdown();
  broker->shutdown();
  EXPECT_THAT(log, ElementsAre("second exit", "second destroyed", "first exit", "first destroyed"));
  EXPECT_THAT(errorOf([&] { make("late"); }), HasSubstr("late"));
  broker = HXBroker::create("next");
  log.clear();
  make("Arm");
  broker.reset();
  EXPECT_THAT(log, ElementsAre("Arm exit", "Arm destroyed"));
}

TEST_F(Brokers, ShutDownWhateverTheirModulesDo) {
  const kit::CaptureLog errors({"hxcommon.broker"});
  make("throws", {.exit = [] { throw std::runtime_error("jammed"); }});
  make("throws 1", {.exit = [] { throw 1; }});
  make("stays", {.exitLeavesBroker = false});
  make("recurses", {.exit = [&] { broker->shutdown(); }});
  make("registers", {.exit = [&] {
         EXPECT_THAT(errorOf([&] { make("too late"); }), HasSubstr("too late"));
         EXPECT_EQ(broker->getProxy("too late"), nullptr);
       }});
  const auto held = make("held");
  broker->shutdown();
  EXPECT_THAT(broker->modules(), ElementsAre());
  EXPECT_TRUE(broker->session()->services().empty());
  EXPECT_THAT(errors.texts(),
              ElementsAre("module held has left, and somebody still holds it",
                          "exit of module throws 1: unknown exception", "exit of module throws: jammed"));
}

TEST_F(Brokers, ServeProxiesWhileModulesComeAndGo) {
  std::atomic<bool> stop{false};
  std::thread asking([&] {
    while (!stop) {
      try {
        if (const auto proxy = broker->getProxy("Arm")) proxy->call("nap", 0);
      } catch (const std::runtime_error& error) {
        EXPECT_THAT(error.what(), testing::AnyOf(HasSubstr("service Arm is gone"), HasSubstr("shutting down")));
      }
    }
  });
  for (int i = 0; i < 200; ++i) {
    const std::weak_ptr<Recorder> gone = make("Arm");
    broker->unregisterModule("Arm");
    EXPECT_TRUE(gone.expired());
  }
  stop = true;
  asking.join();
}

TEST(BrokerManager, KnowsBrokersOnceAndDoesNotKeepThem) {
  const auto before = HXBrokerManager::getInstance();
  const auto manager = std::make_shared<HXBrokerManager>();
  HXBrokerManager::setInstance(manager);
  auto broker = HXBroker::create("one");
  EXPECT_EQ(broker->getBrokerManager().lock(), manager);
  HXBrokerManager::setInstance(nullptr);
  EXPECT_NE(HXBrokerManager::getInstance(), manager);
  HXBrokerManager::setInstance(before);

  manager->addBroker(broker);
  const auto second = HXBroker::create("two", manager);
  EXPECT_THAT(manager->brokers(), ElementsAre(broker, second));
  EXPECT_EQ(manager->getBroker("two"), second);
  EXPECT_EQ(manager->getBroker("three"), nullptr);
  broker.reset();
  EXPECT_THAT(manager->brokers(), ElementsAre(second));
  manager->removeBroker(second);
  EXPECT_THAT(manager->brokers(), ElementsAre());
}

}  // namespace
