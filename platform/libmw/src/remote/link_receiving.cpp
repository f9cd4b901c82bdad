#include "../runtime/recycled.h"
#include "../runtime/threadwait.h"
#include "chaincodec.h"
#include "linkparts.h"
#include "metacodec.h"

#include <stdexcept>
#include <utility>

#include <fmt/format.h>

namespace mw::remote {
namespace {

constexpr std::uint32_t kMostArguments = 1024;
/// What takes longer to read than to hand to another thread, by far.
constexpr std::uint64_t kManyValues = 512;
constexpr std::size_t kManyBytes = std::size_t{4} << 20;
bool lasts(const Frame& frame) { return frame.values > kManyValues || frame.bytes.size() > kManyBytes; }

/// Why a broker refuses the connection, in its words.
std::string refusalIn(const ArgumentValues& arguments) {
  const auto* reason = arguments.empty() ? nullptr : arguments.front().reference().getIf<HX::HXValue>();
  return fmt::format("it is refused: {}", reason ? reason->toString() : "");
}

}  // namespace

void Link::onFrame(const Frame& frame, std::vector<Work>& works) {
  const mw::detail::NoForeignCode scope;
  Reader in(frame.bytes, frame.last);
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
  called_ = {};
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
      // Nothing comes after the arguments.
      unread.add(arguments.size(), count == 1 ? in.rest() : in.skip());
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
  auto call = std::allocate_shared<Incoming>(mw::detail::Recycled<Incoming>());
  call->id = id;
  call->size = frame.size();
  call->memory = call->size + sizeof(Incoming) + (lasts(frame) ? 0 : frame.values * sizeof(HX::HXValue));
  call->target = target;
  call->object = calledObject(target);
  LinkAuthors::Header author;
  const std::uint32_t count = beginArguments(in, call->chain, author);
  if (author.empty() && !called_.peer) called_.peer = authors_.peer();
  call->author = author.empty() ? called_.peer : authors_.of(author);
  readArguments(in, count, frame, call->arguments, call->unread);
  if (call->chain.depth > kDeepestChain) {
    call->refusal = fmt::format("calls back and forth nest more than {} deep", kDeepestChain);
    call->chain = {};
  }
  if (!id && target == kAlive) return {};
  if (!id && target == kRefused) throw ProtocolError(refusalIn(call->arguments));  // The end is right behind it.
  const Caller caller = call->chain.caller;
  if (caller && call->chain.depth > 0) return scheduleNested(call);
  return schedule({caller, called_.strand}, std::move(call));
}

/// What comes in one reading mostly goes to one object.
AnyObject Link::calledObject(std::string_view target) {
  if (called_.target == target) {
    if (auto object = called_.object.lock()) return AnyObject(std::move(object));
  }
  AnyObject object = targetAtArrival(target);
  called_.target = target;
  called_.object = object.pointer();
  called_.strand = std::hash<std::string_view>()(target.substr(0, target.rfind('.')));
  return object;
}

/// Read here, since the calls that mean it may be right behind.
void Link::onAuthor(Reader& in) {
  Chain unused;
  if (beginArguments(in, unused) != 2) throw ProtocolError("an author has a number and a text");
  const std::uint32_t number = in.number();
  authors_.enter(number, in.text());
}

}  // namespace mw::remote
