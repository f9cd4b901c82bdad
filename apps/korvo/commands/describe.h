#pragma once

#include <libmw/metaobject.h>

#include <string>
#include <vector>

namespace korvo {

/// What an object offers, for people: each method with its types and its documentation, each signal; line by line.
std::vector<std::string> describeObject(const mw::MetaObject& object);

/// The methods in the order of their binding, as one line of JSON:
/// [{"name","description","flags","parameters":[{"name","description"}],"result":{"name","description"}}], with the
/// names in this order and without "result" where none is documented.
std::string methodsToJson(const mw::MetaObject& object);

}  // namespace korvo
