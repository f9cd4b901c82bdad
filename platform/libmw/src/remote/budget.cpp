#include "budget.h"

#include <hxerror/mutex.h>

#include <algorithm>
#include <map>
#include <string_view>

#include <fmt/format.h>

namespace mw::remote {

Budget& Budget::input() {
  static auto* const the = new Budget("what has come and is not handled yet");  // Links may end at the very end.
  return *the;
}

Budget& Budget::output() {
  static auto* const the = new Budget("what waits to be read");
  return *the;
}

void Budget::Share::join(std::string peer, std::weak_ptr<Channel> channel) {
  peer_ = std::move(peer);
  channel_ = std::move(channel);
  budget_.join(*this);
}

void Budget::join(Share& share) {
  const HX::MutexLock lock(mutex_);
  shares_.push_back(&share);
  share.counts_ = true;
  steps_ += share.steps_;
}

void Budget::leave(Share& share) {
  const HX::MutexLock lock(mutex_);
  std::erase(shares_, &share);
  if (share.counts_) steps_ -= share.steps_;
}

void Budget::change(Share& share, std::ptrdiff_t steps) {
  const HX::MutexLock lock(mutex_);
  share.steps_ += steps;
  if (share.counts_) steps_ += steps;
}

Budget::Share* Budget::largestLocked() const {
  std::map<std::string_view, std::ptrdiff_t> peers;
  for (const Share* share : shares_) {
    if (share->counts_) peers[share->peer_] += share->steps_;
  }
  const auto most = std::ranges::max_element(peers, {}, [](const auto& peer) { return peer.second; });
  Share* largest = nullptr;
  for (Share* share : shares_) {
    if (!share->counts_ || share->peer_ != most->first) continue;
    if (!largest || share->steps_ > largest->steps_) largest = share;
  }
  return largest;
}

void Budget::relieve(std::size_t limit) {
  while (true) {
    std::shared_ptr<Channel> channel;
    {
      const HX::MutexLock lock(mutex_);
      if (bytes() <= limit) return;
      Share* const share = largestLocked();
      if (!share) return;
      share->counts_ = false;
      share->isOver_ = true;
      steps_ -= share->steps_;
      channel = share->channel_.lock();
    }
    if (!channel) continue;  // It is ending.
    channel->end(
        fmt::format("it holds the most of {}, which is more than {} bytes of all connections together", what_, limit));
  }
}

}  // namespace mw::remote
