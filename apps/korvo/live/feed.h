#pragma once

#include "detail.h"
#include "extractorsearch.h"
#include "keyquestions.h"
#include "model.h"

#include <hxcommon/hxproxy.h>
#include <libmw/genericobject.h>
#include <libmw/trackable.h>

#include <chrono>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace korvo {

class Target;

/// Keeps a live model up to date without ever waiting for an answer, so that a broker that does not answer cannot
/// freeze the screen.
///
/// Which keys there are it learns from the events that the memory raises about them, and from a listing now and then,
/// for those that come silently. What is in them it asks for the rows on the screen, and, while these are sorted by
/// what is in them, for the others in turn.
///
/// @par Threads  One at a time; the memory's events are taken on the threads that bring them.
class LiveFeed {
 public:
  LiveFeed(Target& target, LiveModel& model) : target_(target), model_(model) {}
  LiveFeed(const LiveFeed&) = delete;
  LiveFeed& operator=(const LiveFeed&) = delete;
  ~LiveFeed() { lifetime_.destroy(); }

  /// Takes the answers that are there, and asks again when it is time.
  /// @param rows  On the screen.
  /// @return Whether the model has changed.
  bool advance(std::size_t rows);
  /// Finds out more about one key from now on; about none where `key` is none.
  void inspect(const std::optional<std::string>& key);
  /// What was found out about that key; none before the first answer, and when the key has gone.
  const std::optional<LiveDetail>& detail() const { return detail_; }
  /// What is wrong at the moment; empty when nothing is.
  const std::string& trouble() const { return trouble_; }

 private:
  using Clock = std::chrono::steady_clock;
  using Answer = mw::Future<mw::AnyValue>;
  struct Asked {
    std::string key;
    std::vector<Answer> answers;
  };
  struct KeyNews {
    std::string key;
    bool removed;
  };

  void findMemory();
  void follow(const char* event, bool removed);
  bool takeNews();
  void apply(const std::vector<KeyNews>& news);
  bool takeListing();
  bool takeLook();
  void learn(Asked asked);
  void learnDetail(Asked asked);
  void startLook(std::size_t rows);
  void startDetail();
  void loseMemory(const std::string& why);

  Target& target_;
  LiveModel& model_;
  std::shared_ptr<HX::HXProxy> memory_;  // Empty while there is none.
  unsigned connectionNumber_ = 0;        // The one that the events were asked for on.
  std::string trouble_;
  std::optional<Answer> listing_;
  std::vector<KeyNews> sinceListing_;  // News that the listing asked for may not know yet.
  std::vector<Asked> look_;
  std::optional<Asked> detailLook_;
  std::optional<std::string> inspected_;
  std::optional<LiveDetail> detail_;
  std::optional<ExtractorSearch> search_;  // For the extractor of what is inspected.
  mw::SystemTimePoint lookTime_;
  Clock::time_point nextFind_;
  Clock::time_point nextListing_;
  Clock::time_point nextLook_;
  std::mutex mutex_;                     // Guards all below.
  std::vector<mw::AnyObject> followed_;  // Whose signals bring the news.
  std::vector<KeyNews> news_;
  mw::Lifetime lifetime_;
};

}  // namespace korvo
