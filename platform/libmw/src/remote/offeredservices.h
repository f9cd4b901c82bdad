#pragma once

#include "link.h"

#include <hxerror/mutex.h>
#include <libmw/session.h>

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace mw::remote {

/// The services of this process that a broker offers to others: behind each new connection to it they are offered
/// again.
///
/// @par Threads  Any. No lock is held while the broker is asked.
class OfferedServices {
 public:
  /// Offers one more. Waits for the answer.
  /// @throws What the broker answers; it is not offered then.
  void offer(Link& link, ServiceId id, const std::string& name, const AnyObject& object);
  /// @return What the broker knows it by; none where it does not, or where there is no such service.
  std::optional<std::int64_t> withdraw(ServiceId id);

  /// The connection has ended: the next broker knows them by other ids.
  void forgetIds();
  /// Offers all of them to the next one. What it refuses is logged, and waits for `onNameFree`.
  void offerAll(Link& link);
  /// Somebody else may have taken a name while the connection was lost, and have left it now.
  /// @return The service that it was refused to, if any; `offerAgain` is to follow.
  std::optional<ServiceId> onNameFree(const std::string& name);
  /// What becomes of it is logged.
  void offerAgain(Link& link, ServiceId id, const std::string& name);

  /// Whether a broker knows one of them by this id.
  bool isOwn(std::int64_t brokersId) const;

 private:
  struct Offer {
    std::string name;
    AnyObject object;
    std::optional<std::int64_t> id;  ///< The broker's.
    bool isRefused = false;          ///< The broker has it of somebody else.
  };
  void offerNow(Link& link, ServiceId id);

  mutable HX::Mutex mutex_;
  std::map<ServiceId, Offer> all_ HX_GUARDED_BY(mutex_);
};

}  // namespace mw::remote
