#pragma once

#include <hxvalue/hxvalue.h>

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <span>
#include <string>
#include <utility>
#include <variant>

namespace mw::local {

/// A long text or binary that a message ends with, received to where it will lie as a value: a copy less, and memory
/// that is touched for the first time once instead of twice.
class ReceivedTail {
 public:
  bool isOpen() const { return missing_ > 0; }
  /// What has come of it, in bytes.
  std::size_t size() const { return filled_; }

  /// @param size   Of the whole; more than `there`.
  /// @param there  What has come of it already.
  void begin(bool isText, std::size_t size, std::span<const std::byte> there) {
    std::call_once(memoryIsKept, keepMemory);
    if (isText) {
      content_.emplace<std::string>();
    } else {
      content_.emplace<HX::HXValue::Binary>();
    }
    missing_ = size;
    filled_ = 0;
    while (!there.empty()) {
      const auto part = there.first(std::min(room().size(), there.size()));
      std::memcpy(room().data(), part.data(), part.size());
      received(part.size());
      there = there.subspan(part.size());
    }
  }

  /// Where to receive the next part of it. It gets room as it comes, whatever size a peer has claimed: made ready
  /// shortly before it is written, it is still in the processor's cache then.
  std::span<std::byte> room() {
    return std::visit(
        [this](auto& content) {
          const std::size_t wanted = filled_ + std::min(missing_, kPart);
          if (content.capacity() < wanted)
            content.reserve(std::min(filled_ + missing_, std::max(kTimesAhead * filled_, kAhead)));
          if (content.size() < wanted) content.resize(wanted);
          return std::as_writable_bytes(std::span(content)).subspan(filled_, wanted - filled_);
        },
        content_);
  }
  void received(std::size_t size) {
    filled_ += size;
    missing_ -= size;
  }

  /// Once it is not open any more. Nothing is left.
  HX::HXValue take() {
    filled_ = 0;
    return std::visit([](auto& content) { return HX::HXValue(std::exchange(content, {})); }, content_);
  }

 private:
  /// Long values come and go: their memory is to be used again, not given back to the system and taken anew, page by
  /// page, with each of them. The allocator goes by the largest block that it has seen freed.
  static void keepMemory() {
    constexpr std::size_t kLargest = std::size_t{4} << 20;
    void* const volatile block = std::malloc(kLargest);
    std::free(block);
  }
  static inline std::once_flag memoryIsKept;

  static constexpr std::size_t kPart = std::size_t{128} << 10;
  static constexpr std::size_t kAhead = std::size_t{1} << 20;
  /// So many times what has come is asked for when there is no room left: what is not written to takes no memory, and
  /// each time all that has come is copied to fresh pages, which takes longer than to receive it. Not the whole at
  /// once: a process may have locked all of its memory, what it does not use too.
  static constexpr std::size_t kTimesAhead = 8;

  std::variant<std::string, HX::HXValue::Binary> content_;
  std::size_t filled_ = 0;
  std::size_t missing_ = 0;
};

}  // namespace mw::local
