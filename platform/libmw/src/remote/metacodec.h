#pragma once

#include <hxvalue/hxvalue.h>
#include <libmw/metaobject.h>

#include <exception>

namespace mw::remote {

/// What an object offers, as a value that crosses.
HX::HXValue toValue(const MetaObject& metaObject);
/// @throws ProtocolError when it is no such value.
MetaObject metaObjectFrom(const HX::HXValue& value);

/// An exception as a value that crosses: its family and what the family has to say.
HX::HXValue toValue(const std::exception_ptr& error);
/// The exception again, of the same family: HX::HXError, std::runtime_error, or RemoteError for any other. A bare text,
/// which simple peers send, is a runtime error.
std::exception_ptr errorFrom(const HX::HXValue& value);

}  // namespace mw::remote
