#include "linkauthors.h"

#include "chain.h"

#include <hxerror/mutex.h>
#include <libmw/local.h>
#include <libmw/text.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include <fmt/format.h>

namespace mw::remote {
namespace {

/// What others say is shown to people.
std::string shown(std::string_view text) { return shorten(escapeControls(shorten(text)), LinkAuthors::kLongest); }

class ProgramName {
 public:
  static ProgramName& instance() {
    static ProgramName* const the = new ProgramName;  // Connections may be made by other statics.
    return *the;
  }
  void set(std::string name) {
    const HX::MutexLock lock(mutex_);
    name_ = std::move(name);
  }
  std::string get() const {
    const HX::MutexLock lock(mutex_);
    return name_;
  }

 private:
  mutable HX::Mutex mutex_;
  std::string name_ HX_GUARDED_BY(mutex_) = ::program_invocation_short_name;
};

}  // namespace

std::string programName() { return ProgramName::instance().get(); }

LinkAuthors::LinkAuthors(std::string_view peer, Tell tell) : channelsName_(peer), tell_(std::move(tell)), peer_(peer) {}

void LinkAuthors::greet(std::string_view program, bool understands) {
  HX::Author named(program.empty() ? channelsName_ : fmt::format("{}, {}", channelsName_, shown(program)));
  {
    const HX::MutexLock lock(mutex_);
    std::swap(peer_, named);  // The earlier one goes after the lock.
  }
  understood_.store(understands, std::memory_order_relaxed);
}

HX::Author LinkAuthors::peer() const {
  const HX::MutexLock lock(mutex_);
  return peer_;
}

void LinkAuthors::enter(std::uint32_t number, std::string_view text) {
  if (number >= 1 && number <= kNumbers) entered_[number - 1] = HX::Author(shown(text));
}

HX::Author LinkAuthors::of(Header header) const {
  if (header.empty()) return peer();
  HX::Author named;
  if (const auto number = std::to_integer<std::size_t>(header.front()); number != 0) {
    named = entered_[number - 1];
  } else {
    named = HX::Author(shown({reinterpret_cast<const char*>(header.data()) + 1, header.size() - 1}));
  }
  return named ? named : peer();
}

LinkAuthors::Stated::Stated(LinkAuthors& authors) {
  if (!authors.understood_.load(std::memory_order_relaxed)) return;
  const std::uint32_t present = HX::Author::presentNumber();
  if (present == 0) return;
  const Served& served = servedByThisThread();
  // What this process does because another one called is its own doing.
  if (!served.relays && served.author && served.author->number() == present) return;
  if (const std::uint8_t number = served.relays ? std::uint8_t{0} : authors.numberOf(present); number != 0) {
    bytes_[size_++] = std::byte{number};
  } else {
    name(HX::Author::present().text());
  }
}

void LinkAuthors::Stated::name(std::string_view text) {
  const std::string cut = shorten(text, kLongest);
  bytes_[size_++] = std::byte{0};
  const std::size_t most = std::min(cut.size(), bytes_.size() - size_);
  std::memcpy(bytes_.data() + size_, cut.data(), most);
  size_ += most;
}

std::uint8_t LinkAuthors::numberOf(std::uint32_t author) {
  const auto find = [&](std::memory_order order) {
    std::size_t place = 0;
    for (; place < kNumbers; ++place) {
      const std::uint32_t given = given_[place].load(order);
      if (given == author || given == 0) break;
    }
    return place;
  };
  std::size_t place = find(std::memory_order_acquire);
  if (place < kNumbers && given_[place].load(std::memory_order_relaxed) == author) {
    return static_cast<std::uint8_t>(place + 1);
  }
  const HX::MutexLock lock(giving_);
  place = find(std::memory_order_relaxed);
  if (place == kNumbers) return 0;
  const auto number = static_cast<std::uint8_t>(place + 1);
  if (given_[place].load(std::memory_order_relaxed) != author) {
    tell_(number, HX::Author::present().text());
    given_[place].store(author, std::memory_order_release);
  }
  return number;
}

}  // namespace mw::remote

namespace mw {

void setProgramName(std::string name) { remote::ProgramName::instance().set(std::move(name)); }

}  // namespace mw
