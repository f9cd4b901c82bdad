// Lesson 10: following changes.
//
// A subscriber names one event, and hears when somebody raises it. A follower hears of every change of every key that
// its filter names, of stored data too, in the order in which they were made; keys that come later are among them. It
// is told everything or told what it missed, and nobody waits for it.
//
// This module follows each key whose name ends with /Speed, wherever it runs, and remembers the highest values.

#include <hxcommon/feed.h>
#include <hxcommon/hxbroker.h>
#include <hxcommon/hxmodule.h>
#include <hxproxies/hxmemoryproxy.h>

#include <chrono>
#include <map>
#include <mutex>
#include <string>
#include <vector>

class Peaks : public HX::HXModule {
 public:
  Peaks(const std::shared_ptr<HX::HXBroker>& broker, const std::string& name) : HXModule(broker, name) {
    functionName("report", getName(), "Tells the highest speeds, of all that was written before.");
    setReturn("lines", "One for each key.");
    bindMethod(this, &Peaks::report);
  }

  void init() override {
    HX::journal::FollowOptions options;
    // It begins with the next change. Otherwise how the keys stand would come first, and what was written before that
    // had been told would be part of it, and no peak that is told by itself.
    options.snapshot = false;
    // Who is too slow, or whose connection was lost, is told so, and then what the keys are that changed meanwhile.
    options.onGap = [this](const HX::journal::Gap&) { noteGap(); };
    follow_ = follow(
        HX::journal::Filter({"*/Speed"}), [this](const HX::journal::Change& change) { note(change); }, options);
  }

  std::vector<std::string> report() {
    // Changes are told a moment after they were made. The journal says how far they go, the follower how far it is.
    const auto latest = HX::retainedChanges(getParentBroker()).latest;
    while (follow_.position().revision < latest.revision) sleepFor(std::chrono::milliseconds(1));
    const std::lock_guard lock(mutex_);
    std::vector<std::string> lines;
    for (const auto& [key, peak] : peaks_) {
      lines.push_back(key + ": " + peak.highest.toString() + (peak.isSure ? "" : " at least"));
    }
    return lines;
  }

 private:
  struct Peak {
    HX::HXValue highest;
    bool isSure = true;
  };

  /// Runs on the event loop, one change after another, with nothing locked: the memory may be used.
  void note(const HX::journal::Change& change) {
    const std::string key(change.key);
    {
      const std::lock_guard lock(mutex_);
      if (change.what == HX::journal::What::Removed) {
        peaks_.erase(key);
        return;
      }
      Peak& peak = peaks_[key];
      if (peak.highest.isValid() && change.value.toDouble() <= peak.highest.toDouble()) return;
      peak.highest = change.value;
    }
    // Not a key that it follows: it would hear of itself.
    memory().insertData("Peaks/Highest", key);
  }

  void noteGap() {
    const std::lock_guard lock(mutex_);
    for (auto& [key, peak] : peaks_) peak.isSure = false;
  }

  std::mutex mutex_;  // Guards `peaks_`.
  std::map<std::string, Peak> peaks_;
  HX::journal::Follow follow_;  // The last member: it has ended before what its callbacks use goes.
};

HX_MODULE(Peaks)
