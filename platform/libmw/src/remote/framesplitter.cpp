#include "framesplitter.h"

#include <array>
#include <utility>

#include <fmt/format.h>

namespace mw::remote {
namespace {

std::uint64_t bigEndian(std::span<const std::byte> bytes) {
  std::uint64_t number = 0;
  for (const std::byte one : bytes) number = number << 8U | std::to_integer<std::uint64_t>(one);
  return number;
}

enum class Kind : std::uint8_t { Fixed, Text, Binary, Extension, List, Map, Invalid };

/// What the first byte of a value announces.
struct Format {
  Kind kind = Kind::Fixed;
  std::uint8_t width = 0;    ///< Bytes of a size behind it.
  std::uint8_t content = 0;  ///< Bytes of content, where no size tells.
  std::uint8_t values = 0;   ///< Values inside, likewise.
};

constexpr std::array<Format, 256> kFormats = [] {
  std::array<Format, 256> all{};
  for (std::uint8_t i = 0; i < 16; ++i) {
    all[0x80U + i] = {.kind = Kind::Map, .values = static_cast<std::uint8_t>(2 * i)};
    all[0x90U + i] = {.kind = Kind::List, .values = i};
  }
  for (std::uint8_t i = 0; i < 32; ++i) all[0xa0U + i] = {.kind = Kind::Text, .content = i};
  all[0xc1] = {.kind = Kind::Invalid};
  for (std::uint8_t i = 0; i < 3; ++i) {
    const auto width = static_cast<std::uint8_t>(1U << i);
    all[0xc4U + i] = {.kind = Kind::Binary, .width = width};
    all[0xc7U + i] = {.kind = Kind::Extension, .width = width};
    all[0xd9U + i] = {.kind = Kind::Text, .width = width};
  }
  for (std::uint8_t i = 0; i < 2; ++i) {
    const auto width = static_cast<std::uint8_t>(2U << i);
    all[0xcaU + i].content = static_cast<std::uint8_t>(4U << i);  // float, double
    all[0xdcU + i] = {.kind = Kind::List, .width = width};
    all[0xdeU + i] = {.kind = Kind::Map, .width = width};
  }
  for (std::uint8_t i = 0; i < 8; ++i) all[0xccU + i].content = static_cast<std::uint8_t>(1U << (i % 4U));  // integers
  for (std::uint8_t i = 0; i < 5; ++i) all[0xd4U + i].content = static_cast<std::uint8_t>((1U << i) + 1U);  // fixext
  return all;
}();

// Apart from the walk, which goes over every value that comes.
[[noreturn, gnu::cold]] void refuseFormat() { throw ProtocolError("a byte that begins no MessagePack value"); }
[[noreturn, gnu::cold]] void refuseSize(std::size_t limit) {
  throw ProtocolError(fmt::format("a message of more than {} bytes", limit));
}
[[noreturn, gnu::cold]] void refuseValues(std::uint64_t limit) {
  throw ProtocolError(fmt::format("a message of more than {} values", limit));
}
[[noreturn, gnu::cold]] void refuseDepth(std::size_t limit) {
  throw ProtocolError(fmt::format("lists and maps nested more than {} deep", limit));
}

}  // namespace

ProtocolError::~ProtocolError() = default;

std::size_t FrameSplitter::advance(std::span<const std::byte> bytes) {
  // Whatever comes is walked over here: what changes with each value stays in the processor.
  std::size_t position = position_;
  std::uint64_t values = values_;
  std::uint64_t left = values == 0 ? 1 : left_;
  while (left > 0 && position < bytes.size()) {
    const Format format = kFormats[std::to_integer<std::uint8_t>(bytes[position])];
    std::uint64_t content = format.content;
    std::uint64_t inside = format.values;
    if (format.width > 0) {
      if (bytes.size() - position <= format.width) break;
      const std::uint64_t size = bigEndian(bytes.subspan(position + 1, format.width));
      inside = format.kind == Kind::List ? size : format.kind == Kind::Map ? 2 * size : 0;
      content = inside > 0 ? 0 : format.kind == Kind::Extension ? size + 1 : size;
    } else if (format.kind == Kind::Invalid) {
      refuseFormat();
    }
    position += 1U + format.width;
    if (++values + inside > valueLimit_) refuseValues(valueLimit_);
    // Each value takes a byte at least, so that a declared count is bounded like a declared size.
    const std::uint64_t more = content + inside;
    if (more > frameLimit_ || position > frameLimit_ - more) refuseSize(frameLimit_);
    position += content;
    --left;
    if (inside > 0) {
      if (open_.size() >= depthLimit_) refuseDepth(depthLimit_);
      open_.push_back(std::exchange(left, inside));
    }
    for (; left == 0 && !open_.empty(); open_.pop_back()) left = open_.back();
    if (left > 0) continue;
    const bool isTail = format.kind == Kind::Text || format.kind == Kind::Binary;
    tail_ = {position - content, isTail ? content : 0, format.kind == Kind::Text};
  }
  const bool isWhole = left == 0 && position <= bytes.size();
  if (isWhole) found_ = values;
  position_ = isWhole ? 0 : position;
  values_ = isWhole ? 0 : values;
  left_ = left;
  return isWhole ? position : 0;
}

void FrameSplitter::endAtTail() {
  found_ = std::exchange(values_, 0);
  position_ = 0;
}

}  // namespace mw::remote
