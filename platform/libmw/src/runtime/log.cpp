#include "linelimit.h"
#include "logline.h"
#include "threadlocal.h"

#include <hxerror/mutex.h>
#include <libmw/detail/logdeferral.h>
#include <libmw/log.h>
#include <libmw/trackable.h>

#include <algorithm>
#include <fnmatch.h>
#include <map>
#include <memory>
#include <utility>
#include <vector>

namespace mw {

std::string_view toString(LogLevel level) noexcept {
  switch (level) {
    case LogLevel::Silent:
      return "silent";
    case LogLevel::Fatal:
      return "fatal";
    case LogLevel::Error:
      return "error";
    case LogLevel::Warning:
      return "warning";
    case LogLevel::Info:
      return "info";
    case LogLevel::Verbose:
      return "verbose";
    case LogLevel::Debug:
      return "debug";
  }
  return "unknown";
}

namespace log {
namespace {

struct Rule {
  std::string pattern;
  LogLevel level;

  bool matches(const std::string& name) const { return fnmatch(pattern.c_str(), name.c_str(), 0) == 0; }
};

struct AddedSink {
  AddedSink(SinkId number, Sink receiver) : id(number), receive(std::move(receiver)) {}

  const SinkId id;
  const Sink receive;
  CallGate running{1};
};

using Sinks = std::vector<std::shared_ptr<AddedSink>>;

/// Of the record that the calling thread hands over for another.
HX_THREAD_LOCAL constinit const std::vector<SinkId>* handedOverCauses = nullptr;

/// Whether what the calling thread logs comes of the sink.
bool isCause(const AddedSink& sink) {
  return sink.running.isEnteredByThisThread() ||
         (handedOverCauses && std::ranges::find(*handedOverCauses, sink.id) != handedOverCauses->end());
}

class Registry {
 public:
  /// Never destroyed: records are written before main() and after it.
  static Registry& instance() {
    static auto* registry = new Registry;
    return *registry;
  }

  Category& category(std::string_view name) {
    {
      const HX::SharedLock lock(categoriesMutex_);
      if (const auto found = categories_.find(name); found != categories_.end()) return *found->second;
    }
    const HX::Lock lock(categoriesMutex_);
    auto& category = categories_[std::string(name)];
    if (!category) category = std::make_unique<Category>(std::string(name), levelFor(std::string(name)));
    return *category;
  }

  void setLevel(LogLevel level, std::string_view pattern) {
    const HX::Lock lock(categoriesMutex_);
    std::erase_if(rules_, [&](const Rule& rule) { return pattern == "*" || rule.pattern == pattern; });
    rules_.push_back({std::string(pattern), level});
    for (auto& [name, category] : categories_) {
      if (rules_.back().matches(name)) category->setLevel(level);
    }
  }

  SinkId addSink(Sink sink) {
    const HX::MutexLock lock(sinksMutex_);
    auto changed = std::make_shared<Sinks>(*sinks_);
    changed->push_back(std::make_shared<AddedSink>(++lastSink_, std::move(sink)));
    sinks_ = std::move(changed);
    return lastSink_;
  }

  void removeSink(SinkId id) {
    std::shared_ptr<AddedSink> removed;
    {
      const HX::MutexLock lock(sinksMutex_);
      auto changed = std::make_shared<Sinks>(*sinks_);
      const auto found = std::find_if(changed->begin(), changed->end(), [&](auto& sink) { return sink->id == id; });
      if (found == changed->end()) return;
      removed = *found;
      changed->erase(found);
      sinks_ = std::move(changed);
    }
    removed->running.drain();
  }

  std::shared_ptr<const Sinks> sinks() const {
    const HX::MutexLock lock(sinksMutex_);
    return sinks_;
  }

  std::atomic<bool> isStderrOn{true};

 private:
  LogLevel levelFor(const std::string& name) const HX_REQUIRES_SHARED(categoriesMutex_) {
    const auto rule =
        std::find_if(rules_.rbegin(), rules_.rend(), [&](const Rule& each) { return each.matches(name); });
    return rule == rules_.rend() ? LogLevel::Info : rule->level;
  }

  mutable HX::SharedMutex categoriesMutex_;  // Of `categories_` it guards the map, not the categories.
  std::map<std::string, std::unique_ptr<Category>, std::less<>> categories_ HX_GUARDED_BY(categoriesMutex_);
  std::vector<Rule> rules_ HX_GUARDED_BY(categoriesMutex_);

  mutable HX::Mutex sinksMutex_;
  std::shared_ptr<const Sinks> sinks_ HX_GUARDED_BY(sinksMutex_) =
      std::make_shared<Sinks>();  // Replaced, never changed.
  SinkId lastSink_ HX_GUARDED_BY(sinksMutex_) = 0;
};

void deliver(AddedSink& sink, const LogRecord& record) noexcept {
  if (isCause(sink)) return;
  const auto pass = sink.running.enter();
  if (!pass) return;
  try {
    sink.receive(record);
  } catch (...) {
    // A receiver that fails must not fail whoever logs.
  }
}

void tellSinks(const Sinks& sinks, const LogRecord& record) {
  for (const auto& sink : sinks) deliver(*sink, record);
}

}  // namespace

Category& addCategory(std::string_view name) { return Registry::instance().category(name); }

void setLevel(LogLevel level, std::string_view pattern) { Registry::instance().setLevel(level, pattern); }

bool isVisible(std::string_view category, LogLevel level) { return isVisible(addCategory(category), level); }

void write(LogLevel level, const Category& category, std::string_view function, std::string_view text) {
  if (!isVisible(category, level)) return;
  const LogRecord record{level, category.name(), function, text, systemNow()};
  auto& registry = Registry::instance();
  if (registry.isStderrOn.load(std::memory_order_relaxed) && LineLimit::instance().admits(record)) {
    writeStderr(formatLine(record));
  }
  const auto sinks = registry.sinks();
  auto* const deferral = detail::LogDeferral::present();
  if (!deferral) return tellSinks(*sinks, record);
  if (sinks->empty()) return;
  std::vector<SinkId> causes;
  for (const auto& sink : *sinks) {
    if (isCause(*sink)) causes.push_back(sink->id);
  }
  deferral->add(record, std::move(causes));
}

void handOver(const LogRecord& record, const std::vector<SinkId>& causes) {
  const auto* const outer = std::exchange(handedOverCauses, &causes);
  tellSinks(*Registry::instance().sinks(), record);
  handedOverCauses = outer;
}

void write(LogLevel level, std::string_view category, std::string_view function, std::string_view text) {
  write(level, addCategory(category), function, text);
}

SinkId addSink(Sink sink) { return Registry::instance().addSink(std::move(sink)); }

void removeSink(SinkId id) { Registry::instance().removeSink(id); }

bool setStderrSink(bool enabled) noexcept { return Registry::instance().isStderrOn.exchange(enabled); }

}  // namespace log
}  // namespace mw
