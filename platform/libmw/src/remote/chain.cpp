#include "chain.h"

#include "../runtime/threadlocal.h"
#include "waiting.h"

#include <atomic>
#include <random>
#include <stdexcept>
#include <utility>

#include <fmt/format.h>

namespace mw::remote {
namespace {

std::uint32_t nextThread() {
  static std::atomic<std::uint32_t> last{0};
  return ++last;
}

HX_THREAD_LOCAL constinit Served served;

}  // namespace

Served& servedByThisThread() { return served; }

std::uint64_t thisEndpoint() {
  static const std::uint64_t id = [] {
    std::random_device random;
    return (std::uint64_t{random()} << 32U | random()) | 1U;
  }();
  return id;
}

Chain chainOfThisThread() {
  if (!served.chain.caller) served.chain.caller = {thisEndpoint(), nextThread()};
  if (served.chain.depth > kDeepestChain) {
    throw std::runtime_error(fmt::format("calls between processes are nested more than {} deep", kDeepestChain));
  }
  return served.chain;
}

Serving::Serving(const Chain& chain, Domain domain, CallStop* stop, const HX::Author& author, bool relays)
    : outer_(std::exchange(served, {chain, domain, relays, stop, &author})), inTheCallersName_(author) {
  serveWhileWaiting();
}

Serving::~Serving() { served = outer_; }

}  // namespace mw::remote
