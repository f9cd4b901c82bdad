#include "site.h"

#include "metrics/metrics.h"

#include <utility>

namespace HX::web {
namespace {

/// What browsers are to keep to, whatever the page would do.
void addPolicy(Response& response) {
  static const std::vector<std::pair<std::string, std::string>> kPolicy{
      {"Content-Security-Policy",
       "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self' data:; connect-src 'self'; "
       "base-uri 'none'; form-action 'none'; frame-ancestors 'none'"},
      {"X-Content-Type-Options", "nosniff"},
      {"Referrer-Policy", "no-referrer"},
      {"Cross-Origin-Resource-Policy", "same-origin"},
      {"Cross-Origin-Opener-Policy", "same-origin"},
  };
  response.headers.insert(response.headers.end(), kPolicy.begin(), kPolicy.end());
}

std::shared_ptr<const std::string> shared(std::string_view bytes) { return std::make_shared<const std::string>(bytes); }

}  // namespace

Site::Site(Access access, std::shared_ptr<PageServices> services, std::vector<std::string> metricsKeys,
           std::function<std::size_t()> connections)
    : access_(std::move(access)),
      services_(std::move(services)),
      metricsKeys_(std::move(metricsKeys)),
      connections_(std::move(connections)) {
  for (const Asset& asset : assets()) assets_[asset.path] = {&asset, shared(asset.plain), shared(asset.gzip)};
}

Response Site::answer(const Request& request) {
  Response response = [&] {
    if (auto refused = access_.refuse(request)) return *std::move(refused);
    if (request.path == "/token") return access_.trade(request);
    if (request.method != "GET" && request.method != "HEAD") return Response::text(405, "This is only read.\n");
    if (request.path == "/metrics") return metrics(request);
    return page(request);
  }();
  addPolicy(response);
  return response;
}

Response Site::page(const Request& request) const {
  const auto found = assets_.find(request.path);
  if (found == assets_.end()) return Response::text(404, "There is no such page.\n");
  const Asset& asset = *found->second.asset;
  Response response;
  const std::string tag = "W/\"" + std::string(asset.tag) + '"';  // Weak: packed and plain are the same page.
  response.headers.emplace_back("ETag", tag);
  // Files have other names when they change; the page itself is asked for again each time.
  response.headers.emplace_back("Cache-Control",
                                asset.path == "/" ? "no-cache" : "public, max-age=31536000, immutable");
  response.headers.emplace_back("Vary", "Accept-Encoding");
  if (request.ifNoneMatch == tag) {
    response.status = 304;
    return response;
  }
  response.contentType = asset.contentType;
  const bool isPacked = request.takesGzip && !asset.gzip.empty();
  if (isPacked) response.headers.emplace_back("Content-Encoding", "gzip");
  response.body = isPacked ? found->second.gzip : found->second.plain;
  return response;
}

Response Site::metrics(const Request& request) {
  if (access_.rightOf(request) == Right::None) return access_.lacking(Right::None);
  if (!counting_) counting_ = std::make_unique<Model::Use>(services_->model);
  const ServerFigures figures{connections_(), services_->batches, KORVO_VERSION};
  Response response;
  response.contentType = "text/plain; version=0.0.4; charset=utf-8";
  response.headers.emplace_back("Cache-Control", "no-store");
  response.body = std::make_shared<const std::string>(metricsOf(*services_->model->lock(), metricsKeys_, figures));
  return response;
}

Upgrade Site::upgrade(const Request& request) {
  const auto refuse = [](Response response) { return Upgrade{nullptr, {}, std::move(response)}; };
  if (auto refused = access_.refuse(request)) return refuse(*std::move(refused));
  const Right right = access_.rightOf(request);
  if (right == Right::None) return refuse(access_.lacking(right));
  if (request.path != "/page") return refuse(Response::text(404, "There is no such WebSocket.\n"));
  return {std::make_shared<PageSession>(services_, right), {}, {}};
}

}  // namespace HX::web
