#include "payload.h"

#include "expect_error.h"
#include "print_value.h"
#include "services.h"

#include <hxerror/hxerror.h>
#include <hxvalue/json.h>

#include <limits>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace HX::fleet {
namespace {

using testing::HasSubstr;
using testing::Not;

constexpr mw::SystemTimePoint kTime{std::chrono::microseconds(1'795'328'832'123'456)};

TEST(Payloads, CarryEveryValueAndItsType) {
  const HXValue values[] = {HXValue(),
                            true,
                            -7,
                            std::int64_t{7},
                            std::int64_t{1} << 40,
                            0.1F,
                            0.1,
                            std::numeric_limits<double>::infinity(),
                            "text \"\n",
                            "\xff not UTF-8",
                            HXValue(HXValue::Binary{std::byte{0}, std::byte{255}}),
                            HXValue::list({1, 0.5F, HXValue::map({{"a", 1}})})};
  std::string payload;  // Whose room is used again.
  for (const HXValue& value : values) {
    writePayload({"Left arm/\xc3\xa4", value, "Event", 12, "ab12", kTime}, payload);
    const Record record = toRecord(payload);
    EXPECT_EQ(record.value, value);
    EXPECT_EQ(record.key, "Left arm/\xc3\xa4");
    EXPECT_EQ(record.kind, "Event");
    EXPECT_EQ(record.n, 12U);
    EXPECT_EQ(record.run, "ab12");
    EXPECT_EQ(record.time, kTime);
  }
  EXPECT_EQ(toPayload({"A", 1, "Data", 0, "r", kTime}),
            R"({"key":"A","value":1,"kind":"Data","n":0,"run":"r","time":"2026-11-22T06:27:12.123456Z"})");
}

TEST(Payloads, TellTheSizeOfWhatIsTooLarge) {
  const std::string payload = toPayload({"A", std::string(kLargestValue, 'x'), "Data", 1, "r", kTime});
  EXPECT_EQ(toRecord(payload).value, HXValue::map({{"tooLarge", static_cast<int>(kLargestValue + 2)}}));
  EXPECT_THAT(toPayload({"A", std::string(kLargestValue - 2, 'x'), "Data", 1, "r", kTime}), Not(HasSubstr("tooLarge")));
}

TEST(Payloads, ThatAreNoneAreRefused) {
  const std::string good = toPayload({"A", 0.5F, "Data", 1, "r", kTime});
  for (std::size_t length = 0; length < good.size(); ++length) {
    EXPECT_THROW(toRecord(good.substr(0, length)), std::runtime_error) << length;
  }
  EXPECT_THAT(errorOf([] { toRecord("[]"); }), HasSubstr("no object"));
  EXPECT_THAT(errorOf([] { toRecord(R"({"key":1})"); }), HasSubstr("key"));
  EXPECT_THAT(errorOf([] { toTime("2026-11-22"); }), HasSubstr("2026-11-22"));
}

TEST(Failures, KeepTheFieldsOfAnError) {
  const Failure failure = toFailure(HXError("Arm", "move", "blocked", "arm.cpp", 12));
  EXPECT_EQ(failure.code, kFailure);
  try {
    throwFailure(failure.body, failure.text);
  } catch (const HXError& error) {
    EXPECT_EQ(error.module(), "Arm");
    EXPECT_EQ(error.method(), "move");
    EXPECT_EQ(error.message(), "blocked");
    EXPECT_EQ(error.file(), "arm.cpp");
    EXPECT_EQ(error.line(), 12);
  }
  for (const char* body : {"", "{", "[]", R"(["HXError",1,2,3,4,5])", R"(["runtime","x"])"}) {
    EXPECT_EQ(errorOf([&] { throwFailure(body, "the text"); }), "the text") << body;
  }
}

TEST(ServiceFace, AnswersWhoAsksForItAndCountsWhatItServes) {
  Status status;
  status.robot = "robot7";
  status.version = "0.1.0";
  ServiceFace face(status, {{"get", "fleet.robot7.get"}});
  face.count("get", std::chrono::microseconds(3), "");
  face.count("get", std::chrono::microseconds(1), "no");
  for (const char* asked : {"PING", "PING.korvo", "INFO.korvo.robot7"}) {
    EXPECT_EQ(fromJson(face.answer(asked))["id"], HXValue("robot7")) << asked;
  }
  for (const char* asked : {"PING.other", "PING.korvo.robot8", "SCHEMA", "PINGS", ""})
    EXPECT_EQ(face.answer(asked), "");
  const HXValue counted = fromJson(face.answer("STATS"))["endpoints"][0];
  EXPECT_EQ(counted["num_requests"], HXValue(2));
  EXPECT_EQ(counted["num_errors"], HXValue(1));
  EXPECT_EQ(counted["last_error"], HXValue("no"));
  EXPECT_EQ(counted["average_processing_time"], HXValue(2000));
}

TEST(Statuses, GoThereAndBack) {
  Status status;
  status.robot = "robot7";
  status.run = "ab";
  status.since = kTime;
  status.time = kTime;
  status.dropped = std::uint64_t{1} << 40;
  status.host = "hangar";
  const Status brief = toStatus(toPayload(status, false));
  EXPECT_EQ(brief.dropped, status.dropped);
  EXPECT_EQ(brief.host, "") << "it stays the same, and is told now and then";
  const Status read = toStatus(toPayload(status));
  EXPECT_EQ(toPayload(read), toPayload(status));
  EXPECT_EQ(read.dropped, status.dropped);
  for (const char* wrong : {"[]", "{}", "7", R"({"robot":7})"}) {
    EXPECT_THROW(toStatus(wrong), std::runtime_error) << wrong;
  }
}

}  // namespace
}  // namespace HX::fleet
