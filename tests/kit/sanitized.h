#pragma once

// Only clang names what a translation unit is compiled with by a feature.
#if defined(__has_feature)
#define KIT_HAS_FEATURE(feature) __has_feature(feature)
#else
#define KIT_HAS_FEATURE(feature) 0
#endif

namespace kit {

/// Whether AddressSanitizer or ThreadSanitizer watches: calls take twenty times as long, memory that was given back is
/// kept, crashes are reported in the sanitizer's words.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool kSanitized = true;
#else
inline constexpr bool kSanitized = KIT_HAS_FEATURE(address_sanitizer) || KIT_HAS_FEATURE(thread_sanitizer);
#endif

}  // namespace kit

#undef KIT_HAS_FEATURE
