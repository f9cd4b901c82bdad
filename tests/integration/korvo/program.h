#pragma once

#include "process.h"

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kit {

/// The path of one of the test's module libraries.
inline std::string module(const std::string& name) { return TEST_MODULES "/lib" + name + ".so"; }

/// The command line `korvo WORD...`.
inline std::vector<std::string> korvo(std::vector<std::string> words) {
  words.insert(words.begin(), KORVO_PROGRAM);
  return words;
}

/// Runs it to its end.
inline Process::Result runKorvo(std::vector<std::string> words, std::string_view input = {}) {
  return runProcess(korvo(std::move(words)), input);
}

}  // namespace kit
