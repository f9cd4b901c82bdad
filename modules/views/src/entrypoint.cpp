#include "hxviews.h"

using HX::HXViews;
HX_MODULE(HXViews)
