#include "viewclient.h"

#include <hxview/cell.h>
#include <hxview/segment.h>
#include <libmw/eventloop.h>
#include <libmw/log.h>

#include <algorithm>
#include <limits>
#include <stdexcept>
#include <string>
#include <unistd.h>
#include <utility>

#include <fmt/format.h>

namespace HX {
namespace {

const char* const kService = "HXViews";
constexpr std::size_t kPageSize = 4096;
constexpr std::size_t kBells = (kPageSize - view::kLine) / sizeof(view::Word);

/// A number that somebody else says.
std::size_t sizeAt(const HXValue& place, const char* name, std::size_t most) {
  const std::int64_t number = place[name].toInt64();
  if (number >= 0 && std::cmp_less_equal(number, most)) return static_cast<std::size_t>(number);
  throw std::runtime_error(fmt::format("a view whose {} is {}", name, number));
}

struct ViewClients {
  static ViewClients& instance() {
    static auto* const the = new ViewClients;  // Never destroyed: views may be statics, too.
    return *the;
  }

  Mutex mutex;
  std::map<std::weak_ptr<HXBroker>, std::weak_ptr<ViewClient>, std::owner_less<>> clients HX_GUARDED_BY(mutex);
};

}  // namespace

std::shared_ptr<ViewClient> ViewClient::of(const std::shared_ptr<HXBroker>& broker) {
  ViewClients& known = ViewClients::instance();
  std::shared_ptr<ViewClient> client;
  {
    const MutexLock lock(known.mutex);
    std::erase_if(known.clients, [](const auto& one) { return one.first.expired(); });
    auto& found = known.clients[broker];
    client = found.lock();
    if (client) return client;
    client = std::make_shared<ViewClient>(broker);
    found = client;
  }
  client->listen();
  return client;
}

void ViewClient::leave(const std::weak_ptr<HXBroker>& broker) {
  ViewClients& known = ViewClients::instance();
  std::shared_ptr<ViewClient> client;
  {
    const MutexLock lock(known.mutex);
    if (const auto found = known.clients.find(broker); found != known.clients.end()) client = found->second.lock();
  }
  if (client) client->onService(false);
}

ViewClient::ViewClient(const std::shared_ptr<HXBroker>& broker) : broker_(broker) {}

ViewClient::~ViewClient() {
  const auto broker = broker_.lock();
  if (!broker) return;
  broker->session()->serviceRegistered.disconnect(onRegistered_);
  broker->session()->serviceUnregistered.disconnect(onUnregistered_);
}

void ViewClient::listen() {
  const auto broker = broker_.lock();
  if (!broker) return;
  const auto onNotice = [weak = weak_from_this()](bool isThere) {
    return mw::SignalSubscriber([weak, isThere](mw::ServiceId, const std::string& service) {
      if (service != kService) return;
      if (const auto self = weak.lock()) self->onService(isThere);
    });
  };
  onRegistered_ = broker->session()->serviceRegistered.connect(onNotice(true));
  onUnregistered_ = broker->session()->serviceUnregistered.connect(onNotice(false));
}

/// The service goes with the connection, too.
void ViewClient::onService(bool isThere) {
  if (isThere) {
    // Not here: other notices wait for this one, and the answer may take a while.
    mw::defaultLoop().post([weak = weak_from_this()] {
      if (const auto self = weak.lock()) self->reopenAll();
    });
    return;
  }
  ++losses_;
  for (const auto& one : views()) one->close();
  std::shared_ptr<Page> left;  // Goes after the lock.
  const MutexLock lock(mutex_);
  left.swap(page_);
  mappings_.clear();
}

void ViewClient::reopenAll() {
  for (const auto& one : views()) {
    if (view::Opened::isThere(one->standing())) continue;
    try {
      one->open();
    } catch (const std::exception& error) {
      mw::log::warning("hxcommon.views", "reopen", error.what());
    }
  }
}

std::vector<std::shared_ptr<RemoteView>> ViewClient::views() {
  std::vector<std::shared_ptr<RemoteView>> all;
  const MutexLock lock(mutex_);
  for (const auto& one : views_) {
    if (auto opened = one.lock()) all.push_back(std::move(opened));
  }
  return all;
}

std::shared_ptr<HXProxy> ViewClient::service() const {
  const auto broker = broker_.lock();
  if (!broker) throw std::runtime_error("the broker is gone");
  if (auto found = broker->getProxy(kService)) return found;
  throw std::runtime_error(broker->getProxy("HXMemory")
                               ? "the broker offers no views: it was started without its module views"
                               : "there is no memory that could be viewed");
}

std::shared_ptr<view::Opened> ViewClient::open(const view::Wish& wish) {
  const auto opened = std::make_shared<RemoteView>(shared_from_this(), wish);
  {
    // Known before it is opened: what happens to the broker meanwhile it is told.
    const MutexLock lock(mutex_);
    std::erase_if(views_, [](const auto& one) { return one.expired(); });
    views_.push_back(opened);
  }
  opened->open();
  return opened;
}

std::shared_ptr<const view::Mapping> ViewClient::mappingOf(const HXValue& place, const mw::AnyObject& lease) {
  const SegmentId id(place["life"].toInt64(), place["segment"].toInt64());
  {
    const MutexLock lock(mutex_);
    if (auto known = mappings_[id].lock()) return known;
  }
  const auto broker = broker_.lock();
  if (!broker) throw std::runtime_error("the broker is gone");
  const auto shown = lease->call<HXValue::Binary>("ticket");
  mw::Ticket ticket{};
  if (shown.size() != ticket.size()) throw std::runtime_error("a ticket of a wrong size");
  std::ranges::copy(shown, ticket.begin());
  const mw::File file = broker->session()->fetchFile(ticket);
  const std::size_t size = sizeAt(place, "size", std::numeric_limits<std::uint32_t>::max());
  auto mapping = std::make_shared<const view::Mapping>(file.number(), size);
  const MutexLock lock(mutex_);
  std::erase_if(mappings_, [](const auto& one) { return one.second.expired(); });
  mappings_[id] = mapping;
  return mapping;
}

std::shared_ptr<ViewClient::Page> ViewClient::page() {
  {
    const MutexLock lock(mutex_);
    if (page_) return page_;
  }
  const auto made = std::make_shared<Page>();
  made->segment = std::make_shared<const view::Segment>(kPageSize);
  const mw::File file(::dup(made->segment->file()));
  const auto broker = broker_.lock();
  if (!broker) throw std::runtime_error("the broker is gone");
  const mw::Ticket ticket = broker->session()->offerFile(file);
  made->object = service()->call<mw::AnyObject>("bells", HXValue::binary(ticket));
  const MutexLock lock(mutex_);
  if (!page_) page_ = made;
  return page_;
}

std::shared_ptr<view::Word> ViewClient::newBell(std::int64_t lease) {
  const auto page = this->page();
  std::size_t index = 0;
  {
    const MutexLock lock(mutex_);
    while (page->used.count(index) > 0) ++index;
    if (index == kBells) throw std::runtime_error(fmt::format("{} views of this process wait already", kBells));
    page->used.insert(index);
  }
  auto* const words = reinterpret_cast<view::Word*>(page->segment->data() + view::kLine);
  words[index].store(0, std::memory_order_relaxed);
  std::shared_ptr<view::Word> bell(&words[index], [weak = weak_from_this(), page, index](view::Word*) {
    if (const auto self = weak.lock()) self->giveBack(page, index);
  });
  page->object->call("add", lease, static_cast<std::int64_t>(index));
  return bell;
}

void ViewClient::giveBack(const std::shared_ptr<Page>& page, std::size_t index) noexcept {
  try {
    page->object->call("remove", static_cast<std::int64_t>(index));
  } catch (const std::exception&) {
    // The broker has gone, and the bell with it.
  }
  const MutexLock lock(mutex_);
  page->used.erase(index);
}

RemoteView::RemoteView(std::shared_ptr<ViewClient> client, view::Wish wish)
    : client_(std::move(client)), wish_(std::move(wish)) {}

RemoteView::~RemoteView() = default;

/// The notice that the service is there may come while somebody opens already, and leaves it to them.
void RemoteView::open() {
  while (!isOpening_.exchange(true)) {
    const std::uint64_t losses = client_->losses_;
    try {
      openOnce();
    } catch (...) {
      isOpening_ = false;
      throw;
    }
    isOpening_ = false;
    if (losses == client_->losses_) return;
    disconnect();  // From a service that has gone meanwhile, which was told before there was anything to disconnect.
  }
}

void RemoteView::openOnce() {
  auto lease =
      client_->service()->call<mw::AnyObject>("open", wish_.key, static_cast<std::int64_t>(wish_.capacity),
                                              static_cast<std::int64_t>(wish_.depth), wish_.aliveWithin.count());
  const auto place = lease->call<HXValue>("place");
  auto found = std::make_shared<view::Place>();
  found->mapping = client_->mappingOf(place, lease);
  found->owner = static_cast<std::uint64_t>(place["owner"].toInt64());
  const std::size_t size = found->mapping->size();
  const std::size_t slots = sizeAt(place, "slots", size);
  if (slots == 0) {
    const std::size_t offset = sizeAt(place, "offset", size - sizeof(view::Cell));
    if (offset % view::kLine != 0) throw std::runtime_error("a view in the middle of a line");
    found->cell = reinterpret_cast<const view::Cell*>(found->mapping->data() + offset);
  } else {
    const view::RingShape shape{sizeAt(place, "capacity", size), slots};
    if (slots < 3 || slots > size / shape.stride() || shape.bytes() > size) {
      throw std::runtime_error(fmt::format("a ring of {} slots in {} bytes", slots, size));
    }
    found->ring = view::RingReader(found->mapping->data(), shape, found->owner);
  }
  const std::int64_t number = place["lease"].toInt64();
  {
    const MutexLock lock(mutex_);
    std::swap(lease_, lease);  // The one before goes after the lock.
    number_ = number;
  }
  connect(std::move(found));
}

std::shared_ptr<view::Word> RemoteView::newBell() {
  std::int64_t number = 0;
  {
    const MutexLock lock(mutex_);
    number = number_;
  }
  return client_->newBell(number);
}

}  // namespace HX
