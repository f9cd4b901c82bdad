#include "capture_log.h"
#include "expect_error.h"
#include "look_ups.h"
#include "sitter.h"

#include <libmw/dynamicobject.h>
#include <libmw/eventloop.h>
#include <libmw/session.h>

#include <atomic>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using mw::AnyFunction;
using mw::AnyObject;
using mw::Session;
using mw::SignalSubscriber;
using testing::ElementsAre;
using testing::HasSubstr;

/// An object with one method, "run".
AnyObject serviceThat(std::function<void()> run) {
  mw::ObjectBuilder builder;
  builder.setTypeName("Runner").setThreadingModel(mw::ObjectThreadingModel::MultiThread);
  builder.advertiseMethod(mw::MetaMethodBuilder("run", "", ""), AnyFunction::from(std::move(run)));
  return AnyObject(std::make_shared<mw::DynamicObject>(builder.build(), nullptr));
}

class Sessions : public testing::Test {
 protected:
  void TearDown() override {
    session.close();
    EXPECT_TRUE(session.services().empty());
  }

  /// Remembers the notices; a leading "-" is one of a withdrawal.
  void listen() {
    session.serviceRegistered.connect(SignalSubscriber([this](mw::ServiceId, const std::string& name) {
      onLoop = onLoop && loop.isInThisLoop();
      notices.push_back(name);
    }));
    session.serviceUnregistered.connect(
        SignalSubscriber([this](mw::ServiceId, const std::string& name) { notices.push_back("-" + name); }));
  }

  mw::EventLoop loop;
  std::vector<std::string> notices;
  bool onLoop = true;
  Session session{loop};
};

TEST_F(Sessions, FindTheServicesOfTheirProcess) {
  int runs = 0;
  const auto object = serviceThat([&] { ++runs; });
  const auto id = session.registerService("Motor", object);
  const auto found = session.service("Motor");
  ASSERT_TRUE(found.isFinished()) << "at once";
  EXPECT_EQ(found.value(), object) << "one identity, whatever the handle";
  found.value()->call("run");
  found.value()->async("run").value();
  EXPECT_EQ(runs, 2);
  ASSERT_EQ(session.services().size(), 1U);
  EXPECT_EQ(session.services().front().id, id);
  EXPECT_THAT(session.service("Wheel").error(), HasSubstr("Wheel"));
}

TEST_F(Sessions, RefuseServicesThatCannotBe) {
  const auto refusal = [&](const std::string& name, const AnyObject& object) {
    return errorOf([&] { session.registerService(name, object); });
  };
  const auto object = serviceThat([] {});
  session.registerService("Motor", object);
  EXPECT_THAT(refusal("Motor", object), HasSubstr("Motor"));
  EXPECT_THAT(refusal("", object), HasSubstr("without a name"));
  EXPECT_THAT(refusal("Wheel", AnyObject()), HasSubstr("Wheel"));
  EXPECT_FALSE(session.unregisterService(99));
  session.close();
  session.close();
  EXPECT_TRUE(session.services().empty());
  EXPECT_THAT(refusal("Late", object), HasSubstr("Late"));
}

// A service that one thread registers and another withdraws at once: the notices must not arrive the wrong way round.
TEST_F(Sessions, AnnounceInOrderWhatSeveralThreadsDo) {
  listen();
  std::atomic<bool> done{false};
  std::thread withdrawer([&] {
    while (!done || !session.services().empty()) {
      for (const auto& service : session.services()) session.unregisterService(service.id);
    }
  });
  const auto object = serviceThat([] {});
  for (int i = 0; i < 500; ++i) session.registerService("Service" + std::to_string(i), object);
  done = true;
  withdrawer.join();
  session.announce(1000, "Elsewhere", true);
  loop.drain();
  ASSERT_EQ(notices.size(), 1001U);
  EXPECT_EQ(notices.back(), "Elsewhere");
  EXPECT_TRUE(onLoop);
  for (int i = 0; i < 500; ++i) {
    const std::string name = "Service" + std::to_string(i);
    EXPECT_LT(std::ranges::find(notices, name), std::ranges::find(notices, "-" + name));
  }
}

TEST_F(Sessions, HoldNoticesBack) {
  {
    const Session::NoticeHold outer(session);
    { const Session::NoticeHold inner(session); }
    session.registerService("Motor", serviceThat([] {}));
    loop.drain();
    listen();
  }
  loop.drain();
  EXPECT_THAT(notices, ElementsAre("Motor"));
}

TEST_F(Sessions, TellWhoConnectsLateWhatItHasMissedInItsOrderAndNobodyElseWaits) {
  listen();
  session.registerService("Before", serviceThat([] {}));
  loop.drain();
  std::vector<std::string> late;
  {
    const Session::CatchUp catchUp(session);
    const auto first = session.registerService("First", serviceThat([] {}));
    loop.drain();
    EXPECT_THAT(notices, ElementsAre("Before", "First")) << "nobody waits for who is late";
    const auto note = [&](mw::ServiceId, const std::string& name) { late.push_back(name); };
    std::thread([&] { session.serviceUnregistered.connect(SignalSubscriber(note)); }).join();
    session.unregisterService(first);
    loop.drain();
    session.serviceRegistered.connect(SignalSubscriber(note));
  }
  session.registerService("After", serviceThat([] {}));
  loop.drain();
  session.serviceUnregistered.disconnectAll();  // The session outlives `late`.
  session.serviceRegistered.disconnectAll();
  EXPECT_THAT(late, ElementsAre("First", "First", "After"));
  EXPECT_THAT(notices, ElementsAre("Before", "First", "-First", "After"));
}

TEST_F(Sessions, AnnounceNothingOnceTheyAreGone) {
  for (int round = 0; round < 50; ++round) {
    std::atomic<bool> gone{false};
    {
      Session other(loop);
      other.serviceUnregistered.connect(
          SignalSubscriber([&](mw::ServiceId, const std::string&) { EXPECT_FALSE(gone); }));
      for (const char* name : {"first", "second", "third"}) other.registerService(name, serviceThat([] {}));
    }
    gone = true;
    loop.drain();
  }
}

TEST_F(Sessions, MayBeDestroyedByAHandler) {
  std::optional<Session> other(std::in_place, loop);
  other->serviceRegistered.connect(SignalSubscriber([&](mw::ServiceId, const std::string&) { other.reset(); }));
  other->registerService("Motor", serviceThat([] {}));
  loop.drain();
  EXPECT_FALSE(other);
}

TEST_F(Sessions, AskTheResolverForOthers) {
  const auto object = serviceThat([] {});
  session.registerService("Near", object);
  {
    kit::LookUps lookUps(session);
    const auto found = session.service("Far");
    const auto missing = session.service("Missing");
    EXPECT_TRUE(session.service("Near").isFinished());
    EXPECT_TRUE(found.isRunning());
    lookUps.take("Far").setValue(object);
    lookUps.take("Missing").setError("nobody offers Missing");
    EXPECT_EQ(found.value(), object);
    EXPECT_EQ(missing.error(), "nobody offers Missing");
  }
  using Found = mw::Future<AnyObject>;
  const std::pair<std::function<Found(const std::string&)>, std::string> failing[] = {
      {[](const std::string&) -> Found { throw std::runtime_error("no network"); }, "no network"},
      {[](const std::string&) { return Found(); }, "Far"},
      {{}, "Far"}};
  for (const auto& [resolver, error] : failing) {
    session.setResolver(resolver);
    EXPECT_THAT(session.service("Far").error(), HasSubstr(error));
  }
}

/// Takes every service but a wheel.
class PickyDirectory final : public mw::RemoteDirectory {
 public:
  mw::Future<AnyObject> find(const std::string&) override {
    ++asked;
    return mw::makeReadyFuture(AnyObject());
  }
  mw::Future<std::vector<mw::ServiceInfo>> services() override {
    return mw::makeReadyFuture(std::vector<mw::ServiceInfo>());
  }
  void offer(mw::ServiceId, const std::string& name, const AnyObject&) override {
    if (name == "Wheel") throw std::runtime_error("Wheel is taken");
  }
  void withdraw(mw::ServiceId, const std::string&) override {}

  int asked = 0;
};

TEST_F(Sessions, TakeBackWhatADirectoryRefusesAndDoNotJoinOneThatDoes) {
  const auto directory = std::make_shared<PickyDirectory>();
  const auto object = serviceThat([] {});
  listen();
  session.join(directory);
  session.registerService("Motor", object);
  EXPECT_EQ(errorOf([&] { session.registerService("Wheel", object); }), "Wheel is taken");
  ASSERT_EQ(session.services().size(), 1U);
  EXPECT_FALSE(session.ownService("Wheel"));
  loop.drain();
  EXPECT_THAT(notices, ElementsAre("Motor", "Wheel", "-Wheel"));

  session.join(nullptr);
  session.registerService("Wheel", object);
  EXPECT_EQ(errorOf([&] { session.join(directory); }), "Wheel is taken");
  EXPECT_FALSE(session.service("Far").hasValue());
  EXPECT_EQ(directory->asked, 0);
}

TEST_F(Sessions, CutHandlesOffWhenAServiceIsWithdrawn) {
  auto object = serviceThat([] {});
  const std::weak_ptr<mw::GenericObject> gone = object.pointer();
  const auto id = session.registerService("Motor", std::move(object));
  const auto handle = session.service("Motor").value();
  EXPECT_TRUE(session.unregisterService(id));
  EXPECT_TRUE(gone.expired()) << "handles do not keep it";
  const std::string error = "service Motor is gone";
  EXPECT_EQ(errorOf([&] { handle->call("run"); }), error);
  EXPECT_EQ(handle->async("run").error(), error);
  EXPECT_EQ(handle->metaConnect(0, SignalSubscriber([] {})).error(), error);
  EXPECT_EQ(errorOf([&] { handle->metaPost(7, {}); }), error);
}

/// A service whose calls stay inside until they are released.
class WithdrawalDuringACall : public Sessions {
 protected:
  WithdrawalDuringACall() {
    id = session.registerService("Motor", serviceThat([this] { sitter.sit(); }));
    handle = session.service("Motor").value();
    caller = std::thread([this] { handle->call("run"); });
    sitter.awaitEntry();
  }
  ~WithdrawalDuringACall() override { caller.join(); }

  mw::ServiceId id = 0;
  AnyObject handle;
  kit::Sitter sitter;
  std::thread caller;
};

TEST_F(WithdrawalDuringACall, WakesItUpAndWaitsForIt) {
  EXPECT_TRUE(session.unregisterService(id, [&] {
    EXPECT_THROW(handle->call("run"), std::runtime_error) << "new calls are refused by now";
    sitter.release();
  }));
  EXPECT_TRUE(sitter.left);
}

TEST_F(WithdrawalDuringACall, LogsALongWait) {
  const kit::CaptureLog log({"mw.session"});
  session.setDrainPatience(std::chrono::milliseconds(1));
  auto withdrawn = std::async(std::launch::async, [&] { session.unregisterService(id); });
  EXPECT_TRUE(log.waitFor(1));
  EXPECT_FALSE(sitter.left);
  sitter.release();
  withdrawn.get();
  ASSERT_EQ(log.entries().size(), 1U);
  EXPECT_EQ(log.texts().front(), "service Motor: still waiting, after 1 ms, for calls that run in it: Runner.run");
  EXPECT_EQ(log.entries().front().level, mw::LogLevel::Warning);
}

TEST_F(Sessions, AServiceMayWithdrawItselfFromInside) {
  const kit::CaptureLog log({"mw.session"});
  std::weak_ptr<mw::GenericObject> gone;
  mw::ServiceId id = 0;
  auto object = serviceThat([&] {
    EXPECT_TRUE(session.unregisterService(id));
    EXPECT_FALSE(gone.expired()) << "it is still running";
  });
  gone = object.pointer();
  id = session.registerService("Motor", std::move(object));
  session.service("Motor").value()->call("run");
  mw::defaultLoop().drain();
  EXPECT_TRUE(gone.expired());
  EXPECT_THAT(log.texts(), ElementsAre());
}

}  // namespace
