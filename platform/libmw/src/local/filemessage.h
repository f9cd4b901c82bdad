#pragma once

#include <hxerror/api.h>
#include <libmw/file.h>

#include <array>
#include <cstddef>
#include <span>
#include <sys/types.h>

namespace mw::local {

inline constexpr std::byte kDone{1};
inline constexpr std::byte kRefused{0};

/// A packet: a ticket or an answer, and perhaps a file.
struct FileMessage {
  ssize_t size = -1;  ///< Of what came; -1 for nothing.
  std::array<std::byte, sizeof(Ticket) + 1> bytes{};
  File file;
};

/// @param file  Null for none.
/// @return False when it cannot be sent at once.
HX_API bool send(const File& socket, std::span<const std::byte> bytes, const File* file);
/// Receives one packet. Of several files in it the first is kept, the others are closed.
HX_API FileMessage receive(const File& socket);

}  // namespace mw::local
