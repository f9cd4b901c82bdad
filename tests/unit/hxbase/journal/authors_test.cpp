#include "../../libmw/remote/raw_peer.h"
#include "memory_fixture.h"
#include "socket_folder.h"

#include <hxauthor/author.h>
#include <hxcommon/subscribers.h>
#include <hxjournal/journal.h>
#include <hxproxies/hxmemoryproxy.h>
#include <libmw/dynamicobject.h>
#include <libmw/local.h>

#include <chrono>
#include <future>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using HX::Author;
using HX::HXProxy;
using HX::HXValue;
using testing::ElementsAre;
using testing::Pair;

/// Writes when it is called, as it is made and as it begins.
class Door final : public HX::HXModule {
 public:
  Door(const std::shared_ptr<HX::HXBroker>& broker, const std::string& name) : HXModule(broker, name) {
    functionName("open", name, "Writes.");
    bindMethod(this, &Door::open);
    functionName("onEvent", name, "Writes because of an event.");
    bindMethod(this, &Door::onEvent);
    open("Door/Made");
    write("Door/Ready");
  }
  void init() override { open("Door/Init"); }
  void open(const std::string& key) { getParentBroker()->getProxy("HXMemory")->call("insertData", key, 1); }
  void onEvent(const std::string& key, const HXValue&, const std::string&) { open("Door/On" + key); }
  void write(const std::string& key) { memory().insertData(key, 1); }
};

class Authors : public kit::MemoryFixture {
 protected:
  void SetUp() override {
    MemoryFixture::SetUp();
    mw::setProgramName("korvo set");
    HX::journal::FollowOptions options;
    options.snapshot = false;
    followed_ = memory->journal().follow(
        HX::journal::Filter().exclude("HXMemory/"),
        [this](const HX::journal::Change& change) {
          const std::lock_guard lock(mutex_);
          told_.emplace_back(change.key, change.author);
          if (change.key == "end") ended_.set_value();
        },
        options);
  }
  void TearDown() override {
    followed_.end();
    MemoryFixture::TearDown();
  }

  /// Keys and who wrote them, so far.
  std::vector<std::pair<std::string, std::string>> told() {
    memory->insertData("end", 1);
    ended_.get_future().wait();
    const std::lock_guard lock(mutex_);
    ended_ = {};
    auto all = std::move(told_);
    told_.clear();
    all.pop_back();
    return all;
  }
  static std::string thisProcess() { return fmt::format("process {}, korvo set", ::getpid()); }

 private:
  std::mutex mutex_;  // Guards all below but the follower.
  std::vector<std::pair<std::string, std::string>> told_;
  std::promise<void> ended_;
  HX::journal::Follow followed_;
};

TEST_F(Authors, AreTheInnermostModuleThatActs) {
  const auto door = HX::HXModule::createModule<Door>(broker, "Door");
  const HXProxy arms(generic->asObject(), "HXMemory", Author("Arm"));
  arms.call("insertData", "a", 1);
  generic->call("insertData", "b", 1);
  door->write("c");
  EXPECT_THAT(told(), ElementsAre(Pair("Door/Made", "Door"), Pair("Door/Ready", "Door"), Pair("Door/Init", "Door"),
                                  Pair("a", "Arm"), Pair("b", ""), Pair("c", "Door")));

  const HXProxy armsDoor(broker->getProxy("Door")->asObject(), "Door", Author("Arm"));
  armsDoor.call("open", "called");
  EXPECT_THAT(told(), ElementsAre(Pair("called", "Door")));

  arms.call("subscribeToEvent", "Bell", "Door", "onEvent");
  arms.call("raiseEvent", "Bell", 1);
  arms.call("insertData", "after", 1);
  EXPECT_THAT(told(),
              ElementsAre(Pair("Bell", "Arm"), Pair("Bell", "Arm"), Pair("Door/OnBell", "Door"), Pair("after", "Arm")));
  door->exit();
}

TEST_F(Authors, AreExtractorsThoughOthersHaveThemDeclare) {
  const auto onWanted = [this](const std::string& event, bool) { generic->call("insertData", "wanted " + event, 1); };
  HX::Subscribers subscribers(broker->session(), "Lidar", onWanted);
  memory->subscribeToEvent("Scan", "Mapper", "onScan");
  subscribers.declare("Scan");
  EXPECT_THAT(told(), ElementsAre(Pair("Scan", ""), Pair("Scan", "Lidar"), Pair("wanted Scan", "Lidar")));
}

TEST_F(Authors, AreCarriedToTheThreadThatACallIsQueuedFor) {
  const Author arm("Arm");
  mw::Future<mw::AnyValue> done;
  {
    const Author::Scope scope(arm);
    done = generic->asObject()->async("insertData", "queued", 1);
  }
  done.wait();
  generic->asObject()->async("insertData", "another", 1).wait();
  EXPECT_THAT(told(), ElementsAre(Pair("queued", "Arm"), Pair("another", "")));
}

/// The broker's process, and sessions of others that have joined it.
class RemoteAuthors : public Authors {
 protected:
  struct Other {
    Other() : client(session, "torso") {}
    std::shared_ptr<HXProxy> proxy(const std::string& service, const Author& author = {}) {
      return std::make_shared<HXProxy>(session.service(service).value(), service, author);
    }
    mw::Session session;
    mw::LocalClient client;
  };

  void SetUp() override {
    Authors::SetUp();
    server_.emplace(*broker->session(), "torso");
  }
  void TearDown() override {
    server_.reset();
    Authors::TearDown();
  }

  /// Of another process: says whose call it serves, and writes.
  static mw::AnyObject witness(Other& own) {
    mw::ObjectBuilder builder;
    builder.setTypeName("Witness");
    builder.advertiseMethod(mw::MetaMethodBuilder("who", "Witness", ""),
                            mw::AnyFunction::from([] { return std::string(Author::present().text()); }));
    builder.advertiseMethod(mw::MetaMethodBuilder("write", "Witness", ""), mw::AnyFunction::from([&own] {
                              own.proxy("HXMemory")->call("insertData", "witnessed", 1);
                            }));
    return mw::AnyObject(std::make_shared<mw::DynamicObject>(builder.build(), nullptr));
  }

  kit::SocketFolder folder_;
  std::optional<mw::LocalServer> server_;
};

TEST_F(RemoteAuthors, AreTheProcessOrTheModuleInIt) {
  Other other;
  other.proxy("HXMemory")->call("insertData", "a", 1);
  other.proxy("HXMemory", Author("Gripper"))->call("insertData", "b", 1);
  other.proxy("HXMemory", Author("Gripper"))->call("insertData", "c", 1);
  EXPECT_THAT(told(), ElementsAre(Pair("a", thisProcess()), Pair("b", "Gripper"), Pair("c", "Gripper")));

  mw::setProgramName("arm\x1b[1m");
  Other steering;
  steering.proxy("HXMemory")->call("insertData", "d", 1);
  EXPECT_THAT(told(), ElementsAre(Pair("d", fmt::format("process {}, arm\\x1b[1m", ::getpid()))));
}

// The first 255 go by a number, and those beyond by their names: no name may be taken for another.
TEST_F(RemoteAuthors, AreTheRightOnesHoweverManyThereAre) {
  Other other;
  std::vector<std::pair<std::string, std::string>> expected;
  for (int round = 0; round < 2; ++round) {
    for (int i = 0; i < 300; ++i) {
      const std::string name = fmt::format("Module{}", i);
      other.proxy("HXMemory", Author(name))->call("insertData", "key", i);
      expected.emplace_back("key", name);
    }
  }
  EXPECT_EQ(told(), expected);
}

TEST_F(RemoteAuthors, StayWithACallThatIsHandedOnAndGoNoFurther) {
  Other serving;
  serving.session.registerService("Witness", witness(serving));
  Other calling;
  EXPECT_EQ(calling.proxy("Witness")->call<std::string>("who"), thisProcess());
  EXPECT_EQ(calling.proxy("Witness", Author("Gripper"))->call<std::string>("who"), "Gripper");
  // What the other process then does, it does itself.
  calling.proxy("Witness", Author("Gripper"))->call("write");
  EXPECT_THAT(told(), ElementsAre(Pair("witnessed", thisProcess())));
}

TEST_F(RemoteAuthors, AreProcessesThatSayNothingOfThemselves) {
  const mw::RawPeer old(folder_.path() + "/korvo/torso.sock");
  const auto call = [&](std::string_view chain) {
    // [0, 1, "HXMemory.insertData", [chain, "old", 1]]
    old.send(std::string("\x94\x00\x01\xb3HXMemory.insertData", 23));
    old.send(std::string(chain.empty() ? "\x92" : "\x93"));
    if (!chain.empty()) old.send(std::string("\xc7") + static_cast<char>(chain.size()) + '\x01' + std::string(chain));
    old.send(std::string("\xa3old\x01"));
    old.awaitText("\xc0\xc0");
  };
  const std::string chain("\0\0\0\0\0\0\0\x09\0\0\0\x01\0\0\0\0", 16);
  call("");
  call(chain);
  call(chain + '\x07');  // A number that was never told.
  call(chain + std::string("\0Someone", 8));
  const std::string process = fmt::format("process {}", ::getpid());
  EXPECT_THAT(told(),
              ElementsAre(Pair("old", process), Pair("old", process), Pair("old", process), Pair("old", "Someone")));
}

TEST_F(RemoteAuthors, SayInWhichProcessASubscriberIs) {
  Other other;
  other.session.registerService("Witness", witness(other));
  memory->subscribeToEvent("Bell", "Witness", "write");
  const auto known = memory->subscribersOf("Bell");
  ASSERT_EQ(known.size(), 1U);
  EXPECT_EQ(known[0].process, thisProcess());
}

TEST_F(RemoteAuthors, AreForgottenWithTheirConnections) {
  const std::size_t before = Author::remembered();
  for (int i = 0; i < 50; ++i) {
    mw::setProgramName(fmt::format("korvo get {}", i));
    Other().proxy("HXMemory")->call<HXValue>("getDataListName");
  }
  server_.reset();
  // The thread that served a call lets go of its author a moment after the answer has left.
  const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (Author::remembered() != before && std::chrono::steady_clock::now() < limit) std::this_thread::yield();
  EXPECT_EQ(Author::remembered(), before) << "none of them has written";
}

}  // namespace
