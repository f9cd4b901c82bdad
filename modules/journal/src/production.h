#pragma once

#include <hxcommon/memoryinsight.h>

#include <algorithm>
#include <string>
#include <vector>

namespace HX {

/// An event that has an extractor.
struct Production {
  struct ForWhom {
    std::string module;
    MemoryInsight::TimePoint since;
    bool isAsked = false;       ///< The extractor was told of it.
    bool isSubscribed = false;  ///< Otherwise it has gone without a word to the extractor.
    std::string failure;
  };
  std::string extractor;
  std::string event;
  bool isThere = false;
  bool isTold = false;  ///< Extractors without the method getCurrentPrecision are not told of subscribers.
  std::string process;
  std::vector<ForWhom> forWhom;

  bool runsForNobody() const {
    const auto isLeft = [](const ForWhom& one) { return one.isAsked && !one.isSubscribed; };
    const auto isWanted = [](const ForWhom& one) { return one.isSubscribed; };
    return isThere && std::ranges::any_of(forWhom, isLeft) && std::ranges::none_of(forWhom, isWanted);
  }
  /// Why it does not run although somebody has subscribed; empty when it does, as far as is known.
  std::string failure() const {
    for (const ForWhom& one : forWhom) {
      if (one.isSubscribed && !isThere) return "it is not there";
      if (one.isSubscribed && !one.failure.empty()) return one.failure;
    }
    return {};
  }
};

}  // namespace HX
