#pragma once

#include "production.h"
#include "tally.h"

#include <hxcommon/hxbroker.h>
#include <hxcommon/memoryinsight.h>
#include <hxproxies/hxmemoryproxy.h>

#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace HX {

/// Answers of three kinds about the memory, as maps: what there is to know of a key; what is produced for whom; how the
/// whole is. For as long as one question takes.
///
/// @par Threads  One.
class Inspector {
 public:
  /// @param broker  Of this process.
  /// @param memory  To ask what the methods of the memory tell.
  /// @throws std::runtime_error when the memory is of another process.
  Inspector(std::shared_ptr<HXBroker> broker, HXMemoryProxy memory);

  /// @throws HXError as the memory for a key that is not there.
  HXValue explain(const std::string& key);
  /// @param extractor  Empty for all.
  HXValue demand(const std::string& extractor);
  HXValue report();
  HXValue missed(const std::string& event, const std::string& module) const;
  /// What is counted of subscribers and followers. Looks at no changes, so that it may be asked often.
  HXValue figures() const;
  /// Who is subscribed to these keys, as in `explain`: lists by key.
  HXValue subscribers(const std::vector<std::string>& keys) const;

 private:
  using Map = HXValue::Map;
  using List = HXValue::List;

  // explain
  void addState(Map& told, const std::string& key);
  void addChanges(Map& told, const std::string& key) const;
  void addExpected(Map& told, const std::string& key) const;
  HXValue extractorOf(const std::string& key);
  List mappedTo(const std::string& key) const;
  List oddities(const std::string& key, const Tally& tally) const;
  // demand
  std::vector<Production> productions(const std::string& extractor);
  HXValue valueOf(const Production& production) const;
  // report: inspector_report.cpp
  void addSubscribers(Map& told, List& wrong) const;
  void addDropped(Map& told, List& wrong) const;
  void addWaits(Map& told, List& wrong) const;
  void addFollowers(Map& told, List& wrong) const;
  void addProductions(Map& told, List& wrong);
  void addChanges(Map& told) const;
  void addOverdue(Map& told, List& wrong) const;
  void addKept(Map& told, List& wrong) const;

  bool isThere(const std::string& service) const;

  const std::shared_ptr<HXBroker> broker_;
  HXMemoryProxy memory_;
  const std::shared_ptr<journal::Journal> journal_;
  const std::shared_ptr<const MemoryInsight> insight_;
  const Tally::TimePoint now_;
};

}  // namespace HX
