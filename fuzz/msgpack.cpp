#include "harness.h"

#include <hxvalue/json.h>
#include <hxvalue/msgpack.h>

#include <algorithm>
#include <optional>
#include <remote/framesplitter.h>

namespace fuzz {
namespace {

constexpr HX::MsgpackLimits kLimits{64, 4096};

/// The size of the first value by the splitter, fed in two pieces; none when the value is not whole or is refused.
std::optional<std::size_t> split(std::span<const std::byte> bytes) {
  mw::remote::FrameSplitter splitter(std::size_t{1} << 20, kLimits.depth);
  try {
    std::size_t size = splitter.advance(bytes.first(bytes.size() / 2));
    if (size == 0) size = splitter.advance(bytes);
    if (size > 0) return size;
  } catch (const mw::remote::ProtocolError&) {
  }
  return std::nullopt;
}

}  // namespace

void msgpack(Input input) {
  const auto bytes = std::as_bytes(input);
  const auto end = split(bytes);
  HX::HXValue value;
  std::size_t size = 0;
  try {
    value = HX::readMsgpack(bytes, size, kLimits);
  } catch (const std::runtime_error&) {
    return;
  }
  require(end == size, "the splitter finds the end of every value that can be read");
  const auto packed = HX::toMsgpack(value);
  require(HX::fromMsgpack(packed) == value, "what was read can be written and reads back equal");
  require(HX::toMsgpack(HX::fromMsgpack(packed)) == packed, "there is one way to write a value");
  HX::toJsonText(value);
}

}  // namespace fuzz
