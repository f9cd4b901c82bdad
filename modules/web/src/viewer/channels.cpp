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
    if (found == channels_.end()) {
      if (channels_.size() == kMost) {
        ++left_;
        continue;
      }
      found = channels_.try_emplace(key).first;
      found->second.schema = jsonSchemaOf(node->value);
      found->second.fitted = node->revision;
      advertise(key, found->second);
    } else if (node->seen > seen_) {
      refit(found->second, key, node->value, node->revision);
    }
    found->second.pass = pass_;
  }
  seen_ = tree.count();
  for (auto each = channels_.begin(); each != channels_.end();) {
    const auto next = std::next(each);
    if (each->second.pass != pass_) {
      withdraw(each->second);
      channels_.erase(each);
    }
    each = next;
  }
}

bool Channels::refit(Channel& channel, const std::string& key, const HXValue& value, std::uint64_t revision) {
  if (revision != 0 && revision < channel.fitted) return false;  // Without one it is not known to be older.
  channel.fitted = revision;
  JsonSchema schema = jsonSchemaOf(value);
  if (channel.shapes > kMostShapes || mayStay(channel.schema, schema)) return false;
  withdraw(channel);
  if (++channel.shapes > kMostShapes) schema = anySchema();
  channel.schema = std::move(schema);
  advertise(key, channel);
  return true;
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

void Channels::withdraw(const Channel& channel) {
  news_.gone.emplace_back(channel.id);
  keys_.erase(channel.id);
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
