#include "hxfleet.h"

using HX::HXFleet;
HX_MODULE(HXFleet)
