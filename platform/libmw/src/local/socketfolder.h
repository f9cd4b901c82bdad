#pragma once

#include "socketchannel.h"

#include <string>

namespace mw::local {

/// The socket and the lock file of a broker.
struct BrokerFiles {
  std::string socket;
  std::string lock;
};
/// @throws std::runtime_error when it is no `isBrokerName`, or as `localSocketFolder`.
BrokerFiles filesOf(const std::string& broker);

/// Takes the lock of a broker's name, and writes into it who has it.
/// @return The file to keep open for as long as the broker runs; none when another one runs.
File lockBroker(const BrokerFiles& files);

/// A listening socket, for this user alone.
/// @throws std::system_error
File listenOn(const std::string& path);
/// A connection to one.
/// @return None when nobody listens. @throws std::system_error
File connectTo(const std::string& path);
/// Whether the process at the other end is the same user's. The superuser is another user like any: what can act as
/// everybody can act as that user.
bool isOwnPeer(const File& socket);

}  // namespace mw::local
