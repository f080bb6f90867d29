#include "handler/VeskHandler2_0_0.h"

namespace VESK {

bool VeskHandler2_0_0::listRequest() {
    log("error", QString("%1: not implemented.").arg("listRequest"));
    return false;
}

} // namespace VESK
