#pragma once

#include "wire.h"

#include <hxerror/mutex.h>
#include <libmw/genericobject.h>

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <span>
#include <unordered_map>
#include <vector>

namespace mw::remote {

class Link;
class RemoteObject;

/// The objects that cross one link: those of this process that the peer holds references to (leases), and the peer's
/// that are used here.
///
/// An object goes by the same number wherever it goes (`GenericObject::number`), but for those that another one has.
///
/// A reference that is sent counts as a lease until the peer gives it back, one for each time it was sent, or the link
/// ends. There is one RemoteObject for each object of the peer as long as somebody uses it, so that identity holds. A
/// reference to an object of the peer itself goes back as such, and is the original there.
///
/// What an object offers is told once for each description, not with every reference.
///
/// @par Threads  Any. No object is destroyed, and none called, under the lock.
class HX_API ObjectTable {
 public:
  /// What one message says of objects: descriptions that it tells for the first time, and leases. They count once the
  /// message is on its way, and are taken back when it does not leave.
  class Mention {
   public:
    explicit Mention(ObjectTable& table) : table_(table) {}
    Mention(const Mention&) = delete;
    Mention& operator=(const Mention&) = delete;
    ~Mention() { takeBack(); }

    /// The message is on its way.
    void sent();
    void takeBack();

   private:
    friend class ObjectTable;
    ObjectTable& table_;
    std::vector<std::uint32_t> descriptions_;
    std::vector<std::uint32_t> leases_;
  };

  /// The object that a lease stands for; empty when there is none of that id.
  AnyObject leased(std::uint32_t id) const;
  std::size_t leaseCount() const;

  /// Writes a reference to `object`, which is counted as a lease.
  void write(Writer& out, const AnyObject& object, const Link& link, Mention& mention);
  /// The object that a reference stands for.
  /// @throws ProtocolError
  AnyObject read(std::span<const std::byte> reference, const std::shared_ptr<Link>& link);

  /// Gives up leases. @return The object, when it was the last; to be let go of with no lock held.
  AnyObject release(std::uint32_t id, std::uint32_t count);
  /// Gives up all of them.
  void clear();

  /// A RemoteObject has gone.
  void forget(std::uint32_t id);

 private:
  struct Lease {
    AnyObject object;
    std::uint64_t count = 0;
  };
  struct Description {
    MetaObject metaObject;
    std::size_t size = 0;  ///< On the wire.
  };
  const MetaObject& described(std::uint32_t description, std::optional<MetaObject> told, std::size_t size)
      HX_REQUIRES(mutex_);
  static AnyObject meantBy(const AnyObject& given, const Link& link);
  std::uint32_t lease(const AnyObject& object);
  std::uint32_t freeNumber(std::uint32_t wanted) const HX_REQUIRES(mutex_);
  std::uint32_t numberOf(const MetaObject& metaObject);

  mutable HX::Mutex mutex_;
  bool cleared_ HX_GUARDED_BY(mutex_) = false;
  std::unordered_map<std::uint32_t, Lease> leases_ HX_GUARDED_BY(mutex_);
  std::unordered_map<std::uintptr_t, std::uint32_t> leaseIds_ HX_GUARDED_BY(mutex_);  // by identity
  /// The numbers of descriptions, by content: objects that are made anew, as after a restart, offer what was told.
  std::map<HX::HXValue, std::uint32_t> numbers_ HX_GUARDED_BY(mutex_);
  std::size_t toldBytes_ HX_GUARDED_BY(mutex_) = 0;  // of what has a number
  std::unordered_map<std::int32_t, std::uint32_t> numbersOfUids_
      HX_GUARDED_BY(mutex_);  // found without looking at the content
  std::set<std::uint32_t> told_ HX_GUARDED_BY(mutex_);
  std::map<std::uint32_t, std::weak_ptr<RemoteObject>> remote_ HX_GUARDED_BY(mutex_);
  std::map<std::uint32_t, Description> descriptions_ HX_GUARDED_BY(mutex_);  // the peer's, by its numbers
  std::size_t describedBytes_ HX_GUARDED_BY(mutex_) = 0;                     // how much they were on the wire
};

}  // namespace mw::remote
