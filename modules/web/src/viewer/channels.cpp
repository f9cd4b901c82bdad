#include "channels.h"

#include <utility>

namespace HX::web {
namespace {

const JsonSchema& anySchema() {
  static const JsonSchema any = jsonSchemaOf(HXValue());
  return any;
}

/// Whether values of shape `next` may go on under `present`: what has no shape of its own contradicts none.
bool mayStay(const JsonSchema& present, const JsonSchema& next) { return next == present || next == anySchema(); }

}  // namespace

void Channels::update(const Tree& tree) {
  ++pass_;
  left_ = 0;
  for (const auto& [name, node] : tree.all()) {
    const std::string& key = node->path;
    auto found = channels_.find(key);
    if (found == channels_.end() || node->seen > seen_) {
      if (!fit(key, node->value)) {
        ++left_;
        continue;
      }
      found = channels_.find(key);
    }
    found->second.pass = pass_;
  }
  seen_ = tree.count();
  for (auto each = channels_.begin(); each != channels_.end();) {
    const auto next = std::next(each);
    if (each->second.pass != pass_) remove(std::string(each->first));
    each = next;
  }
}

Channels::Channel* Channels::fit(const std::string& key, const HXValue& value) {
  JsonSchema schema = jsonSchemaOf(value);
  const auto found = channels_.find(key);
  if (found == channels_.end()) {
    if (channels_.size() == kMost) return nullptr;
    Channel& made = channels_[key];
    made.schema = std::move(schema);
    made.pass = pass_;
    advertise(key, made);
    return &made;
  }
  Channel& channel = found->second;
  if (channel.shapes > kMostShapes || mayStay(channel.schema, schema)) return &channel;
  news_.gone.emplace_back(channel.id);
  keys_.erase(channel.id);
  channel.schema = ++channel.shapes > kMostShapes ? anySchema() : std::move(schema);
  advertise(key, channel);
  return &channel;
}

void Channels::advertise(const std::string& key, Channel& channel) {
  channel.id = ++lastId_;
  keys_[channel.id] = key;
  news_.come.push_back(HXValue::map({{"id", channel.id},
                                     {"topic", key},
                                     {"encoding", "json"},
                                     {"schemaName", channel.schema.name},
                                     {"schema", channel.schema.text},
                                     {"schemaEncoding", "jsonschema"}}));
}

void Channels::remove(const std::string& key) {
  const auto found = channels_.find(key);
  if (found == channels_.end()) return;
  news_.gone.emplace_back(found->second.id);
  keys_.erase(found->second.id);
  channels_.erase(found);
}

std::string_view Channels::keyOf(std::uint32_t id) const {
  const auto found = keys_.find(id);
  return found == keys_.end() ? std::string_view() : std::string_view(found->second);
}

Channels::Channel* Channels::find(const std::string& key) {
  const auto found = channels_.find(key);
  return found == channels_.end() ? nullptr : &found->second;
}

Channels::News Channels::takeNews() {
  News news = std::exchange(news_, {});
  // What came and went between two looks was never told.
  std::erase_if(news.gone, [this](const HXValue& id) { return id.toInt64() > lastTold_; });
  std::erase_if(news.come, [this](const HXValue& channel) {
    return !keys_.contains(static_cast<std::uint32_t>(channel["id"].toInt64()));
  });
  lastTold_ = lastId_;
  return news;
}

void Channels::clear() {
  channels_.clear();
  keys_.clear();
  news_ = {};
  seen_ = 0;
}

}  // namespace HX::web
