#include "hxviews.h"
#include "memory_fixture.h"
#include "socket_folder.h"

#include <hxproxies/hxmemoryproxy.h>
#include <libmw/eventloop.h>
#include <libmw/local.h>

#include <array>
#include <atomic>
#include <optional>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

// The memory with its views, and who views: in the same process, and over a connection.

namespace HX {
namespace {

using namespace std::chrono_literals;
using view::State;

enum class From : bool { Here, Elsewhere };

class Viewing : public kit::MemoryFixture, public testing::WithParamInterface<From> {
 protected:
  void SetUp() override {
    MemoryFixture::SetUp();
    views_ = HXModule::createModule<HXViews>(broker, "HXViews");
    if (GetParam() == From::Elsewhere) {
      server_.emplace(*broker->session(), "views");
      viewersBroker_ = HXBroker::create("viewer");
      client_.emplace(*viewersBroker_->session(), "views");
    }
    const auto& viewers = viewersBroker_ ? viewersBroker_ : broker;
    proxy_ = viewers->getSpecialisedProxy<HXMemoryProxy>("HXMemory");
  }
  void TearDown() override {
    proxy_.reset();
    // Whoever is told that the service is there holds the views of the process until then.
    mw::defaultLoop().drain();
    client_.reset();
    if (viewersBroker_) kit::endBroker(*viewersBroker_);
    viewersBroker_.reset();
    server_.reset();
    views_.reset();
    MemoryFixture::TearDown();
  }

  std::size_t viewCount() const { return views_->report()["views"].getSize(); }
  template <class T>
  State stateOf(View<T>& view) {
    return view.read().state;
  }

  const kit::SocketFolder folder_;
  std::shared_ptr<HXViews> views_;
  std::optional<mw::LocalServer> server_;
  std::shared_ptr<HXBroker> viewersBroker_;
  std::optional<mw::LocalClient> client_;
  std::shared_ptr<HXMemoryProxy> proxy_;
};

TEST_P(Viewing, SeesWhatIsWrittenHoweverItIsWritten) {
  auto number = proxy_->view<int>("Key");
  auto any = proxy_->view<HXValue>("Key", {.aliveWithin = 1h});
  const auto expect = [&](const HXValue& value, const char* what) {
    SCOPED_TRACE(what);
    ASSERT_EQ(any.read().state, State::Present);
    EXPECT_EQ(any.read().value(), value);
    EXPECT_EQ(number.read().state, value.isInt() ? State::Present : State::OtherType);
    if (value.isInt()) {
      EXPECT_EQ(number.read().value(), value.asInt());
    }
    EXPECT_TRUE(any.read().isFresh(1min));
  };
  EXPECT_EQ(stateOf(number), State::Absent);
  EXPECT_EQ(stateOf(any), State::Absent);
  memory->insertData("Key", 1);
  expect(1, "made");
  memory->insertData("Key", 2);
  expect(2, "written");
  const std::uint64_t revision = number.read().revision;
  memory->insertData("Key", 2);
  EXPECT_GT(number.read().revision, revision);
  memory->raiseMicroEvent("Key", 3);
  expect(3, "raised as micro-event");
  memory->raiseEvent("Key", 4);
  expect(4, "raised");
  memory->raiseEvent("Key", 5);
  expect(5, "raised again");
  memory->insertListData(HXValue::list({HXValue::list({"Key", 6})}));
  expect(6, "in a list");
  memory->insertData("Key", HXValue("text"));
  expect("text", "as a text");
  {
    const auto follow = memory->journal().follow(journal::Filter(), [](const journal::Change&) {});
    memory->insertData("Key", 7);
    expect(7, "while the journal records");
    memory->insertData("Key", HXValue(std::array{1, 2}));
    expect(std::array{1, 2}, "as a list while the journal records");
  }
  memory->removeEvent("Key");
  EXPECT_EQ(stateOf(number), State::Absent);
  EXPECT_EQ(stateOf(any), State::Absent);
  memory->declareEvent("Key");
  EXPECT_EQ(stateOf(any), State::Present);
  EXPECT_FALSE(any.read().value().isValid());
  memory->removeEvent("Key");
  EXPECT_EQ(*memory->getIntPtr("Key"), 0);
  EXPECT_EQ(stateOf(number), State::AddressKnown);
  EXPECT_EQ(stateOf(any), State::AddressKnown);
  memory->insertData("Key", 8);
  EXPECT_EQ(stateOf(number), State::AddressKnown);
}

TEST_P(Viewing, FindsWhatIsThereAlreadyWithItsAge) {
  memory->insertData("Number", 7);
  memory->insertData("Text", HXValue("seven"));
  memory->getFloatPtr("Address");
  auto number = proxy_->view<int>("Number");
  const std::uint64_t revision = number.read().revision;
  EXPECT_EQ(number.read().value(), 7);
  EXPECT_EQ(proxy_->view<int>("Number").read().value(), 7);
  EXPECT_EQ(proxy_->view<std::string>("Text").read().value(), "seven");
  EXPECT_EQ(proxy_->view<float>("Address").read().state, State::AddressKnown);
  EXPECT_LT(number.read().age(), 1h);
  // Those who come later change nothing for those who are there.
  auto any = proxy_->view<HXValue>("Number");
  EXPECT_EQ(any.read().value(), HXValue(7));
  EXPECT_EQ(number.read().revision, revision);
}

TEST_P(Viewing, GivesBackWhatIsNotViewedAnyMore) {
  {
    auto number = proxy_->view<int>("Number");
    const auto copy = number;  // NOLINT(performance-unnecessary-copy-initialization): one more that holds it.
    auto stream = proxy_->stream<float>("Stream", 16);
    EXPECT_EQ(viewCount(), 2U);
  }
  // A connection takes leases back a little later.
  const auto until = std::chrono::steady_clock::now() + 20s;
  while (viewCount() > 0 && std::chrono::steady_clock::now() < until) std::this_thread::yield();
  EXPECT_EQ(viewCount(), 0U);
  memory->insertData("Number", 1);
  memory->insertData("Stream", 1.0F);
}

TEST_P(Viewing, StreamsEveryValueAndIsWoken) {
  auto stream = proxy_->stream<int>("Count", 4096);
  Seen<int> item;
  ASSERT_EQ(stream.next(item), ReadResult::Value);
  EXPECT_EQ(item.state, State::Absent);
  constexpr int kWrites = 2000;
  std::thread writer([&] {
    for (int i = 1; i <= kWrites; ++i) memory->insertData("Count", i);
  });
  for (int i = 1; i <= kWrites;) {
    if (stream.next(item) == ReadResult::Nothing) {
      ASSERT_TRUE(stream.wait(1min));
      continue;
    }
    ASSERT_EQ(item.value(), i++);
  }
  writer.join();
  EXPECT_EQ(stream.lost(), 0U);
}

TEST_P(Viewing, WakesSeveralWhoWait) {
  constexpr int kViewers = 4;
  std::atomic<int> awake{0};
  std::vector<std::thread> viewers;
  std::atomic<int> ready{0};
  for (int i = 0; i < kViewers; ++i) {
    viewers.emplace_back([&, view = proxy_->view<int>("Key")]() mutable {
      const std::uint64_t revision = view.read().revision;
      ++ready;
      if (view.wait(revision, 1min) && view.read().value() == 1) ++awake;
    });
  }
  while (ready < kViewers) std::this_thread::yield();
  memory->insertData("Key", 1);
  for (auto& viewer : viewers) viewer.join();
  EXPECT_EQ(awake, kViewers);
}

/// A view that the loop has just opened again is let go of there, too.
class ViewingAgain : public Viewing {
 protected:
  void TearDown() override {
    const auto until = std::chrono::steady_clock::now() + 20s;
    while (viewersBroker_->session()->serviceRegistered.hasSubscribers() && std::chrono::steady_clock::now() < until) {
      std::this_thread::yield();
    }
    Viewing::TearDown();
  }
};

TEST_P(ViewingAgain, SaysWhenTheServiceHasEndedAndIsBack) {
  memory->insertData("Key", 1);
  auto view = proxy_->view<int>("Key");
  EXPECT_EQ(view.read().value(), 1);
  views_->exit();
  EXPECT_EQ(stateOf(view), State::Disconnected);
  EXPECT_FALSE(view.alive(1h));
  memory->insertData("Key", 2);
  EXPECT_EQ(stateOf(view), State::Disconnected);
  EXPECT_THROW(proxy_->view<int>("Other"), std::runtime_error);
  views_ = HXModule::createModule<HXViews>(broker, "HXViews");
  const auto until = std::chrono::steady_clock::now() + 20s;
  while (stateOf(view) != State::Present && std::chrono::steady_clock::now() < until) view.wait(0, 10ms);
  EXPECT_EQ(view.read().value(), 2);
}

TEST_P(ViewingAgain, EndsWhenItsOwnBrokerIsShutDown) {
  auto view = proxy_->view<int>("Key");
  const auto revision = view.read().revision;
  std::atomic<bool> isAwake = false;
  std::thread waiting([&isAwake, revision, waits = view]() mutable { isAwake = waits.wait(revision, 60s); });
  viewersBroker_->shutdown();
  waiting.join();
  EXPECT_TRUE(isAwake);
  EXPECT_EQ(stateOf(view), State::Disconnected);
}

INSTANTIATE_TEST_SUITE_P(Places, ViewingAgain, testing::Values(From::Elsewhere));
INSTANTIATE_TEST_SUITE_P(Places, Viewing, testing::Values(From::Here, From::Elsewhere),
                         [](const auto& one) { return one.param == From::Here ? "Here" : "Elsewhere"; });

}  // namespace
}  // namespace HX
