#include "hxviews.h"

#include "lease.h"

#include <hxauthor/author.h>
#include <hxcommon/hxbroker.h>

#include <algorithm>
#include <random>
#include <stdexcept>

#include <fmt/format.h>

namespace HX {
namespace {

std::function<std::shared_ptr<view::Host>()> hostOf(const std::shared_ptr<HXBroker>& broker) {
  return [weak = std::weak_ptr(broker)]() -> std::shared_ptr<view::Host> {
    const auto own = weak.lock();
    return own ? own->interfaceOf<view::Host>("HXMemory") : nullptr;
  };
}

std::int64_t newLife() {
  std::random_device random;
  return static_cast<std::int64_t>(random()) << 31 | random();
}

std::size_t sizeOf(const char* what, std::int64_t number) {
  if (number >= 0) return static_cast<std::size_t>(number);
  throw std::runtime_error(fmt::format("the {} of a view is {}", what, number));
}

}  // namespace

HXViews::HXViews(const std::shared_ptr<HXBroker>& broker, const std::string& name)
    : HXModule(broker, name), room_(std::make_shared<Showroom>(hostOf(broker), Showroom::Limits{})), life_(newLife()) {
  setModuleDescription(
      "HXViews shows keys of the memory in shared memory, where other processes of the machine read them without "
      "calling anybody.");
  setAuthor({});  // Whoever calls it is the viewer.
  bind();
}

void HXViews::bind() {
  ViewLease::describe();
  BellPage::describe();
  functionName("open", getName(), "Shows a key for the caller, for as long as the result is held.");
  addParam("key", "whether it is there or not");
  addParam("capacity", "bytes of the largest value; 0 for a number or a bool");
  addParam("depth", "how many values a stream goes back; 0 for the latest alone");
  addParam("within", "milliseconds after which the caller wants to know that the broker is frozen");
  setReturn("lease", "an object with the methods place and ticket; the page on the protocol says what they tell");
  bindMethod(this, &HXViews::open);

  functionName("bells", getName(), "Takes a page of memory in which the caller says what he waits for.");
  addParam("ticket", "by which it is fetched");
  setReturn("page", "an object with the methods add and remove");
  bindMethod(this, &HXViews::bells);

  functionName("report", getName(), "Tells who views what.");
  setReturn("report",
            "{views: a list of {key, viewer, bytes, depth, isWaiting}; bytes, of shared memory; limits: {bytes, "
            "ringBytes, viewsOfAViewer}}");
  bindMethod(this, &HXViews::report);
}

void HXViews::exit() {
  room_->end();
  HXModule::exit();
}

std::shared_ptr<ViewLease> HXViews::open(const std::string& key, std::int64_t capacity, std::int64_t depth,
                                         std::int64_t within) {
  constexpr std::int64_t kLongest = 3'600'000;
  if (within <= 0) throw std::runtime_error(fmt::format("a view cannot know within {} ms", within));
  if (capacity == 0 && depth > 0) throw std::runtime_error("a stream has room for a number at least, 8 bytes");
  const view::Wish wish{key, sizeOf("capacity", capacity), sizeOf("depth", depth),
                        std::chrono::milliseconds(std::min(within, kLongest))};
  auto lease = room_->open(wish, std::string(Author::present().text()));
  try {
    return std::make_shared<ViewLease>(room_, getParentBroker()->session(), lease, life_);
  } catch (...) {
    room_->close(lease.number);
    throw;
  }
}

std::shared_ptr<BellPage> HXViews::bells(const HXValue::Binary& ticket) {
  mw::Ticket shown{};
  if (ticket.size() != shown.size()) throw std::runtime_error(fmt::format("a ticket has {} bytes", shown.size()));
  std::ranges::copy(ticket, shown.begin());
  const mw::File file = getParentBroker()->session()->fetchFile(shown);
  return std::make_shared<BellPage>(room_, std::make_shared<const view::Mapping>(file.number(), BellPage::kSize));
}

HXValue HXViews::report() { return room_->report(); }

}  // namespace HX
