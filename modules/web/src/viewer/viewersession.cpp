#include "viewersession.h"

#include <hxvalue/json.h>

#include <algorithm>
#include <chrono>
#include <exception>
#include <stdexcept>
#include <utility>

#include <fmt/format.h>

namespace HX::web {
namespace {

// In ticks, of which there are some thirty a second.
constexpr std::chrono::seconds kPatience{2};  // For the memory to be read, before a viewer is greeted without it.
constexpr std::uint64_t kLookEach = 6;        // For channels.
constexpr std::uint64_t kTimeEach = 3;        // Where nothing else is sent.
constexpr std::uint64_t kGraphEach = 60;
constexpr std::size_t kUnread = 4 << 20;  // Bytes; beyond it nothing more is sent.
constexpr int kErrands = 32;              // At once.

}  // namespace

ViewerSession::ViewerSession(std::shared_ptr<PageServices> services, Right right,
                             std::shared_ptr<const ViewerParameters> parameters)
    : services_(std::move(services)), right_(right), parameters_(std::move(parameters)) {}

void ViewerSession::opened(std::shared_ptr<Socket> socket) {
  socket_ = std::move(socket);
  greetedBy_ = std::chrono::steady_clock::now() + kPatience;
  use_ = std::make_unique<Model::Use>(services_->model);
  feed_ = std::make_shared<KeyFeed>(services_->model, services_->loop);
}

void ViewerSession::closed() {
  if (feed_) feed_->end();
  use_.reset();
  socket_.reset();
}

void ViewerSession::message(std::string_view content, bool isBinary) {
  if (!socket_) return;
  try {
    if (isBinary) {
      const viewer::Request request = viewer::readRequest(content);
      return request.kind == viewer::Request::Kind::Call ? call(request) : publish(request);
    }
    const HXValue wish = fromJson(content);
    const auto found = operations().find(wish["op"].asString());
    if (found == operations().end()) throw std::runtime_error("nothing is called " + wish["op"].asString());
    (this->*found->second)(wish);
  } catch (const std::exception& error) {
    complain(error.what());
  }
}

void ViewerSession::tell(std::string_view op, HXValue::Map entries) const {
  if (socket_) socket_->send(viewer::textFrame(op, std::move(entries)));
}

void ViewerSession::complain(const std::string& error) const {
  if (socket_) socket_->send(viewer::status(viewer::Level::Error, error));
}

void ViewerSession::send(std::function<Reply(const Errands&)> errand) {
  {
    const MutexLock lock(mailbox_->mutex);
    if (mailbox_->underWay >= kErrands) throw std::runtime_error("so much at once is too much");
    ++mailbox_->underWay;
  }
  services_->loop.post([services = services_, mailbox = mailbox_, errand = std::move(errand)] {
    Reply reply;
    try {
      reply = errand(*services->errands);
    } catch (const std::exception& error) {
      reply = [text = std::string(error.what())](const ViewerSession& self) { self.complain(text); };
    }
    const MutexLock lock(mailbox->mutex);
    --mailbox->underWay;
    if (reply) mailbox->replies.push_back(std::move(reply));
  });
}

void ViewerSession::tick() {
  if (!socket_) return;
  ++ticks_;
  std::vector<Reply> replies;
  {
    const MutexLock lock(mailbox_->mutex);
    std::swap(replies, mailbox_->replies);
  }
  for (const Reply& reply : replies) reply(*this);
  tellTrouble();
  if (!greet()) return;
  tellChannels();
  if (right_ == Right::Write) tellServices();
  if (wantsGraph_) tellGraph();
  sendChanges();
}

/// Says who this is: to a new viewer once the memory is known, and again when that is another one, whereupon viewers
/// forget all they had.
/// @return Whether that is done.
bool ViewerSession::greet() {
  const auto [epoch, isThere] = [&] {
    const auto tree = services_->model->lock();
    return std::pair(tree->epoch(), tree->isComplete());
  }();
  if (isGreeted_ && epoch == epoch_) return true;
  if (!isThere && std::chrono::steady_clock::now() < greetedBy_) return false;
  const bool isAgain = std::exchange(isGreeted_, true);
  epoch_ = epoch;
  HXValue::List capabilities{"time", "parameters", "parametersSubscribe", "connectionGraph"};
  if (right_ == Right::Write) capabilities.insert(capabilities.end(), {"clientPublish", "services"});
  tell("serverInfo", {{"name", "korvo " + services_->broker},
                      {"capabilities", std::move(capabilities)},
                      {"supportedEncodings", HXValue::list({"json"})},
                      {"metadata", HXValue::map({{"broker", services_->broker}})},
                      {"sessionId", std::to_string(epoch)}});
  if (!isAgain) return true;
  channels_.clear();
  looked_ = 0;
  subscriptions_.clear();
  subscribed_.clear();
  parameterKeys_.clear();
  published_.clear();
  offered_.clear();
  known_.clear();
  noticesSeen_ = ~std::uint64_t{0};
  wantsGraph_ = false;
  graph_ = {};
  followWanted();
  return true;
}

void ViewerSession::tellTrouble() {
  std::string trouble = services_->model->trouble();
  if (trouble == trouble_) return;
  trouble_ = std::move(trouble);
  constexpr const char* kId = "memory";
  if (trouble_.empty()) return tell("removeStatus", {{"statusIds", HXValue::list({kId})}});
  socket_->send(viewer::status(viewer::Level::Error, "the memory is out of reach: " + trouble_, kId));
}

void ViewerSession::tellChannels() {
  if (ticks_ % kLookEach == 0) {
    const auto tree = services_->model->lock();
    if (tree->isComplete() && tree->count() != looked_) {
      channels_.update(*tree);
      looked_ = tree->count();
    }
  }
  Channels::News news = channels_.takeNews();
  if (news.isEmpty()) return;
  for (const HXValue& id : news.gone) {
    const auto number = static_cast<std::uint32_t>(id.toInt64());
    if (const auto found = subscribed_.find(number); found != subscribed_.end()) {
      subscriptions_.erase(found->second);
      subscribed_.erase(found);
    }
  }
  if (!news.gone.empty()) {
    tell("unadvertise", {{"channelIds", std::move(news.gone)}});
    followWanted();
  }
  if (!news.come.empty()) tell("advertise", {{"channels", std::move(news.come)}});
  if (channels_.left() == leftTold_) return;
  leftTold_ = channels_.left();
  socket_->send(viewer::status(viewer::Level::Warning,
                               fmt::format("{} keys have no channel: {} is the most", leftTold_, Channels::kMost),
                               "channels"));
}

void ViewerSession::tellServices() {
  const std::uint64_t notices = services_->serviceNotices;
  if (notices == noticesSeen_) return;
  noticesSeen_ = notices;
  send([](const Errands& errands) -> Reply {
    return [services = viewerServices(errands)](ViewerSession& self) {
      HXValue::List gone;
      std::erase_if(self.offered_, [&](const auto& each) {
        const auto now = services.find(each.second);
        const bool isGone = now == services.end() || !(now->second == self.known_.at(each.second));
        if (isGone) gone.emplace_back(each.first);
        return isGone;
      });
      HXValue::List come;
      std::set<std::string> present;
      for (const auto& [id, name] : self.offered_) present.insert(name);
      for (const auto& [name, service] : services) {
        if (present.contains(name)) continue;
        self.offered_[++self.lastService_] = name;
        HXValue advertised = service.advertised;
        advertised.mapSet("id", self.lastService_);
        advertised.mapSet("name", name);
        come.push_back(std::move(advertised));
      }
      self.known_ = services;
      if (!gone.empty()) self.tell("unadvertiseServices", {{"serviceIds", std::move(gone)}});
      if (!come.empty()) self.tell("advertiseServices", {{"services", std::move(come)}});
    };
  });
}

void ViewerSession::tellGraph() {
  if (ticks_ % kGraphEach != 0) return;
  ViewerGraph::Parties authors;
  {
    const auto tree = services_->model->lock();
    for (const auto& [key, node] : tree->all()) {
      if (node->author != 0) authors[node->path] = {tree->authors()[node->author]};
    }
  }
  send([authors = std::move(authors)](const Errands& errands) -> Reply {
    return [graph = viewerGraph(errands, authors)](ViewerSession& self) {
      if (!self.wantsGraph_) return;
      const HXValue update = graph.changesSince(self.graph_);
      self.graph_ = graph;
      if (update.isValid()) self.tell("connectionGraphUpdate", update.asMap());
    };
  });
}

// --- Changes
// ----------------------------------------------------------------------------------------------------------

void ViewerSession::followWanted() {
  std::set<std::string> keys = parameterKeys_;
  for (const auto& [subscription, channel] : subscriptions_) keys.emplace(channels_.keyOf(channel));
  feed_->want(std::move(keys));
}

void ViewerSession::sendTime() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  // Viewers drop all they have when it goes back, as a clock that is set does.
  const auto time = static_cast<std::uint64_t>(std::chrono::nanoseconds(now).count());
  lastTime_ = std::max(lastTime_, time);
  socket_->send(viewer::timeFrame(lastTime_));
}

void ViewerSession::sendChanges() {
  if (socket_->unread() > kUnread) return;
  const auto entries = feed_->take(dropped_);
  if (!entries.empty() || ticks_ % kTimeEach == 0) sendTime();
  std::size_t bytes = 0;
  for (const KeyFeed::Entry& entry : entries) {
    if (bytes > kUnread) {
      ++dropped_;
    } else {
      bytes += sendEntry(entry);
    }
  }
  if (dropped_ == droppedTold_) return;
  socket_->send(viewer::status(
      viewer::Level::Warning,
      fmt::format("{} changes came faster than they were taken, and were left out", dropped_ - droppedTold_)));
  droppedTold_ = dropped_;
}

/// @return How many bytes that were.
std::size_t ViewerSession::sendEntry(const KeyFeed::Entry& entry) {
  if (entry.isRemoved) return 0;  // The tree tells which keys have gone.
  if (entry.isTooLarge) {
    if (!tooLarge_.insert(entry.key).second) return 0;
    socket_->send(viewer::status(viewer::Level::Warning, entry.key + " has values too large to be sent"));
    return 0;
  }
  if (parameterKeys_.contains(entry.key)) {
    tell("parameterValues", {{"parameters", HXValue::list({ViewerParameters::toParameter(entry.key, entry.value)})}});
  }
  Channels::Channel* const channel = channels_.find(entry.key);
  if (!channel) return 0;
  if (channels_.refit(*channel, entry.key, entry.value, entry.revision)) {
    tellChannels();  // The viewer subscribes to that of the new shape.
    return 0;
  }
  const auto subscription = subscribed_.find(channel->id);
  // Two followers may tell the same while one takes the other's place.
  const bool isKnown = entry.revision != 0 && entry.revision <= channel->revision;
  if (subscription == subscribed_.end() || isKnown) return 0;
  channel->revision = entry.revision;
  const std::string payload = toJsonMessage(entry.value);
  socket_->send(viewer::dataFrame(subscription->second, entry.time, payload));
  return payload.size();
}

}  // namespace HX::web
