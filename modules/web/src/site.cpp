#include "site.h"

#include "viewer/protocol.h"
#include "viewer/viewersession.h"

#include <algorithm>
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
           std::vector<std::string> parameters, std::function<std::size_t()> connections)
    : access_(std::move(access)),
      services_(std::move(services)),
      metrics_(std::make_shared<Metrics>(services_, std::move(metricsKeys), std::move(connections))),
      parameters_(std::make_shared<const ViewerParameters>(std::move(parameters))) {
  for (const Asset& asset : assets()) assets_[asset.path] = {&asset, shared(asset.plain), shared(asset.gzip)};
}

void Site::answer(const Request& request, Reply reply) {
  const auto give = [reply = std::move(reply)](Response response) {
    addPolicy(response);
    reply(std::move(response));
  };
  if (auto refused = access_.refuse(request)) return give(*std::move(refused));
  if (request.path == "/token") return give(access_.trade(request));
  if (request.method != "GET" && request.method != "HEAD") return give(Response::text(405, "This is only read.\n"));
  if (request.path != "/metrics") return give(page(request));
  if (access_.rightOf(request) == Right::None) return give(access_.lacking(Right::None));
  metrics(give);
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

/// Others are asked for some of it, which may take its time.
void Site::metrics(const Reply& reply) {
  services_->loop.post([metrics = metrics_, reply] {
    Response response;
    response.contentType = "text/plain; version=0.0.4; charset=utf-8";
    response.headers.emplace_back("Cache-Control", "no-store");
    response.body = std::make_shared<const std::string>(metrics->text());
    reply(std::move(response));
  });
}

Upgrade Site::upgrade(const Request& request) {
  const auto refuse = [](Response response) { return Upgrade{nullptr, {}, std::move(response)}; };
  if (auto refused = access_.refuse(request)) return refuse(*std::move(refused));
  const Right right = access_.rightOf(request);
  if (right == Right::None) return refuse(access_.lacking(right));
  if (request.path == "/page") return {std::make_shared<PageSession>(services_, right), {}, {}};
  if (request.path == "/") return upgradeViewer(request, right);
  return refuse(Response::text(404, "There is no such WebSocket.\n"));
}

Upgrade Site::upgradeViewer(const Request& request, Right right) const {
  for (const std::string_view known : viewer::kSubprotocols) {
    if (std::ranges::count(request.subprotocols, known) == 0) continue;
    return {std::make_shared<ViewerSession>(services_, right, parameters_), std::string(known), {}};
  }
  return {nullptr, {}, Response::text(400, "Viewers speak foxglove.sdk.v1 or foxglove.websocket.v1 here.\n")};
}

}  // namespace HX::web
