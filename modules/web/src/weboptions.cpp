#include "weboptions.h"

#include "access/access.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <stdexcept>

#include <fmt/format.h>

namespace HX {
namespace {

constexpr std::size_t kShortestToken = 16;

std::vector<std::string> listOf(std::string_view text) {
  std::vector<std::string> parts;
  while (!text.empty()) {
    const std::size_t end = std::min(text.find(','), text.size());
    if (end > 0) parts.emplace_back(text.substr(0, end));
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return parts;
}

bool isToken(const std::string& text) {
  const auto isPlain = [](unsigned char c) { return std::isalnum(c) != 0 || c == '-' || c == '_'; };
  return text.size() >= kShortestToken && std::ranges::all_of(text, isPlain);
}

/// Scheme, host and port, as browsers say it.
bool isOrigin(const std::string& text) {
  const std::size_t host = text.find("://");
  return host != std::string::npos && host > 0 && host + 3 < text.size() &&
         text.find_first_of("/?#@ ", host + 3) == std::string::npos;
}

bool isTrue(const std::string& name, const std::string& text) {
  if (text == "1" || text == "true") return true;
  if (text.empty() || text == "0" || text == "false") return false;
  throw std::runtime_error(fmt::format("{} is 1 or 0, and not {}", name, text));
}

std::uint16_t portOf(const std::string& name, const std::string& text) {
  std::uint16_t port = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), port);
  if (error == std::errc() && end == text.data() + text.size()) return port;
  throw std::runtime_error(fmt::format("{} is a number from 0 to 65535, and not {}", name, text));
}

}  // namespace

WebOptions WebOptions::from(const std::function<std::string(const std::string& name)>& variable) {
  WebOptions options;
  if (const auto bind = variable("KORVO_WEB_BIND"); !bind.empty()) options.bind = bind;
  if (const auto port = variable("KORVO_WEB_PORT"); !port.empty()) options.port = portOf("KORVO_WEB_PORT", port);
  options.hosts = listOf(variable("KORVO_WEB_HOSTS"));
  options.allowedOrigins = listOf(variable("KORVO_WEB_ALLOW_ORIGINS"));
  options.metrics = listOf(variable("KORVO_WEB_METRICS"));
  options.allowWrite = isTrue("KORVO_WEB_ALLOW_WRITE", variable("KORVO_WEB_ALLOW_WRITE"));
  options.viewToken = variable("KORVO_WEB_VIEW_TOKEN");
  options.writeToken = variable("KORVO_WEB_WRITE_TOKEN");
  options.certificate = variable("KORVO_WEB_CERTIFICATE");
  options.key = variable("KORVO_WEB_KEY");
  options.check();
  return options;
}

void WebOptions::check() const {
  if (certificate.empty() != key.empty()) throw std::runtime_error("a certificate and its key come together");
  for (const std::string& token : {viewToken, writeToken}) {
    if (token.empty() || isToken(token)) continue;
    throw std::runtime_error(fmt::format("a token has {} letters, digits, - and _, or more", kShortestToken));
  }
  if (!viewToken.empty() && viewToken == writeToken) {
    throw std::runtime_error("the token to look and the one to write differ, or they would be one");
  }
  for (const std::string& origin : allowedOrigins) {
    if (isOrigin(origin)) continue;
    throw std::runtime_error(
        fmt::format("an origin is scheme, host and port, as in https://viewer.example:8080, and {} is none", origin));
  }
}

bool WebOptions::needsToken() const { return allowWrite || !web::AccessOptions::isLoopback(bind); }

}  // namespace HX
