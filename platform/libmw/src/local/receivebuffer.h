#pragma once

#include <algorithm>
#include <cstddef>
#include <memory>
#include <span>
#include <utility>

namespace mw::local {

/// What has been received and is not handled yet. Memory that nothing was received into is never touched.
class ReceiveBuffer {
 public:
  /// Where to receive: behind what is there.
  /// @param missing  Bytes that the message which is there in part still lacks, for all that is known: of a list of
  ///                 numbers next to nothing. And a peer may claim what it likes: it gets room as it sends.
  std::span<std::byte> room(std::size_t missing) {
    const std::size_t wanted = std::clamp(missing, kLeastRoom, std::max(kMostAhead, filled_));
    if (size_ - filled_ < wanted) grow(std::max({filled_ + wanted, 2 * size_, kUsual}));
    return {bytes_.get() + filled_, size_ - filled_};
  }
  void received(std::size_t size) { filled_ += size; }

  std::span<const std::byte> bytes() const { return {bytes_.get(), filled_}; }

  /// The first of them were handled.
  void drop(std::size_t size) {
    std::copy(bytes_.get() + size, bytes_.get() + filled_, bytes_.get());
    filled_ -= size;
    if (filled_ > 0 || size_ <= kKept) return;
    bytes_.reset();
    size_ = 0;
  }

 private:
  static constexpr std::size_t kUsual = std::size_t{16} << 10;
  static constexpr std::size_t kLeastRoom = kUsual / 2;
  static constexpr std::size_t kMostAhead = std::size_t{1} << 20;
  /// What a long message has made larger is given back.
  static constexpr std::size_t kKept = std::size_t{256} << 10;

  void grow(std::size_t size) {
    auto bytes = std::make_unique_for_overwrite<std::byte[]>(size);
    std::copy(bytes_.get(), bytes_.get() + filled_, bytes.get());
    bytes_ = std::move(bytes);
    size_ = size;
  }

  std::unique_ptr<std::byte[]> bytes_;
  std::size_t size_ = 0;
  std::size_t filled_ = 0;
};

}  // namespace mw::local
