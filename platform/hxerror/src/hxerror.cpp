#include <hxerror/hxerror.h>

#include <utility>

namespace HX {

HXError::HXError(std::string module, std::string method, std::string message, std::string file, int line)
    : std::runtime_error(module + "." + method + ": " + message),
      module_(std::move(module)),
      method_(std::move(method)),
      message_(std::move(message)),
      file_(std::move(file)),
      line_(line) {}

// Out of line so that the class has one home for its type information, which exceptions are matched by.
HXError::~HXError() = default;

}  // namespace HX
