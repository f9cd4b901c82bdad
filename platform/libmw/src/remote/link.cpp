#include "../runtime/threadwait.h"
#include "chaincodec.h"
#include "linkparts.h"

#include <hxerror/mutex.h>
#include <libmw/remoteerror.h>

#include <atomic>
#include <stdexcept>
#include <utility>

#include <fmt/format.h>

namespace mw::remote {
namespace {

/// The links of the process, for futures, which outlive them.
class Links {
 public:
  static Links& instance() {
    static Links* const the = new Links;  // Never destroyed: links may end at the very end.
    return *the;
  }
  void add(std::uint64_t number, const std::weak_ptr<Link>& link) {
    const HX::MutexLock lock(mutex_);
    links_.emplace(number, link);
  }
  void remove(std::uint64_t number) {
    const HX::MutexLock lock(mutex_);
    links_.erase(number);
  }
  std::shared_ptr<Link> find(std::uint64_t number) const {
    const HX::MutexLock lock(mutex_);
    const auto found = links_.find(number);
    return found == links_.end() ? nullptr : found->second.lock();
  }
  std::size_t count() const {
    const HX::MutexLock lock(mutex_);
    return links_.size();
  }

 private:
  mutable HX::Mutex mutex_;
  std::unordered_map<std::uint64_t, std::weak_ptr<Link>> links_ HX_GUARDED_BY(mutex_);
};

std::uint64_t nextNumber() {
  static std::atomic<std::uint64_t> last{0};
  return ++last;
}

}  // namespace

Link::Link(std::shared_ptr<Channel> channel, Domain domain, const LinkOptions& options)
    : number_(nextNumber()),
      channel_(std::move(channel)),
      domain_(domain),
      options_(options),
      authors_(channel_->peer(), [this](std::uint8_t number, std::string_view text) { tellAuthor(number, text); }),
      waiting_(Budget::input(), options.inputOfAll) {
  waiting_.join(channel_->peer(), channel_);
}

Link::~Link() {
  Links::instance().remove(number_);
  channel_->end("nobody uses it");
}

void Link::start(std::shared_ptr<ReservedService> reserved, OnEnd onEnd) {
  reserved_ = std::move(reserved);
  onEnd_ = std::move(onEnd);
  Links::instance().add(number_, weak_from_this());
  channel_->start(shared_from_this());
  tick();
}

// --- Liveness and end -----------------------------------------------------------------------------------------------

void Link::tick() {
  {
    const HX::MutexLock lock(mutex_);
    if (ended_) return;
  }
  if (const auto silence = channel_->silence(); silence >= 3 * options_.heartbeat) {
    return channel_->end(fmt::format("nothing was heard of it for {} ms", silence.count()));
  }
  tell(kAlive);
  reportWaits();
  defaultLoop().post(
      [weak = weak_from_this()] {
        if (const auto self = weak.lock()) self->tick();
      },
      options_.heartbeat);
}

std::exception_ptr Link::endedError() const {
  return std::make_exception_ptr(ConnectionLostError(
      fmt::format("the connection to {} has ended: {}", peer(), ended_.value_or("unknown reason"))));
}

void Link::onEnd(const std::string& reason) {
  std::vector<Pending> failed;
  std::exception_ptr error;
  {
    const HX::MutexLock lock(mutex_);
    ended_ = reason;
    error = endedError();
    failed = pending_.takeAll();
  }
  {
    const mw::detail::NoForeignCode scope;
    for (Pending& pending : failed) pending.promise.trySetException(error);
  }
  // Not held by whoever ends it: the task may be the last that knows the link.
  if (const auto self = weak_from_this().lock()) postOrRun([self, reason] { self->cleanUp(reason); });
}

void Link::cleanUp(const std::string& reason) {
  endWaits();
  if (reserved_) reserved_->end();
  objects_.clear();
  std::unordered_map<std::uint64_t, std::shared_ptr<Subscription>> subscriptions;
  {
    const HX::MutexLock lock(mutex_);
    subscriptions.swap(subscriptions_);
  }
  // What is queued is not delivered any more: subscribers may go once they know of the end.
  for (const auto& [number, subscription] : subscriptions) subscription->close();
  subscriptions.clear();
  gone_.trySetValue();  // First: who is told of the end may wait for it.
  if (onEnd_) onEnd_(reason);
}

bool Link::hasEnded() const {
  const HX::MutexLock lock(mutex_);
  return ended_.has_value();
}

std::size_t Link::count() { return Links::instance().count(); }

std::size_t Link::pendingCount() const {
  const HX::MutexLock lock(mutex_);
  return pending_.count();
}

/// The peer has nothing to answer, nothing to emit to, and no object to call. That it tells of services, and that it is
/// there, does not matter at once.
bool Link::isIdle() const {
  {
    const HX::MutexLock lock(mutex_);
    if (pending_.count() > 0 || !subscriptions_.empty()) return false;
  }
  return objects_.leaseCount() == 0;
}

// --- Calling --------------------------------------------------------------------------------------------------------

/// @param isLast  Whether nothing follows it in the message.
/// @return Whether every process is told the same, and all of it is among the bytes.
bool Link::writeValue(Writer& out, const AnyReference& value, ObjectTable::Mention& mention, bool isLast) {
  const auto write = [&](const HX::HXValue& plain) {
    if (isLast) return out.lastValue(plain);
    out.value(plain);
    return true;
  };
  const AnyReference content = value.content();
  if (!content) {
    out.nil();
    return true;
  }
  if (const auto* plain = content.getIf<HX::HXValue>()) return write(*plain);
  if (const auto* text = content.getIf<std::string>(); text && text->size() < kLongContent) {
    out.text(*text);  // The most frequent of arguments needs no value made of it.
    return true;
  }
  if (content.type()->toObject) {
    objects_.write(out, content.type()->toObject(content.data()), *this, mention);
    return false;
  }
  HX::HXValue converted;
  if (!content.toValue(converted)) {
    throw std::runtime_error(fmt::format("a {} cannot go to another process", content.type()->name));
  }
  return write(converted);
}

/// What exceeds a limit would end the link at the peer; here it fails the call that it belongs to.
void Link::requireSendable(const Message& message, std::string_view what) const {
  if (message.size() <= options_.depthLimit) return;  // It takes a byte to go one deeper.
  try {
    FrameSplitter(options_.frameLimit, options_.depthLimit, options_.valueLimit).advance(message.bytes);
  } catch (const ProtocolError& error) {
    throw TooLargeError(
        fmt::format("{} of {} bytes cannot go to another process: {}", what, message.size(), error.what()));
  }
}

void Link::writeCall(Writer& out, std::string_view target, const std::optional<Header>& header,
                     GenericFunctionParameters parameters, ObjectTable::Mention& mention) {
  out.text(target);
  out.list(static_cast<std::uint32_t>(parameters.size() + (header ? 1 : 0)));
  if (header) writeChain(out, header->chain, header->author.header());
  for (std::size_t i = 0; i < parameters.size(); ++i) {
    writeValue(out, parameters[i], mention, i + 1 == parameters.size());
  }
}

Future<AnyValue> Link::call(std::string_view target, GenericFunctionParameters parameters, Calling then, bool returns) {
  auto promise = mw::detail::PromiseAccess::make<AnyValue>(
      [link = number_](mw::detail::FutureStateBase& answer) { giveUp(link, answer); });
  auto future = promise.future();
  std::uint32_t id = 0;
  try {
    const Header header{chainOfThisThread(), LinkAuthors::Stated(authors_)};
    Expectation expectation = expectAnswer(channel_, domain_, then, mw::detail::PromiseAccess::stateOf(promise));
    {
      const HX::MutexLock lock(mutex_);
      if (ended_) return Future<AnyValue>::failed(endedError());
      id = pending_.add({std::move(promise), returns, std::move(expectation)});
    }
    Draft draft(objects_, MessageType::Request);
    draft.out.number(id);
    writeCall(draft.out, target, header, parameters, draft.mention);
    requireSendable(draft.message, "the call");
    const bool leavesAtOnce = then != Calling::MakesMore || !OutputBatch::holdsHere();
    if (!leavesAtOnce || !beginReadingAnswer()) expectMore();
    if (leavesAtOnce) {
      channel_->send(draft.message, Sending::Now);
    } else {
      OutputBatch::send(channel_, draft.message);
    }
    draft.mention.sent();
  } catch (...) {
    takePending(id);
    return Future<AnyValue>::failed(std::current_exception());
  }
  return future;
}

/// Nobody wants the answer any more. The call stays among those that wait for one: it comes all the same.
void Link::giveUp(std::uint64_t number, mw::detail::FutureStateBase& answer) {
  if (const auto link = Links::instance().find(number)) {
    std::uint32_t id = 0;
    {
      const HX::MutexLock lock(link->mutex_);
      if (!link->ended_) {
        id = link->pending_.find(
            [&](const Pending& one) { return &mw::detail::PromiseAccess::stateOf(one.promise) == &answer; });
      }
    }
    if (id != 0) link->tell(kCancel, id);
  }
  answer.tryCancel();
}

void Link::expectMore() {
  if (auto* const reading = channel_->callerReading()) reading->expectMore();
}

void Link::post(std::string_view target, GenericFunctionParameters parameters) {
  {
    const HX::MutexLock lock(mutex_);
    if (ended_) std::rethrow_exception(endedError());
  }
  send(target, parameters, true);
}

void Link::send(std::string_view target, GenericFunctionParameters parameters, bool inChain) {
  std::optional<Header> header;
  if (inChain) header.emplace(Header{chainOfThisThread(), LinkAuthors::Stated(authors_)});
  notify([&](Writer& out, ObjectTable::Mention& mention) { writeCall(out, target, header, parameters, mention); });
}

/// At once: a call that is sent later may arrive no earlier.
void Link::tellAuthor(std::uint8_t number, std::string_view text) {
  Draft draft(objects_, MessageType::Notification);
  draft.out.text(kAuthor);
  draft.out.list(2);
  draft.out.number(number);
  draft.out.text(text);
  channel_->send(draft.message, Sending::Soon);
}

std::optional<Link::Pending> Link::takePending(std::uint32_t id) {
  const HX::MutexLock lock(mutex_);
  return pending_.take(id);
}

void Link::giveBack(std::uint32_t id, std::uint32_t references) {
  objects_.forget(id);
  tell("korvo.release", id, references);
}

}  // namespace mw::remote
