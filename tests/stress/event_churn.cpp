#include "listener.h"
#include "memory_fixture.h"
#include "stress.h"

#include <libmw/eventloop.h>
#include <libmw/log.h>

#include <atomic>
#include <functional>
#include <thread>
#include <vector>

namespace HX {
namespace {

constexpr std::int64_t kMark = 7919;  // Raised values are multiples of it; torn ones hardly.

/// What was raised and heard. A call that holds the event to its end may outlast the memory.
struct Counts {
  void check(const HXValue& value) {
    const bool wasRaised = value.getType() == HXValue::Type::Int64 && value.asInt64() % kMark == 0 &&
                           value.asInt64() / kMark <= raised.load();
    if (!wasRaised) ++strange;
    ++delivered;
  }

  std::atomic<std::int64_t> raised{0};
  std::atomic<std::int64_t> delivered{0};
  std::atomic<std::int64_t> strange{0};
};

/// Everything that can happen to one event, at once. Whoever is told a value must be told one that was raised.
class EventChurn : public kit::MemoryFixture {
 protected:
  void SetUp() override {
    wasOnStderr_ = mw::log::setStderrSink(false);  // Subscribers that cannot be found any more are no news here.
    MemoryFixture::SetUp();
    for (const char* name : {"near", "nearer"}) {
      broker->session()->registerService(name, mw::AnyObject(listener()));
    }
    broker->session()->setResolver([this](const std::string& name) { return lookUp(name); });
  }

  void TearDown() override {
    MemoryFixture::TearDown();
    mw::log::setStderrSink(wasOnStderr_);
  }

  std::shared_ptr<kit::Listener> listener() {
    auto made = kit::Listener::make(false);
    made->react = [counts = counts_](const auto& heard) { counts->check(heard.value); };
    return made;
  }

  /// "far" is found a little later on another thread, "nowhere" is not found.
  mw::Future<mw::AnyObject> lookUp(const std::string& name) {
    return mw::defaultLoop().async([far = far_, name] {
      if (name == "nowhere") throw std::runtime_error("no service named " + name);
      return mw::AnyObject(far);
    });
  }

  void raise() { memory->raiseEvent("E", HXValue(++counts_->raised * kMark)); }

  void changeSubscriptions(unsigned step) {
    const char* const names[] = {"near", "far", "nearer", "nowhere"};
    const std::string name = names[step % 4];
    if (step % 3 == 0) {
      memory->unsubscribeToEvent("E", name);
    } else {
      memory->subscribeToEvent("E", name, step % 5 == 0 ? "heardToo" : "heard");
    }
  }

  void changeEvent(unsigned step) {
    if (step % 2 == 0) {
      memory->removeEvent("E");
    } else {
      memory->declareEvent("E", "");
    }
  }

  void changeClients(unsigned step) {
    const auto wrapper = memory->subscriber("E");
    const auto link =
        wrapper->signal.connect(mw::SignalSubscriber([this](const HXValue& value) { counts_->check(value); }));
    if (step % 4 == 0) wrapper->signal(mw::AnyValue(HXValue(++counts_->raised * kMark)));
    wrapper->signal.disconnect(link);
  }

  /// Does `step` over and over on a thread of its own. That the event or the subscription is just not there is no news.
  void churn(std::function<void(unsigned)> step) {
    threads_.emplace_back([this, step = std::move(step)] {
      for (unsigned i = 0; !stopping_; ++i) {
        try {
          step(i);
        } catch (const HXError&) {
        } catch (const std::runtime_error& error) {
          if (std::string(error.what()) != "event not found") throw;
        }
      }
    });
  }

  const std::shared_ptr<Counts> counts_ = std::make_shared<Counts>();
  const std::shared_ptr<kit::Listener> far_ = listener();
  std::atomic<bool> stopping_{false};
  std::vector<std::thread> threads_;
  bool wasOnStderr_ = true;
};

TEST_F(EventChurn, DeliversOnlyWhatWasRaisedAndEnds) {
  churn([this](unsigned) { raise(); });
  churn([this](unsigned) { raise(); });
  churn([this](unsigned step) { changeSubscriptions(step); });
  churn([this](unsigned step) { changeEvent(step); });
  churn([this](unsigned step) { changeClients(step); });
  std::this_thread::sleep_for(kit::stressDuration());
  stopping_ = true;
  for (auto& thread : threads_) thread.join();
  shutDown();
  EXPECT_GT(counts_->delivered, 0);
  EXPECT_EQ(counts_->strange, 0);
}

}  // namespace
}  // namespace HX
