#pragma once

#include "access/access.h"
#include "channels.h"
#include "http/request.h"
#include "keyfeed.h"
#include "offers.h"
#include "page/pagesession.h"
#include "protocol.h"

#include <hxerror/mutex.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace HX::web {

/// One viewer: the channels that it is offered, and what it has subscribed to.
///
/// It is told of all keys, and sent each change of those that it subscribes to. While it leaves much unread nothing
/// more is sent; what is lost thereby it is told in a status message.
///
/// @par Threads  The server's. What waits for others is run on the event loop and comes back through a mailbox.
class ViewerSession : public SocketHandler, public std::enable_shared_from_this<ViewerSession> {
 public:
  /// @param right  With that to look it is offered neither services nor publishing, and no parameter can be set.
  ViewerSession(std::shared_ptr<PageServices> services, Right right,
                std::shared_ptr<const ViewerParameters> parameters);

  void opened(std::shared_ptr<Socket> socket) override;
  void message(std::string_view content, bool isBinary) override;
  void tick() override;
  void closed() override;

 private:
  using Operation = void (ViewerSession::*)(const HXValue& wish);
  using Reply = std::function<void(ViewerSession&)>;
  /// What errands bring back, for the next tick.
  struct Mailbox {
    Mutex mutex;  // A leaf.
    std::vector<Reply> replies HX_GUARDED_BY(mutex);
    int underWay HX_GUARDED_BY(mutex) = 0;
  };

  static const std::map<std::string_view, Operation>& operations();
  // viewerwishes.cpp: each does what the viewer wishes by that name.
  void subscribe(const HXValue& wish);
  void unsubscribe(const HXValue& wish);
  void advertise(const HXValue& wish);
  void unadvertise(const HXValue& wish);
  void getParameters(const HXValue& wish);
  void setParameters(const HXValue& wish);
  void subscribeParameters(const HXValue& wish);
  void unsubscribeParameters(const HXValue& wish);
  void subscribeGraph(const HXValue& wish);
  void unsubscribeGraph(const HXValue& wish);
  void publish(const viewer::Request& request);
  void call(const viewer::Request& request);

  void requireRight() const;
  /// Runs what may wait; what it gives is done at a later tick.
  void send(std::function<Reply(const Errands&)> errand);
  void tell(std::string_view op, HXValue::Map entries) const;
  void tellSet(const HXValue& wish, HXValue::List values, const std::map<std::string, std::string>& errors) const;
  void complain(const std::string& error) const;

  bool greet();
  void tellTrouble();
  void tellChannels();
  void tellServices();
  void tellGraph();
  void sendChanges();
  std::size_t sendEntry(const KeyFeed::Entry& entry);
  void sendTime();
  void followWanted();

  const std::shared_ptr<PageServices> services_;
  const Right right_;
  const std::shared_ptr<const ViewerParameters> parameters_;
  const std::shared_ptr<Mailbox> mailbox_ = std::make_shared<Mailbox>();
  std::unique_ptr<Model::Use> use_;
  std::shared_ptr<Socket> socket_;
  std::shared_ptr<KeyFeed> feed_;

  std::uint64_t ticks_ = 0;
  std::chrono::steady_clock::time_point greetedBy_;  // Even without the memory.
  bool isGreeted_ = false;
  std::uint64_t epoch_ = 0;     // Under which it was greeted.
  std::uint64_t looked_ = 0;    // The tree's count when channels were looked for.
  std::uint64_t lastTime_ = 0;  // Sent; never goes back.
  std::uint64_t dropped_ = 0;   // Changes, and how many of them were told of.
  std::uint64_t droppedTold_ = 0;
  std::size_t leftTold_ = 0;
  std::string trouble_;
  std::set<std::string> tooLarge_;  // Keys whose values are, of which it was told.

  Channels channels_;
  std::map<std::uint32_t, std::uint32_t> subscriptions_;  // Numbers of the viewer's, and of channels.
  std::map<std::uint32_t, std::uint32_t> subscribed_;     // The other way round.
  std::set<std::string> parameterKeys_;                   // Of which it wants to hear.
  std::map<std::uint32_t, std::string> published_;        // Its own channels, by their topics.
  std::map<std::uint32_t, std::string> offered_;          // Services by their numbers,
  ViewerServices known_;                                  // and what they are.
  std::uint32_t lastService_ = 0;
  std::uint64_t noticesSeen_ = ~std::uint64_t{0};
  bool wantsGraph_ = false;
  ViewerGraph graph_;
};

}  // namespace HX::web
