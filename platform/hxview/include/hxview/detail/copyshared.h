#pragma once

#include <hxview/layout.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>

#if defined(__SANITIZE_THREAD__)
#define HX_VIEW_WORDS 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define HX_VIEW_WORDS 1
#endif
#endif
#if !defined(HX_VIEW_WORDS) && !defined(__x86_64__)
#define HX_VIEW_WORDS 1
#endif

/// Copies out of, and into, memory that somebody may be writing meanwhile; whether it was is for the caller to find out
/// afterwards. Word by word each is an atomic, and there is no race. That is slow for large contents, since compilers
/// join no atomics: on x86-64 those are read by one string instruction instead, which is no access in the sense of the
/// language. `lfence` keeps the second look at the sequence behind it. Such a copy is made of words that were each
/// stored whole, as by the other way.
namespace HX::view::detail {

inline constexpr std::size_t kByWords = 512;  ///< Bytes up to which words are faster.

inline bool goesByWords([[maybe_unused]] std::size_t size) noexcept {
#ifdef HX_VIEW_WORDS
  return true;
#else
  return size <= kByWords;
#endif
}

/// @param to    Own memory.
/// @param from  Shared, aligned as a word; may be read up to the end of the last word.
/// @param size  Bytes.
inline void copyFromShared(std::byte* to, const Word* from, std::size_t size) noexcept {
  if (goesByWords(size)) {
    for (; size > 0; ++from) {
      const std::uint64_t word = from->load(std::memory_order_acquire);
      const std::size_t part = std::min(size, sizeof word);
      std::memcpy(to, &word, part);
      to += part;
      size -= part;
    }
    return;
  }
#ifndef HX_VIEW_WORDS
  const void* source = from;
  asm volatile("rep movsb\n\tlfence" : "+D"(to), "+S"(source), "+c"(size) : : "memory");
#endif
}

/// Copies into a slot that nobody is sent to yet.
/// @param to    Shared, aligned as a word; may be written up to the end of the last word.
/// @param from  Own memory.
/// @param size  Bytes.
inline void copyToShared(Word* to, const std::byte* from, std::size_t size) noexcept {
  if (goesByWords(size)) {
    for (; size > 0; ++to) {
      std::uint64_t word = 0;
      const std::size_t part = std::min(size, sizeof word);
      std::memcpy(&word, from, part);
      to->store(word, std::memory_order_release);
      from += part;
      size -= part;
    }
    return;
  }
#ifndef HX_VIEW_WORDS
  // Not before the sequence that was published last: whoever reads the slot must find that out. The processor keeps
  // the order of its stores; this is for the compiler.
  std::atomic_signal_fence(std::memory_order_seq_cst);
  std::memcpy(static_cast<void*>(to), from, size);
  std::atomic_signal_fence(std::memory_order_seq_cst);
#endif
}

}  // namespace HX::view::detail
