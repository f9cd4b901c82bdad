#include <hxbase/hxmemory.h>
#include <hxerror/mutex.h>
#include <libmw/eventloop.h>
#include <libmw/servedcall.h>

namespace HX {
namespace {

class DefaultLoop : public journal::Executor {
 public:
  explicit DefaultLoop(const mw::GenericObject& memory) : memory_(memory) {}

  bool post(std::function<void()> task, std::chrono::nanoseconds delay) override {
    return mw::defaultLoop().post(std::move(task), delay);
  }
  /// A method of a module may go on for long after it has written something: only who calls the memory itself from
  /// another process is known to be done.
  bool leave(const std::function<void()>& task) override {
    return mw::servesNothingBut(memory_) && mw::defaultLoop().postAfterServing(task);
  }
  std::chrono::steady_clock::time_point now() const noexcept override { return std::chrono::steady_clock::now(); }

 private:
  const mw::GenericObject& memory_;  // To be compared, no more: it ends before those who follow.
};

}  // namespace

std::shared_ptr<journal::Executor> HXMemory::executorOf(const JournalSettings& settings) const {
  return settings.executor ? settings.executor : std::make_shared<DefaultLoop>(*this);
}

std::uint64_t HXMemory::walk(std::uint64_t place, std::uint64_t until, std::size_t homes,
                             journal::Visitor& visitor) const {
  static_assert(NameTable<STMValue>::kWalked == journal::Source::kEnd);
  const SharedLock lock(itemsLock);
  return items.walk(place, until, homes, [&](std::string_view name, const auto& item) {
    if (visitor.wants(name)) visitor.visit(name, item->state());
  });
}

std::uint64_t HXMemory::placeOf(std::string_view name) const noexcept { return NameTable<STMValue>::placeOf(name); }

void HXMemory::show(std::span<const std::string> names, journal::Visitor& visitor) const {
  const SharedLock lock(itemsLock);
  for (const std::string& name : names) {
    const auto* found = items.find(name);
    if (found && visitor.wants(name)) visitor.visit(name, (*found)->state());
  }
}

void HXMemory::setRecording(bool on) {
  const Lock lock(itemsLock);
  recording_.store(on, std::memory_order_relaxed);
}

}  // namespace HX
