#pragma once

#include <string>

namespace HX::fleet {

/// A key of a user of NATS: an Ed25519 seed that its owner keeps, and what the server is told.
struct UserKey {
  std::string seed;       ///< "SUA…"
  std::string publicKey;  ///< "UB…"
};

/// A new one.
/// @throws std::runtime_error when the system gives no random numbers.
UserKey makeUserKey();
/// @throws std::runtime_error for what is no seed of a user.
UserKey userKeyOf(const std::string& seed);

}  // namespace HX::fleet
