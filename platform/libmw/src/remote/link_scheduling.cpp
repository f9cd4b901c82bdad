#include "../runtime/afterserving.h"
#include "linkparts.h"

#include <hxerror/mutex.h>
#include <libmw/text.h>

#include <algorithm>
#include <stdexcept>
#include <utility>

#include <fmt/format.h>

namespace mw::remote {

/// A thread for calls of the peer. Each peer has one for certain, however many others hold as many as they get; those
/// beyond the first are limited for all of them together.
class Link::Thread {
 public:
  explicit Thread(Link& link) : link_(link), isFirst_(link.running_.fetch_add(1) == 0) {
    if (!isFirst_) isThere_ = others.fetch_add(1) < kMostOthers;
  }
  Thread(const Thread&) = delete;
  Thread& operator=(const Thread&) = delete;
  ~Thread() {
    if (!isFirst_) --others;
    --link_.running_;
  }
  explicit operator bool() const { return isThere_; }

  static std::string limit() {
    return fmt::format("{} calls are running beyond the first of each process, which is the limit", kMostOthers);
  }

 private:
  static constexpr std::size_t kMostOthers = 128;
  static inline std::atomic<std::size_t> others{0};

  Link& link_;
  const bool isFirst_;
  bool isThere_ = true;
};

std::string Link::limitOfLink() const {
  return fmt::format("{} calls of this process are running, which is the limit", options_.callLimit);
}

void Link::refuse(const std::shared_ptr<Incoming>& call, const std::string& limit) {
  countBegun(call->size, call->memory);
  fail(call, limit);
}

void Link::fail(const std::shared_ptr<Incoming>& call, std::string_view reason) {
  const std::runtime_error error(fmt::format("{}: {}", shorten(call->target), reason));
  answer(call, Future<AnyValue>::failed(std::make_exception_ptr(error)), Sending::Now);
}

/// Of one that was dropped.
void Link::passBy(const std::shared_ptr<Incoming>& call) {
  if (call->id) fail(call, "the call was given up");
}

void Link::countWaiting(std::size_t size, std::size_t memory) {
  waiting_.add(memory);
  if (waitingBytes_.fetch_add(size) > options_.inputLimit) {
    throw ProtocolError(fmt::format("it calls faster than it is served: more than {} bytes wait", options_.inputLimit));
  }
}

void Link::countBegun(std::size_t size, std::size_t memory) {
  waitingBytes_ -= size;
  waiting_.remove(memory);
}

/// It does not run, unless it does already. Those before it may keep it in its queue for long.
void Link::drop(Incoming& call) {
  if (!call.change(Incoming::State::Waits, Incoming::State::Dropped)) return;
  countBegun(call.size, call.memory);
  call.clear();
}

Work Link::schedule(const StrandKey& key, std::shared_ptr<Incoming> call) {
  countWaiting(call->size, call->memory);
  using Entry = Strands<StrandKey, Incoming>::Entry;
  switch (strands_.enter(key, call, options_.callLimit)) {
    case Entry::Begins:
      // What is read until then runs with it.
      return [self = shared_from_this(), key] { self->runStrand(key, self->strands_.next(key, nullptr)); };
    case Entry::Follows:
      return {};
    case Entry::Refused:
      break;
  }
  return [self = shared_from_this(), call = std::move(call)] { self->refuse(call, self->limitOfLink()); };
}

/// By the thread that waits within its chain, if there is one.
Work Link::scheduleNested(const std::shared_ptr<Incoming>& call) {
  countWaiting(call->size, call->memory);
  {
    const HX::MutexLock lock(mutex_);
    nested_.push_back(call);
  }
  Work work = [self = shared_from_this(), call] { self->serveNested(call); };
  if (runInChain(call->chain.caller, domain_, work)) return {};
  return [self = shared_from_this(), call] {
    const Thread thread(*self);
    if (++self->unawaited_ > self->options_.callLimit) {
      self->refuseNested(call, self->limitOfLink());
    } else if (!thread) {
      self->refuseNested(call, Thread::limit());
    } else {
      self->serveNested(call);
    }
    --self->unawaited_;
  };
}

void Link::runStrand(const StrandKey& key, std::shared_ptr<Incoming> first) {
  using State = Incoming::State;
  const Thread thread(*this);
  OutputBatch batch;
  bool wereMore = false;
  for (auto call = std::move(first); call; call = strands_.next(key, call.get())) {
    if (!call->change(State::Waits, State::Runs)) {
      passBy(call);
      continue;
    }
    if (!thread) {
      refuse(call, Thread::limit());
      call->clear();
      continue;
    }
    mw::detail::AfterServing::passOn();  // What the call before it has left: this one may last.
    const bool more = call->next != nullptr;
    batch.hold(more);
    auto result = execute(*call);
    batch.hold(false);
    if (!result.isFinished()) {
      channel_->flush();  // It may last until that one is answered.
      relay(key, call, result);
      return;
    }
    const bool isLast = !call->change(State::Runs, State::Ended);  // Others go on with what is behind it.
    answer(call, result, more && !isLast ? Sending::Soon : Sending::Now);
    call->clear();
    if (isLast) return;
    if (std::exchange(wereMore, more) && !more) {
      channel_->flush();  // The last one may have had no answer.
      batch.flush();
    }
  }
}

/// The strand goes on once the answer is there.
void Link::relay(const StrandKey& key, const std::shared_ptr<Incoming>& call, const Future<AnyValue>& result) {
  call->cancelOnStop(result);
  result.then([self = shared_from_this(), key, call](const Future<AnyValue>& done) {
    self->answer(call, done, Sending::Now);
    call->clear();
    if (call->change(Incoming::State::Runs, Incoming::State::Ended)) self->continueStrand(key, *call);
  });
}

void Link::continueStrand(const StrandKey& key, const Incoming& after) {
  if (const auto following = strands_.next(key, &after)) {
    channel_->post([self = shared_from_this(), key, following] { self->runStrand(key, following); });
  }
}

/// A call of the chain that the calling thread waits in, or of one that no thread waits in.
void Link::serveNested(const std::shared_ptr<Incoming>& call) {
  const OutputBatch atOnce;
  if (!call->change(Incoming::State::Waits, Incoming::State::Runs)) {
    passBy(call);
    return forgetNested(call);
  }
  const auto result = execute(*call);
  if (!result.isFinished()) call->cancelOnStop(result);
  result.then([self = shared_from_this(), call](const Future<AnyValue>& done) {
    self->answer(call, done, Sending::Now);
    self->forgetNested(call);
  });
}

void Link::refuseNested(const std::shared_ptr<Incoming>& call, const std::string& limit) {
  if (call->change(Incoming::State::Waits, Incoming::State::Runs)) {
    refuse(call, limit);
  } else {
    passBy(call);
  }
  forgetNested(call);
}

void Link::forgetNested(const std::shared_ptr<Incoming>& call) {
  const HX::MutexLock lock(mutex_);
  std::erase(nested_, call);
}

/// The peer does not want an answer any more. It gets one all the same.
/// @return What goes on behind it.
Work Link::giveUp(Reader& in) {
  using State = Incoming::State;
  Chain unused;
  if (beginArguments(in, unused) != 1) throw ProtocolError("a call is given up by its number alone");
  const std::uint32_t id = in.number();
  std::shared_ptr<Incoming> given;
  StrandKey strand;
  strands_.forEach([&](const StrandKey& key, const std::shared_ptr<Incoming>& call) {
    if (call->id != id || call->state == State::Ended) return;
    given = call;
    strand = key;
  });
  if (given) {
    given->stop.request();
    drop(*given);
    if (!given->change(State::Runs, State::Abandoned)) return {};
    return [self = shared_from_this(), strand, given] {
      if (auto following = self->strands_.next(strand, given.get())) self->runStrand(strand, std::move(following));
    };
  }
  {
    const HX::MutexLock lock(mutex_);
    const auto found = std::ranges::find_if(nested_, [&](const auto& call) { return call->id == id; });
    if (found != nested_.end()) given = *found;
  }
  if (given) {
    given->stop.request();
    drop(*given);
  }
  return {};
}

/// Names calls that have waited long behind another one of their own thread, which may never end.
void Link::reportWaits() {
  constexpr unsigned kHeartbeatsOfPatience = 5;
  std::vector<std::string> texts;
  const StrandKey* strand = nullptr;
  const Incoming* running = nullptr;
  strands_.forEach([&](const StrandKey& key, const std::shared_ptr<Incoming>& call) {
    if (std::exchange(strand, &key) != &key) running = nullptr;
    const auto state = call->state.load();
    if (state == Incoming::State::Runs) running = call.get();
    if (state != Incoming::State::Waits) return;
    if (++call->heartbeats == kHeartbeatsOfPatience && running) {
      texts.push_back(fmt::format("{} of {} has waited for longer than {} ms behind {}, a call of the same thread",
                                  call->target, peer(), (kHeartbeatsOfPatience * options_.heartbeat).count(),
                                  running->target));
    }
    running = nullptr;  // Those behind it wait for the same.
  });
  for (const auto& text : texts) log::warning(kCategory, "call", text);
}

/// The peer has gone: what runs for it need not wait for anything. What has come is done all the same, unless it is so
/// much that the peer had to go for it.
void Link::endWaits() {
  std::vector<std::shared_ptr<Incoming>> all;
  strands_.forEach([&](const StrandKey&, const std::shared_ptr<Incoming>& call) { all.push_back(call); });
  {
    const HX::MutexLock lock(mutex_);
    all.insert(all.end(), nested_.begin(), nested_.end());
  }
  const bool isTooMuch = waiting_.isOver() || waitingBytes_ > options_.inputLimit;
  for (const auto& call : all) {
    if (call->id && call->state != Incoming::State::Ended) call->stop.request();
    if (isTooMuch) drop(*call);
  }
}

}  // namespace mw::remote
