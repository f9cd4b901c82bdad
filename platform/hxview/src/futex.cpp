#include <hxview/futex.h>

#include <algorithm>
#include <ctime>
#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <climits>

namespace HX::view {
namespace {

/// The half that counts fastest. The system compares 32 bits.
std::uint32_t* lowHalf(const Word& word) noexcept {
  constexpr bool kIsSecond = __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__;
  return reinterpret_cast<std::uint32_t*>(const_cast<Word*>(&word)) + (kIsSecond ? 1 : 0);
}

}  // namespace

void sleepWhile(const Word& word, std::uint64_t value, std::chrono::nanoseconds limit) noexcept {
  const auto rest = std::max(limit, std::chrono::nanoseconds(0));
  const auto seconds = std::chrono::floor<std::chrono::seconds>(rest);
  const timespec time{seconds.count(), (rest - seconds).count()};
  ::syscall(SYS_futex, lowHalf(word), FUTEX_WAIT, static_cast<std::uint32_t>(value), &time, nullptr, 0);
}

void wakeAll(const Word& word) noexcept {
  ::syscall(SYS_futex, lowHalf(word), FUTEX_WAKE, INT_MAX, nullptr, nullptr, 0);
}

}  // namespace HX::view
