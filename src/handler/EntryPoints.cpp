// The plug-in's two exported entry points; everything else in it is hidden.

#include "VeskHandler2_0_0.h"

VESK::VeskBase* create() {
    // An allocation failure propagates to the host.
    return new VESK::VeskHandler2_0_0();
}

void destroy(VESK::VeskBase* handler) {
    delete handler;
}
