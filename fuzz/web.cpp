#include "harness.h"
#include "web_services.h"

#include <libmw/log.h>

#include <access/access.h>
#include <algorithm>
#include <page/pagesession.h>

namespace fuzz {
namespace {

using namespace HX::web;

constexpr std::string_view kToken = "token-of-the-owner";

/// Takes the first line off.
std::string takeLine(std::string_view& text) {
  const std::size_t end = std::min(text.find('\n'), text.size());
  std::string line(text.substr(0, end));
  text.remove_prefix(std::min(end + 1, text.size()));
  return line;
}

/// The gate, by a request made of lines.
void ask(std::string_view& lines) {
  AccessOptions options;
  options.port = 8765;
  options.allowWrite = true;
  options.viewToken = "token-to-look-alone";
  options.writeToken = kToken;
  Access access(options);
  Request request;
  request.method = "POST";
  request.path = "/";
  request.host = takeLine(lines);
  if (std::string origin = takeLine(lines); !origin.empty()) request.origin = std::move(origin);
  request.cookie = takeLine(lines);
  request.query = takeLine(lines);
  request.authorization = takeLine(lines);
  request.body = takeLine(lines);
  if (!access.refuse(request)) require(request.host.ends_with(":8765"), "only names with our port come in");
  const std::string all = request.cookie + request.query + request.authorization + request.body;
  const bool knowsToken = all.find(kToken) != std::string::npos;
  require(knowsToken || access.rightOf(request) != Right::Write, "nobody writes without the token");
  const Response traded = access.trade(request);
  require(traded.status != 204 || all.find("token-") != std::string::npos, "nobody trades what is no token");
}

}  // namespace

void web(Input input) {
  mw::log::setStderrSink(false);
  std::string_view lines = textOf(input);
  ask(lines);
  const auto page = std::make_shared<PageSession>(webServices(), Right::Write);
  page->opened(std::make_shared<Nowhere>());
  while (!lines.empty()) {
    page->message(takeLine(lines), false);
    page->tick();
  }
  page->closed();
}

}  // namespace fuzz
