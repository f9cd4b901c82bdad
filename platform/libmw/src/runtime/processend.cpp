#include "processend.h"

#include <hxerror/mutex.h>

#include <algorithm>
#include <atomic>
#include <fcntl.h>
#include <new>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace mw::detail {
namespace {

/// What a fork has to know. Never destroyed: processes fork until they have ended.
class Forks {
 public:
  static Forks& instance() {
    static auto* const the = new Forks;
    return *the;
  }

  void add(int file) {
    const HX::MutexLock lock(mutex_);
    files_.push_back(file);
  }

  void remove(int file) {
    const HX::MutexLock lock(mutex_);
    if (const auto found = std::ranges::find(files_, file); found != files_.end()) {
      *found = files_.back();
      files_.pop_back();
    }
  }

  std::atomic<bool> isChild{false};

 private:
  Forks() {
    // Locked by one of them, unlocked by another.
    ::pthread_atfork([]() HX_UNCHECKED { instance().mutex_.lock(); }, []() HX_UNCHECKED { instance().mutex_.unlock(); },
                     []() HX_UNCHECKED { instance().onChild(); });
  }

  /// Calls only what a child of many threads may call.
  void onChild() HX_RELEASE(mutex_) {
    isChild = true;
    const int nothing = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    for (const int file : files_) {
      if (nothing < 0 || ::dup3(nothing, file, O_CLOEXEC) < 0) ::close(file);
    }
    if (nothing >= 0) ::close(nothing);
    mutex_.unlock();
  }

  HX::Mutex mutex_;
  std::vector<int> files_ HX_GUARDED_BY(mutex_);
};

}  // namespace

std::chrono::milliseconds graceAtExit() {
  using Clock = std::chrono::steady_clock;
  constexpr std::chrono::seconds kGrace{2};
  static const Clock::time_point end = Clock::now() + kGrace;
  return std::max(std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()),
                  std::chrono::milliseconds(0));
}

bool isForkedChild() noexcept { return Forks::instance().isChild; }

void closeInChildren(int file) noexcept {
  try {
    Forks::instance().add(file);
  } catch (const std::bad_alloc&) {
    // It lives on in children: less bad than to fail for it.
  }
}

void closedAlready(int file) noexcept { Forks::instance().remove(file); }

}  // namespace mw::detail
