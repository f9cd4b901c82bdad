#include "connection.h"

#include "capture_log.h"
#include "fake_hub.h"
#include "hxfleet.h"
#include "memory_fixture.h"
#include "sender.h"

#include <chrono>
#include <memory>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace HX::fleet {
namespace {

using namespace std::chrono_literals;
using testing::HasSubstr;

// The library itself takes what it could not even send for answered.
TEST(Connection, TellsWhatHasArrivedFromWhatNeverLeft) {
  kit::FakeHub hub;
  Connection connection({{hub.url()}, {}, {}, false}, Connection::Options{"robot"});
  connection.publish("fleet.robot7.event.Door", "1");
  EXPECT_NO_THROW(connection.flush(60s));
  hub.freeze();
  const std::string some(16'384, ' ');
  // The deadline for writing ends it once the kernel takes no more.
  const auto end = std::chrono::steady_clock::now() + 60s;
  while (connection.isOpen()) {
    ASSERT_LT(std::chrono::steady_clock::now(), end) << "it does not end";
    ASSERT_ANY_THROW({
      connection.publish("fleet.robot7.event.Door", some);
      connection.flush(1ms);
    });
  }
}

// A line that was cut and is back has the old connection's answers only when TCP has found out.
TEST(Sender, WaitsNoLongerForAnswersByAConnectionThatIsTakenFromIt) {
  kit::FakeHub hub;
  Outgoing outgoing({}, {});
  Sender sender(outgoing, FleetSubjects("fleet"), "robot7");
  const auto connection =
      std::make_shared<Connection>(Access{{hub.url()}, {}, {}, false}, Connection::Options{"robot"});
  sender.use(connection);
  sender.use(nullptr);
  EXPECT_FALSE(connection->isOpen());
}

class RobotOfAFakeHub : public kit::MemoryFixture {
 protected:
  void join() {
    broker->session()->registerService("Broker", broker->getProxy("HXMemory")->asObject());
    broker->provideSettings("HXFleet", GivenSettings::of(HXValue::map({{"url", hub.url()}, {"robot", "robot7"}})));
    robot = HXModule::createModule<HXFleet>(broker, "HXFleet");
  }
  void TearDown() override {
    robot.reset();
    kit::MemoryFixture::TearDown();
  }
  /// Waits for a line of the log that comes behind the first `from` ones. Returns how many there are with it.
  static std::size_t await(const kit::CaptureLog& log, std::size_t from, const std::string& text) {
    for (std::size_t count = from + 1;; ++count) {
      EXPECT_TRUE(log.waitFor(count, 60s)) << text;
      const auto lines = log.texts();
      if (lines.size() < count || lines[count - 1].find(text) != std::string::npos) return count;
    }
  }

  kit::FakeHub hub;
  std::shared_ptr<HXFleet> robot;
};

TEST_F(RobotOfAFakeHub, StaysRefusedWhenTheHubThenHangsUpWithoutAWord) {
  const kit::CaptureLog log({"hxfleet"});
  join();
  const auto connected = await(log, 0, "is connected");
  hub.tell("robot7 bulk", "-ERR 'Permissions Violation for Publish to \"fleet.robot7.event.Door\"'");
  const auto refused = await(log, connected, "is refused");
  hub.hangUp("robot7 control");
  await(log, refused, "is connected");
  EXPECT_THAT(log.texts(), testing::Not(testing::Contains(HasSubstr("the connection was lost"))));
}

}  // namespace
}  // namespace HX::fleet
