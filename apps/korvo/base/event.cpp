#include "event.h"

#include <cerrno>
#include <poll.h>
#include <sys/eventfd.h>
#include <system_error>
#include <unistd.h>
#include <vector>

namespace korvo {

int waitReadable(std::initializer_list<int> files, std::chrono::milliseconds timeout) {
  std::vector<pollfd> polled;
  for (const int file : files) polled.push_back({file, POLLIN, 0});
  while (poll(polled.data(), polled.size(), static_cast<int>(timeout.count())) < 0) {
    if (errno != EINTR) throw std::system_error(errno, std::generic_category(), "poll");
  }
  for (std::size_t i = 0; i < polled.size(); ++i) {
    if (polled[i].revents != 0) return static_cast<int>(i);
  }
  return -1;
}

Event::Event() : file_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (file_ < 0) throw std::system_error(errno, std::generic_category(), "eventfd");
}

Event::~Event() { ::close(file_); }

void Event::set() noexcept { eventfd_write(file_, 1); }

void Event::clear() noexcept {
  eventfd_t count = 0;
  eventfd_read(file_, &count);
}

}  // namespace korvo
