#include "objecttable.h"

#include "../objects/servicehandle.h"
#include "link.h"
#include "metacodec.h"
#include "remoteobject.h"
#include "remoteservice.h"

#include <hxerror/mutex.h>
#include <hxvalue/msgpack.h>

#include <algorithm>
#include <optional>
#include <utility>

namespace mw::remote {
namespace {

/// Whose object a reference means, as its sender sees it.
enum class Owner : std::uint8_t { Sender = 0, Receiver = 1 };

/// A peer describes a few kinds of object, not thousands.
constexpr std::size_t kMostDescriptions = 4096;
/// What is described takes some twenty times as much in memory.
constexpr std::size_t kMostDescribedBytes = std::size_t{8} << 20;
/// Of what is told so much is remembered, on both sides. What goes beyond that is told with each reference, under a
/// number of its own; the peer has room for one such.
constexpr std::size_t kMostTold = kMostDescriptions - 1;
constexpr std::size_t kMostToldBytes = kMostDescribedBytes / 2;
constexpr std::uint32_t kToldEachTime = 0;

}  // namespace

AnyObject ObjectTable::leased(std::uint32_t id) const {
  const HX::MutexLock lock(mutex_);
  const auto found = leases_.find(id);
  return found == leases_.end() ? AnyObject() : found->second.object;
}

std::size_t ObjectTable::leaseCount() const {
  const HX::MutexLock lock(mutex_);
  return leases_.size();
}

std::uint32_t ObjectTable::lease(const AnyObject& object) {
  const HX::MutexLock lock(mutex_);
  if (cleared_) return 0;
  const auto [known, isNew] = leaseIds_.emplace(object->identity(), 0);
  // A handle that was cut off does not keep its object: what has the identity now may be another one.
  const auto* handle =
      isNew ? nullptr : dynamic_cast<const ServiceHandle*>(leases_[known->second].object.pointer().get());
  if (isNew || (handle && handle->isCutOff())) {
    known->second = freeNumber(object->number());
    leases_[known->second].object = object;
  }
  ++leases_[known->second].count;
  return known->second;
}

/// @return `wanted`, or the next one that stands for nothing.
std::uint32_t ObjectTable::freeNumber(std::uint32_t wanted) const {
  constexpr std::uint32_t kLargest = 0x7fffffff;
  wanted = std::max(wanted & kLargest, 1U);
  while (leases_.contains(wanted)) wanted = wanted < kLargest ? wanted + 1 : 1;
  return wanted;
}

/// Of a handle on an object of the peer, wherever it comes from, the peer's object itself; else what is lent to it.
AnyObject ObjectTable::meantBy(const AnyObject& given, const Link& link) {
  AnyObject object = given;
  AnyObject lent = given;
  while (object) {
    if (const auto* found = dynamic_cast<const RemoteService*>(object.pointer().get())) {
      object = found->target();
      if (found == given.pointer().get()) lent = object;
    } else if (const auto* service = dynamic_cast<const ServiceHandle*>(object.pointer().get())) {
      object = service->target();
    } else {
      const auto* const remote = dynamic_cast<const RemoteObject*>(object.pointer().get());
      return remote && remote->link().get() == &link ? object : lent;
    }
  }
  return lent;
}

void ObjectTable::write(Writer& out, const AnyObject& given, const Link& link, Mention& mention) {
  if (!given) return out.nil();
  const AnyObject object = meantBy(given, link);
  Bytes content;
  Writer writer(content);
  writer.list(4);
  if (const auto* remote = dynamic_cast<const RemoteObject*>(object.pointer().get());
      remote && remote->link().get() == &link) {
    writer.number(static_cast<std::uint32_t>(Owner::Receiver));
    writer.number(remote->id());
    writer.number(0);
    writer.nil();
  } else {
    const std::uint32_t number = numberOf(object->metaObject());
    const std::uint32_t id = lease(object);
    if (id != 0) mention.leases_.push_back(id);
    writer.number(static_cast<std::uint32_t>(Owner::Sender));
    writer.number(id);
    writer.number(number);
    const bool isTold = [&] {
      const HX::MutexLock lock(mutex_);
      return told_.contains(number);
    }();
    if (isTold) {
      writer.nil();
    } else {
      writer.value(toValue(object->metaObject()));
      if (number != kToldEachTime) mention.descriptions_.push_back(number);
    }
    if (content.size() > kMostToldBytes) throw std::runtime_error("an object offers too much to be described");
  }
  out.extension(Extension::Object, content);
}

std::uint32_t ObjectTable::numberOf(const MetaObject& metaObject) {
  {
    const HX::MutexLock lock(mutex_);
    if (const auto known = numbersOfUids_.find(metaObject.uid()); known != numbersOfUids_.end()) return known->second;
  }
  HX::HXValue content = toValue(metaObject);
  const std::size_t size = HX::toMsgpack(content).size();
  const HX::MutexLock lock(mutex_);
  const auto number = static_cast<std::uint32_t>(numbers_.size() + 1);
  const bool isFull = numbers_.size() >= kMostTold || toldBytes_ + size > kMostToldBytes;
  if (isFull && !numbers_.contains(content)) return kToldEachTime;
  const auto [entry, isNew] = numbers_.emplace(std::move(content), number);
  if (isNew) toldBytes_ += size;
  const std::uint32_t known = entry->second;
  if (numbersOfUids_.size() >= kMostDescriptions) numbersOfUids_.clear();
  numbersOfUids_.emplace(metaObject.uid(), known);
  return known;
}

void ObjectTable::Mention::sent() {
  leases_.clear();
  if (descriptions_.empty()) return;
  const HX::MutexLock lock(table_.mutex_);
  table_.told_.insert(descriptions_.begin(), descriptions_.end());
  descriptions_.clear();
}

void ObjectTable::Mention::takeBack() {
  for (const std::uint32_t id : leases_) table_.release(id, 1);
  leases_.clear();
  descriptions_.clear();
}

AnyObject ObjectTable::read(std::span<const std::byte> reference, const std::shared_ptr<Link>& link) {
  Reader reader(reference);
  if (reader.list() != 4) throw ProtocolError("a reference to an object has four parts");
  const std::uint32_t owner = reader.number();
  if (owner > static_cast<std::uint32_t>(Owner::Receiver)) throw ProtocolError("a reference to an object of nobody");
  const std::uint32_t id = reader.number();
  const std::uint32_t description = reader.number();
  if (owner == static_cast<std::uint32_t>(Owner::Receiver)) {
    // Given back meanwhile, it may be gone: then it stands for nothing.
    return leased(id);
  }
  std::optional<MetaObject> told;
  if (reference.size() > kMostDescribedBytes) throw ProtocolError("a description of an object that is too long");
  if (!reader.nil()) told = metaObjectFrom(reader.value());
  std::shared_ptr<RemoteObject> object;  // Outlives the lock, since the last reference to it may be this one.
  const HX::MutexLock lock(mutex_);
  const MetaObject& metaObject = described(description, std::move(told), reference.size());
  auto& entry = remote_[id];
  object = entry.lock();
  if (!object) {
    object = std::make_shared<RemoteObject>(link, id, metaObject);
    entry = object;
  }
  object->addReference();
  return AnyObject(object);
}

/// What a peer's number stands for, now that it may have been told.
const MetaObject& ObjectTable::described(std::uint32_t description, std::optional<MetaObject> told, std::size_t size) {
  const auto known = descriptions_.find(description);
  if (!told) {
    if (known == descriptions_.end()) throw ProtocolError("a reference to an object that was not described");
    return known->second.metaObject;
  }
  const bool isNew = known == descriptions_.end();
  const std::size_t bytes = describedBytes_ + size - (isNew ? 0 : known->second.size);
  if (bytes > kMostDescribedBytes || (isNew && descriptions_.size() >= kMostDescriptions)) {
    throw ProtocolError("too many descriptions of objects");
  }
  describedBytes_ = bytes;
  return descriptions_.insert_or_assign(description, Description{std::move(*told), size}).first->second.metaObject;
}

AnyObject ObjectTable::release(std::uint32_t id, std::uint32_t count) {
  const HX::MutexLock lock(mutex_);
  const auto found = leases_.find(id);
  if (found == leases_.end()) return {};
  if (found->second.count > count) {
    found->second.count -= count;
    return {};
  }
  AnyObject last = std::move(found->second.object);
  leases_.erase(found);
  const auto known = leaseIds_.find(last->identity());
  if (known != leaseIds_.end() && known->second == id) leaseIds_.erase(known);
  return last;
}

void ObjectTable::clear() {
  std::unordered_map<std::uint32_t, Lease> gone;
  const HX::MutexLock lock(mutex_);
  cleared_ = true;
  leaseIds_.clear();
  gone.swap(leases_);
}

void ObjectTable::forget(std::uint32_t id) {
  const HX::MutexLock lock(mutex_);
  const auto found = remote_.find(id);
  if (found != remote_.end() && found->second.expired()) remote_.erase(found);
}

}  // namespace mw::remote
