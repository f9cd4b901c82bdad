#pragma once

#include <hxjournal/journal.h>
#include <hxjournal/replica.h>

#include <functional>
#include <manual_executor.h>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <gmock/gmock.h>

namespace HX::journal {

/// A table as small as one can be: each key has a place by its first letter.
class Table : public Source {
 public:
  std::uint64_t walk(std::uint64_t place, std::uint64_t until, std::size_t /*homes*/, Visitor& visitor) const override {
    // One place at a time, so that much may happen between two calls.
    for (const auto& [name, item] : items) {
      if (placeOf(name) == place && visitor.wants(name)) visitor.visit(name, item.state);
    }
    if (onWalk) onWalk(place);
    return place + kWidth < until ? place + kWidth : until;
  }
  std::uint64_t placeOf(std::string_view name) const noexcept override {
    return name.empty() ? 0 : static_cast<unsigned char>(name[0]) * kWidth;
  }
  void show(std::span<const std::string> names, Visitor& visitor) const override {
    for (const std::string& name : names) {
      const auto found = items.find(name);
      if (found != items.end() && visitor.wants(name)) visitor.visit(name, found->second.state);
    }
  }
  void setRecording(bool on) override { recording = on; }

  struct Item {
    std::shared_ptr<const std::string> name;
    State state;
  };
  static constexpr std::uint64_t kWidth = kEnd / 256;
  std::map<std::string, Item> items;
  bool recording = false;
  std::function<void(std::uint64_t place)> onWalk;
};

class JournalFixture : public testing::Test {
 protected:
  JournalFixture() { make({}); }
  ~JournalFixture() override {
    journal.reset();
    executor->clear();
  }

  void make(Journal::Options options) {
    journal.reset();
    journal.emplace(table, executor, options);
  }

  void write(const std::string& key, HXValue value, What what = What::Stored, std::uint8_t kind = 1) {
    auto& item = table.items[key];
    if (!item.name) item.name = std::make_shared<const std::string>(key);
    Entry entry = entryOf(item, std::move(value), what);
    entry.changedKind = item.state.nth > 1 && item.state.kind != kind;
    entry.kind = item.state.kind = kind;
    item.state.value = entry.value;
    if (table.recording) {
      Afterwards after(*journal, writesLast);
      item.state.revision = journal->append(std::move(entry), after);
    } else {
      item.state.revision = 0;
    }
  }

  void remove(const std::string& key) {
    auto node = table.items.extract(key);
    if (!table.recording) return;
    Afterwards after(*journal);
    std::list<Grave> grave(1);
    grave.front().name = node.mapped().name;
    journal->appendRemoval(entryOf(node.mapped(), {}, What::Removed), grave, after);
  }

  Follow follow(Filter filter = {}, FollowOptions options = {}) {
    options.onGap = [this](const Gap& gap) {
      gaps.push_back(gap);
      told.emplace_back(gap.full ? "gap, full" : "gap");
    };
    options.onComplete = [this](Position at) {
      completeAt = at;
      told.emplace_back("complete");
    };
    options.onUnchanged = [this](std::string_view key, Position) { told.push_back(std::string(key) + " unchanged"); };
    return journal->follow(
        std::move(filter), [this](const Change& change) { note(change); }, std::move(options));
  }
  static FollowOptions withoutSnapshot() {
    FollowOptions options;
    options.snapshot = false;
    return options;
  }
  FollowOptions since(Position position) {
    FollowOptions options;
    options.since = position;
    return options;
  }

  /// What was told since the last call: "key=value" for a change, "key:value" for a state, each with "+n" where n were
  /// left out.
  std::vector<std::string> heard() {
    executor->run();
    return std::exchange(told, {});
  }

  bool writesLast = false;  // Whether who writes does nothing more.
  Table table;
  std::shared_ptr<kit::ManualExecutor> executor = std::make_shared<kit::ManualExecutor>();
  std::optional<Journal> journal;
  std::vector<std::string> told;
  std::vector<Gap> gaps;
  std::vector<Change> changes;  // Without their keys.
  Position completeAt;

 private:
  Entry entryOf(Table::Item& item, HXValue value, What what) {
    Entry entry;
    entry.value = std::move(value);
    entry.setName(*item.name);
    entry.nth = ++item.state.nth;
    entry.what = what;
    entry.kind = item.state.kind;
    entry.byAddress = item.state.byAddress;
    return entry;
  }
  void note(const Change& change) {
    std::string text(change.key);
    if (change.what == What::Removed) {
      text += " removed";
    } else {
      text += (change.isState ? ":" : "=") + change.value.toString();
    }
    if (change.leftOut != 0) text += " +" + std::to_string(change.leftOut);
    told.push_back(text);
    changes.push_back(change);
    changes.back().key = {};
    changes.back().author = {};
  }
};

}  // namespace HX::journal
