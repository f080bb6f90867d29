#include "handler/VeskHandler2_0_0.h"

namespace VESK {

bool VeskHandler2_0_0::listRespond() {
    log("error", QString("%1: not implemented.").arg("listRespond"));
    return false;
}

} // namespace VESK
