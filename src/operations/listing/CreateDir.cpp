#include "handler/VeskHandler2_0_0.h"

namespace VESK {

bool VeskHandler2_0_0::createDirRequest() {
    log("error", QString("%1: not implemented.").arg("createDirRequest"));
    return false;
}

bool VeskHandler2_0_0::createDirRespond() {
    log("error", QString("%1: not implemented.").arg("createDirRespond"));
    return false;
}

} // namespace VESK
