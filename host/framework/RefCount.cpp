#include "tolvane/RefCount.h"

namespace Tolvane {

void RefCount::destroy() const { delete this; }

}  // namespace Tolvane
