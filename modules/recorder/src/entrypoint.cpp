#include "hxrecorder.h"

using HX::HXRecorder;
HX_MODULE(HXRecorder)
