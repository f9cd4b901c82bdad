#include "lease.h"

#include <libmw/objecttypebuilder.h>

#include <stdexcept>
#include <unistd.h>
#include <utility>

#include <fmt/format.h>

namespace HX {

ViewLease::ViewLease(std::shared_ptr<Showroom> room, std::weak_ptr<mw::Session> session, Showroom::Lease lease,
                     std::int64_t life)
    : room_(std::move(room)), session_(std::move(session)), lease_(std::move(lease)), life_(life) {}

ViewLease::~ViewLease() { room_->close(lease_.number); }

void ViewLease::describe() {
  mw::ObjectTypeBuilder<ViewLease> builder("HXViewsLease");
  builder.setThreadingModel(mw::ObjectThreadingModel::MultiThread);
  builder.advertiseMethod("place", &ViewLease::place,
                          "Where it lies: life and segment, which name a file together; its size; owner; offset of a "
                          "cell, or slots and capacity of a ring; lease, to be named to bells.");
  builder.advertiseMethod("ticket", &ViewLease::ticket, "By which the file of the segment is fetched, once.");
  builder.registerType();
}

HXValue ViewLease::place() const {
  const auto number = [](std::uint64_t one) { return HXValue(static_cast<std::int64_t>(one)); };
  return HXValue::map({{"life", life_},
                       {"segment", lease_.segmentId},
                       {"size", number(lease_.segment->size())},
                       {"owner", number(lease_.owner)},
                       {"offset", number(lease_.offset)},
                       {"slots", number(lease_.shape.slots)},
                       {"capacity", number(lease_.shape.capacity)},
                       {"lease", number(lease_.number)}});
}

HXValue::Binary ViewLease::ticket() const {
  const auto session = session_.lock();
  if (!session) throw std::runtime_error("the broker has gone");
  const mw::File file(::dup(lease_.segment->file()));
  const mw::Ticket ticket = session->offerFile(file);
  return {ticket.begin(), ticket.end()};
}

BellPage::BellPage(std::shared_ptr<Showroom> room, std::shared_ptr<const view::Mapping> page)
    : room_(std::move(room)), page_(std::move(page)) {}

BellPage::~BellPage() {
  for (const auto& [index, added] : bells_) room_->removeBell(added.lease, added.bell.get());
}

void BellPage::describe() {
  mw::ObjectTypeBuilder<BellPage> builder("HXViewsBells");
  builder.setThreadingModel(mw::ObjectThreadingModel::MultiThread);
  builder.advertiseMethod("add", &BellPage::add, "Looks at a word of the page when the value of a lease is written.");
  builder.advertiseMethod("remove", &BellPage::remove, "Does not look at it any more.");
  builder.registerType();
}

void BellPage::add(std::int64_t lease, std::int64_t index) {
  constexpr std::size_t kBells = (kSize - view::kLine) / sizeof(view::Word);
  if (index < 0 || std::cmp_greater_equal(index, kBells)) {
    throw std::runtime_error(fmt::format("a page has {} bells, and none is {}", kBells, index));
  }
  remove(index);
  auto bell = std::make_shared<view::Bell>();
  bell->page = page_;
  bell->word = reinterpret_cast<const view::Word*>(page_->data() + view::kLine) + index;
  const auto number = static_cast<std::uint64_t>(lease);
  room_->addBell(number, bell);
  const MutexLock lock(mutex_);
  bells_.insert_or_assign(index, Added{number, std::move(bell)});
}

void BellPage::remove(std::int64_t index) {
  Added removed{};
  {
    const MutexLock lock(mutex_);
    auto taken = bells_.extract(index);
    if (!taken) return;
    removed = std::move(taken.mapped());
  }
  room_->removeBell(removed.lease, removed.bell.get());
}

}  // namespace HX
