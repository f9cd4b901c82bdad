#include <hxerror/mutex.h>
#include <libmw/eventloop.h>
#include <libmw/log.h>
#include <libmw/step.h>

#include <algorithm>
#include <atomic>

#include <fmt/format.h>

namespace mw {
namespace {

using What = std::shared_ptr<const std::string>;

std::atomic<std::chrono::milliseconds> patience{std::chrono::seconds(5)};

/// Never destroyed: modules may leave with the last statics of the process.
struct UnderWay {
  HX::Mutex mutex;
  std::vector<What> steps HX_GUARDED_BY(mutex);

  static UnderWay& instance() {
    static auto* const the = new UnderWay;
    return *the;
  }
};

}  // namespace

Step::Step(std::string what) : what_(std::make_shared<const std::string>(std::move(what))) {
  auto& all = UnderWay::instance();
  {
    const HX::MutexLock lock(all.mutex);
    all.steps.push_back(what_);
  }
  defaultLoop().post(
      [weak = std::weak_ptr(what_), after = patience.load()] {
        if (const auto lasting = weak.lock()) {
          log::warning("mw.step", "step", fmt::format("{}: still running, after {} ms", *lasting, after.count()));
        }
      },
      patience.load());
}

Step::~Step() {
  auto& all = UnderWay::instance();
  const HX::MutexLock lock(all.mutex);
  std::erase(all.steps, what_);
}

std::vector<std::string> Step::underWay() {
  auto& all = UnderWay::instance();
  const HX::MutexLock lock(all.mutex);
  std::vector<std::string> texts;
  for (const What& what : all.steps) texts.push_back(*what);
  return texts;
}

void Step::setPatience(std::chrono::milliseconds limit) { patience = limit; }

}  // namespace mw
