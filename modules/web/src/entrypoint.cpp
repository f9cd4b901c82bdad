#include "hxweb.h"

using HX::HXWeb;
HX_MODULE(HXWeb)
