#pragma once

#include <hxvalue/hxvalue.h>
#include <libmw/metaobject.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace korvo {

// A number in a JSON text does not say how wide it is. What follows finds the type that it is wanted in.

/// `number` in another type, where it fits: it is the same number there, or for a decimal the nearest float.
/// @return None where it does not fit, and for what is no number.
std::optional<HX::HXValue> asNumber(const HX::HXValue& number, HX::HXValue::Type type);

/// Every number in `value`, those in lists and maps included, in one type.
/// @return None where one does not fit.
std::optional<HX::HXValue> withNumbers(const HX::HXValue& value, HX::HXValue::Type type);

/// `value` with the number types that `before` has in the same places, where they fit: elements of lists by their
/// index, those beyond the last as the last, and entries of maps by their names.
HX::HXValue withTypesOf(const HX::HXValue& value, const HX::HXValue& before);

/// "int", "int64", "float" or "double".
/// @throws InputError for another name.
HX::HXValue::Type numberType(std::string_view name);

/// Gives arguments of a call the number types that an overload of `method` wants, where as they are they suit none.
void suitNumbers(const mw::MetaObject& object, const std::string& method, std::vector<HX::HXValue>& arguments);

/// References to `values`, for a call.
std::vector<mw::AnyReference> references(const std::vector<HX::HXValue>& values);

}  // namespace korvo
