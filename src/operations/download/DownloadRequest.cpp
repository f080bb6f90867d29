#include "handler/VeskHandler2_0_0.h"

namespace VESK {

bool VeskHandler2_0_0::downloadRequest() {
    log("error", QString("%1: not implemented.").arg("downloadRequest"));
    return false;
}

} // namespace VESK
