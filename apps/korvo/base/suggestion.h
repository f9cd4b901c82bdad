#pragma once

#include <hxcommon/suggestion.h>

namespace korvo {

using HX::didYouMean;
using HX::editDistance;

}  // namespace korvo
