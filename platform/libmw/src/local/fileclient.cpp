#include "fileclient.h"

#include "../runtime/filedesk.h"
#include "filemessage.h"
#include "socketfolder.h"

#include <cerrno>
#include <span>
#include <stdexcept>
#include <string>
#include <sys/socket.h>
#include <sys/time.h>
#include <system_error>
#include <utility>

#include <fmt/format.h>

namespace mw::local {

namespace {

/// A conversation of one question and one answer.
FileMessage ask(const std::string& path, std::span<const std::byte> ticket, const File* file) {
  constexpr timeval kPatience{5, 0};
  const File socket = connectTo(path, SOCK_SEQPACKET);
  if (!socket) throw std::runtime_error(fmt::format("nobody hands out files at {}", path));
  if (!isOwnPeer(socket)) throw std::runtime_error(fmt::format("{} is another user's", path));
  ::setsockopt(socket.number(), SOL_SOCKET, SO_RCVTIMEO, &kPatience, sizeof kPatience);
  if (!send(socket, ticket, file)) throw std::system_error(errno, std::generic_category(), path);
  FileMessage answer = receive(socket);
  if (answer.size != 1 || answer.bytes[0] != kDone) {
    throw std::runtime_error(fmt::format("{} {} the file", path, file ? "does not take" : "has no more"));
  }
  return answer;
}

}  // namespace

File fetchFrom(const std::string& path, const Ticket& ticket) {
  FileMessage answer = ask(path, ticket, nullptr);
  if (!answer.file) throw std::runtime_error(fmt::format("{} sent no file: this process may have too many", path));
  return std::move(answer.file);
}

Ticket leaveAt(const std::string& path, const File& file) {
  const Ticket ticket = newTicket();
  ask(path, ticket, &file);
  return ticket;
}

}  // namespace mw::local
