#include "follow.h"

#include "output.h"
#include "remotetarget.h"
#include "stopsignals.h"
#include "watches.h"

#include <libmw/signal.h>

#include <chrono>
#include <stdexcept>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

#include <fmt/format.h>

namespace korvo {
namespace {

using namespace std::chrono_literals;

/// Standard output where its reader can go away; -1 elsewhere, for a terminal can be read from through it.
int pipeOfOutput() {
  struct stat status {};
  return fstat(STDOUT_FILENO, &status) == 0 && S_ISFIFO(status.st_mode) ? STDOUT_FILENO : -1;
}

}  // namespace

Follower::Follower(RemoteTarget& target, Output& output, Watches& watches)
    : target_(target), output_(output), watches_(watches) {
  target.session().connectionLost.connect(
      mw::SignalSubscriber([this](const std::string& reason) { tell(reason); }).track(lifetime_.token()));
  target.session().connectionRestored.connect(
      mw::SignalSubscriber([this] { tell(std::nullopt); }).track(lifetime_.token()));
}

Follower::~Follower() { lifetime_.destroy(); }

void Follower::tell(News news) {
  {
    const std::lock_guard lock(mutex_);
    news_.push_back(std::move(news));
  }
  told_.set();
}

void Follower::run(StopSignals& signals) {
  keys_ = watches_.keys();
  const int pipe = pipeOfOutput();
  while (output_.works()) {
    const auto patience = restored_ ? 200ms : 1000ms;
    const int ready = waitReadable({signals.file(), pipe, told_.file()}, patience);
    if (ready == 0 || ready == 1) return;
    if (ready == 2) obeyNews();
    if (restored_ && watchAnew()) {
      restored_ = false;
      watches_.endGap();
    }
  }
}

void Follower::obeyNews() {
  told_.clear();
  std::vector<News> all;
  {
    const std::lock_guard lock(mutex_);
    all.swap(news_);
  }
  for (const News& news : all) {
    restored_ = !news;
    if (news) watches_.beginGap(fmt::format("broker {}: {}", target_.broker(), *news));
  }
}

/// @return False while the memory is not there yet, or not any more.
bool Follower::watchAnew() {
  try {
    auto memory = target_.memory();
    for (const auto& key : keys_) watches_.add(key, memory.subscriber(key));
    return true;
  } catch (const std::exception&) {
    return false;
  }
}

}  // namespace korvo
