#include "rights.h"

#include "expect_error.h"
#include "hub.h"
#include "nkey.h"
#include "private_hub.h"

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace korvo::fleet {
namespace {

using namespace std::chrono_literals;
using HX::fleet::Connection;
using HX::fleet::FleetSubjects;
using HX::fleet::makeUserKey;
using HX::fleet::UserKey;
using HX::fleet::userKeyOf;
using testing::HasSubstr;

TEST(UserKeys, AreReadBackAndOthersRefused) {
  const UserKey key = makeUserKey();
  EXPECT_EQ(userKeyOf(key.seed).publicKey, key.publicKey);
  EXPECT_TRUE(key.seed.starts_with("SU"));
  EXPECT_TRUE(key.publicKey.starts_with("U"));
  EXPECT_NE(makeUserKey().seed, key.seed);
  std::string wrong = key.seed;
  wrong[20] = wrong[20] == 'A' ? 'B' : 'A';
  for (const std::string& seed : {wrong, key.publicKey, std::string(), std::string("SU"), key.seed + "A0"}) {
    EXPECT_THAT(errorOf([&] { userKeyOf(seed); }), HasSubstr("no seed")) << seed;
  }
}

/// A hub that knows an operator and two robots by their keys.
class Rights : public testing::Test {
 protected:
  void SetUp() override {
    if (kit::Hub::program().empty()) GTEST_SKIP() << "there is no nats-server";
    hub.emplace("authorization { users = [\n" + operatorUser(subjects, "operator", keys[0].publicKey) +
                robotUser(subjects, "robot7", keys[1].publicKey, {}) +
                robotUser(subjects, "robot8", keys[2].publicKey, {"robot7"}) + "] }\n");
    boss = connect(0, "_INBOX.boss");
    initialise(*boss, subjects, 1h, 64 << 20, 1);
  }
  HX::fleet::Access access(std::size_t key) {
    const auto file = hub->folder() / ("seed" + std::to_string(key));
    std::ofstream(file) << keys[key].seed << '\n';
    std::filesystem::permissions(file, std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
    return {{hub->url()}, {}, file.string(), false};
  }
  std::unique_ptr<Connection> connect(std::size_t key, const std::string& inbox) {
    return std::make_unique<Connection>(access(key), Connection::Options{"test", inbox, true, {}});
  }

  const FleetSubjects subjects{"fleet"};
  const UserKey keys[4] = {makeUserKey(), makeUserKey(), makeUserKey(), makeUserKey()};
  std::optional<kit::Hub> hub;
  std::unique_ptr<Connection> boss;
};

TEST_F(Rights, OfARobotEndAtItsName) {
  std::atomic<int> heard{0};
  for (const char* subject : {"fleet.robot8.>", "$KV.fleet.robot8.>"}) {
    boss->subscribe(subject, [&](const auto&) { ++heard; });
  }
  boss->flush(5s);
  const auto robot = connect(1, "_INBOX.robot7");
  EXPECT_TRUE(writeKey(*robot, subjects, "fleet", "robot7.A", "1", 0).isStored()) << "its own";
  EXPECT_TRUE(toAnswer(robot->request({"fleet.robot7.event.Door", "1"}, 5s)).isStored()) << "its own";
  EXPECT_FALSE(readKey(*robot, subjects, "fleet_desired", "robot7")) << "may be asked for, and is not there";
  const std::string forged[] = {"fleet.robot8.event.Door",
                                "fleet.robot8.status",
                                "fleet.robot8.set.Speed",
                                "fleet.robot8.call.Arm.stop",
                                "$KV.fleet.robot8.A",
                                subjects.put("fleet", "robot8.A"),
                                subjects.put("fleet_status", "robot8"),
                                subjects.put("fleet_desired", "robot7"),
                                subjects.interface("STREAM.DELETE.KV_fleet"),
                                "$JS.API.STREAM.PURGE.FLEET_EVENTS"};
  for (const std::string& subject : forged) {
    EXPECT_THROW(robot->request({subject, "{}"}, 1s), HX::fleet::RefusedError) << subject;
    EXPECT_THAT(robot->lastError(), HasSubstr("ermissions Violation"));
  }
  boss->flush(5s);
  EXPECT_EQ(heard, 0);
  EXPECT_TRUE(readKey(*boss, subjects, "fleet", "robot7.A")) << "nothing was purged";
}

TEST_F(Rights, AreThoseOfAKeyThatTheHubKnows) {
  EXPECT_THROW(connect(3, "_INBOX.robot9"), HX::fleet::RefusedError);
  EXPECT_THROW(Connection({{hub->url()}, {}, {}, false}, Connection::Options{"nobody"}), HX::fleet::RefusedError);
  auto known = access(1);
  std::filesystem::permissions(known.seed, std::filesystem::perms::group_read, std::filesystem::perm_options::add);
  EXPECT_THAT(errorOf([&] { check(known); }), HasSubstr("chmod 600"));
  EXPECT_THAT(errorOf([&] {
                HX::fleet::check({{hub->url()}, "/no/ca.pem", {}, false});
              }),
              HasSubstr("/no/ca.pem is not there"));
}

TEST_F(Rights, EndAndBeginWithWhatTheHubIsTold) {
  const auto users = [&](const std::string& robots) {
    return "authorization { users = [\n" + operatorUser(subjects, "operator", keys[0].publicKey) + robots + "] }\n";
  };
  connect(1, "_INBOX.robot7");
  hub->restartWith(users(""));
  EXPECT_THROW(connect(1, "_INBOX.robot7"), HX::fleet::RefusedError);
  hub->restartWith(users(robotUser(subjects, "robot7", keys[1].publicKey, {kAllRobots})));
  const auto robot = connect(1, "_INBOX.robot7");
  EXPECT_NO_THROW(readKeys(*robot, subjects, "fleet_status", "*", 5s)) << "who follows all may list all";
  EXPECT_THROW(robot->request({"fleet.robot8.set.A", "2"}, 1s), HX::fleet::RefusedError);
}

// The server refuses one login in some hundreds, whatever the key.
TEST_F(Rights, AreGivenAtEachLogin) {
  for (int login = 0; login < 400; ++login) ASSERT_NO_THROW(connect(1, "_INBOX.robot7")) << login;
}

/// Certificates that are signed by themselves.
class Certificates : public testing::Test {
 protected:
  void SetUp() override {
    if (kit::Hub::program().empty() || std::system("openssl version >/dev/null 2>&1") != 0) {
      GTEST_SKIP() << "there is no nats-server, or no openssl";
    }
  }
  std::string file(const std::string& name) const { return (folder.path() / name).string(); }
  /// @param host  As in a certificate: "DNS:localhost".
  void make(const std::string& name, const std::string& host) const {
    const std::string command = "openssl req -x509 -newkey rsa:2048 -nodes -days 2 -subj /CN=" + name +
                                " -addext subjectAltName=" + host + " -keyout " + file(name + ".key") + " -out " +
                                file(name + ".pem") + " 2>/dev/null";
    ASSERT_EQ(std::system(command.c_str()), 0);
  }
  /// Words for a hub that has it.
  std::string tls(const std::string& name) const {
    return "tls { cert_file: \"" + file(name + ".pem") + "\", key_file: \"" + file(name + ".key") + "\" }\n";
  }
  /// How a hub is reached by another name of this machine.
  static std::string urlOf(const kit::Hub& hub, const std::string& host) {
    const std::string url = hub.url("tls");
    return "tls://" + host + url.substr(url.rfind(':'));
  }
  /// @return The server that was chosen.
  std::string connect(const std::vector<std::string>& servers, const std::string& authority) const {
    return Connection({servers, file(authority + ".pem"), {}, false}, Connection::Options{"test"}).chosen();
  }

  const kit::TemporaryFolder folder;
};

TEST_F(Certificates, AreOfTheFleetAndForTheNameOfTheHub) {
  make("hub", "DNS:localhost");
  make("other", "DNS:localhost");
  make("elsewhere", "DNS:hub.example");
  kit::Hub hub(tls("hub"));
  const std::vector<std::string> servers{urlOf(hub, "localhost")};
  EXPECT_NO_THROW(connect(servers, "hub"));
  EXPECT_THROW(connect(servers, "other"), HX::fleet::RefusedError) << "of another authority";
  hub.restartWith(tls("elsewhere"));
  EXPECT_THROW(connect(servers, "elsewhere"), HX::fleet::RefusedError) << "for another name";
}

TEST_F(Certificates, AreEachForTheNameOfTheirOwnHub) {
  make("first", "DNS:localhost");
  make("second", "IP:127.0.0.1");
  std::ofstream(file("both.pem")) << std::ifstream(file("first.pem")).rdbuf()
                                  << std::ifstream(file("second.pem")).rdbuf();
  kit::Hub first(tls("first"));
  kit::Hub second(tls("second"));
  const std::vector<std::string> servers{urlOf(first, "localhost"), urlOf(second, "127.0.0.1")};
  first.stop();
  EXPECT_EQ(connect(servers, "both"), servers[1]);
  second.stop();
  first.start();
  EXPECT_EQ(connect(servers, "both"), servers[0]);
  second.start();
  // Each has the other's name: as good as none.
  EXPECT_THROW(connect({urlOf(first, "127.0.0.1"), urlOf(second, "localhost")}, "both"), HX::fleet::RefusedError);
}

TEST_F(Rights, LetAFollowerReadAndCallWhatItFollows) {
  const auto robot = connect(1, "_INBOX.robot7");
  writeKey(*robot, subjects, "fleet", "robot7.A", "1", 0);
  robot->subscribe("fleet.robot7.call.Arm.stop",
                   [&](const HX::fleet::Message& message) { robot->publish(message.reply(), "true"); });
  robot->flush(5s);
  const auto follower = connect(2, "_INBOX.robot8");
  EXPECT_EQ(readKeys(*follower, subjects, "fleet", "robot7.>", 5s).size(), 1U);
  EXPECT_EQ(askRobot(*follower, "fleet.robot7.call.Arm.stop", "[]", 5s), HX::HXValue(true));
  EXPECT_THROW(follower->request({"fleet.robot7.set.A", "2"}, 1s), HX::fleet::RefusedError);
}

}  // namespace
}  // namespace korvo::fleet
