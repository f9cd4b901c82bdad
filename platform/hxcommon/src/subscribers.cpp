#include <hxcommon/subscribers.h>
#include <hxerror/mutex.h>
#include <libmw/log.h>

#include <algorithm>
#include <chrono>
#include <exception>
#include <utility>

#include <fmt/format.h>

namespace HX {
namespace {

const char* const kSubscribersCategory = "hxcommon.subscribers";
const std::string kMemory = "HXMemory";
/// A directory beyond this process may take its time to answer.
constexpr std::chrono::milliseconds kLookUpLimit{1000};

}  // namespace

Subscribers::Subscribers(std::shared_ptr<mw::Session> session, std::string extractor, OnWanted onWanted)
    : session_(std::move(session)),
      extractor_(std::move(extractor)),
      author_(extractor_),
      onWanted_(std::move(onWanted)) {
  const auto connect = [this](auto& signal, void (Subscribers::*handler)(const std::string&)) {
    return signal.connect(mw::SignalSubscriber([this, handler](mw::ServiceId, const std::string& service) {
                            (this->*handler)(service);
                          }).track(lifetime_.token()));
  };
  registeredLink_ = connect(session_->serviceRegistered, &Subscribers::onRegistered);
  unregisteredLink_ = connect(session_->serviceUnregistered, &Subscribers::onUnregistered);
}

Subscribers::~Subscribers() {
  lifetime_.destroy();
  session_->serviceRegistered.disconnect(registeredLink_);
  session_->serviceUnregistered.disconnect(unregisteredLink_);
}

void Subscribers::declare(const std::string& event) {
  {
    const MutexLock lock(mutex_);
    events_.try_emplace(event);
  }
  if (const mw::AnyObject memory = findMemory()) declareTo(memory, event);
}

mw::AnyObject Subscribers::findMemory() const {
  try {
    return session_->service(kMemory).value(kLookUpLimit);
  } catch (const std::exception&) {
    return {};
  }
}

void Subscribers::declareTo(const mw::AnyObject& memory, const std::string& event) {
  {
    mw::AnyObject former;  // Dropped after the lock.
    const MutexLock lock(mutex_);
    if (memory_.pointer() != memory.pointer()) former = startAnew(memory);
    // Before it is done: to declare an event takes its value away, so another thread is not to do it again.
    if (std::exchange(events_[event].isDeclared, true)) return;
  }
  try {
    const Author::Scope inItsName(author_);
    memory->call("declareEvent", event, extractor_);
    // Asked after the declaration: a subscriber that comes in between is told of twice, and counts once.
    const auto modules = memory->call<std::vector<std::string>>("getSubscribers", event);
    const MutexLock lock(mutex_);
    for (const std::string& module : modules) events_[event].modules[module] = ++arrivals_;
  } catch (...) {
    const MutexLock lock(mutex_);
    events_[event].isDeclared = false;
    throw;
  }
  tell();
}

/// The subscribers of a memory that has gone went with it.
/// @return The memory so far.
mw::AnyObject Subscribers::startAnew(mw::AnyObject memory) {
  for (auto& [name, event] : events_) {
    event.modules.clear();
    event.isDeclared = false;
  }
  return std::exchange(memory_, std::move(memory));
}

void Subscribers::add(std::string_view identifier) {
  {
    const MutexLock lock(mutex_);
    const Named found = named(identifier);
    if (!found.event) return;
    found.event->modules.insert_or_assign(std::string(found.module), ++arrivals_);
  }
  tell();
}

void Subscribers::remove(std::string_view identifier) {
  {
    const MutexLock lock(mutex_);
    const Named found = named(identifier);
    if (!found.event) return;
    if (const auto known = found.event->modules.find(found.module); known != found.event->modules.end()) {
      found.event->modules.erase(known);
    }
  }
  tell();
}

/// The reading under which the subscription is known; otherwise the one with the longest event.
Subscribers::Named Subscribers::named(std::string_view identifier) {
  Named longest;
  for (auto& [name, event] : events_) {
    if (identifier.size() <= name.size() || !identifier.ends_with(name)) continue;
    const Named reading{&event, identifier.substr(0, identifier.size() - name.size())};
    if (event.modules.contains(reading.module)) return reading;
    if (!longest.event || reading.module.size() < longest.module.size()) longest = reading;
  }
  return longest;
}

bool Subscribers::want(std::string_view event) const {
  const MutexLock lock(mutex_);
  const auto known = events_.find(event);
  return known != events_.end() && !known->second.modules.empty();
}

std::vector<std::string> Subscribers::of(std::string_view event) const {
  const MutexLock lock(mutex_);
  std::vector<std::string> names;
  if (const auto known = events_.find(event); known != events_.end()) {
    for (const auto& [module, arrival] : known->second.modules) names.push_back(module);
  }
  return names;
}

void Subscribers::onRegistered(const std::string& service) {
  if (service != kMemory) return;
  const mw::AnyObject memory = findMemory();
  if (!memory) return;
  std::vector<std::string> names;
  {
    const MutexLock lock(mutex_);
    for (const auto& [name, event] : events_) names.push_back(name);
  }
  for (const std::string& name : names) {
    try {
      declareTo(memory, name);
    } catch (const std::exception& error) {
      mw::log::warning(kSubscribersCategory, "declare",
                       fmt::format("{} could not declare {} again: {}", extractor_, name, error.what()));
    }
  }
}

void Subscribers::onUnregistered(const std::string& service) {
  if (service == kMemory) {
    onMemoryGone();
  } else {
    onModuleGone(service);
  }
}

/// The notice may come late, when the events have been declared to a successor.
void Subscribers::onMemoryGone() {
  const mw::AnyObject present = session_->ownService(kMemory);
  {
    mw::AnyObject former;
    const MutexLock lock(mutex_);
    if (memory_ && memory_.pointer() == present.pointer()) return;
    former = startAnew({});
  }
  tell();
}

/// The notice may come late, when a module of that name has come again and may have subscribed. One that comes while
/// this looks has the later arrival, and stays.
void Subscribers::onModuleGone(const std::string& module) {
  std::uint64_t latest = 0;
  {
    const MutexLock lock(mutex_);
    const auto has = [&](const auto& event) { return event.second.modules.contains(module); };
    if (std::ranges::none_of(events_, has)) return;
    latest = arrivals_;
  }
  if (isThere(module)) return;
  {
    const MutexLock lock(mutex_);
    for (auto& [name, event] : events_) {
      if (const auto known = event.modules.find(module); known != event.modules.end() && known->second <= latest) {
        event.modules.erase(known);
      }
    }
  }
  tell();
}

bool Subscribers::isThere(const std::string& service) const {
  try {
    return !session_->service(service).hasError(kLookUpLimit);
  } catch (const std::exception&) {
    return false;
  }
}

void Subscribers::tell() {
  MutexLock lock(mutex_);
  if (std::exchange(isTelling_, true)) return;
  while (true) {
    const auto news = std::ranges::find_if(
        events_, [](const auto& event) { return event.second.isToldWanted == event.second.modules.empty(); });
    if (news == events_.end()) break;
    const std::string name = news->first;
    const bool isWanted = !news->second.modules.empty();
    news->second.isToldWanted = isWanted;
    lock.unlock();
    call(name, isWanted);
    lock.lock();
  }
  isTelling_ = false;
}

void Subscribers::call(const std::string& event, bool isWanted) const {
  if (!onWanted_) return;
  try {
    const Author::Scope inItsName(author_);
    onWanted_(event, isWanted);
  } catch (const std::exception& error) {
    mw::log::error(kSubscribersCategory, "tell",
                   fmt::format("{} failed at a change for {}: {}", extractor_, event, error.what()));
  } catch (...) {
    mw::log::error(kSubscribersCategory, "tell", fmt::format("{} failed at a change for {}", extractor_, event));
  }
}

}  // namespace HX
