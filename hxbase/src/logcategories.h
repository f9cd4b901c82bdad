#pragma once

#include <libmw/log.h>

namespace HX {

/// Category of the module's methods.
mw::log::Category& memoryCategory();
/// Category of notification, which happens in the items.
mw::log::Category& itemCategory();

/// The source file that errors name; callers know it by this text.
inline const char* const kSourceFile = "../hxbase/src/hxmemory";

}  // namespace HX
