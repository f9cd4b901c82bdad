#pragma once

#include "line/verbs.h"

namespace korvo {

/// `korvo settings`: what can be set of a module.
Verb settingsVerb();

}  // namespace korvo
