#include "hxjournal.h"

using HX::HXJournal;
HX_MODULE(HXJournal)
