#include "handler/VeskHandler2_0_0.h"

namespace VESK {

bool VeskHandler2_0_0::uploadRespond() {
    log("error", QString("%1: not implemented.").arg("uploadRespond"));
    return false;
}

} // namespace VESK
