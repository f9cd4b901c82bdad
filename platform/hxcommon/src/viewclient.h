#pragma once

#include <hxcommon/hxbroker.h>
#include <hxerror/mutex.h>
#include <hxvalue/hxvalue.h>
#include <hxview/opened.h>
#include <libmw/genericobject.h>
#include <libmw/signal.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <utility>
#include <vector>

namespace HX {

class RemoteView;

/// All views that this process has by one broker: the segments that it has mapped, the page with its bells, and who is
/// to be told when the broker goes and comes.
///
/// @par Threads  Any. Calls of the broker are made with nothing locked.
class ViewClient : public std::enable_shared_from_this<ViewClient> {
 public:
  /// The one of a broker, made when there is none.
  static std::shared_ptr<ViewClient> of(const std::shared_ptr<HXBroker>& broker);

  /// Ends the views of a broker that leaves, of which no notice tells: who waits by one wakes up, and reads that it is
  /// disconnected.
  static void leave(const std::weak_ptr<HXBroker>& broker);

  explicit ViewClient(const std::shared_ptr<HXBroker>& broker);
  ViewClient(const ViewClient&) = delete;
  ViewClient& operator=(const ViewClient&) = delete;
  ~ViewClient();

  std::shared_ptr<view::Opened> open(const view::Wish& wish);

 private:
  friend class RemoteView;
  /// A page of bells, as the broker has it.
  struct Page {
    std::shared_ptr<const view::Segment> segment;
    mw::AnyObject object;
    std::set<std::size_t> used;
  };
  using SegmentId = std::pair<std::int64_t, std::int64_t>;  // Of which life of the service, and which of it.

  void listen();
  void onService(bool isThere);
  void reopenAll();
  std::vector<std::shared_ptr<RemoteView>> views();
  std::shared_ptr<HXProxy> service() const;
  std::shared_ptr<const view::Mapping> mappingOf(const HXValue& place, const mw::AnyObject& lease);
  std::shared_ptr<view::Word> newBell(std::int64_t lease);
  std::shared_ptr<Page> page();
  void giveBack(const std::shared_ptr<Page>& page, std::size_t index) noexcept;

  const std::weak_ptr<HXBroker> broker_;
  mw::SignalLink onRegistered_ = mw::kInvalidSignalLink;
  mw::SignalLink onUnregistered_ = mw::kInvalidSignalLink;

  Mutex mutex_;
  std::atomic<std::uint64_t> losses_{0};  // How often the service has gone.
  std::vector<std::weak_ptr<RemoteView>> views_ HX_GUARDED_BY(mutex_);
  std::map<SegmentId, std::weak_ptr<const view::Mapping>> mappings_ HX_GUARDED_BY(mutex_);
  std::shared_ptr<Page> page_ HX_GUARDED_BY(mutex_);  // Of this life of the service; null for none.
};

/// One view, through all lives of the broker.
class RemoteView : public view::Opened, public std::enable_shared_from_this<RemoteView> {
 public:
  RemoteView(std::shared_ptr<ViewClient> client, view::Wish wish);
  ~RemoteView() override;

  /// Finds where the value lies now. @throws std::runtime_error
  void open();
  void close() { disconnect(); }
  std::shared_ptr<view::Word> newBell() override;

 private:
  void openOnce();

  const std::shared_ptr<ViewClient> client_;
  const view::Wish wish_;
  std::atomic<bool> isOpening_{false};
  Mutex mutex_;
  mw::AnyObject lease_ HX_GUARDED_BY(mutex_);
  std::int64_t number_ HX_GUARDED_BY(mutex_) = 0;
};

}  // namespace HX
