#include "viewer.h"

#include "values.h"

#include <hxcommon/views.h>

#include <algorithm>
#include <cmath>
#include <stdexcept>
#include <utility>

namespace korvo::python {
namespace {

std::chrono::milliseconds milliseconds(double seconds) {
  // Also what is no number: it is as if no time at all were left.
  constexpr double kMost = 1e9;
  return std::chrono::milliseconds(std::llround(seconds > 0 ? std::min(seconds * 1000, kMost) : 0.0));
}

HX::ViewOptions optionsOf(const Sight& sight) {
  return {.capacity = sight.capacity, .aliveWithin = milliseconds(sight.aliveWithin)};
}

std::shared_ptr<HX::view::Opened> open(const std::shared_ptr<HX::HXBroker>& broker, const Sight& sight,
                                       std::size_t depth) {
  return HX::openView(broker, {sight.key, sight.capacity, depth, milliseconds(sight.aliveWithin)});
}

}  // namespace

// --- What was seen --------------------------------------------------------------------------------------------------

py::object SeenValue::state() const {
  return py::reinterpret_borrow<py::object>(
      PyTuple_GET_ITEM(Kinds::instance().viewStates.ptr(), static_cast<Py_ssize_t>(seen_.state)));
}

py::object SeenValue::value() const { return toPython(seen_.value()); }
py::object SeenValue::last() const { return toPython(seen_.last()); }
double SeenValue::age() const { return std::chrono::duration<double>(seen_.age()).count(); }
bool SeenValue::isFresh(double limit) const { return seen_.isFresh(milliseconds(limit)); }

py::iterator SeenValue::parts() const {
  const py::object value = seen_.isPresent() ? this->value() : py::none();
  return py::iter(py::make_tuple(value, age(), revision(), state()));
}

std::string SeenValue::text() const {
  const py::object shown = seen_.isPresent() ? value() : state().attr("value");
  return py::str("<korvo.Seen {!r}, revision {}, {:.3f} s ago>").format(shown, revision(), age());
}

Turn::Turn(bool& isTaken) : isTaken_(isTaken) {
  if (isTaken) throw std::runtime_error("another thread waits with this view: let each thread open one of its own");
  isTaken = true;
}

// --- Views ----------------------------------------------------------------------------------------------------------

NativeView::NativeView(const std::shared_ptr<HX::HXBroker>& broker, const Sight& sight)
    : view_(open(broker, sight, 0), optionsOf(sight)) {}

SeenValue NativeView::read() {
  requireUsable();
  const Turn turn(isUsed_);
  return SeenValue(view_.read());
}

bool NativeView::isAlive(double limit) {
  requireUsable();
  const Turn turn(isUsed_);
  return view_.alive(milliseconds(limit));
}

bool NativeView::wait(std::uint64_t revision, std::optional<double> limit) {
  requireUsable();
  const Turn turn(isUsed_);
  return waitWhile(Limit(limit), [&](std::chrono::milliseconds longest) { return view_.wait(revision, longest); });
}

// --- Streams --------------------------------------------------------------------------------------------------------

NativeStream::NativeStream(const std::shared_ptr<HX::HXBroker>& broker, const Sight& sight, std::size_t depth)
    : stream_(open(broker, sight, std::max<std::size_t>(1, depth)), optionsOf(sight)) {}

std::optional<SeenValue> NativeStream::next(std::optional<double> limit) {
  requireUsable();
  const Turn turn(isUsed_);
  const Limit within(limit);
  SeenValue::Seen item;
  for (bool isReconnected = false;;) {
    switch (stream_.next(item)) {
      case HX::ReadResult::Value:
        item.isReconnected = isReconnected;
        return SeenValue(std::move(item));
      case HX::ReadResult::Lost:
        break;
      case HX::ReadResult::Reconnected:
        isReconnected = true;
        break;
      case HX::ReadResult::Nothing:
      case HX::ReadResult::Ended:
        const auto isOver = [&](std::chrono::milliseconds longest) { return end_->isReached || stream_.wait(longest); };
        if (end_->isReached || !waitWhile(within, isOver)) return std::nullopt;
    }
  }
}

}  // namespace korvo::python
