#include "watches.h"

#include "format.h"
#include "output.h"

#include <stdexcept>
#include <utility>

namespace korvo {

void Watches::add(const std::string& key, mw::AnyObject subscriber) {
  const auto print = [this, key](const HX::HXValue& value) {
    output_.line(JsonObject().add("key", key).addValue(value).add("time", formatTime(mw::systemNow())).text());
  };
  remove(key);
  const mw::SignalLink link = subscriber->connect("signal", mw::SignalSubscriber(print)).take();
  Watch watch{std::move(subscriber), link};
  {
    const std::lock_guard lock(mutex_);
    if (!closed_) std::swap(watches_[key], watch);
  }
  if (watch.subscriber) {
    disconnect(watch);
    if (watch.link == link) throw std::runtime_error("the console is closing");
  }
}

bool Watches::remove(const std::string& key) {
  Watch removed;
  {
    const std::lock_guard lock(mutex_);
    const auto found = watches_.find(key);
    if (found == watches_.end()) return false;
    removed = std::move(found->second);
    watches_.erase(found);
  }
  disconnect(removed);
  return true;
}

void Watches::close() {
  std::map<std::string, Watch> all;
  {
    const std::lock_guard lock(mutex_);
    closed_ = true;
    all.swap(watches_);
  }
  for (const auto& [key, watch] : all) disconnect(watch);
}

std::vector<std::string> Watches::keys() const {
  const std::lock_guard lock(mutex_);
  std::vector<std::string> all;
  for (const auto& [key, watch] : watches_) all.push_back(key);
  return all;
}

void Watches::beginGap(const std::string& reason) {
  if (!gapsInOutput_) return output_.note(reason + "; watching goes on when the broker is back");
  output_.line(JsonObject().add("gap", "begins").add("reason", reason).add("time", formatTime(mw::systemNow())).text());
}

void Watches::endGap() {
  if (!gapsInOutput_) return output_.note("the broker is back; what was raised meanwhile is missing");
  output_.line(JsonObject().add("gap", "ends").add("time", formatTime(mw::systemNow())).text());
}

// A watch whose host has gone needs no disconnecting, so that a failure is none.
void Watches::disconnect(const Watch& watch) { watch.subscriber->disconnect(watch.link).wait(); }

}  // namespace korvo
