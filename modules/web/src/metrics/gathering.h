#pragma once

#include "model/model.h"
#include "page/pagesession.h"

#include <hxerror/mutex.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace HX::web {

/// The page "/metrics", each time it is asked for.
///
/// Nothing is followed until then, and everything from then on: counters count from there.
///
/// @par Threads  Any but the server's, since modules are asked.
class Metrics {
 public:
  /// @param services     What pages share.
  /// @param keys         As for `metricsOf`.
  /// @param connections  How many there are at the moment. Called on any thread.
  Metrics(std::shared_ptr<PageServices> services, std::vector<std::string> keys,
          std::function<std::size_t()> connections);

  std::string text();

 private:
  std::uint64_t countDropped(const HXValue& figures) HX_REQUIRES(mutex_);

  const std::shared_ptr<PageServices> services_;
  const std::vector<std::string> keys_;
  const std::function<std::size_t()> connections_;

  Mutex mutex_;  // A leaf.
  std::optional<Model::Use> counting_ HX_GUARDED_BY(mutex_);
  std::int64_t lastDropped_ HX_GUARDED_BY(mutex_) = 0;  // The time of the subscription that was dropped last.
  std::uint64_t dropped_ HX_GUARDED_BY(mutex_) = 0;
};

}  // namespace HX::web
