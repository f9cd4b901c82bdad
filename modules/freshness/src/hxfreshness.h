#pragma once

#include "expectations.h"

#include <hxcommon/hxmodule.h>
#include <hxjournal/executor.h>
#include <hxvalue/hxvalue.h>
#include <libmw/trackable.h>

#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>

namespace HX {

/// Tells when keys are not written in time: raises HXFreshness/Overdue once for a key that was not written for longer
/// than its limit, and HXFreshness/Recovered when it is written again, both with [key, seconds of silence, limit].
///
/// It follows the changes of the expected keys and of no others, and without expectations nothing at all. A follower
/// may be told late, so before a key is called overdue, the memory itself is asked.
///
/// @par Threads  All methods are safe from any thread.
/// @par Locks    `followMutex_` is held while a follower is made or ended, whose callback takes `mutex_` only. Events
///   are raised by tasks that nobody waits for, with no lock held.
class HXFreshness : public HXModule {
 public:
  HXFreshness(const std::shared_ptr<HXBroker>& broker, const std::string& name);
  /// @param loop  Runs what is to be done later, and tells the time.
  HXFreshness(const std::shared_ptr<HXBroker>& broker, const std::string& name,
              std::shared_ptr<journal::Executor> loop);
  ~HXFreshness() override;

  void init() override;
  void exit() override;

  /// @param limit  In seconds.
  /// @throws HXError for a limit that is none, and for keys of this module's own; std::runtime_error when there is no
  ///         memory to follow.
  void expect(const std::string& key, double limit);
  /// All of them, or none when one is refused.
  void expectAll(const std::map<std::string, double>& limits);
  /// @return False when it was not expected.
  bool forget(const std::string& key);
  /// [[key, age, limit, whether it is overdue], …] sorted by key, times in seconds.
  HXValue expectations();
  /// [[key, age, limit], …] of those that are overdue.
  HXValue overdue();

 private:
  struct News {
    const char* event = nullptr;
    Expectations::Standing standing;
  };

  void bindMethods();
  std::set<std::string> expectedKeys();
  void followOnly(const std::set<std::string>& keys);  // With `followMutex_` held.
  void onChange(const journal::Change& change);
  void write(std::string_view key, mw::SystemTimePoint time);
  void onTimer(Expectations::TimePoint armedFor);
  void judge(const std::string& key);
  /// Asks the memory for the latest write.
  void look(const std::string& key);
  void tellNews();
  void raise(const News& news);
  // With `mutex_` held:
  void note(const char* event, std::optional<Expectations::Standing> standing);
  void arm();

  const std::shared_ptr<journal::Executor> loop_;
  std::mutex mutex_;  // Guards all down to `isTelling_`. Inner to `followMutex_`.
  Expectations expectations_;
  std::optional<Expectations::TimePoint> armedFor_;  // Of the timer that counts; earlier ones do nothing.
  std::deque<News> news_;
  bool isTelling_ = false;  // A task is under way that tells the news, all that come meanwhile as well.

  std::mutex followMutex_;  // Guards `follow_`, and keeps it in step with the keys that are expected.
  bool hasLeft_ = false;    // Changed with both locks held.
  mw::Lifetime lifetime_;
  journal::Follow follow_;  // The last member: it ends before what its callback uses.
};

}  // namespace HX
