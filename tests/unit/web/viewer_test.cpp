#include "web_fixture.h"

#include <hxvalue/json.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <string>
#include <viewer/viewersession.h>

#include <gtest/gtest.h>

namespace {

using namespace HX::web;
using HX::HXValue;

template <class T>
T numberAt(const std::string& bytes, std::size_t at) {
  T number{};
  EXPECT_LE(at + sizeof number, bytes.size());
  std::memcpy(&number, bytes.data() + at, sizeof number);
  return number;
}

bool contains(const HXValue& ids, std::int64_t id) {
  return std::ranges::any_of(ids.asList(), [&](const HXValue& each) { return each.toInt64() == id; });
}

class Viewer : public kit::SessionFixture {
 protected:
  void open(Right right, std::vector<std::string> parameters = {}) {
    SessionFixture::open(
        std::make_shared<ViewerSession>(services_, right, std::make_shared<ViewerParameters>(std::move(parameters))));
  }
  void sayBytes(const std::string& bytes) { session_->message(bytes, true); }

  HXValue read(const Message& message) override {
    if (message.isBinary) {
      note(*message.content);
      return HXValue::map({{"op", "binary"}});
    }
    HXValue content = HX::fromJson(*message.content);
    note(content);
    return content;
  }
  HXValue waitForOp(const std::string& op) {
    return waitFor([&](const HXValue& message) { return message["op"] == HXValue(op); });
  }
  /// @return The number of the channel of a key, once it is advertised; another one than `before`.
  std::int64_t channelOf(const std::string& key, std::int64_t before = 0) {
    if (channels_[key] <= before) waitFor([&](const HXValue&) { return channels_[key] > before; });
    return channels_[key];
  }
  void subscribe(int id, const std::string& key) {
    say(R"({"op":"subscribe","subscriptions":[{"id":)" + std::to_string(id) + R"(,"channelId":)" +
        std::to_string(channelOf(key)) + "}]}");
  }
  void waitForData(std::uint32_t subscription, const std::string& payload) {
    waitFor([&](const HXValue&) { return last_[subscription] == payload; });
  }

  std::map<std::string, std::int64_t> channels_;
  std::map<std::string, std::string> schemas_;
  std::map<std::uint32_t, std::string> last_;  // Payloads by subscription.
  std::string answer_;                         // To a call.
  std::uint64_t time_ = 0;

 private:
  void note(const HXValue& message) {
    if (message["op"] != HXValue("advertise")) return;
    for (const HXValue& channel : message["channels"].asList()) {
      channels_[channel["topic"].asString()] = channel["id"].toInt64();
      schemas_[channel["topic"].asString()] = channel["schemaName"].asString();
    }
  }
  void note(const std::string& bytes) {
    switch (bytes.front()) {
      case 1:
        last_[numberAt<std::uint32_t>(bytes, 1)] = bytes.substr(13);
        EXPECT_GT(time_, 0U) << "the time comes first";
        break;
      case 2:
        EXPECT_GE(numberAt<std::uint64_t>(bytes, 1), time_);
        time_ = numberAt<std::uint64_t>(bytes, 1);
        break;
      case 3:
        answer_ = bytes.substr(13 + numberAt<std::uint32_t>(bytes, 9));
        break;
      default:
        ADD_FAILURE() << "no message has the number " << static_cast<int>(bytes.front());
    }
  }
};

TEST_F(Viewer, IsSentEachChangeOfWhatItSubscribesTo) {
  memory->insertData("Arm/Speed", HXValue(0.5));
  memory->raiseEvent("Door", HXValue(true));
  open(Right::View);
  const HXValue info = waitForOp("serverInfo");
  EXPECT_EQ(info["name"], HXValue("korvo robot"));
  EXPECT_NE(info["sessionId"], HXValue("0"));
  subscribe(0, "Arm/Speed");
  subscribe(7, "Door");
  waitForData(0, R"({"value":0.5})");
  waitForData(7, R"({"value":true})");
  memory->insertData("Arm/Speed", HXValue(0.75));
  waitForData(0, R"({"value":0.75})");
  say(R"({"op":"unsubscribe","subscriptionIds":[0]})");
  memory->insertData("Arm/Speed", HXValue(1.0));
  memory->raiseEvent("Door", HXValue(false));
  waitForData(7, R"({"value":false})");
  EXPECT_EQ(last_[0], R"({"value":0.75})");
}

TEST_F(Viewer, GetsAnotherChannelForAnotherShapeAndAfterARemoval) {
  memory->insertData("Pose", HXValue::map({{"x", 1.0}}));
  open(Right::View);
  const std::int64_t first = channelOf("Pose");
  subscribe(1, "Pose");
  waitForData(1, R"({"value":{"x":1.0}})");
  memory->insertData("Pose", HXValue::map({{"y", 1.0}}));
  EXPECT_TRUE(contains(waitForOp("unadvertise")["channelIds"], first));
  const std::int64_t second = channelOf("Pose", first);
  subscribe(1, "Pose");
  waitForData(1, R"({"value":{"y":1.0}})");
  memory->removeData("Pose");
  EXPECT_TRUE(contains(waitForOp("unadvertise")["channelIds"], second));
  memory->insertData("Pose", HXValue::map({{"y", 2.0}}));
  EXPECT_GT(channelOf("Pose", second), second);
}

TEST_F(Viewer, KeepsAChannelWithoutAShapeForAKeyThatHasTooMany) {
  memory->insertData("Odd", HXValue::map({{"a0", 1}}));
  open(Right::View);
  std::int64_t last = channelOf("Odd");
  for (int i = 1; i <= Channels::kMostShapes + 1; ++i) {
    memory->insertData("Odd", HXValue::map({{"a" + std::to_string(i), 1}}));
    last = channelOf("Odd", last);
  }
  EXPECT_EQ(schemas_["Odd"], "korvo.Any");
  memory->insertData("Odd", HXValue::map({{"other", 1}}));
  subscribe(1, "Odd");
  waitForData(1, R"({"value":{"other":1}})");
  EXPECT_EQ(channelOf("Odd"), last);
}

TEST_F(Viewer, GetsAndSetsOfferedParametersOnly) {
  memory->insertData("Arm/Limit", 0.5F);
  memory->insertData("Arm/Joints", HXValue::list({1, 2.5}));
  memory->insertData("Base/Limit", 1);
  const auto answer = [this](const std::string& wish) {
    say(wish);
    return waitForOp("parameterValues");
  };
  open(Right::View, {"Arm/"});
  const HXValue all = answer(R"({"op":"getParameters","parameterNames":[],"id":"q"})");
  EXPECT_EQ(all["id"], HXValue("q"));
  EXPECT_EQ(all["parameters"],
            HXValue::list(
                {HXValue::map({{"name", "Arm/Joints"}, {"type", "float64_array"}, {"value", HXValue::list({1, 2.5})}}),
                 HXValue::map({{"name", "Arm/Limit"}, {"type", "float64"}, {"value", 0.5}})}));
  say(R"({"op":"setParameters","parameters":[{"name":"Arm/Limit","value":2}]})");
  waitForOp("status");
  EXPECT_EQ(memory->getData("Arm/Limit"), HXValue(0.5F)) << "it may only look";

  session_->closed();
  open(Right::Write, {"Arm/"});
  say(R"({"op":"subscribeParameterUpdates","parameterNames":["Arm/Limit"]})");
  waitForOp("parameterValues");
  answer(R"({"op":"setParameters","parameters":[{"name":"Arm/Limit","value":2}]})");
  EXPECT_EQ(memory->getData("Arm/Limit"), HXValue(2.0F)) << "of the type that it had";
  const HXValue stands = answer(
      R"({"op":"setParameters","id":"w","parameters":[{"name":"Base/Limit","value":7},{"name":"Arm/Limit","value":"fast"}]})");
  EXPECT_EQ(memory->getData("Base/Limit"), HXValue(1)) << "it is not offered";
  EXPECT_EQ(memory->getData("Arm/Limit"), HXValue(2.0F));
  EXPECT_TRUE(stands["parameters"].isList()) << "what stands is told";
}

TEST_F(Viewer, CallsMethodsAsServices) {
  memory->insertData("Arm/Speed", 1);
  open(Right::Write);
  std::map<std::string, std::int64_t> ids;
  waitFor([&](const HXValue& message) {
    if (message["op"] != HXValue("advertiseServices")) return false;
    for (const HXValue& each : message["services"].asList()) ids[each["name"].asString()] = each["id"].toInt64();
    return true;
  });
  ASSERT_TRUE(ids.contains("HXMemory.getDataList"));
  const auto call = [&](const std::string& payload) {
    std::string bytes(1, '\x02');
    for (const auto number : {static_cast<std::uint32_t>(ids["HXMemory.getDataList"]), 77U, 4U}) {
      bytes.append(reinterpret_cast<const char*>(&number), sizeof number);
    }
    sayBytes(bytes + "json" + payload);
  };
  call(R"({"filter":"Speed"})");
  waitFor([&](const HXValue&) { return !answer_.empty(); });
  EXPECT_EQ(answer_, R"({"value":["Arm/Speed"]})");
  call(R"({"flter":"Speed"})");
  const HXValue failure = waitForOp("serviceCallFailure");
  EXPECT_EQ(failure["callId"].toInt(), 77);
  EXPECT_EQ(failure["message"], HXValue("there is no argument flter; there is filter"));
}

TEST_F(Viewer, RaisesWhatItPublishesAndNoData) {
  memory->insertData("Arm/Speed", 1);
  open(Right::Write);
  say(R"({"op":"advertise","channels":[{"id":1,"topic":"Door","encoding":"json","schemaName":""},)"
      R"({"id":2,"topic":"Arm/Speed","encoding":"json","schemaName":""},)"
      R"({"id":3,"topic":"Raw","encoding":"cdr","schemaName":""}]})");
  waitForOp("status");  // Only JSON is read.
  const auto publish = [&](std::uint32_t channel, const std::string& payload) {
    std::string bytes(1, '\x01');
    bytes.append(reinterpret_cast<const char*>(&channel), sizeof channel);
    sayBytes(bytes + payload);
  };
  publish(2, R"({"value":5})");
  EXPECT_EQ(waitForOp("status")["message"], HXValue("Arm/Speed is data, and would become an event if it were raised"));
  publish(1, R"({"value":5})");
  subscribe(1, "Door");
  waitForData(1, R"({"value":5})");
  EXPECT_EQ(HX::HXMemoryProxy(generic).getType("Door"), "Event");
  publish(3, "{}");
  waitForOp("status");
}

TEST_F(Viewer, IsToldWhoHearsWhat) {
  memory->declareEvent("Door");
  memory->subscribeToEvent("Door", "HXMemory", "getType");
  open(Right::View);
  waitForOp("serverInfo");
  say(R"({"op":"subscribeConnectionGraph"})");
  const HXValue update = waitForOp("connectionGraphUpdate");
  EXPECT_EQ(update["subscribedTopics"],
            HXValue::list({HXValue::map({{"name", "Door"}, {"subscriberIds", HXValue::list({"HXMemory"})}})}));
}

TEST_F(Viewer, AnswersNonsenseWithAStatus) {
  open(Right::Write);
  waitForOp("serverInfo");
  const char* const wishes[] = {"",
                                "nonsense",
                                "[]",
                                "{}",
                                R"({"op":1})",
                                R"({"op":"fly"})",
                                R"({"op":"subscribe"})",
                                R"({"op":"subscribe","subscriptions":[{"id":0,"channelId":99999}]})",
                                R"({"op":"subscribe","subscriptions":[{"id":-1,"channelId":1}]})",
                                R"({"op":"getParameters","parameterNames":7})",
                                R"({"op":"advertise","channels":[{}]})"};
  for (const char* wish : wishes) {
    say(wish);
    EXPECT_EQ(waitForOp("status")["level"], HXValue(2)) << wish;
  }
  for (const std::string& bytes : {std::string(), std::string("\x05"), std::string("\x01\x01"),
                                   std::string("\x02\0\0\0\0\0\0\0\0\xFF\xFF\xFF\xFF", 13)}) {
    sayBytes(bytes);
    EXPECT_EQ(waitForOp("status")["level"], HXValue(2));
  }
}

}  // namespace
