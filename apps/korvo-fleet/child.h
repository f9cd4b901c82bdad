#pragma once

#include <string>
#include <string_view>
#include <sys/types.h>
#include <vector>

namespace korvo::fleet {

/// A program that runs beside this one, its input a pipe of ours, and ends with this object, or with this process.
///
/// @par Threads  One at a time.
class Child {
 public:
  /// @param command  The program's path and its arguments.
  /// @throws std::runtime_error when it cannot be started.
  explicit Child(const std::vector<std::string>& command);
  Child(Child&& other) noexcept;
  Child& operator=(Child&&) = delete;
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;
  ~Child();

  bool isRunning() const;
  void send(int signal) const;
  /// To its input; what does not fit is lost.
  void write(std::string_view text) const;

 private:
  pid_t pid_ = -1;
  int input_ = -1;
};

}  // namespace korvo::fleet
