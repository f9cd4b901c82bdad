#include "socket_folder.h"

#include <hxcommon/feed.h>
#include <hxproxies/hxmemoryproxy.h>
#include <libmw/batch.h>
#include <libmw/dynamicobject.h>
#include <libmw/eventloop.h>
#include <libmw/local.h>

#include <array>
#include <chrono>
#include <expect_error.h>
#include <future>
#include <memory_fixture.h>
#include <mutex>
#include <optional>
#include <pthread.h>
#include <string>
#include <thread>

#include <gmock/gmock.h>

namespace HX {
namespace {

/// Keeps what it hears of "Arm/", and writes what follows from it.
class Mirror : public HXModule {
 public:
  using HXModule::HXModule;

  void init() override {
    follow_ = follow(journal::Filter({"Arm/"}), [this](const journal::Change& change) {
      memory().insertData("Mirror/" + std::string(change.key), change.value);
    });
  }

 private:
  journal::Follow follow_;
};

class ModuleFeed : public kit::MemoryFixture {
 protected:
  void expectValue(const std::string& key, const HXValue& value) {
    while (!memory->xGetSTMValue(key)) std::this_thread::yield();
    EXPECT_EQ(memory->getData(key), value);
  }
};

TEST_F(ModuleFeed, FollowsAndWritesWithWhatEveryModuleHas) {
  memory->insertData("Arm/Old", 0);
  const auto mirror = HXModule::createModule<Mirror>(broker, "Mirror");
  memory->insertData("Arm/Speed", 3);
  expectValue("Mirror/Arm/Speed", 3);
  mirror->exit();
}

TEST_F(ModuleFeed, IsThereForProgramsThatAreNoModule) {
  const auto journal = ownJournal(*broker);
  ASSERT_EQ(journal.get(), &memory->journal());
  std::promise<std::string> told;
  journal::FollowOptions options;
  options.snapshot = false;
  const auto followed = follow(
      broker, journal::Filter({"Arm/"}),
      [&](const journal::Change& change) { told.set_value(std::string(change.key)); }, options);
  memory->insertData("Arm/Speed", 3);
  EXPECT_EQ(told.get_future().get(), "Arm/Speed");
  EXPECT_EQ(retainedChanges(broker).latest, journal->position());
  EXPECT_EQ(changesAt(broker, journal::TimePoint::min()), journal->retained().from);
}

TEST_F(ModuleFeed, EndsWithTheMemoryAndSaysSoAfterwards) {
  const auto journal = ownJournal(*broker);
  const auto followed = follow(broker, {}, [](const journal::Change&) {});
  const auto kept = broker;
  shutDown();
  EXPECT_FALSE(journal->isRecording());
  EXPECT_EQ(errorOf([&] { journal->follow({}, [](const journal::Change&) {}); }), "the journal is closed");
  EXPECT_EQ(errorOf([&] { follow(kept, {}, [](const journal::Change&) {}); }),
            "there is no memory whose changes could be followed");
}

/// Writes that come from other processes.
class ServedWrites : public ModuleFeed {
 protected:
  /// Whatever the callback knows, which may outlive the test's own members.
  struct Told {
    std::promise<std::string> threadName;
    bool isInLoop = false;
  };

  void SetUp() override {
    ModuleFeed::SetUp();
    memory->insertData("Arm/Speed", 0);
    memory->insertData("Gate", 0);
    server_.emplace(*broker->session(), "torso");
    client_.emplace(other_, "torso");
    journal::FollowOptions options;
    options.snapshot = false;
    followed_ = memory->journal().follow(
        journal::Filter().addKey("Arm/Speed"),
        [told = told_](const journal::Change&) {
          std::array<char, 16> name{};
          ::pthread_getname_np(::pthread_self(), name.data(), name.size());
          told->isInLoop = mw::defaultLoop().isInThisLoop();
          told->threadName.set_value(name.data());
        },
        options);
    mw::defaultLoop().drain();  // It sleeps.
  }
  void TearDown() override {
    followed_.end();
    client_.reset();
    server_.reset();
    ModuleFeed::TearDown();
  }

  kit::SocketFolder folder_;
  const std::shared_ptr<Told> told_ = std::make_shared<Told>();
  mw::Session other_;
  std::optional<mw::LocalServer> server_;
  std::optional<mw::LocalClient> client_;
  journal::Follow followed_;
};

TEST_F(ServedWrites, AreToldByTheThreadThatServedThemAsOneOfTheLoops) {
  other_.service("HXMemory").value()->call<void>("insertData", "Arm/Speed", 1);
  EXPECT_EQ(told_->threadName.get_future().get(), "link") << "another one had to be woken";
  EXPECT_TRUE(told_->isInLoop);
}

// One work of a thread, which comes to its end with the last of them.
TEST_F(ServedWrites, AreToldWhileACallGoesOnThatCameBehindThem) {
  const auto service = other_.service("HXMemory").value();
  mw::Future<mw::AnyValue> written;
  mw::Future<mw::AnyValue> waits;
  {
    const mw::Batch together;
    written = service->async("insertData", "Arm/Speed", 1);
    waits = service->async("getDataOnChange", "Gate", 0);
  }
  EXPECT_EQ(told_->threadName.get_future().wait_for(std::chrono::seconds(30)), std::future_status::ready);
  // It may have begun only now.
  for (int i = 1; waits.wait(std::chrono::milliseconds(1)) == mw::FutureState::Running; ++i)
    memory->insertData("Gate", i);
  EXPECT_NO_THROW(waits.value());
  EXPECT_NO_THROW(written.value());
}

TEST_F(ServedWrites, AreToldWhileTheMethodOfAModuleGoesOnThatMadeThem) {
  mw::ObjectBuilder builder;
  builder.setTypeName("Arm");
  builder.advertiseMethod(mw::MetaMethodBuilder("moveAndWait", "Arm", ""),
                          mw::AnyFunction::from([told = told_, writing = std::weak_ptr<HXMemory>(memory)] {
                            writing.lock()->insertData("Arm/Speed", 1);
                            return told->threadName.get_future().wait_for(std::chrono::seconds(30)) ==
                                   std::future_status::ready;
                          }));
  const auto id = broker->session()->registerService(
      "Arm", mw::AnyObject(std::make_shared<mw::DynamicObject>(builder.build(), nullptr)));
  EXPECT_TRUE(other_.service("Arm").value()->call<bool>("moveAndWait"));
  broker->session()->unregisterService(id);
}

}  // namespace
}  // namespace HX
