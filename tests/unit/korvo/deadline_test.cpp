#include "deadline.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace korvo {
namespace {

using namespace std::chrono_literals;
using Answer = mw::Future<mw::AnyValue>;
using AnswerPromise = mw::Promise<mw::AnyValue>;

class DeadlinesTest : public testing::Test {
 protected:
  mw::EventLoop loop;
  /// Deadlines that pass at once, and ones that never do.
  std::shared_ptr<Deadlines> shortOnes = std::make_shared<Deadlines>(loop, 1ms, "broker korvo");
  std::shared_ptr<Deadlines> longOnes = std::make_shared<Deadlines>(loop, 1h, "broker korvo");
};

TEST_F(DeadlinesTest, FailWhatIsNotAnsweredInTimeAndSayWhoDidNotAnswerWhat) {
  const std::vector<AnswerPromise> silent(3);
  for (const auto& promise : silent) {
    EXPECT_EQ(shortOnes->watch(promise.future(), "HXMemory.getData").error(),
              "broker korvo did not answer HXMemory.getData within 0.001 s");
  }
}

TEST_F(DeadlinesTest, HandOnWhatIsAnsweredInTime) {
  AnswerPromise promise;
  const Answer watched = longOnes->watch(promise.future(), "a");
  EXPECT_TRUE(watched.isRunning());
  promise.setValue(mw::AnyValue(7));
  EXPECT_EQ(watched.value().reference().to<int>(), 7);

  AnswerPromise failing;
  const Answer failed = longOnes->watch(failing.future(), "b");
  failing.setError("no");
  EXPECT_EQ(failed.error(), "no");
}

}  // namespace
}  // namespace korvo
