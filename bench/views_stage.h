#pragma once

// What the benchmark of views asks of its readers, each a process of its own, and what they answer.

#include <cstddef>
#include <cstdint>
#include <sched.h>
#include <string>

namespace bench {

inline constexpr std::size_t kReaders = 10;
inline constexpr std::size_t kFew = 20;  // Keys of a control loop.
inline constexpr std::size_t kStreamed = 64;
inline constexpr std::size_t kPage = 4096;
inline constexpr std::size_t kLarge = std::size_t{1} << 20;

inline constexpr std::size_t kPlaces = 3;  // Where a large value may lie.
// What is mapped beside the memory: those, and a word to wait for.
inline constexpr std::size_t kWordAt = kPlaces * kLarge;
inline constexpr std::size_t kPlain = kWordAt + kPage;

inline std::string fewKey(std::size_t number) { return "Few/" + std::to_string(number); }

/// Keeps this thread on a processor.
class OnProcessor {
 public:
  explicit OnProcessor(std::size_t processor) {
    ::sched_getaffinity(0, sizeof before_, &before_);
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(processor, &one);
    ::sched_setaffinity(0, sizeof one, &one);
  }
  OnProcessor(const OnProcessor&) = delete;
  OnProcessor& operator=(const OnProcessor&) = delete;
  ~OnProcessor() { ::sched_setaffinity(0, sizeof before_, &before_); }

 private:
  cpu_set_t before_{};
};

struct Order {
  enum class What : std::uint64_t {
    Read,        ///< A number, so often.
    ReadFew,     ///< All of the few keys once, of which the writer has just written each.
    Ask,         ///< The number by a call, so often.
    AwaitView,   ///< Sleep until the number is another one.
    AwaitWord,   ///< Sleep until a plain word is another one.
    AwaitRedis,  ///< Sleep until something is published.
    Stream,      ///< Read every value until an empty one.
    ReadBinary,  ///< The one of so many bytes, which has just been written.
    CopyBinary,  ///< The same out of a mapping, by memcpy.
  } what = What::Read;
  std::uint64_t count = 0;
  std::uint64_t place = 0;    ///< Of the value that is copied.
  std::uint64_t isApart = 0;  ///< The reader is to stand on another processor than the writer.
};

struct Answer {
  std::int64_t nanoseconds = 0;  ///< What it took; of those that wait, when they awoke.
  std::uint64_t read = 0;
  std::uint64_t lost = 0;
};

}  // namespace bench
