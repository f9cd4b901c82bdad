#include "door.h"
#include "expect_error.h"

#include <libmw/dynamicobject.h>
#include <libmw/eventloop.h>

#include <atomic>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <utility>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using mw::AnyFunction;
using mw::MetaCallType;
using testing::HasSubstr;

class TypedObjects : public testing::Test {
 protected:
  TypedObjects() { registerHouse(); }
  std::shared_ptr<Door> door = std::make_shared<Door>();
  mw::AnyObject object = mw::AnyObject::from(door);
};

TEST_F(TypedObjects, KeepTheInstance) {
  const std::weak_ptr<Door> kept = std::exchange(door, nullptr);
  EXPECT_EQ(object->call<int>("open"), 1);
  object.reset();
  EXPECT_TRUE(kept.expired());
}

TEST_F(TypedObjects, ConnectAndDisconnectSignals) {
  int heard = 0;
  const auto link = object->connect("opened", mw::SignalSubscriber([&](int by) { heard += by; })).value();
  door->opened(1);
  object->post("opened", 10);
  EXPECT_TRUE(object->disconnect(link).hasValue());
  door->opened(1);
  EXPECT_EQ(heard, 11);
  EXPECT_THAT(object->disconnect(link).error(), HasSubstr("no connection with link"));
}

TEST_F(TypedObjects, RefuseIdsThatTheyDoNotHave) {
  const auto member = static_cast<unsigned>(object->metaObject().signalId("opened"));
  EXPECT_THAT(object->metaCall(99, {}).error(), HasSubstr("Door: no method with id 99"));
  EXPECT_THAT(object->metaCall(member, {}).error(), HasSubstr("no method with id"));
  EXPECT_THAT(object->connect(0U, mw::SignalSubscriber([] {})).error(), HasSubstr("no signal with id 0"));
  EXPECT_THAT(object->metaProperty(0).error(), HasSubstr("no property with id 0"));
  EXPECT_THAT(object->metaSetProperty(0, mw::AnyValue(1)).error(), HasSubstr("no property with id 0"));
}

/// An object with one method, "run".
template <class F>
std::shared_ptr<mw::DynamicObject> objectThat(F run, MetaCallType callType = MetaCallType::Auto,
                                              mw::ObjectThreadingModel model = mw::ObjectThreadingModel::SingleThread) {
  mw::ObjectBuilder builder;
  builder.setThreadingModel(model);
  builder.advertiseMethod(mw::MetaMethodBuilder("run", "", ""), AnyFunction::from(std::move(run)), callType);
  return std::make_shared<mw::DynamicObject>(builder.build(), nullptr);
}

TEST(DynamicObjects, KeepProperties) {
  mw::ObjectBuilder builder;
  const unsigned id = builder.advertiseProperty("colour");
  const auto object = std::make_shared<mw::DynamicObject>(builder.build(), nullptr);
  EXPECT_EQ(object->metaObject().propertyId("colour"), static_cast<int>(id));
  object->metaSetProperty(id, mw::AnyValue(std::string("red"))).value();
  EXPECT_EQ(object->metaProperty(id).take().take<std::string>(), "red");
}

TEST(DynamicObjects, QueuedCallsRunOnTheLoopWithCopiedArguments) {
  const auto onLoop = [](const std::string& text) { return text + (mw::defaultLoop().isInThisLoop() ? " loop" : ""); };
  EXPECT_EQ(objectThat(onLoop, MetaCallType::Queued)->call<std::string>("run", "literal"), "literal loop");
}

/// How many of the calls that two threads make are inside at once.
int inParallel(mw::ObjectThreadingModel model) {
  std::atomic<int> inside{0};
  std::atomic<int> most{0};
  std::promise<void> both;
  const auto meet = [&](bool wait) {
    const int now = ++inside;
    if (now > most) most = now;
    if (now == 2) both.set_value();
    if (wait) both.get_future().wait();
    --inside;
  };
  const auto object = objectThat(meet, MetaCallType::Auto, model);
  const bool parallel = model == mw::ObjectThreadingModel::MultiThread;
  std::thread other([&] { object->call("run", parallel); });
  while (parallel && inside == 0) std::this_thread::yield();
  object->call("run", false);
  other.join();
  return most;
}

TEST(DynamicObjects, RunCallsAsTheirThreadingModelSays) {
  EXPECT_EQ(inParallel(mw::ObjectThreadingModel::MultiThread), 2);
  EXPECT_EQ(inParallel(mw::ObjectThreadingModel::SingleThread), 1);
}

TEST(DynamicObjects, OfTheSingleThreadedModelMayCallThemselves) {
  mw::DynamicObject* self = nullptr;
  const auto object = objectThat([&](int n) { return n < 2 ? 1 : n * self->call<int>("run", n - 1); });
  self = object.get();
  EXPECT_EQ(object->call<int>("run", 5), 120);
}

TEST(DynamicObjects, FailuresOfMethodsArriveUnchanged) {
  const auto object = objectThat([](int kind) {
    if (kind == 0) throw std::out_of_range("zero");
    throw kind;
  });
  EXPECT_THROW(object->call("run", 0), std::out_of_range);
  EXPECT_THROW(object->call("run", 1), int);
  EXPECT_EQ(object->async("run", 0).error(), "zero");
}

}  // namespace
