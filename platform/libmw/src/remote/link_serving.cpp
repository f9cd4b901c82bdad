#include "../objects/callqueue.h"
#include "../runtime/threadwait.h"
#include "chaincodec.h"
#include "linkparts.h"
#include "metacodec.h"

#include <hxerror/mutex.h>
#include <libmw/remoteerror.h>
#include <libmw/text.h>

#include <algorithm>
#include <charconv>
#include <stdexcept>
#include <utility>

#include <fmt/format.h>

namespace mw::remote {
namespace {

constexpr std::uint32_t kMostArguments = 1024;
constexpr std::string_view kReserved = "korvo.";
/// What takes longer to read than to hand to another thread, by far.
constexpr std::uint64_t kManyValues = 512;
constexpr std::size_t kManyBytes = std::size_t{4} << 20;
bool lasts(const Frame& frame) { return frame.values > kManyValues || frame.bytes.size() > kManyBytes; }

std::optional<unsigned> numberIn(std::string_view text) {
  unsigned number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return number;
}

/// Why a broker refuses the connection, in its words.
std::string refusalIn(const ArgumentValues& arguments) {
  const auto* reason = arguments.empty() ? nullptr : arguments.front().reference().getIf<HX::HXValue>();
  return fmt::format("it is refused: {}", reason ? reason->toString() : "");
}

}  // namespace

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

// --- Receiving ------------------------------------------------------------------------------------------------------

void Link::onFrame(const Frame& frame, std::vector<Work>& works) {
  const mw::detail::NoForeignCode scope;
  Reader in(frame.bytes);
  const std::uint32_t parts = in.list();
  const auto type = static_cast<MessageType>(in.number());
  const bool isNotification = type == MessageType::Notification && parts == 3;
  Work work;
  if (isNotification || (type == MessageType::Request && parts == 4)) {
    std::optional<std::uint32_t> id;
    if (!isNotification) id = in.number();
    const std::string_view target = in.text();
    if (isNotification && target == kEmit) {
      onEmission(in, frame, works);
    } else {
      queueEmissions(works);
      if (isNotification && target == kAuthor) {
        onAuthor(in);
      } else {
        work = isNotification && target == kCancel ? giveUp(in) : onCall(in, target, id, frame);
      }
    }
  } else if (type == MessageType::Response && parts == 4) {
    queueEmissions(works);
    work = onResponse(in, frame);
  } else {
    throw ProtocolError("a message that is neither request, response nor notification");
  }
  if (work) works.push_back(std::move(work));
  if (!in.atEnd()) throw ProtocolError("a message with too many parts");
}

void Link::onPause(std::vector<Work>& works) {
  const mw::detail::NoForeignCode scope;
  queueEmissions(works);
  waiting_.keepLimit();  // Also of what is not whole.
}

AnyValue Link::readValue(Reader& in) {
  if (const auto reference = in.extension(Extension::Object); reference.data() != nullptr) {
    return AnyValue(objects_.read(reference, shared_from_this()));
  }
  return AnyValue(in.value());
}

/// Objects are read at once, since what describes them, or gives them back, may be right behind.
void Link::readArguments(Reader& in, std::uint32_t count, const Frame& frame, ArgumentValues& arguments,
                         UnreadValues& unread) {
  const bool isLong = lasts(frame);
  for (; count > 0; --count) {
    if (const auto object = in.extension(Extension::Object); object.data() != nullptr) {
      arguments.emplace_back(objects_.read(object, shared_from_this()));
    } else if (isLong) {
      unread.add(arguments.size(), in.skip());
      arguments.emplace_back();
    } else {
      const Reader before = in;
      try {
        arguments.emplace_back(in.value());
      } catch (const ValueError&) {
        unread.add(arguments.size(), Reader(before).skip());  // Fails those who need it.
        arguments.emplace_back();
      }
    }
  }
}

Work Link::onResponse(Reader& in, const Frame& frame) {
  const std::uint32_t id = in.number();
  auto pending = takePending(id);
  if (!pending) throw ProtocolError(fmt::format("a response to a request {} that was not made", id));
  if (!lasts(frame)) {
    finish(*pending, in);
    return {};
  }
  Bytes bytes;
  for (int part = 0; part < 2; ++part) {
    const auto skipped = in.skip();
    bytes.insert(bytes.end(), skipped.begin(), skipped.end());
  }
  return [self = shared_from_this(), kept = std::make_shared<Pending>(std::move(*pending)), bytes = std::move(bytes)] {
    const mw::detail::NoForeignCode scope;
    Reader later(bytes);
    try {
      self->finish(*kept, later);
    } catch (const ProtocolError& error) {
      self->end(error.what());
    }
  };
}

/// @param in  The error and the result.
void Link::finish(Pending& pending, Reader& in) {
  try {
    if (in.nil()) {
      AnyValue result = readValue(in);
      pending.promise.trySetValue(pending.returns ? std::move(result) : AnyValue());
    } else {
      pending.promise.trySetException(errorFrom(in.value()));
      readValue(in);
    }
  } catch (const ProtocolError& error) {
    const std::string text = fmt::format("the answer of {} cannot be read: {}", peer(), error.what());
    pending.promise.trySetException(std::make_exception_ptr(std::runtime_error(text)));
    if (!dynamic_cast<const ValueError*>(&error)) throw;
  }
}

/// @return How many follow.
std::uint32_t Link::beginArguments(Reader& in, Chain& stated) {
  LinkAuthors::Header unused;
  return beginArguments(in, stated, unused);
}

std::uint32_t Link::beginArguments(Reader& in, Chain& stated, LinkAuthors::Header& author) {
  std::uint32_t count = in.list();
  if (count > 0) {
    if (const auto chain = in.extension(Extension::Chain); chain.data() != nullptr) {
      stated = readChain(chain, author);
      --count;
    }
  }
  if (count > kMostArguments) throw ProtocolError(fmt::format("a call with more than {} arguments", kMostArguments));
  return count;
}

Work Link::onCall(Reader& in, std::string_view target, std::optional<std::uint32_t> id, const Frame& frame) {
  auto call = std::make_shared<Incoming>();
  call->id = id;
  call->size = frame.bytes.size();
  call->memory = call->size + sizeof(Incoming) + (lasts(frame) ? 0 : frame.values * sizeof(HX::HXValue));
  call->target = target;
  LinkAuthors::Header author;
  const std::uint32_t count = beginArguments(in, call->chain, author);
  call->author = authors_.of(author);
  call->object = targetAtArrival(call->target);
  readArguments(in, count, frame, call->arguments, call->unread);
  if (call->chain.depth > kDeepestChain) {
    call->refusal = fmt::format("calls back and forth nest more than {} deep", kDeepestChain);
    call->chain = {};
  }
  if (!id && target == kAlive) return {};
  if (!id && target == kRefused) throw ProtocolError(refusalIn(call->arguments));  // The end is right behind it.
  const Caller caller = call->chain.caller;
  if (caller && call->chain.depth > 0) {
    countWaiting(call->size, call->memory);
    {
      const HX::MutexLock lock(mutex_);
      nested_.push_back(call);
    }
    Work work = [self = shared_from_this(), call] { self->serveNested(call); };
    if (runInChain(caller, domain_, work)) return {};
    return [self = shared_from_this(), call, work = std::move(work)] {
      const Thread thread(*self);
      if (++self->unawaited_ > self->options_.callLimit) {
        self->refuseNested(call, self->limitOfLink());
      } else if (!thread) {
        self->refuseNested(call, Thread::limit());
      } else {
        work();
      }
      --self->unawaited_;
    };
  }
  const std::string_view object = target.substr(0, target.rfind('.'));
  const StrandKey key{caller, std::hash<std::string_view>()(object)};
  return schedule(key, std::move(call));
}

/// Read here, since the calls that mean it may be right behind.
void Link::onAuthor(Reader& in) {
  Chain unused;
  if (beginArguments(in, unused) != 2) throw ProtocolError("an author has a number and a text");
  const std::uint32_t number = in.number();
  authors_.enter(number, in.text());
}

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
    postOrRun([self = shared_from_this(), key, following] { self->runStrand(key, following); });
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
  constexpr unsigned kPatience = 5;
  std::vector<std::string> texts;
  const StrandKey* strand = nullptr;
  const Incoming* running = nullptr;
  strands_.forEach([&](const StrandKey& key, const std::shared_ptr<Incoming>& call) {
    if (std::exchange(strand, &key) != &key) running = nullptr;
    const auto state = call->state.load();
    if (state == Incoming::State::Runs) running = call.get();
    if (state != Incoming::State::Waits) return;
    if (++call->heartbeats == kPatience && running) {
      texts.push_back(fmt::format("{} of {} has waited for longer than {} ms behind {}, a call of the same thread",
                                  call->target, peer(), (kPatience * options_.heartbeat).count(), running->target));
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

// --- Serving --------------------------------------------------------------------------------------------------------

/// The object that is called, held from now on: what was sent before the end of the link is done after it. Empty when
/// there is none yet, and for what the process itself answers.
AnyObject Link::targetAtArrival(std::string_view target) const {
  if (target.starts_with(kReserved)) return {};
  if (!target.starts_with('@')) return reserved_->find(std::string(target.substr(0, target.rfind('.'))));
  const auto id = numberIn(target.substr(1, target.rfind('.') - 1));
  return id ? objects_.leased(*id) : AnyObject();
}

AnyObject Link::targetOf(const Incoming& call, std::string_view& member) const {
  const std::string_view target = call.target;
  const std::size_t dot = target.rfind('.');
  if (dot == std::string_view::npos)
    throw std::runtime_error(fmt::format("{}: a method is named SERVICE.METHOD", shorten(target)));
  member = target.substr(dot + 1);
  if (call.object) return call.object;
  const std::string name(target.substr(0, dot));
  if (target.starts_with('@')) throw std::runtime_error(fmt::format("there is no object {}", shorten(name)));
  AnyObject found = reserved_->find(name);
  if (!found) throw NoSuchServiceError(fmt::format("no service named {}", shorten(name)));
  return found;
}

/// Reads what was left of the arguments.
void Link::readRest(Incoming& call) {
  try {
    call.unread.readInto(call.arguments);
  } catch (const ValueError& error) {
    throw std::runtime_error(fmt::format("{}: an argument cannot be kept: {}", shorten(call.target), error.what()));
  }
}

Future<AnyValue> Link::execute(Incoming& call) {
  countBegun(call.size, call.memory);
  CallStop* const stop = call.id ? &call.stop : nullptr;
  try {
    if (!call.refusal.empty()) throw std::runtime_error(fmt::format("{}: {}", shorten(call.target), call.refusal));
    readRest(call);
    if (call.target.starts_with(kReserved)) {
      const Serving serving({call.chain.caller, call.chain.depth + 1}, domain_, stop, call.author);
      return reserved_->call(std::string_view(call.target).substr(kReserved.size()),
                             std::span<const AnyValue>(call.arguments.data(), call.arguments.size()));
    }
    std::string_view member;
    const AnyObject object = targetOf(call, member);
    // What is handed on to the object of another process stays as deep as it is.
    const bool relays = object->isRemote();
    const Serving serving({call.chain.caller, call.chain.depth + (relays ? 0U : 1U)}, domain_, stop, call.author,
                          relays);
    return withReferences(call.arguments, [&](GenericFunctionParameters arguments) {
      return callMember(object, member, arguments, call.id.has_value());
    });
  } catch (const ProtocolError& error) {
    end(error.what());
    return Future<AnyValue>::failed(std::current_exception());
  } catch (...) {
    return Future<AnyValue>::failed(std::current_exception());
  }
}

Future<AnyValue> Link::callMember(const AnyObject& object, std::string_view member, GenericFunctionParameters arguments,
                                  bool wantsAnswer) {
  const MetaObject& offered = object->metaObject();
  const MetaMethod* method = nullptr;
  int signal = -1;
  if (const auto id = numberIn(member)) {
    method = offered.method(*id);
    signal = static_cast<int>(*id);
  } else {
    signal = offered.signalId(member);
    if (signal < 0 || !offered.findMethods(member).empty()) method = &offered.resolve(member, arguments);
  }
  if (!method) {
    const auto signals = offered.signals();
    const auto isMeant = [&](const MetaSignal& one) { return static_cast<int>(one.id) == signal; };
    if (std::none_of(signals.begin(), signals.end(), isMeant)) {
      throw NoSuchMethodError(fmt::format("{}.{}: no such method", offered.typeName(), shorten(member)));
    }
    // Triggered beyond, it is not waited for here.
    if (object->isRemote()) return object->metaCall(static_cast<unsigned>(signal), arguments);
    object->metaPost(static_cast<unsigned>(signal), arguments);
    return Future<AnyValue>::ready(AnyValue());
  }
  if ((method->flags & kSameProcessOnly) != 0) {
    throw std::runtime_error(fmt::format("{}.{} works only inside the process of {}: its result is an address there",
                                         offered.typeName(), method->name, offered.typeName()));
  }
  if (wantsAnswer || !object->isRemote()) return object->metaCall(method->id, arguments);
  object->metaPost(method->id, arguments);  // Where it lives, its failure is logged.
  return Future<AnyValue>::ready(AnyValue());
}

/// What people call it: peers that know an object go by numbers.
std::string Link::nameOf(const Incoming& call) {
  const auto member = numberIn(std::string_view(call.target).substr(call.target.rfind('.') + 1));
  return call.object && member ? call.object->memberName(*member) : call.target;
}

void Link::answer(const std::shared_ptr<Incoming>& call, const Future<AnyValue>& result, Sending when) {
  if (!result.isFinished()) {
    result.then(
        [self = shared_from_this(), call](const Future<AnyValue>& done) { self->answer(call, done, Sending::Now); });
    return;
  }
  if (!call->id) {
    if (const auto error = result.exception()) mw::detail::logFailedPost(shorten(nameOf(*call)), error, peer());
    return;
  }
  Draft draft(objects_, MessageType::Response);
  const auto write = [&](const HX::HXValue& error, const AnyReference& value) {
    draft.out.number(*call->id);
    draft.out.value(error);
    writeValue(draft.out, value, draft.mention, true);
    requireSendable(draft.message, "the result");
  };
  try {
    if (result.hasValue()) {
      write({}, AnyReference::of(result.value()));
    } else {
      write(toValue(result.isCanceled() ? std::make_exception_ptr(std::runtime_error("the call was canceled"))
                                        : result.exception()),
            {});
    }
  } catch (...) {
    draft.beginAnew();
    write(toValue(std::current_exception()), {});
  }
  channel_->send(draft.message, when);
  draft.mention.sent();
}

}  // namespace mw::remote
