#include "events_fixture.h"
#include "raw_peer.h"
#include "socket_folder.h"

#include <libmw/local.h>
#include <libmw/session.h>

#include <string>
#include <thread>

namespace HX {
namespace {

const mw::LinkOptions kLimits{.frameLimit = std::size_t{3} << 20, .valueLimit = std::size_t{512} << 10};

/// The subscriber "far" of "E" in another process, which is this one, and "near" in that of the memory.
class FarSubscriber : public EventsFixture {
 protected:
  void SetUp() override {
    EventsFixture::SetUp();
    server_.emplace(*broker->session(), "torso", kLimits);
    joined_.emplace(session_, "torso", mw::LocalClient::Options{kLimits, true});
    session_.registerService("far", mw::AnyObject(far));
    near = subscribed("near");
    memory->subscribeToEvent("E", "far", "heard");
  }
  void TearDown() override {
    joined_.reset();
    server_.reset();
    EventsFixture::TearDown();
  }

  const kit::SocketFolder folder;
  const std::shared_ptr<kit::Listener> far = kit::Listener::make();
  std::shared_ptr<kit::Listener> near;

 private:
  mw::Session session_;
  std::optional<mw::LocalServer> server_;
  std::optional<mw::LocalClient> joined_;
};

TEST_F(FarSubscriber, MissesWhatFitsNoMessageWithALineAndStaysSubscribed) {
  const HXValue large(HXValue::Binary(std::size_t{8} << 20));
  const kit::CaptureLog log({"hxcommon.proxy"});
  for (int raise = 0; raise < 2; ++raise) {  // The first finds the subscriber, the second knows it.
    memory->raiseEvent("E", large);
    memory->raiseEvent("E", HXValue(raise));
    EXPECT_THAT(subscribers(), ElementsAre("far", "near"));
  }
  EXPECT_THAT(near->values(), ElementsAre(large, HXValue(0), large, HXValue(1)));
  EXPECT_THAT(far->values(), ElementsAre(HXValue(0), HXValue(1)));
  const auto isTold = testing::ContainsRegex("far is not told the value of E: .* 8388[0-9]+ bytes cannot go to");
  EXPECT_THAT(log.texts(), ElementsAre(isTold, isTold));
}

std::string bigEndian(std::size_t number) {
  std::string bytes;
  for (int shift = 24; shift >= 0; shift -= 8)
    bytes += static_cast<char>(number >> static_cast<unsigned>(shift) & 0xffU);
  return bytes;
}

/// Numbers that are written in five bytes by whoever raises them, and in nine by the broker; and as much as fits else.
TEST_F(FarSubscriber, IsToldTheLargestValueThatAnotherProcessCanRaise) {
  const std::size_t count = kLimits.valueLimit - 7;  // So many more are the message.
  std::string message = std::string(
                            "\x94\x00\x01\xb3HXMemory.raiseEvent\x92\xa1"
                            "E\xdd",
                            27) +
                        bigEndian(count);
  for (std::size_t i = 1; i < count; ++i) message += "\xce\xff\xff\xff\xff";
  message += "\xc6" + bigEndian(kLimits.frameLimit - message.size() - 5);
  message.resize(kLimits.frameLimit);
  const mw::RawPeer peer(folder.path() + "/korvo/torso.sock");
  ASSERT_TRUE(peer.send(message));
  EXPECT_NE(peer.awaitText(std::string("\x94\x01\x01\xc0", 4)), "");
  ASSERT_EQ(far->values().size(), 1U);
  EXPECT_EQ(far->values().front().asList().size(), count);
  EXPECT_EQ(far->values(), near->values());
}

}  // namespace
}  // namespace HX
