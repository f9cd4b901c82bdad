#include "web_fixture.h"

#include <hxvalue/json.h>
#include <libmw/dynamicobject.h>
#include <libmw/signal.h>

#include <cstring>
#include <future>
#include <page/batch.h>
#include <page/pagesession.h>
#include <thread>

#include <gtest/gtest.h>

namespace {

using namespace HX::web;
using HX::HXValue;

/// A batch, read as the page reads it.
struct Read {
  std::uint32_t number = 0;
  std::vector<double> values;
  std::vector<std::uint32_t> ids;
  std::vector<double> points;
  HXValue rest = HXValue::map();
};

template <class T>
std::vector<T> column(const std::string& bytes, std::size_t& at, std::size_t count) {
  std::vector<T> read(count);
  EXPECT_EQ(at % sizeof(T), 0U) << "columns are aligned";
  if (count > 0) std::memcpy(read.data(), bytes.data() + at, count * sizeof(T));
  at += count * sizeof(T);
  return read;
}

Read readBatch(const std::string& bytes) {
  std::size_t at = 0;
  const auto head = column<std::uint32_t>(bytes, at, 6);
  EXPECT_EQ(head[0], Batch::kMark);
  Read batch;
  batch.number = head[1];
  batch.values = column<double>(bytes, at, head[2]);
  column<double>(bytes, at, head[2]);
  column<double>(bytes, at, head[4]);
  batch.points = column<double>(bytes, at, head[4]);
  batch.ids = column<std::uint32_t>(bytes, at, head[2]);
  at += std::size_t{8} * (head[2] + head[3]);
  EXPECT_EQ(bytes.size(), at + head[5]);
  if (head[5] > 0) batch.rest = HX::fromJson(std::string_view(bytes).substr(at));
  return batch;
}

class Page : public kit::SessionFixture {
 protected:
  void open(Right right) { SessionFixture::open(std::make_shared<PageSession>(services_, right)); }

  /// Draws what comes.
  HXValue read(const Message& message) override {
    if (!message.isBinary) return HX::fromJson(*message.content);
    last_ = readBatch(*message.content);
    say(R"({"op":"drawn","number":)" + std::to_string(last_.number) + "}");
    for (std::size_t i = 0; i < last_.ids.size(); ++i) values_[last_.ids[i]] = last_.values[i];
    points_.insert(points_.end(), last_.points.begin(), last_.points.end());
    return last_.rest;
  }
  HXValue answerTo(const std::string& op) {
    return waitFor([&](const HXValue& message) {
      const HXValue* const said = message.find("op");
      return said && (*said == HXValue(op) || *said == HXValue("error"));
    });
  }
  void waitForKeys(int count) {
    waitFor([&](const HXValue& message) {
      const HXValue* const keys = message.find("keys");
      const HXValue* const complete = message.find("complete");
      return keys && complete && keys->toInt() >= count && complete->toBool();
    });
  }
  std::uint32_t idOf(const std::string& key) {
    say(R"({"op":"resolve","keys":[")" + key + R"("]})");
    const HXValue answer = answerTo("resolve");
    return static_cast<std::uint32_t>(answer["rows"][0][0].toInt64());
  }

  Read last_;
  std::map<std::uint32_t, double> values_;
  std::vector<double> points_;
};

TEST_F(Page, IsToldOfWhatItLooksAtAndOfNothingElse) {
  memory->insertData("Arm/Speed", 1);
  memory->insertData("Arm/Load", 1);
  open(Right::View);
  waitForKeys(2);
  say(R"({"op":"open","id":0})");
  EXPECT_EQ(answerTo("open")["children"][0][1], HXValue("Arm")) << "children come when opened";
  const std::uint32_t speed = idOf("Arm/Speed");
  const std::uint32_t load = idOf("Arm/Load");
  say(R"({"op":"watch","ids":[)" + std::to_string(speed) + "]}");
  memory->insertData("Arm/Load", 7);
  memory->insertData("Arm/Speed", 5);
  waitFor([&](const HXValue&) { return values_[speed] == 5; });
  EXPECT_FALSE(values_.contains(load));
  say(R"({"op":"watch","ids":[)" + std::to_string(load) + "]}");
  say(R"({"op":"watch","ids":[)" + std::to_string(speed) + "," + std::to_string(load) + "]}");
  values_.clear();
  waitFor([&](const HXValue&) { return values_[speed] == 5 && values_[load] == 7; });
}

TEST_F(Page, ThatDoesNotDrawIsSentNothing) {
  open(Right::View);
  waitForKeys(0);
  memory->insertData("Arm/Speed", 1);
  const auto countBatches = [&] {
    std::size_t count = 0;
    for (const Message& message : browser_->take()) count += message.isBinary ? 1 : 0;
    return count;
  };
  std::size_t sent = 0;
  for (int i = 0; i < 200; ++i) {
    memory->insertData("Arm/Speed", i);
    session_->tick();
    sent += countBatches();
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  EXPECT_LE(sent, 1U) << "the next only after it has drawn the one before";
}

TEST_F(Page, PlotsEachSpike) {
  open(Right::View);
  waitForKeys(0);
  say(R"({"op":"plot","series":[{"series":1,"key":"Arm/Speed","path":[]}]})");
  for (int i = 0; i < 1000; ++i) memory->insertData("Arm/Speed", i == 500 ? 1e6F : 1.0F);
  waitFor([&](const HXValue&) { return std::ranges::count(points_, 1e6) > 0; });
}

TEST_F(Page, HearsOfKeysThatComeAndGo) {
  memory->insertData("Arm/Speed", 1);
  open(Right::View);
  waitForKeys(1);
  say(R"({"op":"open","id":0})");
  answerTo("open");
  const auto moved = [&](auto&& isIt) {
    return waitFor([&](const HXValue& message) { return message.find("moved") && isIt(message["moved"][0][1]); });
  };
  memory->insertData("Base", 1);
  const HXValue came = moved([](const HXValue& child) { return child.isList(); });
  EXPECT_EQ(came["moved"][0][1][1], HXValue("Base"));
  memory->removeData("Base");
  moved([](const HXValue& child) { return !child.isList(); });
}

TEST_F(Page, WritesOnlyWithTheRightAndSaysWhatTheMemorySays) {
  memory->insertData("Arm/Speed", 0.5F);
  const std::string wish = R"({"op":"set","tag":7,"key":"Arm/Speed","type":"Float","value":2})";
  open(Right::View);
  say(wish);
  EXPECT_NE(answerTo("set").find("error"), nullptr);
  EXPECT_EQ(memory->getData("Arm/Speed"), HXValue(0.5F));
  open(Right::Write);
  say(wish);
  const HXValue done = answerTo("set");
  EXPECT_EQ(done["tag"].toInt(), 7);
  EXPECT_EQ(memory->getData("Arm/Speed"), HXValue(2.0F)) << "of the type that was chosen";
  memory->getFloatPtr("Arm/Speed");
  say(R"({"op":"remove","key":"Arm/Speed"})");
  const std::string refused = answerTo("remove")["error"].asString();
  try {
    memory->removeData("Arm/Speed");
    ADD_FAILURE() << "it can be removed";
  } catch (const std::exception& error) {
    EXPECT_EQ(refused, error.what()) << "the memory's own words";
  }
}

/// A service with one method.
template <class Callable>
void offer(const std::shared_ptr<HX::HXBroker>& broker, const std::string& name, const char* method,
           Callable callable) {
  mw::ObjectBuilder builder;
  builder.advertiseMethod(mw::MetaMethodBuilder(method, name, ""), mw::AnyFunction::from(std::move(callable)));
  broker->session()->registerService(name,
                                     mw::AnyObject(std::make_shared<mw::DynamicObject>(builder.build(), nullptr)));
}

TEST_F(Page, AsksARobotOfTheFleetToChangeItsOwnKeys) {
  const auto asked = std::make_shared<std::promise<std::pair<std::string, HXValue>>>();
  offer(broker, "HXFleet", "status", [] { return HXValue::map({{"follows", HXValue::list({"robot7"})}}); });
  offer(broker, "robot7/HXMemory", "insertData", [asked](const std::string& key, const HXValue& value) {
    asked->set_value({key, value});
  });
  for (const char* key : {"robot7/Arm/Speed", "robot8/Arm/Speed", "robot7"}) memory->insertData(key, 1);
  open(Right::Write);
  const auto set = [&](const std::string& key) {
    say(R"({"op":"set","key":")" + key + R"(","value":2})");
    EXPECT_EQ(answerTo("set").find("error"), nullptr) << key;
    return memory->getData(key);
  };
  EXPECT_EQ(set("robot7/Arm/Speed"), HXValue(1)) << "it comes from the robot, once that has changed it";
  EXPECT_EQ(asked->get_future().get(), std::pair(std::string("Arm/Speed"), HXValue(2)));
  EXPECT_EQ(set("robot8/Arm/Speed"), HXValue(2)) << "who is not followed has no say";
  EXPECT_EQ(set("robot7"), HXValue(2));
}

TEST_F(Page, AnswersNonsenseWithAnError) {
  open(Right::Write);
  for (const char* wish :
       {"", "nonsense", "[]", "{}", R"({"op":1})", R"({"op":"fly"})", R"({"op":"open","id":-1})", R"({"op":"open"})",
        R"({"op":"watch","ids":"all"})", R"({"op":"plot","series":[{}]})", R"({"op":"set","key":1,"value":1})",
        R"({"op":"call","service":"HXMemory","method":99999,"arguments":[]})",
        R"({"op":"set","key":"a","value":"text","type":"Int"})", R"({"op":"drawn","number":1e99})"}) {
    say(wish);
    EXPECT_NE(answerTo("").find("error"), nullptr) << wish;
  }
}

TEST_F(Page, CallsMethodsByTheirForms) {
  open(Right::Write);
  say(R"({"op":"service","service":"HXMemory"})");
  const HXValue described = answerTo("service");
  std::int64_t id = -1;
  for (const HXValue& method : described["methods"].asList()) {
    if (method["name"] == HXValue("getDataList")) id = method["id"].toInt64();
  }
  ASSERT_GE(id, 0);
  say(R"({"op":"call","service":"HXMemory","method":)" + std::to_string(id) + R"(,"arguments":["KeyAdded"]})");
  EXPECT_EQ(answerTo("call")["value"], HXValue::list({"HXMemory/KeyAdded"}));
}

TEST_F(Page, WatchesSignalsUntilItLooksAway) {
  mw::Signal<int> opened;
  mw::ObjectBuilder builder;
  builder.advertiseSignal("opened", opened);
  broker->session()->registerService("Door",
                                     mw::AnyObject(std::make_shared<mw::DynamicObject>(builder.build(), nullptr)));
  open(Right::View);
  say(R"({"op":"listen","service":"Door","signal":"closed","on":true})");
  EXPECT_NE(answerTo("listen").find("error"), nullptr);
  say(R"({"op":"listen","service":"Door","signal":"closed","on":false})");
  answerTo("listen");
  say(R"({"op":"listen","service":"Door","signal":"opened","on":true})");
  EXPECT_EQ(answerTo("listen").find("error"), nullptr);
  opened(7);
  const HXValue told = waitFor([](const HXValue& message) { return message.find("emitted") != nullptr; });
  EXPECT_EQ(told["emitted"][0][0], HXValue("Door.opened"));
  EXPECT_EQ(told["emitted"][0][1].toInt(), 1);
  EXPECT_EQ(told["emitted"][0][2][0][0], HXValue::list({7}));
  say(R"({"op":"listen","service":"Door","signal":"opened","on":false})");
  answerTo("listen");
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (opened.hasSubscribers() && std::chrono::steady_clock::now() < end) std::this_thread::yield();
  EXPECT_FALSE(opened.hasSubscribers());
}

}  // namespace
