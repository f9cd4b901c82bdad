#include "weboptions.h"

#include "access/access.h"

#include <algorithm>
#include <cctype>
#include <utility>

#include <fmt/format.h>

namespace HX {
namespace {

constexpr std::size_t kShortestToken = 16;

std::vector<std::string> textsOf(const HXValue& list) {
  std::vector<std::string> texts;
  for (const HXValue& text : list.asList()) texts.push_back(text.asString());
  return texts;
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

}  // namespace

std::vector<Setting> WebOptions::settings() {
  const WebOptions usual;
  return {
      Setting::integer("port", usual.port, "At which it listens; 0 takes any that is free.").between(0, 65535),
      Setting::text("bind", usual.bind, "The address at which it listens; others than this machine's ask for a token."),
      Setting::texts("hosts", {}, "Further names under which browsers reach it."),
      Setting::flag("allow-write", false, "Whether who has the token to write may set, raise, remove and call."),
      Setting::texts("allow-origins", {}, "Origins of viewers that run in a browser, as in https://viewer.example."),
      Setting::texts("metrics", {}, "Keys whose numbers Prometheus is told, as globs."),
      Setting::texts(
          "parameters", {},
          "Keys that viewers are offered as parameters: keys, prefixes that end with /, and globs. Kept keys "
          "always are."),
      Setting::text("view-token", "", "The token to look; where one is needed and none is set, another one each time."),
      Setting::text("write-token", "", "The token to write, likewise."),
      Setting::text("certificate", "", "A file in PEM with the certificate to speak TLS with, and its chain."),
      Setting::text("key", "", "The file in PEM with the certificate's key."),
  };
}

WebOptions WebOptions::from(const HXValue& values) {
  WebOptions options;
  options.port = static_cast<std::uint16_t>(values["port"].toInt());
  options.bind = values["bind"].asString();
  options.hosts = textsOf(values["hosts"]);
  options.allowWrite = values["allow-write"].asBool();
  options.allowedOrigins = textsOf(values["allow-origins"]);
  options.metrics = textsOf(values["metrics"]);
  options.parameters = textsOf(values["parameters"]);
  options.viewToken = values["view-token"].asString();
  options.writeToken = values["write-token"].asString();
  options.certificate = values["certificate"].asString();
  options.key = values["key"].asString();
  return options;
}

std::vector<WebOptions::Problem> WebOptions::problems() const {
  std::vector<Problem> found;
  const auto require = [&](bool isRight, const char* setting, std::string problem) {
    if (!isRight) found.push_back({setting, std::move(problem)});
  };
  require(certificate.empty() == key.empty(), certificate.empty() ? "key" : "certificate",
          fmt::format("it comes with {}, or not at all", certificate.empty() ? "certificate" : "key"));
  for (const auto& [name, token] : {std::pair("view-token", &viewToken), std::pair("write-token", &writeToken)}) {
    require(token->empty() || isToken(*token), name,
            fmt::format("a token has {} letters, digits, - and _, or more", kShortestToken));
  }
  require(viewToken.empty() || viewToken != writeToken, "write-token",
          "it differs from view-token, or they would be one");
  for (const std::string& origin : allowedOrigins) {
    require(
        isOrigin(origin), "allow-origins",
        fmt::format("an origin is scheme, host and port, as in https://viewer.example:8080, and {} is none", origin));
  }
  return found;
}

bool WebOptions::needsToken() const { return allowWrite || !web::AccessOptions::isLoopback(bind); }

}  // namespace HX
