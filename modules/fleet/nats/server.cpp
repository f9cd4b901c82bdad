#include "server.h"

namespace HX::fleet {

Server::Server(const std::string& url) {
  std::string rest = url;
  if (const auto colon = url.find("://"); colon != std::string::npos) {
    scheme = url.substr(0, colon);
    rest.erase(0, colon + 3);
  }
  if (const auto at = rest.rfind('@'); at != std::string::npos) rest.erase(0, at + 1);
  const bool isBracketed = rest.starts_with('[');
  const auto end = isBracketed ? rest.find(']') : rest.find(':');
  host = isBracketed ? rest.substr(1, end - 1) : rest.substr(0, end);
  const auto colon = end == std::string::npos ? end : rest.find(':', end);
  if (colon != std::string::npos) port = rest.substr(colon + 1, rest.find('/', colon) - colon - 1);
}

}  // namespace HX::fleet
