#include "capture_log.h"
#include "door.h"
#include "expect_error.h"
#include "sitter.h"

#include <libmw/dynamicobject.h>
#include <libmw/eventloop.h>
#include <libmw/remoteerror.h>
#include <libmw/session.h>

#include <atomic>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

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
  const auto unknown = object->metaCall(99, {});
  EXPECT_THAT(unknown.error(), HasSubstr("Door: no method with id 99"));
  EXPECT_THROW(unknown.value(), mw::NoSuchMethodError);
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

TEST(DynamicObjects, OfTheSingleThreadedModelAreFreeForWhoeverHearsWhatTheyLog) {
  const kit::CaptureLog quiet({"object"});
  const auto object = objectThat([](bool logs) {
    if (logs) mw::log::info("object", "run", "inside");
  });
  bool isFree = false;
  std::future<void> call;  // It outlives the sink: its end waits for the call.
  const auto sink = mw::log::addSink([&](const mw::LogRecord& record) {
    if (record.category != "object") return;
    call = std::async(std::launch::async, [&] { object->call("run", false); });
    isFree = call.wait_for(std::chrono::seconds(20)) == std::future_status::ready;
  });
  object->call("run", true);
  mw::log::removeSink(sink);
  EXPECT_TRUE(isFree);
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

/// An object that notes the numbers with which it is called, and one call of which stays inside.
class CallsOfOneThread : public testing::Test {
 protected:
  CallsOfOneThread() {
    const auto add = [this](const std::string& name, auto function) {
      builder_.advertiseMethod(mw::MetaMethodBuilder(name, "", ""), AnyFunction::from(std::move(function)));
    };
    add("add", [this](int number) { order.push_back(number); });
    add("sit", [this] { sitter.sit(); });
    add("one", [] { return 1; });
    add("fail", [] { throw std::runtime_error("not today"); });
    add("postAndCall", [this] {
      object->post("sit");
      return object->call<int>("one");
    });
    builder_.advertiseSignal("added", added);
    builder_.setTypeName("Log").setThreadingModel(mw::ObjectThreadingModel::MultiThread);
    object = mw::AnyObject(std::make_shared<mw::DynamicObject>(builder_.build(), nullptr));
    session.registerService("Log", object);
  }

  ~CallsOfOneThread() override { mw::defaultLoop().drain(); }

  kit::Sitter sitter;
  std::vector<int> order;  // Calls never overlap, which the thread sanitizer checks.
  mw::Signal<int> added;
  mw::AnyObject object;
  mw::Session session;

 private:
  mw::ObjectBuilder builder_;
};

TEST_F(CallsOfOneThread, StartInTheOrderMade) {
  added.connect(mw::SignalSubscriber([this](int number) { order.push_back(number); }));
  const auto handle = session.service("Log").value();
  std::vector<int> expected;
  const auto next = [&] { return expected.emplace_back(static_cast<int>(expected.size())); };
  for (int i = 0; i < 500; ++i) {
    handle->async("add", next());
    object->post("add", next());
    i % 2 == 0 ? handle->call("add", next()) : object->post("added", next());
    handle->post("add", next());
  }
  handle->call("one");
  EXPECT_EQ(order, expected);
}

TEST_F(CallsOfOneThread, DoNotWaitForThoseOfOthersNorForWhatTheyPostFromInside) {
  std::thread([this] { object->post("sit"); }).join();
  EXPECT_EQ(object->call<int>("one"), 1);
  sitter.release();
  mw::defaultLoop().drain();
  sitter.reset();
  EXPECT_EQ(object->call<int>("postAndCall"), 1);
  sitter.release();
}

TEST_F(CallsOfOneThread, GoOnWhileAResultIsLookedAt) {
  std::promise<int> second;
  const auto first = object->async("sit");
  const auto looked = first.andThen([&](const mw::AnyValue&) { return second.get_future().get(); });
  object->async("one").andThen([&](const mw::AnyValue& one) { second.set_value(one.reference().to<int>()); });
  sitter.release();
  EXPECT_EQ(looked.value(), 1);
}

TEST_F(CallsOfOneThread, AreSkippedWhenTheyAreCancelledBeforeTheyBegin) {
  const auto sitting = object->async("sit");
  auto skipped = object->async("add", 1);
  skipped.cancel();
  sitter.awaitEntry();
  auto begun = sitting;
  begun.cancel();
  sitter.release();
  EXPECT_EQ(object->call<int>("one"), 1);
  EXPECT_TRUE(skipped.isCanceled());
  EXPECT_TRUE(begun.hasValue());
  EXPECT_TRUE(order.empty());
}

TEST_F(CallsOfOneThread, AreLoggedWhenTheyArePostedAndFail) {
  const kit::CaptureLog log({"mw.object"});
  object->post("fail");
  EXPECT_EQ(object->async("fail").error(), "not today");
  EXPECT_THAT(log.entries(), testing::ElementsAre(kit::CaptureLog::Entry{mw::LogLevel::Warning, "mw.object", "post",
                                                                         "Log.fail, posted, failed: not today"}));
}

}  // namespace
