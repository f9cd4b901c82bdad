#pragma once

#include "access/access.h"
#include "assets.h"
#include "http/request.h"
#include "metrics/gathering.h"
#include "page/pagesession.h"
#include "viewer/offers.h"

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace HX::web {

/// What is where: the page and its files, its WebSocket and that of viewers, the figures.
///
/// @par Threads  The server's.
class Site : public Handler {
 public:
  /// @param services     What pages share.
  /// @param metricsKeys  As for `metricsOf`.
  /// @param parameters   As for `ViewerParameters`.
  /// @param connections  How many there are at the moment.
  Site(Access access, std::shared_ptr<PageServices> services, std::vector<std::string> metricsKeys,
       std::vector<std::string> parameters, std::function<std::size_t()> connections);

  void answer(const Request& request, Reply reply) override;
  Upgrade upgrade(const Request& request) override;
  const Access& access() const { return access_; }

 private:
  Response page(const Request& request) const;
  void metrics(const Reply& reply);
  Upgrade upgradeViewer(const Request& request, Right right) const;

  Access access_;
  const std::shared_ptr<PageServices> services_;
  const std::shared_ptr<Metrics> metrics_;
  const std::shared_ptr<const ViewerParameters> parameters_;
  struct Sent {
    const Asset* asset = nullptr;
    std::shared_ptr<const std::string> plain, gzip;
  };
  std::map<std::string_view, Sent> assets_;
};

}  // namespace HX::web
