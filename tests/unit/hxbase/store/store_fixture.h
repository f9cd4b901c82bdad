#pragma once

#include "memory_fixture.h"
#include "print_value.h"

#include <hxerror/hxerror.h>
#include <libmw/clock.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <ostream>
#include <string>
#include <vector>

#include <gmock/gmock.h>

namespace HX::store {

inline const std::string kSource = "../hxbase/src/hxmemory";

/// The five fields of an error.
struct Fields {
  std::string method;
  std::string message;
  int line = kSomeLine;
  std::string file = kSource;
  std::string module = "HXMemory";

  static constexpr int kSomeLine = -1;  ///< The line is not fixed, but there is one.

  bool operator==(const Fields&) const = default;
};

inline void PrintTo(const Fields& fields, std::ostream* out) {
  *out << fields.module << '.' << fields.method << ": " << fields.message << " (" << fields.file << ':' << fields.line
       << ')';
}

/// The error that `action` ends with.
/// @param fixedLine  False when the line may be any; the result then says `kSomeLine` for one that is there.
inline Fields errorOf(const std::function<void()>& action, bool fixedLine = false) {
  try {
    action();
  } catch (const HXError& error) {
    const int line = error.line() > 0 && !fixedLine ? Fields::kSomeLine : error.line();
    return {error.method(), error.message(), line, error.file(), error.module()};
  }
  ADD_FAILURE() << "nothing was thrown";
  return {};
}

/// Makes the time what the test says, as long as it lives.
class FakeClock {
 public:
  explicit FakeClock(std::chrono::nanoseconds sinceEpoch) : before_(mw::exchangeSystemClock(&FakeClock::now)) {
    set(sinceEpoch);
  }
  FakeClock(const FakeClock&) = delete;
  FakeClock& operator=(const FakeClock&) = delete;
  ~FakeClock() { mw::exchangeSystemClock(before_); }

  static void set(std::chrono::nanoseconds sinceEpoch) { now_ = sinceEpoch.count(); }

 private:
  static mw::SystemTimePoint now() noexcept { return mw::SystemTimePoint(std::chrono::nanoseconds(now_.load())); }

  static inline std::atomic<std::int64_t> now_;
  mw::SystemClockSource before_;
};

class StoreFixture : public kit::MemoryFixture {
 protected:
  /// The names with which a bookkeeping event was raised, oldest first.
  std::vector<std::string> told(const std::string& event) {
    std::vector<std::string> names;
    const HXValue history = memory->getEventHistory(event);
    for (const HXValue& entry : history.asList()) names.push_back(entry[0].asString());
    return names;
  }

  /// As `told`, without what loading the memory told.
  std::vector<std::string> added() {
    auto names = told(Memory::keyAddedKey);
    names.erase(names.begin(), names.begin() + 4);
    return names;
  }
  std::vector<std::string> removed() { return toldOrNone(Memory::keyRemovedKey); }
  std::vector<std::string> retyped() { return toldOrNone(Memory::keyTypeChanged); }

 private:
  std::vector<std::string> toldOrNone(const std::string& event) {
    return memory->getEventHistory(event).isValid() ? told(event) : std::vector<std::string>();
  }
};

}  // namespace HX::store
