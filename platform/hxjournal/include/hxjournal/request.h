#pragma once

#include <hxerror/api.h>
#include <hxjournal/filter.h>
#include <hxjournal/follow.h>
#include <hxvalue/hxvalue.h>

namespace HX::journal {

/// What somebody in another process wants to follow, and how: the argument of HXJournal.open. docs/wire says what is in
/// it.
struct Request {
  Filter filter;
  FollowOptions options;  ///< Without callbacks.
};

/// @param filter   Which changes.
/// @param options  Where to begin, how often, how soon. The callbacks stay here.
/// @return The same as a map.
HX_API HXValue toValue(const Filter& filter, const FollowOptions& options);

/// The inverse of `toValue`, for what strangers write.
/// @param value  A map; what is left out is as in a `Filter` and `FollowOptions` as made. Patterns may come as a user
///               wrote them, too.
/// @return What it asks for.
/// @throws std::runtime_error naming the option that is not known, or what it takes.
HX_API Request requestOf(const HXValue& value);

}  // namespace HX::journal
