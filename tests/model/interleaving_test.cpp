#include "interleaving.h"

#include "model.h"
#include "player.h"
#include "real_memory.h"
#include "sanitized.h"

#include <array>
#include <atomic>
#include <cstdlib>
#include <map>
#include <mutex>
#include <random>
#include <thread>

#include <gtest/gtest.h>

namespace HX::model {
namespace {

constexpr int kHistories = kit::kSanitized ? 200 : 3000;

constexpr std::array kConcurrent{
    "raiseEvent",       "insertData",         "removeEvent",       "subscribeToEvent", "removeData",
    "raiseEvent",       "unsubscribeToEvent", "declareEvent",      "getTimestamp",     "getEventHistory",
    "getType",          "getSubscribers",     "getEventList",      "getDataListName",  "raiseMicroEvent",
    "subscribeToEvent", "raiseEvent",         "getMicroEventList", "subscribeToEvent"};

/// Makes the calls of several threads at once and records what each saw.
class Recorder {
 public:
  Recorder() : memory_([this](const std::string& service, const std::string& text) { told(service, text); }) {
    for (std::size_t i = 0; i < kListeners; ++i) memory_.offer(Call{.service = i}.text('s'));
  }

  History run(const std::vector<Calls>& threads) {
    History history(threads.size());
    std::atomic<std::size_t> arrived = 0;
    {
      std::vector<std::jthread> running;
      for (std::size_t i = 0; i < threads.size(); ++i) {
        running.emplace_back([&, i] {
          for (std::size_t round = 1; round <= threads[i].size(); ++round) {
            // Not a barrier, which wakes one thread after another: the calls of a round are to begin at one moment.
            ++arrived;
            while (arrived < round * threads.size()) std::this_thread::yield();
            history[i].push_back(make(threads[i][round - 1]));
          }
        });
      }
    }
    // Afterwards, alone: what the memory has come to.
    for (const Call& question : allQuestions()) {
      if (question.key < 2 && question.name() != "getDescriptionList" && question.name() != "getExtractorEvent") {
        history[0].push_back(make(question));
      }
    }
    return history;
  }

 private:
  Made make(const Call& call) {
    Made made{call, {}, ++clock_, 0};
    current = &made;
    const std::string end = endOf([&] { return shown(call, callMethod(memory_.methods(), call)); });
    made.ended = ++clock_;
    made.seen.push_back(end);
    return made;
  }

  void told(const std::string& service, const std::string& text) {
    {
      const std::lock_guard lock(mutex_);
      current->seen.push_back(numbered(service, ++told_[service], text));
    }
    std::this_thread::yield();
  }

  static inline thread_local Made* current = nullptr;
  std::atomic<std::uint64_t> clock_ = 0;
  std::mutex mutex_;  // Guards `told_`.
  std::map<std::string, int> told_;
  RealMemory memory_;
};

/// As many calls for each thread, those of one round about the same key and half the time the same ones.
std::vector<Calls> someCalls(std::mt19937& engine) {
  const auto below = [&engine](std::size_t limit) { return engine() % limit; };
  std::vector<Calls> threads(below(3) == 0 ? 3 + below(2) : 2);
  for (std::size_t round = 0; round < 8 / threads.size() + 1; ++round) {
    const std::size_t key = below(4) == 0 ? 1 : 0;
    const std::size_t method = below(kConcurrent.size());
    for (auto& calls : threads) {
      const std::size_t own = below(2) == 0 ? method : below(kConcurrent.size());
      calls.push_back({methodNamed(kConcurrent[own]), key, below(kListeners), below(kValues), below(8) / 7 * 3});
    }
  }
  return threads;
}

TEST(Memory, ShowsConcurrentThreadsOnlyWhatSomeOrderOfItsStepsExplains) {
  const char* const given = std::getenv("KORVO_MODEL_SEED");
  const unsigned seed = given ? static_cast<unsigned>(std::atoi(given)) : 1;
  std::mt19937 engine(seed);
  const State start = Model([](const std::string&, const std::string&) {}).state();
  int undecided = 0;
  for (int i = 0; i < kHistories; ++i) {
    const History history = Recorder().run(someCalls(engine));
    const Verdict verdict = judge(start, history);
    ASSERT_NE(verdict, Verdict::Contradicted) << "history " << i << " of seed " << seed << "\n" << toText(history);
    if (verdict == Verdict::Undecided) ++undecided;
  }
  EXPECT_LE(undecided, kHistories / 100);
}

}  // namespace
}  // namespace HX::model
