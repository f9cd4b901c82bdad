#pragma once

#include <hxerror/api.h>

namespace HX {

/// Has a crash of this process (a violation of memory, an abort, an exception that nobody catches) say on standard
/// error, in one line, in which module it happened. Then it takes its course: the process ends by its signal, with a
/// core file where the system writes one.
///
/// Named is the innermost module library among the functions that were running, and its modules. A thread that has
/// outgrown its stack says so too, if it is the first one or one that runs calls; those that modules start do not.
///
/// Replaces the process's handlers of those signals, and its terminate handler. Does nothing under a sanitizer, which
/// tells more. Once, by the first thread.
HX_API void reportCrashes();

}  // namespace HX
