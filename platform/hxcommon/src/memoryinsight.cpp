#include <hxcommon/memoryinsight.h>

namespace HX {

MemoryInsight::~MemoryInsight() = default;

}  // namespace HX
