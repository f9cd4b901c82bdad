#pragma once

#include <hxvalue/hxvalue.h>

#include <cstddef>
#include <span>
#include <vector>

namespace HX {

/// How much of a stranger's MessagePack is believed.
struct MsgpackLimits {
  /// Lists and maps inside one another.
  std::size_t depth = 512;
  /// Values in all: one byte on the wire can stand for an empty list, which takes sixty-four here.
  std::size_t values = std::size_t{4} << 20;
};

/// Appends `value` to `out` in MessagePack. Every type reads back as itself: an Int takes the shortest integer format,
/// an Int64 always the 64-bit one (0xd3), Float and Double the 32-bit and 64-bit floats, a String str with its bytes
/// as they are, a Binary bin, the invalid value nil.
///
/// @throws std::runtime_error  a string, binary, list or map longer than MessagePack can say (32 bits); `out` is then
///   as it was.
/// @par Threads  Any.
HX_API void appendMsgpack(std::vector<std::byte>& out, const HXValue& value);

/// `appendMsgpack` into a new buffer.
HX_API std::vector<std::byte> toMsgpack(const HXValue& value);

/// Reads the one MessagePack value that `bytes` holds, the inverse of `toMsgpack`. What other writers send: an integer
/// in a 64-bit format is an Int64, any other one an Int when it fits 32 bits, else an Int64.
///
/// Memory grows with the bytes that are there, never with the sizes that they declare.
///
/// @throws std::runtime_error  one line with the byte position: truncated, bytes left over, an extension type, a map
///   key that is no string or occurs twice, an integer beyond 64 signed bits, a byte that is no format, over a limit.
/// @par Threads  Any.
HX_API HXValue fromMsgpack(std::span<const std::byte> bytes, const MsgpackLimits& limits = {});

/// Reads the first of the values in `bytes`, as `fromMsgpack` does.
///
/// @param bytes   Not kept.
/// @param size    How many of them it took; unchanged on errors.
/// @param limits  As for `fromMsgpack`.
/// @throws std::runtime_error as `fromMsgpack`, but not for what follows the value.
/// @par Threads  Any.
HX_API HXValue readMsgpack(std::span<const std::byte> bytes, std::size_t& size, const MsgpackLimits& limits = {});

}  // namespace HX
