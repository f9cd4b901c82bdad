#include "hxfreshness.h"

using HX::HXFreshness;
HX_MODULE(HXFreshness)
