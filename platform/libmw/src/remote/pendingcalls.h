#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <utility>
#include <vector>

namespace mw::remote {

/// What waits for the answer to a request, by the number of the request.
///
/// The numbers ascend, and leave out those whose slot is taken: so each has a slot of its own, and nothing is searched
/// for, or allocated, as long as about as many wait as before.
///
/// @par Threads  One at a time.
template <class Call>
class PendingCalls {
 public:
  /// @return The number of the request; never 0.
  std::uint32_t add(Call&& call) {
    if (2 * (count_ + 1) > slots_.size()) resize(2 * slots_.size());
    do ++last_;
    while (last_ == 0 || slotOf(last_).call);
    Slot& slot = slotOf(last_);
    slot.number = last_;
    slot.call.emplace(std::move(call));
    ++count_;
    return last_;
  }

  /// @return Empty when nothing waits for it, or not any more.
  std::optional<Call> take(std::uint32_t number) {
    Slot& slot = slotOf(number);
    if (slot.number != number || !slot.call) return std::nullopt;
    auto taken = std::move(slot.call);
    slot.call.reset();
    // What a burst has made larger is given back.
    if (--count_ == 0 && slots_.size() > kKept) slots_ = std::vector<Slot>(kFirst);
    return taken;
  }

  /// All that wait, in no order; none does afterwards.
  std::vector<Call> takeAll() {
    std::vector<Call> all;
    all.reserve(count_);
    for (Slot& slot : slots_) {
      if (slot.call) all.push_back(std::move(*slot.call));
    }
    slots_ = std::vector<Slot>(kFirst);
    count_ = 0;
    return all;
  }

  /// @return The number of one that `is` takes for it; 0 when there is none. Looks at all.
  template <class Is>
  std::uint32_t find(const Is& is) const {
    for (const Slot& slot : slots_) {
      if (slot.call && is(*slot.call)) return slot.number;
    }
    return 0;
  }

  std::size_t count() const { return count_; }

 private:
  static constexpr std::size_t kFirst = 16;
  static constexpr std::size_t kKept = 4096;

  struct Slot {
    std::uint32_t number = 0;
    std::optional<Call> call;
  };
  Slot& slotOf(std::uint32_t number) { return slots_[number & (slots_.size() - 1)]; }

  void resize(std::size_t size) {
    std::vector<Slot> before(size);
    before.swap(slots_);
    for (Slot& slot : before) {
      if (slot.call) slotOf(slot.number) = std::move(slot);
    }
  }

  std::vector<Slot> slots_ = std::vector<Slot>(kFirst);  // a power of two of them
  std::size_t count_ = 0;
  std::uint32_t last_ = 0;
};

}  // namespace mw::remote
