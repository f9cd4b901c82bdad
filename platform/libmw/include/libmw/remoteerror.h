#pragma once

#include <hxerror/api.h>
#include <libmw/future.h>

#include <exception>
#include <stdexcept>
#include <string>

namespace mw {

/// Stands for an exception of another process that is neither an HXError nor a std::runtime_error. It is no
/// runtime error here either: whoever catches those lets this one pass, as they would have let pass the original.
class HX_API RemoteError : public std::exception {
 public:
  /// @param text  What the original said of itself.
  explicit RemoteError(std::string text) : text_(std::move(text)) {}
  RemoteError(const RemoteError&) = default;
  RemoteError& operator=(const RemoteError&) = default;
  ~RemoteError() override;

  const char* what() const noexcept override { return text_.c_str(); }

 private:
  std::string text_;
};

/// What a call to another process fails with for reasons of its own, so that callers tell them apart by type. They
/// cross processes as what they are.
///
/// The connection to the process that would answer has ended, or ended before it did.
class HX_API ConnectionLostError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
  ConnectionLostError(const ConnectionLostError&) = default;
  ConnectionLostError& operator=(const ConnectionLostError&) = default;
  ~ConnectionLostError() override;
};

/// There is no service of that name: what a session's look-up fails with, and a call by name of a service that has
/// gone.
class HX_API NoSuchServiceError : public FutureError {
 public:
  explicit NoSuchServiceError(const std::string& text) : FutureError(Kind::UserError, text) {}
  NoSuchServiceError(const NoSuchServiceError&) = default;
  NoSuchServiceError& operator=(const NoSuchServiceError&) = default;
  ~NoSuchServiceError() override;
};

/// A call, or its answer, fits no message: `LinkOptions` has the limits. What it is about did not leave; the connection
/// goes on.
class HX_API TooLargeError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
  TooLargeError(const TooLargeError&) = default;
  TooLargeError& operator=(const TooLargeError&) = default;
  ~TooLargeError() override;
};

/// The object has no method of that name, or none that takes those arguments. Thrown in the same process too.
class HX_API NoSuchMethodError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
  NoSuchMethodError(const NoSuchMethodError&) = default;
  NoSuchMethodError& operator=(const NoSuchMethodError&) = default;
  ~NoSuchMethodError() override;
};

}  // namespace mw
