#include "hxkeeper.h"

using HX::HXKeeper;
HX_MODULE(HXKeeper)
