#pragma once

#include <hxerror/api.h>

#include <exception>
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

}  // namespace mw
