#pragma once

#include <hxerror/mutex.h>
#include <libmw/file.h>

#include <chrono>
#include <cstddef>
#include <map>
#include <sys/types.h>

namespace mw {

/// Where files lie that are handed from one process to another: of a broker's process, one for all. Whoever has the
/// ticket takes the file, once. What nobody fetches goes after a while.
///
/// @par Threads  Any.
class FileDesk {
 public:
  using Clock = std::chrono::steady_clock;
  static constexpr std::chrono::seconds kKept{10};
  /// How many one process may leave at a time.
  static constexpr std::size_t kOfAProcess = 16;

  static FileDesk& instance();

  /// Keeps a file of this process.
  /// @return By what it is taken. @throws std::system_error
  Ticket keep(File file);
  /// Keeps one of another process, which has made the ticket.
  /// @return False when it has left too many, or the ticket is taken.
  bool keep(const Ticket& ticket, File file, pid_t process);
  /// @return None when nothing lies there under it.
  File take(const Ticket& ticket);

 private:
  struct Deposit {
    File file;
    pid_t process = 0;
    Clock::time_point until;
  };
  void dropOld() HX_REQUIRES(mutex_);

  HX::Mutex mutex_;
  std::map<Ticket, Deposit> deposits_ HX_GUARDED_BY(mutex_);
};

/// @return Random. @throws std::system_error
Ticket newTicket();

/// @return The same file by another descriptor. @throws std::system_error
File duplicate(const File& file);

}  // namespace mw
