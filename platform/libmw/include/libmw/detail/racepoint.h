#pragma once

/// Defined by programs that test races (tests/kit/race_point.cpp), and by nothing else.
extern "C" [[gnu::weak, gnu::visibility("default")]] void korvoRacePoint(const char* place);

/// A place between two steps that another thread may come between, where a test sees to it that one does.
///
/// Left to chance, two threads meet there once in many thousand runs, and then on somebody else's machine. A test
/// program that defines `korvoRacePoint` is called at the place, on the thread that came there and with the locks that
/// it holds, and has the other thread make its step meanwhile.
///
/// A weak symbol rather than a variable or a macro of some builds: what is tested is what is installed, nothing can set
/// it while a program runs, and where nobody defines it the place costs a load and a branch that is never taken. So it
/// stands where memory is asked for or waited for anyway, and not where a few instructions are all there is.
///
/// @param place  A literal that says what another thread finds there.
#define HX_RACE_POINT(place)                   \
  do {                                         \
    if (korvoRacePoint) korvoRacePoint(place); \
  } while (false)
