#include "pagesession.h"

#include "batch.h"
#include "history.h"

#include <hxvalue/json.h>

#include <algorithm>
#include <exception>
#include <stdexcept>

namespace HX::web {
namespace {

constexpr std::size_t kFound = 1000;
constexpr std::size_t kRows = 2000;
constexpr std::size_t kPlots = 64;

std::uint32_t wholeAt(const HXValue& wish, std::string_view name) {
  const std::int64_t number = wish[name].toInt64();
  if (number < 0 || number > UINT32_MAX) throw std::runtime_error(std::string(name) + " is no such number");
  return static_cast<std::uint32_t>(number);
}

}  // namespace

PageSession::PageSession(std::shared_ptr<PageServices> services, Right right)
    : services_(std::move(services)), right_(right) {}

PageSession::~PageSession() {
  endPlots();
  endSignals();
}

const std::map<std::string_view, PageSession::Operation>& PageSession::operations() {
  static const std::map<std::string_view, Operation> all{
      {"open", &PageSession::openGroup},
      {"close", &PageSession::closeGroup},
      {"find", &PageSession::find},
      {"resolve", &PageSession::resolve},
      {"watch", &PageSession::watch},
      {"plot", &PageSession::plot},
      {"history", &PageSession::history},
      {"key", &PageSession::lookAtKey},
      {"events", &PageSession::timeLine},
      {"drawn", &PageSession::acknowledge},
      {"set", &PageSession::write},
      {"raise", &PageSession::write},
      {"raiseMicro", &PageSession::write},
      {"describe", &PageSession::write},
      {"remove", &PageSession::write},
      {"declare", &PageSession::write},
      {"values", &PageSession::values},
      {"about", &PageSession::about},
      {"services", &PageSession::services},
      {"service", &PageSession::describe},
      {"call", &PageSession::call},
      {"emit", &PageSession::emit},
      {"wiring", &PageSession::wiring},
      {"health", &PageSession::health},
      {"fleet", &PageSession::fleet},
      {"listen", &PageSession::listen},
      {"subscribers", &PageSession::subscribers},
      {"standing", &PageSession::standing},
  };
  return all;
}

void PageSession::opened(std::shared_ptr<Socket> socket) {
  socket_ = std::move(socket);
  use_ = std::make_unique<Model::Use>(services_->model);
  socket_->send(Message::text(
      toJson(HXValue::map({{"op", "hello"}, {"broker", services_->broker}, {"mayWrite", right_ == Right::Write}}))));
}

void PageSession::closed() {
  endPlots();
  endSignals();
  use_.reset();
  socket_.reset();
}

void PageSession::message(std::string_view content, bool isBinary) {
  if (!socket_) return;
  HXValue wish;
  try {
    if (isBinary) throw std::runtime_error("a page speaks in text");
    wish = fromJson(content);
    const auto found = operations().find(wish["op"].asString());
    if (found == operations().end()) throw std::runtime_error("nothing is called " + wish["op"].asString());
    (this->*found->second)(wish);
  } catch (const std::exception& error) {
    refuse(wish, error.what());
  }
}

void PageSession::reply(const HXValue& wish, HXValue answer) const {
  if (!socket_) return;
  answer.mapSet("op", wish["op"]);
  if (const HXValue* const tag = wish.find("tag")) answer.mapSet("tag", *tag);
  socket_->send(Message::text(toJson(answer)));
}

void PageSession::refuse(const HXValue& wish, const std::string& error) const {
  HXValue answer = HXValue::map({{"error", error}, {"op", "error"}});
  if (const HXValue* const tag = wish.find("tag")) answer.mapSet("tag", *tag);
  socket_->send(Message::text(toJson(answer)));
}

void PageSession::requireRight() const {
  if (right_ != Right::Write) {
    throw std::runtime_error(
        "this page may only look: start the server with --allow-write, and use the link it prints");
  }
}

// --- What it looks at
// -------------------------------------------------------------------------------------------------

void PageSession::openGroup(const HXValue& wish) {
  const std::uint32_t id = wholeAt(wish, "id");
  HXValue::List children;
  bool isThere = false;
  {
    const auto tree = services_->model->lock();
    if (const Node* const group = tree->node(id)) {
      isThere = true;
      for (const auto& [name, child] : group->children) children.push_back(Batch::childOf(*child, name));
    }
  }
  if (isThere) open_.insert(id);
  reply(wish, HXValue::map({{"id", id}, {"gone", !isThere}, {"children", std::move(children)}}));
}

void PageSession::closeGroup(const HXValue& wish) { open_.erase(wholeAt(wish, "id")); }

void PageSession::find(const HXValue& wish) {
  HXValue::List rows;
  std::size_t total = 0;
  {
    const auto tree = services_->model->lock();
    const HXValue* const under = wish.find("under");
    for (const Node* node : tree->find(wish["text"].asString(), under ? under->asString() : "", kFound, total))
      rows.push_back(Batch::childOf(*node, node->path));
  }
  reply(wish, HXValue::map({{"total", static_cast<std::int64_t>(total)}, {"rows", std::move(rows)}}));
}

void PageSession::resolve(const HXValue& wish) {
  HXValue::List rows;
  {
    const auto tree = services_->model->lock();
    for (const HXValue& key : wish["keys"].asList()) {
      if (const Node* const node = tree->key(key.asString())) rows.push_back(Batch::childOf(*node, node->path));
    }
  }
  reply(wish, HXValue::map({{"rows", std::move(rows)}}));
}

void PageSession::watch(const HXValue& wish) {
  std::vector<std::uint32_t> watched;
  for (const HXValue& id : wish["ids"].asList()) watched.push_back(static_cast<std::uint32_t>(id.toInt64()));
  std::ranges::sort(watched);
  watched.erase(std::unique(watched.begin(), watched.end()), watched.end());
  if (watched.size() > kRows) watched.resize(kRows);
  std::ranges::set_difference(watched, watched_, std::back_inserter(fresh_));
  std::ranges::sort(fresh_);  // There may be some of an earlier wish.
  watched_ = std::move(watched);
  hasNewWishes_ = true;
}

void PageSession::endPlots() {
  if (plots_.empty()) return;
  const auto tree = services_->model->lock();
  for (const auto& [series, plot] : plots_) tree->untap(plot->tap);
  plots_.clear();
}

void PageSession::plot(const HXValue& wish) {
  const HXValue::List& wanted = wish["series"].asList();
  if (wanted.size() > kPlots) throw std::runtime_error("so many plots are too many");
  std::map<std::uint32_t, std::unique_ptr<Plot>> plots;
  for (const HXValue& each : wanted) {
    const std::uint32_t series = wholeAt(each, "series");
    if (const auto known = plots_.find(series); known != plots_.end()) {
      plots[series] = std::move(known->second);
      plots_.erase(known);
      continue;
    }
    auto plot = std::make_unique<Plot>();
    plot->key = each["key"].asString();
    for (const HXValue& step : each["path"].asList()) plot->tap.path.push_back(step.asString());
    services_->model->lock()->tap(plot->key, plot->tap);
    plots[series] = std::move(plot);
  }
  endPlots();
  plots_ = std::move(plots);
}

void PageSession::history(const HXValue& wish) {
  const auto plot = plots_.find(wholeAt(wish, "series"));
  if (plot == plots_.end()) return;
  const std::string key = plot->second->key;
  const ValuePath path = plot->second->tap.path;
  const auto since = std::chrono::seconds(std::clamp<std::int64_t>(wish["seconds"].toInt64(), 1, 3600));
  const std::weak_ptr<Socket> socket = socket_;
  services_->loop.post([services = services_, socket, key, path, since, wish] {
    askHistory(*services, key, path, since, [socket, wish](const std::vector<Tap::Point>& points) {
      HXValue::List times;
      HXValue::List values;
      for (const Tap::Point& point : points) {
        times.emplace_back(point.time);
        values.emplace_back(point.value);
      }
      const auto line = socket.lock();
      if (!line) return;
      line->send(Message::text(toJson(HXValue::map({{"op", "history"},
                                                    {"series", wish["series"]},
                                                    {"times", std::move(times)},
                                                    {"values", std::move(values)}}))));
    });
  });
}

void PageSession::lookAtKey(const HXValue& wish) {
  key_ = wish["key"].isString() ? wish["key"].asString() : std::string();
  keyTold_ = 0;
  hasNewWishes_ = true;
}

void PageSession::timeLine(const HXValue& wish) {
  showsTimeLine_ = wish["on"].asBool();
  seenRaises_ = 0;
  hasNewWishes_ = true;
}

void PageSession::acknowledge(const HXValue& wish) { drawn_ = wholeAt(wish, "number"); }

// --- What it has done
// -------------------------------------------------------------------------------------------------

void PageSession::send(const HXValue& wish, std::function<HXValue(const Errands&)> errand) {
  if (*errands_ >= kErrands) throw std::runtime_error("so much at once is too much");
  ++*errands_;
  const std::weak_ptr<PageSession> self = weak_from_this();
  const auto answer = [socket = std::weak_ptr(socket_), wish](HXValue given) {
    if (const HXValue* const tag = wish.find("tag")) given.mapSet("tag", *tag);
    given.mapSet("op", given.find("error") ? HXValue("error") : wish["op"]);
    if (const auto line = socket.lock()) line->send(Message::text(toJson(given)));
  };
  services_->loop.post([services = services_, running = errands_, errand = std::move(errand), answer] {
    try {
      answer(errand(*services->errands));
    } catch (const std::exception& error) {
      answer(HXValue::map({{"error", error.what()}}));
    }
    --*running;
  });
}

void PageSession::write(const HXValue& wish) {
  requireRight();
  send(wish, [wish](const Errands& errands) {
    errands.write(wish);
    return HXValue::map();
  });
}

void PageSession::call(const HXValue& wish) {
  requireRight();
  send(wish, [wish](const Errands& errands) { return errands.call(wish); });
}

void PageSession::emit(const HXValue& wish) {
  requireRight();
  send(wish, [wish](const Errands& errands) {
    errands.emit(wish);
    return HXValue::map();
  });
}

}  // namespace HX::web
