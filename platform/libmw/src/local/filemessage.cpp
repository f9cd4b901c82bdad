#include "filemessage.h"

#include <cerrno>
#include <cstring>
#include <sys/socket.h>
#include <utility>

namespace mw::local {
namespace {

constexpr std::size_t kMostFiles = 4;  // Of a stranger, so that they are closed.

}  // namespace

bool send(const File& socket, std::span<const std::byte> bytes, const File* file) {
  iovec content{const_cast<std::byte*>(bytes.data()), bytes.size()};
  alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control{};
  msghdr message{};
  message.msg_iov = &content;
  message.msg_iovlen = 1;
  if (file) {
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    cmsghdr* const header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(sizeof(int));
    const int number = file->number();
    std::memcpy(CMSG_DATA(header), &number, sizeof number);
  }
  return ::sendmsg(socket.number(), &message, MSG_NOSIGNAL | MSG_DONTWAIT) >= 0;
}

FileMessage receive(const File& socket) {
  FileMessage received;
  iovec content{received.bytes.data(), received.bytes.size()};
  alignas(cmsghdr) std::array<char, CMSG_SPACE(kMostFiles * sizeof(int))> control{};
  msghdr message{};
  message.msg_iov = &content;
  message.msg_iovlen = 1;
  message.msg_control = control.data();
  message.msg_controllen = control.size();
  do {
    received.size = ::recvmsg(socket.number(), &message, MSG_CMSG_CLOEXEC);
  } while (received.size < 0 && errno == EINTR);
  if (received.size < 0) return received;
  for (cmsghdr* header = CMSG_FIRSTHDR(&message); header; header = CMSG_NXTHDR(&message, header)) {
    if (header->cmsg_level != SOL_SOCKET || header->cmsg_type != SCM_RIGHTS) continue;
    const std::size_t count = (header->cmsg_len - CMSG_LEN(0)) / sizeof(int);
    for (std::size_t i = 0; i < count; ++i) {
      int number = -1;
      std::memcpy(&number, CMSG_DATA(header) + i * sizeof number, sizeof number);
      File file(number);
      if (!received.file) received.file = std::move(file);
    }
  }
  return received;
}

}  // namespace mw::local
