#include "access.h"

#include <libmw/log.h>

#include <algorithm>
#include <stdexcept>
#include <sys/random.h>

#include <fmt/format.h>

namespace HX::web {
namespace {

const char* const kCategory = "web";

std::string smallLetters(std::string_view text) {
  std::string result(text);
  for (char& letter : result) {
    if (letter >= 'A' && letter <= 'Z') letter = static_cast<char>(letter - 'A' + 'a');
  }
  return result;
}

/// The address as it stands in a URL.
std::string inUrl(const std::string& address) {
  const bool isNaked6 = address.find(':') != std::string::npos && !address.starts_with('[');
  return isNaked6 ? "[" + address + "]" : address;
}

/// Takes as long for every wrong token, so that its beginning cannot be found out by a clock.
bool isSame(std::string_view given, std::string_view wanted) {
  if (wanted.empty() || given.size() != wanted.size()) return false;
  unsigned difference = 0;
  for (std::size_t i = 0; i < wanted.size(); ++i) {
    difference |= static_cast<unsigned>(given[i] ^ wanted[i]);
  }
  return difference == 0;
}

/// The value of `name` in "name=value" parts; empty when there is none.
std::string_view valueIn(std::string_view text, std::string_view name, char separator) {
  while (!text.empty()) {
    const std::size_t end = std::min(text.find(separator), text.size());
    std::string_view part = text.substr(0, end);
    text.remove_prefix(std::min(end + 1, text.size()));
    while (part.starts_with(' ')) part.remove_prefix(1);
    if (part.starts_with(name) && part.substr(name.size()).starts_with('=')) return part.substr(name.size() + 1);
  }
  return {};
}

std::string excerpt(std::string_view text) {
  std::string shown(text.substr(0, 100));
  for (char& character : shown) {
    if (character < ' ' || character > '~') character = '?';
  }
  return shown;
}

}  // namespace

bool AccessOptions::isLoopback(std::string_view address) {
  return address.starts_with("127.") || address == "::1" || address == "[::1]" || address == "localhost";
}

std::string makeToken() {
  unsigned char bytes[16];
  if (getrandom(bytes, sizeof bytes, 0) != static_cast<ssize_t>(sizeof bytes)) {
    throw std::runtime_error("the system has no random numbers for a token");
  }
  std::string token;
  for (const unsigned char byte : bytes) token += fmt::format("{:02x}", byte);
  return token;
}

Access::Access(AccessOptions options, std::function<Clock::time_point()> now)
    : options_(std::move(options)), now_(std::move(now)) {
  const std::string scheme = options_.isTls ? "https://" : "http://";
  const std::string usualPort = options_.isTls ? ":443" : ":80";
  std::vector<std::string> names = options_.hosts;
  names.insert(names.end(), {"localhost", "127.0.0.1", "[::1]", inUrl(options_.address)});
  for (const std::string& name : names) {
    const std::string host = smallLetters(name) + ":" + std::to_string(options_.port);
    hosts_.push_back(host);
    // Browsers leave the usual port out.
    if (host.ends_with(usualPort)) hosts_.push_back(smallLetters(name));
  }
  for (const std::string& host : hosts_) origins_.push_back(scheme + host);
  for (const std::string& origin : options_.allowedOrigins) origins_.push_back(smallLetters(origin));
}

std::optional<Response> Access::refuse(const Request& request) const {
  if (std::ranges::count(hosts_, smallLetters(request.host)) == 0) {
    mw::log::warning(kCategory, "refuse",
                     fmt::format("a request for host {} from {}: this is none of its names; --host adds one",
                                 excerpt(request.host), request.remote));
    return Response::text(421, "This server does not go by that name. Its option --host adds a name.\n");
  }
  if (request.origin && std::ranges::count(origins_, smallLetters(*request.origin)) == 0) {
    mw::log::warning(kCategory, "refuse",
                     fmt::format("a page of origin {} asks for {}; who trusts it starts the server with "
                                 "--allow-origin {}",
                                 excerpt(*request.origin), excerpt(request.path), excerpt(*request.origin)));
    return Response::text(403, "Pages of another origin are not served. The option --allow-origin lets one in.\n");
  }
  return std::nullopt;
}

Right Access::rightOfToken(std::string_view token) const {
  // Both are looked at, so that the time does not tell which it resembles.
  const bool writes = isSame(token, options_.writeToken);
  const bool views = isSame(token, options_.viewToken);
  if (writes && options_.allowWrite) return Right::Write;
  return writes || views ? Right::View : Right::None;
}

Access::Guesses& Access::guessesOf(const std::string& remote) {
  const auto now = now_();
  if (guesses_.size() >= kRemembered && !guesses_.contains(remote)) {
    std::erase_if(guesses_,
                  [&](const auto& each) { return now - each.second.at > std::chrono::duration<double>(kGuesses); });
    // Those who come from so many addresses share what is left to one.
    if (guesses_.size() >= kRemembered) return guesses_.begin()->second;
  }
  Guesses& guesses = guesses_.try_emplace(remote, Guesses{kGuesses, now}).first->second;
  guesses.left = std::min(kGuesses, guesses.left + std::chrono::duration<double>(now - guesses.at).count());
  guesses.at = now;
  return guesses;
}

Right Access::weigh(std::string_view token, const std::string& remote) {
  Guesses& guesses = guessesOf(remote);
  if (guesses.left < 1) return Right::None;
  const Right right = rightOfToken(token);
  if (right == Right::None) --guesses.left;
  return right;
}

std::string Access::cookieName() const { return "korvo-" + std::to_string(options_.port); }

Right Access::rightOf(const Request& request) {
  constexpr std::string_view kBearer = "Bearer ";
  const Right open = options_.viewToken.empty() ? Right::View : Right::None;
  std::string_view token = valueIn(request.cookie, cookieName(), ';');
  if (request.authorization.starts_with(kBearer))
    token = std::string_view(request.authorization).substr(kBearer.size());
  if (token.empty()) token = valueIn(request.query, "token", '&');
  return token.empty() ? open : std::max(open, weigh(token, request.remote));
}

Response Access::trade(const Request& request) {
  if (request.method != "POST") return Response::text(405, "A token comes by POST.\n");
  // Browsers say where a POST comes from; that it is ours was seen at the gate.
  if (guessesOf(request.remote).left < 1) {
    Response response = Response::text(429, "Too many wrong tokens. Try again in a few seconds.\n");
    response.headers.emplace_back("Retry-After", "2");
    return response;
  }
  if (weigh(request.body, request.remote) == Right::None) return Response::text(401, "This is not the token.\n");
  Response response = Response::text(204, "");
  response.headers.emplace_back("Set-Cookie", fmt::format("{}={}; HttpOnly; SameSite=Strict; Path=/{}", cookieName(),
                                                          request.body, options_.isTls ? "; Secure" : ""));
  return response;
}

Response Access::lacking(Right right) const {
  return Response::text(right == Right::None ? 401 : 403,
                        "This needs the token of the link that was printed when the server started.\n");
}

std::string Access::address() const {
  const std::string_view scheme = options_.isTls ? "https" : "http";
  const bool isAny = options_.address == "0.0.0.0" || options_.address == "::";
  const std::string host = !options_.hosts.empty() ? options_.hosts.front()
                           : isAny                 ? "localhost"
                                                   : inUrl(options_.address);
  return fmt::format("{}://{}:{}", scheme, host, options_.port);
}

}  // namespace HX::web
