#pragma once

#include <hxerror/api.h>
#include <libmw/genericobject.h>

#include <string>

namespace mw {

/// Where an object lives, for people.
/// @param object  A service, or any other handle.
/// @return "process 4711, korvo host"; empty for an object of this process, and for one that has gone.
/// @par Threads  Any. Asks nobody.
HX_API std::string processOf(const AnyObject& object);

}  // namespace mw
