#include <hxcommon/datarestorer.h>

namespace HX {

DataRestorer::~DataRestorer() = default;

}  // namespace HX
