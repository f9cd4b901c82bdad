#pragma once

#include "access/access.h"
#include "assets.h"
#include "http/request.h"
#include "page/pagesession.h"

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace HX::web {

/// What is where: the page and its files, its WebSocket, the figures.
///
/// @par Threads  The server's.
class Site : public Handler {
 public:
  /// @param services     What pages share.
  /// @param metricsKeys  As for `metricsOf`.
  /// @param connections  How many there are at the moment.
  Site(Access access, std::shared_ptr<PageServices> services, std::vector<std::string> metricsKeys,
       std::function<std::size_t()> connections);

  Response answer(const Request& request) override;
  Upgrade upgrade(const Request& request) override;
  const Access& access() const { return access_; }

 private:
  Response page(const Request& request) const;
  Response metrics(const Request& request);

  Access access_;
  const std::shared_ptr<PageServices> services_;
  const std::vector<std::string> metricsKeys_;
  const std::function<std::size_t()> connections_;
  /// Held from the first look at the figures on: counters count from there.
  std::unique_ptr<Model::Use> counting_;
  struct Sent {
    const Asset* asset;
    std::shared_ptr<const std::string> plain, gzip;
  };
  std::map<std::string_view, Sent> assets_;
};

}  // namespace HX::web
