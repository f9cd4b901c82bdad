#include "history.h"

#include "pagesession.h"

#include <libmw/log.h>

#include <exception>
#include <memory>
#include <mutex>

namespace HX::web {
namespace {

/// Points of a key, each of so many changes that there are not too many.
class Collected {
 public:
  void add(Tap::Point point) {
    tap_.add(point);
    if (tap_.count < changesAPoint_) return;
    const auto points = tap_.take();
    points_.insert(points_.end(), points.begin(), points.end());
    if (points_.size() > kMost) thin();
  }
  std::vector<Tap::Point> take() {
    const auto rest = tap_.take();
    points_.insert(points_.end(), rest.begin(), rest.end());
    return std::move(points_);
  }

 private:
  static constexpr std::size_t kMost = 8000;

  /// Halves them, spikes excepted.
  void thin() {
    changesAPoint_ = changesAPoint_ == 1 ? 8 : changesAPoint_ * 2;
    std::vector<Tap::Point> thinned;
    Tap tap;
    for (const Tap::Point& point : points_) {
      tap.add(point);
      if (tap.count < 8) continue;
      const auto some = tap.take();
      thinned.insert(thinned.end(), some.begin(), some.end());
    }
    const auto rest = tap.take();
    thinned.insert(thinned.end(), rest.begin(), rest.end());
    points_ = std::move(thinned);
  }

  Tap tap_;
  std::uint32_t changesAPoint_ = 1;
  std::vector<Tap::Point> points_;
};

/// A follower that goes when all is told, which may be before it is known here.
class Asking {
 public:
  void keep(journal::Follow follow) {
    const std::lock_guard lock(mutex_);
    if (!isOver_) follow_ = std::move(follow);
  }
  void end() {
    journal::Follow ended;  // Goes when nothing is locked any more.
    const std::lock_guard lock(mutex_);
    isOver_ = true;
    std::swap(ended, follow_);
  }

  Collected collected;

 private:
  std::mutex mutex_;  // Guards what follows.
  bool isOver_ = false;
  journal::Follow follow_;
};

}  // namespace

void askHistory(const PageServices& services, const std::string& key, const ValuePath& path, std::chrono::seconds since,
                std::function<void(const std::vector<Tap::Point>&)> answer) {
  const auto asking = std::make_shared<Asking>();
  try {
    journal::FollowOptions options;
    options.since = services.placeAt(std::chrono::system_clock::now() - since);
    options.snapshot = false;
    // Ended by a task of its own, since a callback is among what goes with the follower.
    options.onComplete = [asking, answer = std::move(answer), &loop = services.loop](journal::Position) {
      answer(asking->collected.take());
      loop.post([asking] { asking->end(); });
    };
    asking->keep(services.model->follow(
        journal::Filter().addKey(key),
        [asking, path](const journal::Change& change) {
          const auto number = numberAt(change.value, path);
          if (number && !change.isState) asking->collected.add({millisecondsOf(change.time), *number});
        },
        std::move(options)));
  } catch (const std::exception& error) {
    mw::log::debug("web", "askHistory", error.what());
  }
}

}  // namespace HX::web
