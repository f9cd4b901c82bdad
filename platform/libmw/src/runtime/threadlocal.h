#pragma once

/// Declares a variable of the thread that each call between processes asks for, several times. The fastest model takes
/// its bytes from the one and a half thousand that a process reserves for libraries loaded while it runs; the usual one
/// calls a function of the loader each time. It is not for all variables: one that another library shares would take
/// the place of all that this library has.
#define HX_THREAD_LOCAL [[gnu::tls_model("initial-exec")]] thread_local
