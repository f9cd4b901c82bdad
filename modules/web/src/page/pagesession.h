#pragma once

#include "access/access.h"
#include "errands.h"
#include "http/request.h"
#include "model/model.h"
#include "signalwatch.h"

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace HX::web {

class Batch;

/// What all pages share.
struct PageServices {
  using PlaceAt = std::function<journal::Position(journal::TimePoint)>;

  PageServices(std::shared_ptr<Model> itsModel, std::shared_ptr<const Errands> itsErrands, mw::EventLoop& itsLoop,
               std::string itsBroker, PlaceAt itsPlaceAt)
      : model(std::move(itsModel)),
        errands(std::move(itsErrands)),
        loop(itsLoop),
        broker(std::move(itsBroker)),
        placeAt(std::move(itsPlaceAt)) {}

  std::shared_ptr<Model> model;
  std::shared_ptr<const Errands> errands;
  mw::EventLoop& loop;
  std::string broker;  ///< Its name, for people.
  PlaceAt placeAt;     ///< The place in the journal at a time: `changesAt`.
  std::atomic<std::uint64_t> batches{0};
  std::atomic<std::uint64_t> serviceNotices{0};  ///< How often a service came or went.
};

/// One page: what it looks at, and what it is told.
///
/// A page tells which groups it has open, which rows it shows and what it plots, and is sent just that: a batch when it
/// has drawn the one before, and something has changed. So a page that is slow, or hidden, is sent nothing, and costs
/// nothing.
///
/// @par Threads  The server's, but for what errands bring back.
class PageSession : public SocketHandler, public std::enable_shared_from_this<PageSession> {
 public:
  PageSession(std::shared_ptr<PageServices> services, Right right);
  ~PageSession() override;

  void opened(std::shared_ptr<Socket> socket) override;
  void message(std::string_view content, bool isBinary) override;
  void tick() override;
  void closed() override;

 private:
  struct Plot {
    std::string key;
    Tap tap;
  };
  using Operation = void (PageSession::*)(const HXValue& wish);
  static constexpr int kErrands = 32;  ///< At once.

  static const std::map<std::string_view, Operation>& operations();
  // Each does what the page wishes by that name.
  void openGroup(const HXValue& wish);
  void closeGroup(const HXValue& wish);
  void find(const HXValue& wish);
  void resolve(const HXValue& wish);
  void watch(const HXValue& wish);
  void plot(const HXValue& wish);
  void history(const HXValue& wish);
  void lookAtKey(const HXValue& wish);
  void timeLine(const HXValue& wish);
  void acknowledge(const HXValue& wish);
  void write(const HXValue& wish);
  void call(const HXValue& wish);
  void emit(const HXValue& wish);
  // pagequestions.cpp
  void values(const HXValue& wish);
  void about(const HXValue& wish);
  void services(const HXValue& wish);
  void describe(const HXValue& wish);
  void wiring(const HXValue& wish);
  void health(const HXValue& wish);
  void fleet(const HXValue& wish);
  void standing(const HXValue& wish);
  void subscribers(const HXValue& wish);
  void listen(const HXValue& wish);
  HXValue takeEmissions();
  void endSignals();

  void requireRight() const;
  /// Runs `errand` where it may wait, and answers with what it gives, or with its error.
  void send(const HXValue& wish, std::function<HXValue(const Errands&)> errand);
  void reply(const HXValue& wish, HXValue answer) const;
  void refuse(const HXValue& wish, const std::string& error) const;
  void sendState();
  void endPlots();

  void collect(Batch& batch, Tree& tree);
  void collectMovements(Batch& batch, const Tree& tree);
  void collectRaises(Batch& batch, const Tree& tree);
  void collectKey(Batch& batch, const Tree& tree) const;

  const std::shared_ptr<PageServices> services_;
  const Right right_;
  std::unique_ptr<Model::Use> use_;
  std::shared_ptr<Socket> socket_;
  std::shared_ptr<std::atomic<int>> errands_ = std::make_shared<std::atomic<int>>(0);

  std::uint32_t sent_ = 0;  // Batches.
  std::uint32_t drawn_ = 0;
  std::uint64_t seen_ = 0;  // The tree's count when the last one was made.
  std::uint64_t seenRaises_ = 0;
  std::size_t authorsSent_ = 1;
  std::string trouble_;
  bool wasComplete_ = false;
  bool hasNewWishes_ = true;  // What is looked at has changed, so that a batch is due without a change.
  bool showsTimeLine_ = false;
  std::set<std::uint32_t> open_;
  std::vector<std::uint32_t> watched_;
  std::vector<std::uint32_t> fresh_;  // Watched since the last batch: told whatever their age.
  std::map<std::uint32_t, std::unique_ptr<Plot>> plots_;
  std::map<std::string, std::shared_ptr<SignalWatch>> signals_;  // By the names of services and theirs.
  std::string key_;
  std::uint64_t keyTold_ = 0;
};

}  // namespace HX::web
