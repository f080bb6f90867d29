#include "handler/VeskHandler2_0_0.h"

namespace VESK {

bool VeskHandler2_0_0::createDirRequest() {
    const QString function = "createDirRequest";
    const QStringList keys = {"operator", "destPath", "rootPath",
                              "userName", "appKey",   "appVersion"};
    ParamMap map;
    if (!collectTaskParam(function, keys, map))
        return false;
    if (!sendTaskParam(function, map))
        return false;
    // The server answers only when the directory is in place; any failure of its own ends the
    // connection without a reply, which the receive below reports.
    ParamMap ack;
    if (!recvTaskParamAck(function, ack))
        return false;
    return ackAccepted(function, ack);
}

bool VeskHandler2_0_0::createDirRespond() {
    const QString function = "createDirRespond";
    const QString destPath = getParam("destPath", "");
    // Carried in the TaskParam for the record; creating a directory does not depend on them.
    const QString userName = getParam("userName", "");
    const QString appVersion = getParam("appVersion", "");
    Q_UNUSED(userName);
    Q_UNUSED(appVersion);
    const int mode = parseMode(getParam("dirMod", ""));

    QString base;
    if (!resolveAppRoot(function, base))
        return false;
    QString dir = pathJoin(base, destPath);
    log("info", QString("%1: %2 ...").arg(function, dir));

    // An existing directory is not a short cut: mkdir runs in every case and decides.
    exist(dir);
    if (!mkdir(dir)) {
        log("error", QString("%1: mkdir %2 failed.").arg(function, dir));
        return false;
    }
    // The mode goes to each directory below the root path down to the target, not to the root.
    if (!chmodRecursively(base, dir, mode)) {
        log("error", QString("%1: chmodRecursively %2 failed.").arg(function, dir));
        return false;
    }

    ParamMap reply;
    reply.insert("ackRespond", "true");
    return sendTaskParamAck(function, reply);
}

} // namespace VESK
