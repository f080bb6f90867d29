#include "handler/VeskHandler2_0_0.h"

namespace VESK {

bool VeskHandler2_0_0::downloadRespond() {
    log("error", QString("%1: not implemented.").arg("downloadRespond"));
    return false;
}

} // namespace VESK
