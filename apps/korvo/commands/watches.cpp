#include "watches.h"

#include "base/output.h"
#include "base/target.h"

#include <stdexcept>
#include <utility>

namespace korvo {

using HX::journal::Change;
using HX::journal::Gap;
using HX::journal::What;

Watch::Watch(Target& target, Output& output, Event& ended, WatchOptions options)
    : output_(output), ended_(ended), lines_(options.asObjects), raisesOnly_(options.raisesOnly), left_(options.count) {
  // Before the first change can be told, which may be a declaration that it is to know of.
  if (options.demands) demand_.emplace(target, options.filter);
  options.follow.onGap = [this](const Gap& gap) { print(gap); };
  follow_ = target.follow(
      std::move(options.filter), [this](const Change& change) { print(change); }, std::move(options.follow));
}

Watch::~Watch() { follow_.end(); }

bool Watch::isWanted(const Change& change) const {
  if (!raisesOnly_) return true;
  constexpr std::uint8_t kEvent = 3;  // By the memory's numbers; a micro-event is one more.
  return change.isState ? change.kind >= kEvent : change.what == What::Raised || change.what == What::RaisedMicro;
}

void Watch::print(const Change& change) {
  if (demand_ && change.what == What::Declared) demand_->look();
  if (!isWanted(change) || left_ == 0U) return;
  line(lines_.of(change));
  if (left_ && --*left_ == 0) ended_.set();
}

void Watch::print(const Gap& gap) {
  if (demand_) demand_->look();
  if (left_ != 0U) line(lines_.of(gap));
}

void Watch::line(const std::string& text) {
  output_.line(text);
  if (!output_.works()) ended_.set();
}

void Watches::add(const std::string& name, Target& target, WatchOptions options) {
  remove(name);
  auto watch = std::make_unique<Watch>(target, output_, ended_, std::move(options));
  const std::lock_guard lock(mutex_);
  if (!closed_) watches_[name].swap(watch);
  if (closed_) throw std::runtime_error("the console is closing");
}

bool Watches::remove(const std::string& name) {
  All::node_type removed;  // Ends after the lock.
  const std::lock_guard lock(mutex_);
  removed = watches_.extract(name);
  return !removed.empty();
}

void Watches::close() {
  All all;  // Ends after the lock.
  const std::lock_guard lock(mutex_);
  closed_ = true;
  all.swap(watches_);
}

std::vector<std::string> Watches::names() const {
  const std::lock_guard lock(mutex_);
  std::vector<std::string> all;
  all.reserve(watches_.size());
  for (const auto& [name, watch] : watches_) all.push_back(name);
  return all;
}

}  // namespace korvo
