#include "line.h"

#include <array>
#include <cstring>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace HX::fleet {
namespace {

constexpr int kRepeated = 2;
constexpr std::uint32_t kSoon = 300;  // Milliseconds; a new connection takes about as long.
// Which timer runs: what was sent is repeated, or, where it could not even be sent since an interface is down, the
// other side is asked whether it takes anything. An answer to that, of one that takes nothing yet, begins the count
// anew.
constexpr std::uint8_t kRetransmission = 1;
constexpr std::uint8_t kProbe = 4;
constexpr std::uint32_t kEstablished = 1U << 1U;

struct Question {
  nlmsghdr head;
  inet_diag_req_v2 body;
};

/// What the kernel says of the connections that are asked for; nothing where it does not know them.
/// @param isKnown  `id` has all fields; otherwise the ports alone, for which all connections are looked through.
std::optional<inet_diag_msg> ask(std::uint8_t family, const inet_diag_sockid& id, bool isKnown) {
  const int netlink = ::socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_SOCK_DIAG);
  if (netlink < 0) return std::nullopt;
  Question question{};
  question.head.nlmsg_len = sizeof(question);
  question.head.nlmsg_type = SOCK_DIAG_BY_FAMILY;
  question.head.nlmsg_flags = static_cast<std::uint16_t>(isKnown ? NLM_F_REQUEST : NLM_F_REQUEST | NLM_F_DUMP);
  question.body.sdiag_family = family;
  question.body.sdiag_protocol = IPPROTO_TCP;
  question.body.idiag_states = kEstablished;
  question.body.id = id;
  std::optional<inet_diag_msg> found;
  alignas(nlmsghdr) std::array<char, 16'384> buffer{};
  if (::send(netlink, &question, sizeof(question), 0) == static_cast<ssize_t>(sizeof(question))) {
    const ssize_t size = ::recv(netlink, buffer.data(), buffer.size(), 0);
    const auto* const head = reinterpret_cast<const nlmsghdr*>(buffer.data());
    const bool isAnswer =
        size >= static_cast<ssize_t>(NLMSG_LENGTH(sizeof(inet_diag_msg))) && head->nlmsg_type == SOCK_DIAG_BY_FAMILY;
    if (isAnswer) std::memcpy(&found.emplace(), buffer.data() + NLMSG_HDRLEN, sizeof(inet_diag_msg));
  }
  ::close(netlink);
  return found;
}

}  // namespace

Line::Line(std::uint16_t here, std::uint16_t there) {
  for (const int family : {AF_INET, AF_INET6}) {
    inet_diag_sockid id{};
    id.idiag_sport = htons(here);
    id.idiag_dport = htons(there);
    const auto found = ask(static_cast<std::uint8_t>(family), id, false);
    if (!found) continue;
    socket_ = found->id;
    family_ = found->idiag_family;
    return;
  }
}

bool Line::isStalled() const {
  const auto found = socket_ ? ask(family_, *socket_, true) : std::nullopt;
  if (!found || (found->idiag_timer != kRetransmission && found->idiag_timer != kProbe)) return false;
  return found->idiag_retrans >= kRepeated && found->idiag_expires > kSoon;
}

}  // namespace HX::fleet
