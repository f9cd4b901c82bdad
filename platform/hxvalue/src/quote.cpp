#include "quote.h"

#include <nlohmann/json.hpp>

namespace HX {

Quoted quote(std::string_view text) {
  using Json = nlohmann::json;
  const Json string(text);
  try {
    return {string.dump(), false};
  } catch (const Json::type_error&) {
    return {string.dump(-1, ' ', false, Json::error_handler_t::replace), true};
  }
}

}  // namespace HX
