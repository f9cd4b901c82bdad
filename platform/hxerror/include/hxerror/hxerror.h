#pragma once

#include <hxerror/api.h>

#include <stdexcept>
#include <string>

namespace HX {

/// The error that module methods report to their callers.
///
/// It says where the failure was noticed in words that callers rely on (module and method), what went wrong, and
/// the source position. All five fields survive a call through a proxy, also one that leaves the process.
///
/// Immutable after construction; copies are independent. Safe to read from any thread.
class HX_API HXError : public std::runtime_error {
 public:
  /// @param module   Name of the module that reports the failure.
  /// @param method   Word for the operation, usually the name of the method.
  /// @param message  What went wrong, for a person.
  /// @param file     Source file; empty when not stated.
  /// @param line     Line in `file`; 0 when not stated.
  HXError(std::string module, std::string method, std::string message, std::string file = {}, int line = 0);

  HXError(const HXError&) = default;
  HXError& operator=(const HXError&) = default;
  ~HXError() override;

  const std::string& module() const noexcept { return module_; }
  const std::string& method() const noexcept { return method_; }
  const std::string& message() const noexcept { return message_; }
  const std::string& file() const noexcept { return file_; }
  int line() const noexcept { return line_; }

  // what() is inherited: "MODULE.METHOD: MESSAGE", the form in which people meet the error.

 private:
  std::string module_;
  std::string method_;
  std::string message_;
  std::string file_;
  int line_;
};

}  // namespace HX
