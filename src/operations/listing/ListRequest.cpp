#include "base/Protocol.h"
#include "handler/VeskHandler2_0_0.h"

namespace VESK {

bool VeskHandler2_0_0::listRequest() {
    // Nothing can stop a listing before its request is out; this reading is deliberately unused.
    getStatus();

    const QString function = "listRequest";
    const QStringList keys = {"operator", "srcPath", "rootPath",
                              "userName", "appKey",  "appVersion"};
    ParamMap request;
    if (!collectTaskParam(function, keys, request))
        return false;
    if (!sendTaskParam(function, request))
        return false;
    ParamMap ack;
    if (!recvTaskParamAck(function, ack))
        return false;
    if (!ackAccepted(function, ack))
        return false;
    checkStatus();

    // The server streams its chunks without waiting for us; each one goes to the host at once,
    // so no more than one chunk is held here whatever the size of the tree.
    for (;;) {
        ParamMap chunk;
        if (!recvMap(protocol::kListContent, chunk)) {
            log("error", QString("%1: recv ListContent failed.").arg(function));
            return false;
        }
        // Only the exact text "true" ends the listing; a missing "bLast" means more follow.
        const bool last = chunk.value("bLast") == "true";
        chunk.remove("bLast");
        emit sigList(chunk);
        if (last)
            return true;
        checkStatus();
    }
}

} // namespace VESK
