#include "filedesk.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <sys/random.h>
#include <system_error>
#include <utility>

namespace mw {

FileDesk& FileDesk::instance() {
  static FileDesk* const the = new FileDesk;  // Never destroyed: connections may outlive statics.
  return *the;
}

Ticket newTicket() {
  Ticket ticket{};
  if (::getrandom(ticket.data(), ticket.size(), 0) == static_cast<ssize_t>(ticket.size())) return ticket;
  throw std::system_error(errno, std::generic_category(), "a ticket for a file");
}

File duplicate(const File& file) {
  File copy(::fcntl(file.number(), F_DUPFD_CLOEXEC, 3));
  if (!copy) throw std::system_error(errno, std::generic_category(), "a second descriptor of a file");
  return copy;
}

Ticket FileDesk::keep(File file) {
  const Ticket ticket = newTicket();
  const HX::MutexLock lock(mutex_);
  dropOld();
  deposits_.insert_or_assign(ticket, Deposit{std::move(file), 0, Clock::now() + kKept});
  return ticket;
}

bool FileDesk::keep(const Ticket& ticket, File file, pid_t process) {
  const HX::MutexLock lock(mutex_);
  dropOld();
  const auto own = std::ranges::count_if(deposits_, [&](const auto& one) { return one.second.process == process; });
  if (std::cmp_greater_equal(own, kOfAProcess)) return false;
  return deposits_.try_emplace(ticket, Deposit{std::move(file), process, Clock::now() + kKept}).second;
}

File FileDesk::take(const Ticket& ticket) {
  const HX::MutexLock lock(mutex_);
  dropOld();
  auto found = deposits_.extract(ticket);
  return found ? std::move(found.mapped().file) : File();
}

void FileDesk::dropOld() {
  const auto now = Clock::now();
  std::erase_if(deposits_, [now](const auto& one) { return one.second.until <= now; });
}

}  // namespace mw
