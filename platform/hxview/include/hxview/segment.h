#pragma once

#include <hxerror/api.h>
#include <hxview/layout.h>

#include <cstddef>
#include <memory>

namespace HX::view {

/// A file of memory that its maker writes and everybody else can only read: it has no name, so nothing of it is left
/// when the last process that has it ends, however that ends. Sealed: it can neither be resized nor, by anybody but its
/// maker, be written, not even through a descriptor that was opened for writing.
///
/// @par Threads  Immutable but for its content.
class HX_API Segment {
 public:
  /// @param size  Bytes; rounded up to whole pages.
  /// @throws std::runtime_error saying why there is none: no memory, a limit of the process, a system that cannot.
  explicit Segment(std::size_t size);
  Segment(const Segment&) = delete;
  Segment& operator=(const Segment&) = delete;
  ~Segment();

  std::byte* data() const noexcept { return data_; }
  std::size_t size() const noexcept { return size_; }
  SegmentHead& head() const noexcept { return *reinterpret_cast<SegmentHead*>(data_); }
  /// The descriptor, to be duplicated for others. Stays the segment's.
  int file() const noexcept { return file_; }

 private:
  std::size_t size_;
  int file_ = -1;
  std::byte* data_ = nullptr;
};

/// Somebody else's segment, mapped for reading.
///
/// @par Threads  Immutable but for its content.
class HX_API Mapping {
 public:
  /// Whether a file begins with a `SegmentHead`.
  enum class Content : bool { Segment, Anything };

  /// Looks before it maps: a file that could shrink would end this process in the middle of a read.
  /// @param file     Stays the caller's, who may close it afterwards.
  /// @param size     Bytes that it has.
  /// @param content  What it is made of.
  /// @throws std::runtime_error saying what is wrong with it.
  Mapping(int file, std::size_t size, Content content = Content::Segment);
  Mapping(const Mapping&) = delete;
  Mapping& operator=(const Mapping&) = delete;
  ~Mapping();

  const std::byte* data() const noexcept { return data_; }
  std::size_t size() const noexcept { return size_; }
  const SegmentHead& head() const noexcept { return *reinterpret_cast<const SegmentHead*>(data_); }

 private:
  const std::size_t size_;
  const std::byte* data_ = nullptr;
};

}  // namespace HX::view
