#pragma once

#include "socketchannel.h"

#include <optional>
#include <string>
#include <sys/types.h>

namespace mw::local {

/// What a broker hands on may be larger than what it took: so much more a client takes from it. Otherwise a value that
/// was raised could not be told to whoever has subscribed to it.
inline LinkOptions withReserve(LinkOptions options) {
  // The name of the key and what the subscriber wants to be told; and numbers that came in five bytes can leave in
  // nine.
  constexpr std::size_t kMoreBytes = std::size_t{1} << 20;
  constexpr std::size_t kMoreBytesOfAValue = 4;
  constexpr std::size_t kMoreValues = 1024;
  options.frameLimit += kMoreBytes + kMoreBytesOfAValue * options.valueLimit;
  options.valueLimit += kMoreValues;
  return options;
}

/// The socket and the lock file of a broker.
struct BrokerFiles {
  std::string socket;
  std::string lock;
  std::string files;  ///< The socket where files are handed over.
};
/// @throws std::runtime_error when it is no `isBrokerName`, or as `localSocketFolder`.
BrokerFiles filesOf(const std::string& broker);

/// Takes the lock of a broker's name, and writes into it who has it.
/// @return The file to keep open for as long as the broker runs; none when another one runs.
File lockBroker(const BrokerFiles& files);

/// Whether the lock is held: somebody runs under the name, though perhaps not listening yet.
bool isLocked(const BrokerFiles& files);

/// Which file a path names, apart from others that had the path before or have it later.
struct FileId {
  dev_t device = 0;
  ino_t number = 0;
  bool operator==(const FileId&) const = default;
};
/// @return None when there is no such file.
std::optional<FileId> idOf(const std::string& path);

/// A listening socket, for this user alone.
/// @param type  SOCK_STREAM or SOCK_SEQPACKET.
/// @throws std::system_error
File listenOn(const std::string& path, int type);
/// A connection to one.
/// @return None when nobody listens. @throws std::system_error
HX_API File connectTo(const std::string& path, int type);
/// Whether the process at the other end is the same user's. The superuser is another user like any: what can act as
/// everybody can act as that user.
bool isOwnPeer(const File& socket);
/// The process at the other end; 0 when it is not known.
pid_t processOf(const File& socket);
/// Whether a process executes the same program as this one.
bool isOfThisProgram(pid_t process);

}  // namespace mw::local
