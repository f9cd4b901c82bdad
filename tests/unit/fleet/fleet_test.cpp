#include "capture_log.h"
#include "expect_error.h"
#include "hub.h"
#include "hxfleet.h"
#include "memory_fixture.h"
#include "names.h"
#include "nkey.h"
#include "print_value.h"
#include "private_hub.h"
#include "rights.h"

#include <hxvalue/json.h>
#include <libmw/anyfunction.h>
#include <libmw/eventloop.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <mutex>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace HX {
namespace {

using namespace std::chrono_literals;
using fleet::Connection;
using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::SizeIs;

/// What a service of a robot may look like.
class Arm : public HXModule {
 public:
  Arm(const std::shared_ptr<HXBroker>& broker, const std::string& name) : HXModule(broker, name) {
    functionName("twice", name, "Twice as much.");
    bindMethod(this, &Arm::twice);
    functionName("fail", name, "Fails.");
    bindMethod(this, &Arm::fail);
  }
  HXValue twice(const HXValue& number) { return 2 * number.toInt(); }
  void fail() { throw HXError("Arm", "fail", "blocked", "arm.cpp", 12); }
};

/// A robot, and beside it what the fleet sees.
class Fleet : public kit::MemoryFixture {
 protected:
  void SetUp() override {
    if (kit::Hub::program().empty()) GTEST_SKIP() << "there is no nats-server";
    kit::MemoryFixture::SetUp();
    hub.emplace();
    tool = connect();
    fleet::initialise(*tool, subjects, 1h, 64 << 20, 1);
  }
  void TearDown() override {
    if (!hub) return;
    robot.reset();
    kit::MemoryFixture::TearDown();
  }

  std::unique_ptr<Connection> connect() {
    return std::make_unique<Connection>(fleet::Access{{hub->url()}, {}, {}, false}, Connection::Options{"tool"});
  }
  void join(HXValue::Map settings = {}, const std::string& state = "connected") {
    settings["url"] = hub->url();
    settings.try_emplace("robot", HXValue("robot7"));
    broker->session()->registerService("Broker", broker->getProxy("HXMemory")->asObject());
    broker->provideSettings("HXFleet", GivenSettings::of(HXValue(std::move(settings))));
    robot = HXModule::createModule<HXFleet>(broker, "HXFleet");
    awaitState(state);
  }
  /// Waits until something is so.
  static void await(const std::function<bool()>& isSo) {
    const auto end = std::chrono::steady_clock::now() + 60s;
    while (!isSo()) {
      ASSERT_LT(std::chrono::steady_clock::now(), end) << "it does not come true";
      std::this_thread::sleep_for(10ms);
    }
  }
  void awaitState(const std::string& state) {
    await([&] { return robot->status()["state"] == HXValue(state); });
  }
  /// What the hub has of a key; invalid for nothing.
  HXValue stored(const std::string& key) {
    const auto entry = fleet::readKey(*tool, subjects, "fleet", "robot7." + fleet::toSubject(key));
    return entry && !entry->isRemoved ? fleet::toRecord(entry->data).value : HXValue();
  }
  void expectExact() {
    const HXValue status = robot->status();
    std::int64_t sum = 0;
    for (const char* part : {"confirmed", "queued", "inFlight", "dropped", "missed"}) sum += status[part].asInt64();
    EXPECT_EQ(status["raised"].asInt64(), sum) << status.toString();
  }
  HXValue ask(const std::string& what, const std::string& data = {}) {
    return fleet::askRobot(*tool, subjects.of("robot7", what), data, 5s);
  }

  const fleet::FleetSubjects subjects{"fleet"};
  std::optional<kit::Hub> hub;
  std::unique_ptr<Connection> tool;
  std::shared_ptr<HXFleet> robot;
};

/// The n of each event that arrives, by keys.
class Heard {
 public:
  void listen(Connection& connection, const std::string& subject) {
    connection.subscribe(subject, [this](const fleet::Message& message) {
      const auto record = fleet::toRecord(message.data());
      const std::lock_guard lock(mutex_);
      all_[record.key].push_back(record.n);
    });
    connection.flush(5s);
  }
  std::vector<std::uint64_t> of(const std::string& key) {
    const std::lock_guard lock(mutex_);
    return all_[key];
  }

 private:
  std::mutex mutex_;
  std::map<std::string, std::vector<std::uint64_t>> all_;
};

TEST_F(Fleet, SeesEventsAndLastValuesButWhatIsHidden) {
  memory->insertData("Left arm/A", 1);
  Heard heard;
  heard.listen(*tool, "fleet.robot7.event.>");
  join({{"hide", HXValue::list({"Secret/**", "HXMemory/**", "HXFleet/**"})}});
  memory->insertData("Secret/Key", 1);
  memory->insertData("B", 0.5F);
  for (int i = 0; i < 3; ++i) memory->raiseEvent("Door", i);
  await([&] { return heard.of("Door").size() == 3; });
  EXPECT_THAT(heard.of("Door"), ElementsAre(1, 2, 3));
  await([&] {
    return stored("Left arm/A") == HXValue(1) && stored("B") == HXValue(0.5F) && stored("Door") == HXValue(2);
  });
  EXPECT_FALSE(stored("Secret/Key").isValid());
  EXPECT_FALSE(stored("HXMemory/KeyAdded").isValid());
  memory->removeData("B");
  await([&] { return !stored("B").isValid(); });
  await([&] { return robot->status()["confirmed"] == HXValue(std::int64_t{3}); });
  expectExact();
}

TEST_F(Fleet, AsksForValuesAndMethods) {
  const auto arm = HXModule::createModule<Arm>(broker, "Arm");
  join({{"hide", HXValue::list({"Secret"})}, {"deny", HXValue::list({"Broker/*", "HXMemory/removeData"})}});
  memory->insertData("Secret", 1);
  EXPECT_EQ(ask("set.Arm.Speed", "2"), HXValue());
  EXPECT_EQ(ask("get", "\"Arm/Speed\""), HXValue(2));
  EXPECT_EQ(ask("get", R"(["Arm/Speed","Arm/Speed"])"), HXValue::list({2, 2}));
  EXPECT_EQ(ask("list", "\"Arm/*\""), HXValue::list({"Arm/Speed"}));
  EXPECT_EQ(ask("raise.Door", "true"), HXValue());
  EXPECT_EQ(generic->call<std::string>("getType", "Door"), "Event");
  EXPECT_EQ(ask("call.Arm.twice", "[21]"), HXValue(42));
  EXPECT_THAT(ask("describe", "\"Arm\"").toString(), AllOf(HasSubstr("twice"), HasSubstr(" -> ")));
  try {
    ask("call.Arm.fail");
    ADD_FAILURE() << "nothing was thrown";
  } catch (const HXError& error) {
    EXPECT_EQ(error.message(), "blocked");
    EXPECT_EQ(error.line(), 12);
  }
  constexpr std::tuple<const char*, const char*, const char*> kWrong[] = {
      {"get", "\"Nope\"", "404"},
      {"get", "\"Secret\"", "404"},
      {"get", "{", "400"},
      {"get", "7", "400"},
      {"call.Nope.x", "[]", "404"},
      {"call.Arm.nope", "", "404"},
      {"call.Arm.twice", "[]", "400"},
      {"call.Arm.twice", "7", "400"},
      {"call.Broker.modules", "", "403"},
      {"remove.Arm.Speed", "", "403"},
      {"call.HXMemory.removeData", "[\"Arm/Speed\"]", "403"}};
  for (const auto& [what, data, code] : kWrong) {
    const auto answer = tool->request({subjects.of("robot7", what), data}, 5s);
    EXPECT_EQ(answer.header("Nats-Service-Error-Code"), code) << what << " " << data;
  }
  EXPECT_THROW(fleet::askRobot(*tool, "fleet.robot8.get", "\"A\"", 5s), fleet::NobodyError);
  const HXValue info = fromJson(tool->request({"$SRV.INFO.korvo.robot7", ""}, 5s).data());
  EXPECT_THAT(info["endpoints"].asList(), SizeIs(7));
}

TEST_F(Fleet, LosesNothingThatIsKeptWhateverBecomesOfTheHub) {
  join({{"keep", HXValue::list({"Step"})}});
  auto raise = [&, n = 0](int count) mutable {
    for (int i = 0; i < count; ++i) memory->raiseEvent("Step", ++n);
  };
  raise(500);
  hub->stop();
  raise(500);
  hub->start();
  raise(500);
  await([&] { return robot->status()["confirmed"] == HXValue(std::int64_t{1500}); });
  hub->freeze();
  raise(500);
  awaitState("away");
  hub->thaw();
  await([&] { return robot->status()["confirmed"] == HXValue(std::int64_t{2000}); });
  expectExact();
  tool = connect();
  const auto info = fromJson(tool->request({subjects.interface("STREAM.INFO.FLEET_EVENTS"), ""}, 5s).data());
  EXPECT_EQ(info["state"]["messages"].toInt(), 2000) << "each once";
  await([&] { return stored("Step") == HXValue(2000); });
}

TEST_F(Fleet, TellsWhatGaveWayWhileTheHubWasAway) {
  join({{"keep", HXValue::list({"Step"})}});
  hub->stop();
  awaitState("away");
  constexpr int kRaised = 30'000;
  for (int i = 0; i < kRaised; ++i) memory->raiseEvent("Step", i);
  await([&] { return robot->status()["raised"] == HXValue(std::int64_t{kRaised}); });
  hub->start();
  await([&] {
    const HXValue status = robot->status();
    return status["confirmed"].asInt64() + status["dropped"].asInt64() == kRaised;
  });
  expectExact();
  tool = connect();
  const std::string question = R"({"last_by_subj":"fleet.robot7.dropped"})";
  HXValue told;
  await([&] {
    const auto answer = tool->request({subjects.interface("STREAM.MSG.GET.FLEET_EVENTS"), question}, 5s);
    told = fromJson(answer.data());
    return !told.find("error");
  });
  EXPECT_EQ(robot->status()["dropped"].asInt64(), kRaised - 20'000);
}

TEST_F(Fleet, MirrorsAllKeysAnewWhenTheHubHasLostThem) {
  memory->insertData("A", 1);
  join();
  await([&] { return stored("A") == HXValue(1); });
  hub->startAnew();
  tool = connect();
  fleet::initialise(*tool, subjects, 1h, 64 << 20, 1);
  await([&] { return stored("A") == HXValue(1); });
}

TEST_F(Fleet, GivesARobotWhatItIsToHave) {
  const auto want = [&](const std::string& wanted) {
    const auto known = fleet::readKey(*tool, subjects, "fleet_desired", "robot7");
    const auto answer =
        fleet::writeKey(*tool, subjects, "fleet_desired", "robot7", wanted, known ? known->sequence : 0);
    EXPECT_TRUE(answer.isStored()) << answer.text;
    tool->publish("fleet.robot7.desired", "");
  };
  want(R"({"Speed":1,"Mode":"slow"})");
  join();
  const auto has = [&](const char* key, const HXValue& value) {
    return memory->xGetSTMValue(key) && memory->getData(key) == value;
  };
  await([&] { return has("Mode", "slow") && has("Speed", 1); });
  memory->insertData("Speed", 5);
  want(R"({"Speed":1,"Mode":"fast"})");
  await([&] { return has("Mode", "fast"); });
  EXPECT_EQ(memory->getData("Speed"), HXValue(5)) << "what the robot wrote stays until the entry changes";
  EXPECT_FALSE(fleet::writeKey(*tool, subjects, "fleet_desired", "robot7", "{}", 1).isStored())
      << "somebody else was first";
}

TEST_F(Fleet, LeavesANameToTheRobotThatHasIt) {
  auto other = connect();
  other->subscribe("$SRV.PING.korvo.robot7", [&elsewhere = *other](const fleet::Message& message) {
    elsewhere.publish(message.reply(), R"({"metadata":{"run":"another","host":"elsewhere","since":"2020"}})");
  });
  other->flush(5s);
  join({}, "refused");
  EXPECT_EQ(robot->status()["reason"], HXValue("there is a robot robot7 already, on host elsewhere"));
  other.reset();
  awaitState("connected");
  robot->leave();
  awaitState("left");
  robot->join();
  awaitState("connected");
}

/// A robot that is no more than what others see of it.
class Apparition {
 public:
  Apparition(Connection& tool, const fleet::FleetSubjects& subjects) : tool_(tool), subjects_(subjects) {
    answer("describe", R"x({"Arm":["twice(value) -> value","fail()","halt()"]})x");
    answer("call.Arm.twice", "8");
    answer("call.Arm.halt", "null");
    answer("call.Arm.fail", fleet::toFailure(HXError("Arm", "fail", "blocked")).body, "blocked");
    tool.flush(5s);
  }
  void tellStatus() {
    fleet::Status status;
    status.robot = "robot3";
    status.queued = 5;
    tool_.publish("fleet.robot3.status", toPayload(status));
  }
  void put(int value) {
    const auto known = fleet::readKey(tool_, subjects_, "fleet", "robot3.Pose");
    const auto payload = fleet::toPayload({"Pose", value, "Data", 0, "run", mw::systemNow()});
    fleet::writeKey(tool_, subjects_, "fleet", "robot3.Pose", payload, known ? known->sequence : 0);
  }
  void raise(int value) {
    tool_.publish("fleet.robot3.event.Door", fleet::toPayload({"Door", value, "Event", 1, "run", mw::systemNow()}));
  }

 private:
  void answer(const std::string& what, const std::string& data, const std::string& failure = {}) {
    tool_.subscribe(subjects_.of("robot3", what), [this, data, failure](const fleet::Message& message) {
      fleet::Letter letter{message.reply(), data};
      if (!failure.empty()) letter.headers.emplace_back("Nats-Service-Error", failure);
      tool_.publish(letter);
    });
  }
  Connection& tool_;
  const fleet::FleetSubjects& subjects_;
};

TEST_F(Fleet, BringsAnotherRobotIntoTheMemory) {
  Apparition third(*tool, subjects);
  third.put(1);
  join({{"follow", HXValue::list({"robot3"})}});
  const auto has = [&](const char* key, int value) {
    return memory->xGetSTMValue(key) && memory->getData(key) == HXValue(value);
  };
  await([&] { return has("robot3/Pose", 1); });
  third.put(2);
  await([&] { return has("robot3/Pose", 2); });
  third.raise(7);
  await([&] { return has("robot3/Door", 7); });
  EXPECT_EQ(generic->call<std::string>("getType", "robot3/Door"), "Event");
  await([&] { return broker->getProxy("robot3/Arm") != nullptr; });
  EXPECT_EQ(broker->getProxy("robot3/Arm")->call<HXValue>("twice", 4), HXValue(8));
  EXPECT_EQ(broker->getProxy("robot3/Arm")->asObject()->metaObject().methods().front().resultType,
            mw::typeOf<HXValue>())
      << "other processes look at that";
  const auto arm = broker->getProxy("robot3/Arm")->asObject();
  EXPECT_FALSE(arm->callNow(arm->metaObject().resolve("halt", {}).id, {}).reference().type()) << "it returns nothing";
  EXPECT_THROW(broker->getProxy("robot3/Arm")->call("fail"), HXError);
  memory->insertData("Own", 1);
  await([&] { return stored("Own") == HXValue(1); });
  EXPECT_FALSE(stored("robot3/Pose").isValid()) << "no echo";
  robot->unfollow("robot3");
  EXPECT_THROW(robot->unfollow("robot3"), HXError);
  await([&] { return !memory->xGetSTMValue("robot3/Pose") && !memory->xGetSTMValue("robot3/Door"); });
  EXPECT_EQ(broker->getProxy("robot3/Arm"), nullptr);
  robot->follow("robot3");
  await([&] { return has("robot3/Pose", 2) && broker->getProxy("robot3/Arm") != nullptr; });
  for (const char* wrong : {"robot7", "a/b", ""}) EXPECT_THROW(robot->follow(wrong), HXError) << wrong;
  hub->stop();
  await([&] { return broker->getProxy("robot3/Arm") == nullptr; });
}

TEST_F(Fleet, ListsItsRobotsForWhoAsks) {
  join();
  Apparition third(*tool, subjects);
  const auto state = [&](const std::string& name) {
    const HXValue rows = robot->robots();
    for (const HXValue& row : rows.asList()) {
      if (row["robot"] == HXValue(name)) return row["state"].asString() + " " + row["queued"].toString();
    }
    return std::string();
  };
  await([&] { return state("robot7") == "online 0"; });
  EXPECT_EQ(state("robot3"), "");
  await([&] {
    third.tellStatus();
    return state("robot3") == "online 5";
  });
  await([&] { return state("robot3") == "off 5"; });
  hub->stop();
  awaitState("away");
  EXPECT_THAT(errorOf([&] { robot->robots(); }), HasSubstr("no connection to the fleet"));
}

TEST_F(Fleet, IsOneLineForEachChangeOfStateAndEndsWhileTheHubIsFrozen) {
  const kit::CaptureLog log({"hxfleet"});
  join();
  hub->freeze();
  awaitState("away");
  hub->thaw();
  awaitState("connected");
  std::vector<std::string> lines = log.texts();
  std::erase_if(lines, [](const std::string& line) { return !line.starts_with("robot robot7 is "); });
  // A machine that is slow may find the store cut off before the hub itself is away.
  std::erase_if(lines, [](const std::string& line) { return line.find("is cut") != std::string::npos; });
  EXPECT_THAT(lines, ElementsAre(HasSubstr("is connected"), HasSubstr("is away"), HasSubstr("is connected")));
  hub->freeze();
  memory->raiseEvent("Door", 1);
  robot->exit();  // Or the test never ends.
}

/// A text with one part of it replaced.
std::string with(std::string text, const std::string& part, const std::string& other) {
  const auto found = text.find(part);
  EXPECT_NE(found, std::string::npos) << text;
  return text.replace(found, part.size(), other);
}

TEST_F(Fleet, IsOneLineForRightsThatAreTakenAwayWhileItIsConnected) {
  const fleet::UserKey keys[] = {fleet::makeUserKey(), fleet::makeUserKey()};
  const auto users = [&](const std::string& robots) {
    return "authorization { users = [\n" + korvo::fleet::operatorUser(subjects, "operator", keys[0].publicKey) +
           robots + "] }\n";
  };
  const auto seedOf = [&](std::size_t key) {
    const auto file = hub->folder() / ("seed" + std::to_string(key));
    std::ofstream(file) << keys[key].seed << '\n';
    std::filesystem::permissions(file, std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
    return file.string();
  };
  const std::string all = korvo::fleet::robotUser(subjects, "robot7", keys[1].publicKey, {});
  hub->restartWith(users(all));
  const kit::CaptureLog log({"hxfleet"});
  join({{"seed", seedOf(1)}});
  memory->raiseEvent("Door", 1);
  await([&] { return robot->status()["confirmed"] == HXValue(std::int64_t{1}); });

  // May publish all but events, then not listen to requests, then not be there at all.
  hub->reloadWith(users(with(all, "publish: { allow: [\"fleet.robot7.>\"", "publish: { allow: [\"fleet.robot7.*\"")));
  await([&] {
    memory->raiseEvent("Door", 2);
    return robot->status()["state"] == HXValue("refused");
  });
  EXPECT_THAT(robot->status()["reason"].asString(), HasSubstr("fleet.robot7.event.Door"));
  await([&] { return robot->status()["inFlight"] == HXValue(std::int64_t{0}); });
  expectExact();
  await([&] { return robot->status()["missed"].asInt64() > 0; });
  const std::string deaf =
      with(all, "subscribe: { allow: [\"fleet.robot7.>\"", "subscribe: { allow: [\"fleet.robot7.x\"");
  const auto awaitDeafness = [&] {
    await([&] { return robot->status()["reason"].asString().find("ubscription") != std::string::npos; });
  };
  hub->reloadWith(users(deaf));
  awaitDeafness();
  hub->reloadWith(users(""));
  await([&] { return robot->status()["reason"].asString().find("uthorization") != std::string::npos; });
  EXPECT_EQ(robot->status()["state"], HXValue("refused"));
  hub->reloadWith(users(all));
  awaitState("connected");
  const auto confirmed = robot->status()["confirmed"].asInt64();
  memory->raiseEvent("Door", 3);
  await([&] { return robot->status()["confirmed"].asInt64() > confirmed; });
  expectExact();
  std::vector<std::string> lines = log.texts();
  // A hub that reads its users again may hang up at a login before it says why.
  const auto isSaid = [](const std::string& line, const char* what) { return line.find(what) != std::string::npos; };
  std::erase_if(lines, [&](const auto& line) { return !isSaid(line, "robot robot7 is ") || isSaid(line, "is away"); });
  const auto areRefusals = [&](const auto& a, const auto& b) {
    return isSaid(a, "is refused") && isSaid(b, "is refused");
  };
  lines.erase(std::unique(lines.begin(), lines.end(), areRefusals), lines.end());
  EXPECT_THAT(lines, ElementsAre(HasSubstr("is connected"), HasSubstr("is refused"), HasSubstr("is connected")));

  // What it listens to it has to ask for again, or it would be online and answer nobody.
  hub->reloadWith(users(deaf));
  awaitDeafness();
  hub->reloadWith(users(all));
  await([&] {
    try {
      Connection asking(fleet::Access{{hub->url()}, {}, seedOf(0), false}, Connection::Options{"operator"});
      return fleet::askRobot(asking, subjects.of("robot7", "get"), "\"Door\"", 5s) == HXValue(3);
    } catch (const std::exception&) {  // While the hub reads its users again it knows none.
      return false;
    }
  });
}

TEST_F(Fleet, RefusesSettingsThatAreWrong) {
  const std::pair<const char*, HXValue> wrong[] = {
      {"url", "http://hub"}, {"url", "nats://hub.example:4222"},  {"robot", "a b"},
      {"fleet", "a.b"},      {"keep", HXValue::list({"a/**/b"})}, {"follow", HXValue::list({"a/b"})}};
  for (const auto& [name, value] : wrong) {
    HXValue::Map settings{{"url", hub->url()}, {"robot", "robot7"}};
    settings[name] = value;
    broker->provideSettings("HXFleet", GivenSettings::of(HXValue(std::move(settings))));
    EXPECT_THAT(errorOf([&] { HXModule::createModule<HXFleet>(broker, "HXFleet"); }), HasSubstr(name));
  }
}

}  // namespace
}  // namespace HX
