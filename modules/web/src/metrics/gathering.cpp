#include "gathering.h"

#include "metrics.h"

#include <algorithm>
#include <utility>

namespace HX::web {

Metrics::Metrics(std::shared_ptr<PageServices> services, std::vector<std::string> keys,
                 std::function<std::size_t()> connections)
    : services_(std::move(services)), keys_(std::move(keys)), connections_(std::move(connections)) {}

/// The list has the latest ones only, so those that are new in it are added up.
std::uint64_t Metrics::countDropped(const HXValue& figures) {
  const HXValue* const list = figures.find("dropped");
  if (!list) return dropped_;
  const std::int64_t before = lastDropped_;
  for (const HXValue& each : list->asList()) {
    const std::int64_t time = each["time"].toInt64();
    if (time > before) ++dropped_;
    lastDropped_ = std::max(lastDropped_, time);
  }
  return dropped_;
}

std::string Metrics::text() {
  ServerFigures figures;
  figures.connections = connections_();
  figures.pageBatches = services_->batches;
  figures.version = KORVO_VERSION;
  figures.journal = services_->errands->ask("HXJournal", "figures");
  figures.freshness = services_->errands->ask("HXFreshness", "expectations");
  {
    const MutexLock lock(mutex_);
    if (!counting_) counting_.emplace(services_->model);
    figures.dropped = countDropped(figures.journal);
  }
  return metricsOf(*services_->model->lock(), keys_, figures);
}

}  // namespace HX::web
