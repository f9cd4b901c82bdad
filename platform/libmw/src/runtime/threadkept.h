#pragma once

#include "threadlocal.h"

namespace mw::detail {

/// What is kept for the calling thread: one T for each, made when it is asked for first.
///
/// @return Null when it has gone: objects that go when the thread ends may still call, send or wait.
template <class T>
T* ofThisThread() {
  // It is part of what `HX_THREAD_LOCAL` says is short: a library that asks for too much cannot be loaded.
  static_assert(sizeof(T) <= 160, "what a thread keeps refers to what is large");
  HX_THREAD_LOCAL static constinit T* now = nullptr;
  HX_THREAD_LOCAL static constinit bool isOver = false;
  struct Holder {
    Holder() { now = &value; }
    Holder(const Holder&) = delete;
    Holder& operator=(const Holder&) = delete;
    ~Holder() {
      now = nullptr;
      isOver = true;
    }
    T value;
  };
  if (now || isOver) return now;
  static thread_local Holder holder;
  return &holder.value;
}

}  // namespace mw::detail
