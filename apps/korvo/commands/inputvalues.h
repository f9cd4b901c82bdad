#pragma once

#include "commands.h"

#include <hxproxies/hxmemoryproxy.h>
#include <hxvalue/hxvalue.h>

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace korvo {

/// What `set` and `raise` read values with.
inline constexpr Option kString{"--string", "", "Take the text as a string, without quotes around it"};
inline constexpr Option kType{
    "--type", "TYPE", "Make numbers this type: int, int64, float or double; by default the one that the key has"};

/// Reads values as the options say, and gives their numbers the types that keys have.
class ValueReader {
 public:
  /// @throws InputError for options that go ill together.
  ValueReader(Context& context, Arguments& arguments);

  /// The next argument: JSON, or with --string a text.
  HX::HXValue next();
  /// Calls `use` with each line of the context's input in turn, as it comes, as long as it returns true. Blank lines
  /// are skipped.
  /// @throws std::runtime_error naming the line that is no JSON, or that `use` failed with.
  void forEachLine(const std::function<bool(HX::HXValue value)>& use);
  /// The value as it suits a key.
  HX::HXValue typed(HX::HXValue value, HX::HXMemoryProxy& memory, const std::string& key) const;

 private:
  HX::HXValue withWantedType(HX::HXValue value) const;

  Context& context_;
  Arguments& arguments_;
  const bool isText_;
  std::optional<HX::HXValue::Type> wanted_;
};

bool isBlank(std::string_view line);

/// "SOURCE line N: REASON"
std::string lineError(std::string_view source, std::size_t number, std::string_view reason);

}  // namespace korvo
