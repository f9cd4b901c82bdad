#pragma once

#include <cstdint>
#include <linux/inet_diag.h>
#include <optional>

namespace HX::fleet {

/// How it stands with one of this machine's TCP connections, as its kernel sees it: asked without a byte on the line,
/// and without the socket, which belongs to a library.
///
/// @par Threads  Any.
class Line {
 public:
  /// @param here   The connection's own port.
  /// @param there  That of the other side.
  Line(std::uint16_t here, std::uint16_t there);

  /// Whether what is to be sent has been tried several times without an answer, and the next attempt is some way off:
  /// TCP would take as long to notice that the other side can be reached again. False where the kernel does not tell.
  bool isStalled() const;

 private:
  std::optional<inet_diag_sockid> socket_;
  std::uint8_t family_ = 0;
};

}  // namespace HX::fleet
