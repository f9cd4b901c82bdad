#include "crashdump.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <csignal>
#include <cstdint>
#include <fcntl.h>
#include <unistd.h>
#include <utility>

namespace HX::recording::crashdump {
namespace {

constexpr std::array kSignals{SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT};

struct Slot {
  std::atomic<const char*> bytes = nullptr;
  std::atomic<std::size_t> size = 0;

  void set(std::string_view text) noexcept {
    bytes.store(nullptr, std::memory_order_release);
    size.store(text.size(), std::memory_order_release);
    bytes.store(text.data(), std::memory_order_release);
  }
  void clear() noexcept { bytes.store(nullptr, std::memory_order_release); }
};

std::atomic<bool> armed = false;
std::array<char, 4096> path{};
std::string begin;
std::array<Slot, kSlots> slots;
std::atomic<std::uint64_t> first = 0;
std::atomic<std::uint64_t> last = 0;  // One behind the newest.
Slot open;
std::array<struct sigaction, kSignals.size()> before{};
std::array<bool, kSignals.size()> isInstalled{};

void writeAll(int file, const char* bytes, std::size_t size) noexcept {
  while (size > 0) {
    const ssize_t count = ::write(file, bytes, size);
    if (count <= 0) return;
    bytes += count;
    size -= static_cast<std::size_t>(count);
  }
}

void write(int file, const Slot& slot) noexcept {
  const char* const bytes = slot.bytes.load(std::memory_order_acquire);
  if (bytes) writeAll(file, bytes, slot.size.load(std::memory_order_acquire));
}

void dump() noexcept {
  const int file = ::open(path.data(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (file < 0) return;
  writeAll(file, begin.data(), begin.size());
  const std::uint64_t end = last.load(std::memory_order_acquire);
  for (std::uint64_t i = first.load(std::memory_order_acquire); i < end; ++i) write(file, slots[i % kSlots]);
  write(file, open);
  ::close(file);
}

void onSignal(int signal, siginfo_t* info, void* context) {
  if (armed.exchange(false)) dump();
  const auto index = static_cast<std::size_t>(std::ranges::find(kSignals, signal) - kSignals.begin());
  const struct sigaction& next = before[index];
  if ((next.sa_flags & SA_SIGINFO) != 0 && next.sa_sigaction) {
    next.sa_sigaction(signal, info, context);
    return;
  }
  // What was set before is the default, or to be ignored, which these signals are not.
  ::signal(signal, SIG_DFL);
  if (info->si_code <= 0) ::raise(signal);
}

/// Where it is not among the handlers of the signal yet.
void install() noexcept {
  struct sigaction action {};
  action.sa_sigaction = &onSignal;
  action.sa_flags = SA_SIGINFO | SA_ONSTACK;
  ::sigemptyset(&action.sa_mask);
  for (std::size_t i = 0; i < kSignals.size(); ++i) {
    if (!std::exchange(isInstalled[i], true)) ::sigaction(kSignals[i], &action, &before[i]);
  }
}

/// Gives back what was there before. Who was installed later may have kept this one as what was before: then it stays,
/// and does nothing but to go on to the next.
void uninstall() noexcept {
  for (std::size_t i = 0; i < kSignals.size(); ++i) {
    struct sigaction now {};
    if (!isInstalled[i] || ::sigaction(kSignals[i], nullptr, &now) != 0) continue;
    if ((now.sa_flags & SA_SIGINFO) == 0 || now.sa_sigaction != &onSignal) continue;
    ::sigaction(kSignals[i], &before[i], nullptr);
    isInstalled[i] = false;
  }
}

}  // namespace

bool arm(const std::filesystem::path& file, std::string start) {
  if (armed) return false;
  if (file.native().size() >= path.size()) return false;
  path.fill('\0');
  file.native().copy(path.data(), path.size() - 1);
  begin = std::move(start);
  first = last = 0;
  open.clear();
  install();
  armed = true;
  return true;
}

void disarm() noexcept {
  armed = false;
  uninstall();
  open.clear();
}

void push(std::string_view chunk) noexcept {
  const std::uint64_t place = last.load(std::memory_order_relaxed);
  if (place - first.load(std::memory_order_relaxed) == kSlots) drop();
  slots[place % kSlots].set(chunk);
  last.store(place + 1, std::memory_order_release);
}

void drop() noexcept {
  const std::uint64_t place = first.load(std::memory_order_relaxed);
  if (place == last.load(std::memory_order_relaxed)) return;
  first.store(place + 1, std::memory_order_release);
  slots[place % kSlots].clear();
}

void setOpen(std::string_view records) noexcept {
  if (records.empty()) {
    open.clear();
  } else {
    open.set(records);
  }
}

}  // namespace HX::recording::crashdump
