#pragma once

#include "model/brief.h"
#include "model/tree.h"

#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace HX::web {

struct PageServices;

/// Asks the journal for the numbers that a key had, as far as it still has them.
///
/// @param services  Outlive the answer.
/// @param path      Where in the key's value the number is.
/// @param since     How far back.
/// @param answer    Gets the points in the order of their changes, thinned out when they are very many. Not called when
///                  nothing is retained.
void askHistory(const PageServices& services, const std::string& key, const ValuePath& path, std::chrono::seconds since,
                std::function<void(const std::vector<Tap::Point>&)> answer);

}  // namespace HX::web
