#include "handler/VeskHandler2_0_0.h"

namespace VESK {

bool VeskHandler2_0_0::uploadRequest() {
    log("error", QString("%1: not implemented.").arg("uploadRequest"));
    return false;
}

} // namespace VESK
