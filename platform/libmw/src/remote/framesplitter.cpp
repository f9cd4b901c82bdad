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

/// What a format byte from 0xc0 to 0xdf announces: `width` bytes of a size behind it, or of content.
struct Format {
  Kind kind;
  std::uint8_t width;
};
constexpr std::array<Format, 32> kFormats{{
    {Kind::Fixed, 0},     {Kind::Invalid, 0},   {Kind::Fixed, 0},     {Kind::Fixed, 0},  // nil, never used, bools
    {Kind::Binary, 1},    {Kind::Binary, 2},    {Kind::Binary, 4},                       // bin
    {Kind::Extension, 1}, {Kind::Extension, 2}, {Kind::Extension, 4},                    // ext
    {Kind::Fixed, 4},     {Kind::Fixed, 8},                                              // float
    {Kind::Fixed, 1},     {Kind::Fixed, 2},     {Kind::Fixed, 4},     {Kind::Fixed, 8},  // uint
    {Kind::Fixed, 1},     {Kind::Fixed, 2},     {Kind::Fixed, 4},     {Kind::Fixed, 8},  // int
    {Kind::Fixed, 2},     {Kind::Fixed, 3},     {Kind::Fixed, 5},     {Kind::Fixed, 9},  // fixext, with the type
    {Kind::Fixed, 17},    {Kind::Text, 1},      {Kind::Text, 2},      {Kind::Text, 4},   // … str
    {Kind::List, 2},      {Kind::List, 4},      {Kind::Map, 2},       {Kind::Map, 4},
}};

// Apart from the walk, which goes over every value that comes.
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

/// Most headers are one byte.
inline FrameSplitter::Header FrameSplitter::read(std::span<const std::byte> bytes) {
  const auto first = std::to_integer<std::uint8_t>(bytes.front());
  if (first <= 0x7f || first >= 0xe0) return {};
  if (first <= 0x8f) return {.values = std::uint64_t{2} * (first & 0x0fU)};
  if (first <= 0x9f) return {.values = first & 0x0fU};
  if (first <= 0xbf) return {.content = first & 0x1fU};
  return readLong(bytes);
}

FrameSplitter::Header FrameSplitter::readLong(std::span<const std::byte> bytes) {
  const auto first = std::to_integer<std::uint8_t>(bytes.front());
  const Format format = kFormats[first - 0xc0U];
  if (format.kind == Kind::Invalid) throw ProtocolError("a byte that begins no MessagePack value");
  if (format.kind == Kind::Fixed) return {.content = format.width};
  Header header{.size = 1U + format.width};
  if (header.size > bytes.size()) return header;
  const std::uint64_t size = bigEndian(bytes.subspan(1, format.width));
  switch (format.kind) {
    case Kind::List:
      header.values = size;
      break;
    case Kind::Map:
      header.values = 2 * size;
      break;
    case Kind::Extension:
      header.content = size + 1;
      break;
    default:
      header.content = size;
      header.isText = format.kind == Kind::Text;
      header.isBinary = format.kind == Kind::Binary;
  }
  return header;
}

inline void FrameSplitter::require(std::uint64_t more) const {
  if (more > frameLimit_ || position_ > frameLimit_ - more) refuseSize(frameLimit_);
}

inline void FrameSplitter::enter(std::uint64_t values) {
  if (open_.size() >= depthLimit_) refuseDepth(depthLimit_);
  open_.push_back(values);
}

inline void FrameSplitter::valueDone() {
  while (!open_.empty() && --open_.back() == 0) open_.pop_back();
}

std::size_t FrameSplitter::advance(std::span<const std::byte> bytes) {
  while (values_ == 0 || !open_.empty()) {
    if (position_ >= bytes.size()) return 0;
    const Header header = read(bytes.subspan(position_));
    if (header.size > bytes.size() - position_) return 0;
    position_ += header.size;
    if (++values_ + header.values > valueLimit_) refuseValues(valueLimit_);
    // Each value takes a byte at least, so that a declared count is bounded like a declared size.
    require(header.content + header.values);
    tail_ = {position_, header.isText || header.isBinary ? header.content : 0, header.isText};
    position_ += header.content;
    if (header.values > 0) {
      enter(header.values);
    } else {
      valueDone();
    }
  }
  if (position_ > bytes.size()) return 0;
  found_ = std::exchange(values_, 0);
  return std::exchange(position_, 0);
}

void FrameSplitter::endAtTail() {
  found_ = std::exchange(values_, 0);
  position_ = 0;
}

}  // namespace mw::remote
