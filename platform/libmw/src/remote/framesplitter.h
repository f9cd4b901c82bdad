#pragma once

#include <hxerror/api.h>

#include <cstddef>
#include <cstdint>
#include <limits>
#include <span>
#include <stdexcept>
#include <vector>

namespace mw::remote {

/// A peer sent what is no message of the protocol. Ends the connection.
class HX_API ProtocolError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
  ProtocolError(const ProtocolError&) = default;
  ProtocolError& operator=(const ProtocolError&) = default;
  ~ProtocolError() override;
};

/// Finds where the messages of a stream end, without reading them.
///
/// MessagePack states no length of the whole, so each header is walked over, once, as its bytes arrive. A size that is
/// declared beyond the limit ends the stream at once, not when that many bytes have come; an incremental parser of the
/// library would wait for them, and lets go of the beginning of a message before it has seen the end.
class HX_API FrameSplitter {
 public:
  /// @param frameLimit  Bytes of one message.
  /// @param depthLimit  Lists and maps inside one another.
  /// @param valueLimit  Values of one message.
  FrameSplitter(std::size_t frameLimit, std::size_t depthLimit,
                std::uint64_t valueLimit = std::numeric_limits<std::uint64_t>::max())
      : frameLimit_(frameLimit), depthLimit_(depthLimit), valueLimit_(valueLimit) {}

  /// Walks on. The next message begins anew once a size was returned.
  ///
  /// @param bytes  From the beginning of the present message; what was there at the last call is there again.
  /// @return The size of the message; 0 as long as it is not all there.
  /// @throws ProtocolError for what is over a limit, or no MessagePack.
  std::size_t advance(std::span<const std::byte> bytes);
  /// How many values the message has whose size was returned last.
  std::uint64_t values() const { return found_; }
  /// How many bytes the present message lacks at least, where `size` of it are there.
  std::size_t missing(std::size_t size) const { return position_ > size ? position_ - size : 0; }

  /// The content of a text or binary that the message ends with.
  struct Tail {
    std::size_t begin = 0;  ///< In the message.
    std::size_t size = 0;   ///< 0: it ends with something else, or is not known yet to end so.
    bool isText = false;
  };
  /// Of the present message, of which not all is there.
  Tail tail() const { return values_ > 0 && left_ == 0 ? tail_ : Tail{}; }
  /// The rest of the present message, its tail, is received elsewhere: the next one begins anew.
  void endAtTail();

 private:
  const std::size_t frameLimit_;
  const std::size_t depthLimit_;
  const std::uint64_t valueLimit_;
  std::size_t position_ = 0;         // everything before it was walked over; may lie beyond the bytes that are there
  std::uint64_t values_ = 0;         // headers that were seen
  std::uint64_t found_ = 0;          // in the message before
  std::uint64_t left_ = 0;           // values that the innermost list or map lacks; or the message, outside of all
  std::vector<std::uint64_t> open_;  // the same of those around it
  Tail tail_;                        // where nothing is left
};

}  // namespace mw::remote
