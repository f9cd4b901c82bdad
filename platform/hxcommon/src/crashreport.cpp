#include "codemap.h"

#include <hxcommon/crashreport.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <execinfo.h>
#include <string_view>
#include <sys/prctl.h>
#include <ucontext.h>
#include <unistd.h>

namespace HX {
namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kHasSanitizer = true;
#elif defined(__has_feature)
constexpr bool kHasSanitizer = __has_feature(address_sanitizer) || __has_feature(thread_sanitizer);
#else
constexpr bool kHasSanitizer = false;
#endif

constexpr std::array kCrashes{SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT};

/// A line that is put together without asking for memory. What does not fit is cut off.
class Line {
 public:
  Line& operator<<(std::string_view text) noexcept {
    for (const char c : text) {
      if (size_ + 1 < text_.size()) text_[size_++] = static_cast<unsigned char>(c) < 0x20 ? ' ' : c;
    }
    return *this;
  }
  void write() noexcept {
    text_[size_++] = '\n';
    static_cast<void>(!::write(STDERR_FILENO, text_.data(), size_));
  }

 private:
  std::array<char, 1024> text_{};
  std::size_t size_ = 0;
};

/// What the exception says that ends the process; empty for other ends.
std::array<char, 512> uncaught{};

void noteUncaught(std::string_view text) noexcept { text.copy(uncaught.data(), uncaught.size() - 1); }

[[noreturn]] void onTerminate() noexcept {
  if (const auto error = std::current_exception()) {
    try {
      std::rethrow_exception(error);
    } catch (const std::exception& known) {
      noteUncaught(known.what());
    } catch (...) {
      noteUncaught("unknown exception");
    }
  }
  std::abort();
}

std::string_view nameOf(int signal) noexcept {
  switch (signal) {
    case SIGSEGV:
      return "SIGSEGV";
    case SIGBUS:
      return "SIGBUS";
    case SIGFPE:
      return "SIGFPE";
    case SIGILL:
      return "SIGILL";
    default:
      return "SIGABRT";
  }
}

/// Where a function was called through a pointer to nowhere, nothing can be unwound: who called it, as far as the
/// machine still knows.
std::uintptr_t callerOfNowhere(const void* context) noexcept {
  const auto& machine = static_cast<const ucontext_t*>(context)->uc_mcontext;
#if defined(__x86_64__)
  if (machine.gregs[REG_RIP] != 0) return 0;
  return *reinterpret_cast<const std::uintptr_t*>(machine.gregs[REG_RSP]);  // NOLINT(performance-no-int-to-ptr)
#elif defined(__aarch64__)
  return machine.pc == 0 ? machine.regs[30] : 0;
#else
  static_cast<void>(machine);
  return 0;
#endif
}

/// The innermost module among the functions that run.
const char* findModule(const void* context) noexcept {
  std::array<void*, 128> frames{};
  const int depth = ::backtrace(frames.data(), static_cast<int>(frames.size()));
  for (int i = 0; i < depth; ++i) {
    const auto address = reinterpret_cast<std::uintptr_t>(frames[static_cast<std::size_t>(i)]);
    if (const char* found = codemap::find(address)) return found;
  }
  return codemap::find(callerOfNowhere(context));
}

void report(int signal, const void* context) noexcept {
  Line line;
  line << "[fatal] korvo crash: ";
  if (uncaught[0] != '\0') {
    line << "an exception that nobody catches";
  } else {
    line << nameOf(signal);
  }
  if (const char* const module = findModule(context)) {
    line << " in " << module;
  } else if (const char* const library = codemap::Opening::present()) {
    line << " while module library " << library << " is loaded";
  } else {
    line << " outside of the modules";
  }
  std::array<char, 16> thread{};
  if (::prctl(PR_GET_NAME, thread.data()) == 0) line << ", thread " << thread.data();
  if (uncaught[0] != '\0') line << ": " << uncaught.data();
  line.write();
}

void onCrash(int signal, siginfo_t* info, void* context) {
  static std::atomic_flag told = ATOMIC_FLAG_INIT;
  if (!told.test_and_set()) {
    report(signal, context);
  } else {
    ::sleep(1);  // Another thread is telling.
  }
  ::signal(signal, SIG_DFL);
  // An instruction that failed fails again, now for good; what somebody sent is sent once more.
  if (info->si_code <= 0) ::raise(signal);
}

}  // namespace

void reportCrashes() {
  if (kHasSanitizer) return;
  // Loads what unwinding needs, which a handler could not.
  std::array<void*, 1> frame{};
  ::backtrace(frame.data(), 1);
  static std::array<char, std::size_t{64} * 1024> spare;  // For a first thread that has outgrown its own.
  stack_t stack{};
  stack.ss_sp = spare.data();
  stack.ss_size = spare.size();
  ::sigaltstack(&stack, nullptr);
  std::set_terminate(&onTerminate);
  struct sigaction action {};
  action.sa_sigaction = &onCrash;
  action.sa_flags = SA_SIGINFO | SA_ONSTACK;
  ::sigemptyset(&action.sa_mask);
  for (const int signal : kCrashes) ::sigaction(signal, &action, nullptr);
}

}  // namespace HX
