#include "capture_log.h"

#include <hxcommon/hxbroker.h>
#include <hxcommon/subscribers.h>
#include <libmw/dynamicobject.h>
#include <libmw/eventloop.h>

#include <optional>
#include <stdexcept>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using testing::ElementsAre;

const std::string kLoad = "Load";
const std::string kCoreLoad = "Core/Load";

/// What an extractor uses of the memory.
class Memory : public mw::DynamicObject {
 public:
  Memory() {
    mw::ObjectBuilder builder;
    builder.setThreadingModel(mw::ObjectThreadingModel::MultiThread);
    builder.advertiseMethod(mw::MetaMethodBuilder("declareEvent", {}, {}),
                            mw::AnyFunction::from([this](const std::string& event, const std::string& extractor) {
                              if (broken) throw std::runtime_error("broken");
                              declared.push_back(extractor + " " + event);
                            }));
    builder.advertiseMethod(mw::MetaMethodBuilder("getSubscribers", {}, {}),
                            mw::AnyFunction::from([this](const std::string&) { return subscribers; }));
    setType(builder.build());
  }

  bool broken = false;
  std::vector<std::string> subscribers;
  std::vector<std::string> declared;
};

class SubscribersOfAnExtractor : public testing::Test {
 protected:
  /// The notice of the memory would have events declared on another thread.
  void SetUp() override { settle(); }

  mw::Session& session() { return *broker_->session(); }

  template <class Service = mw::DynamicObject>
  std::shared_ptr<Service> come(const std::string& name) {
    auto service = std::make_shared<Service>();
    session().registerService(name, mw::AnyObject(service));
    return service;
  }

  void leave(const std::string& name) {
    for (const auto& service : session().services()) {
      if (service.name == name) session().unregisterService(service.id);
    }
  }

  void settle() { session().eventLoop().drain(); }

  const std::shared_ptr<HX::HXBroker> broker_ = HX::HXBroker::create("subscribers");
  const std::shared_ptr<Memory> memory_ = come<Memory>("HXMemory");
  std::vector<std::string> told_;
  std::optional<HX::Subscribers> subscribers_{
      std::in_place, broker_->session(), "Sensor",
      [this](const std::string& event, bool isWanted) { told_.push_back((isWanted ? "+" : "-") + event); }};
};

TEST_F(SubscribersOfAnExtractor, CountOnceAndAreToldOfByTheFirstAndTheLast) {
  subscribers_->add("LoggerLoad");
  EXPECT_FALSE(subscribers_->want(kLoad)) << "which is not declared yet";
  subscribers_->declare(kLoad);
  subscribers_->declare(kCoreLoad);
  for (const char* id : {"LoggerLoad", "LoggerLoad", "DisplayLoad", "LoggerCore/Load", "Load", "LoggerOther"}) {
    subscribers_->add(id);
  }
  EXPECT_THAT(subscribers_->of(kLoad), ElementsAre("Display", "Logger"));
  EXPECT_THAT(subscribers_->of(kCoreLoad), ElementsAre("Logger")) << "of two events that end it the longer one";
  subscribers_->remove("LoggerLoad");
  subscribers_->remove("LoggerLoad");
  EXPECT_THAT(told_, ElementsAre("+Load", "+Core/Load"));
  subscribers_->remove("DisplayLoad");
  EXPECT_THAT(told_, ElementsAre("+Load", "+Core/Load", "-Load"));
  EXPECT_FALSE(subscribers_->want(kLoad));
  EXPECT_TRUE(subscribers_->want(kCoreLoad));
}

TEST_F(SubscribersOfAnExtractor, AreForgottenWithTheirServiceUnlessItHasComeAgain) {
  subscribers_->declare(kLoad);
  subscribers_->declare(kCoreLoad);
  for (const char* name : {"Log", "Logger"}) come(name);
  for (const char* id : {"LogLoad", "LogCore/Load", "LoggerLoad"}) subscribers_->add(id);
  {
    const mw::Session::NoticeHold hold(session());
    leave("Log");
    come("Log");
  }
  settle();
  EXPECT_THAT(subscribers_->of(kLoad), ElementsAre("Log", "Logger")) << "which may have subscribed again";
  leave("Log");
  settle();
  EXPECT_THAT(subscribers_->of(kLoad), ElementsAre("Logger"));
  EXPECT_THAT(told_, ElementsAre("+Load", "+Core/Load", "-Core/Load"));
}

TEST_F(SubscribersOfAnExtractor, GoWithTheMemoryAndAreLearntFromTheNextOne) {
  memory_->subscribers = {"Early"};
  subscribers_->declare(kLoad);
  subscribers_->declare(kLoad);
  EXPECT_THAT(memory_->declared, ElementsAre("Sensor Load"));
  EXPECT_THAT(subscribers_->of(kLoad), ElementsAre("Early"));
  leave("HXMemory");
  settle();
  EXPECT_FALSE(subscribers_->want(kLoad));
  subscribers_->declare(kCoreLoad);

  const auto next = std::make_shared<Memory>();
  next->subscribers = {"Late"};
  session().registerService("HXMemory", mw::AnyObject(next));
  settle();
  EXPECT_THAT(next->declared, ElementsAre("Sensor Core/Load", "Sensor Load"));
  EXPECT_THAT(subscribers_->of(kLoad), ElementsAre("Late"));
  EXPECT_THAT(told_, ElementsAre("+Load", "-Load", "+Core/Load", "+Load"));
}

TEST_F(SubscribersOfAnExtractor, OfAMemoryThatWasReplacedUnnoticedAreReplacedAtTheNextDeclaration) {
  memory_->subscribers = {"Early"};
  subscribers_->declare(kLoad);
  subscribers_->declare(kCoreLoad);
  std::shared_ptr<Memory> next;
  {
    const mw::Session::NoticeHold hold(session());
    leave("HXMemory");
    next = come<Memory>("HXMemory");
    subscribers_->declare(kLoad);
    EXPECT_FALSE(subscribers_->want(kLoad));
    subscribers_->add("NewLoad");
  }
  settle();
  EXPECT_THAT(next->declared, ElementsAre("Sensor Load", "Sensor Core/Load")) << "and each of them once";
  EXPECT_THAT(subscribers_->of(kLoad), ElementsAre("New")) << "the late notice is of the former memory";
}

TEST_F(SubscribersOfAnExtractor, AreAskedForAgainWhereTheDeclarationFailed) {
  settle();  // The notice of the first memory.
  memory_->broken = true;
  EXPECT_THROW(subscribers_->declare(kLoad), std::runtime_error);
  leave("HXMemory");
  const kit::CaptureLog log({"hxcommon.subscribers"});
  session().registerService("HXMemory", mw::AnyObject(memory_));
  settle();
  EXPECT_THAT(log.texts(), ElementsAre("Sensor could not declare Load again: broken"));
  memory_->broken = false;
  subscribers_->declare(kLoad);
  EXPECT_THAT(memory_->declared, ElementsAre("Sensor Load"));
}

TEST_F(SubscribersOfAnExtractor, MayBeChangedByWhoIsTold) {
  const kit::CaptureLog log({"hxcommon.subscribers"});
  subscribers_.emplace(broker_->session(), "Sensor", [this](const std::string& event, bool isWanted) {
    told_.push_back((isWanted ? "+" : "-") + event);
    subscribers_->remove("LoggerLoad");
    if (!isWanted) throw std::runtime_error("no sensor");
  });
  subscribers_->declare(kLoad);
  subscribers_->add("LoggerLoad");
  EXPECT_THAT(told_, ElementsAre("+Load", "-Load"));
  EXPECT_THAT(log.texts(), ElementsAre("Sensor failed at a change for Load: no sensor"));
  subscribers_.reset();
  leave("Logger");
  settle();
  EXPECT_THAT(told_.size(), 2U);
}

}  // namespace
