#include "base/Protocol.h"
#include "handler/VeskHandler2_0_0.h"

#include <QFileInfo>

namespace VESK {

namespace {

const char* const kFunction = "downloadRespond";

} // namespace

bool VeskHandler2_0_0::downloadRespond() {
    const QString function = kFunction;
    // Read once here; a stop is acted on only at the checkpoint before the transfer.
    getStatus();
    const int socket = getParam("serverSocket", "-1").toInt(nullptr, 10);
    const QString fileName = getParam("fileName", "");
    const QString srcPath = getParam("srcPath", "");
    const QString userName = getParam("userName", "");
    const QString appVersion = getParam("appVersion", "");
    Q_UNUSED(userName)
    Q_UNUSED(appVersion)
    const QString bVerify = getParam("bVerify", "false");
    const bool verifying = bVerify != "false";
    qint64 offset = getParam("offset", "-1").toLongLong(nullptr, 10);
    setParam("transferBeginSize", QString::number(offset));

    QString root;
    if (!resolveAppRoot(function, root))
        return false;
    QString path = pathJoin(pathJoin(root, srcPath), fileName);
    log("info", QString("%1: %2 ...").arg(function, path));

    const bool exists = exist(path);
    const qint64 size = QFileInfo(path).size();

    // An offset outside the file cannot be resumed from: the whole file is sent instead.
    bool truncate = false;
    if (offset < 0 || offset > size) {
        log("warning", QString("%1: client tmp file offset[%2], server file size[%3].")
                           .arg(function, QString::number(offset), QString::number(size)));
        truncate = true;
        offset = 0;
    }

    QString serverValue;
    bool transfer = true;
    if (verifying) {
        const QString clientValue = getParam("verifyValue", "");
        serverValue = getFileVerifyValue(path, bVerify);
        // The client already holds this very file: nothing needs to move.
        if (!clientValue.isEmpty() && clientValue == serverValue)
            transfer = false;
    }

    setParam("path", path);
    setParam("fileSize", QString::number(size));

    ParamMap ack;
    ack.insert("ackRespond", exists ? "true" : "false");
    ack.insert("bTruncate", truncate ? "true" : "false");
    ack.insert("fileSize", QString::number(size));
    ack.insert("verifyValue", serverValue);
    ack.insert("bTransfer", transfer ? "true" : "false");
    if (!exists)
        ack.insert("errorType", "FileNotExist");
    if (!sendTaskParamAck(function, ack))
        return false;

    if (!exists) {
        log("error", QString("%1: file %2 not exist.").arg(function, path));
        return false;
    }
    if (!transfer) {
        log("info", QString("%1: file %2 second pass.").arg(function, path));
        return true;
    }

    checkStatus();

    if (!bulkTransfer(function, Direction::Send, socket, path, path, protocol::kOpenRead, offset,
                      size))
        return false;
    return recvDownloadEnd(function, verifying);
}

bool VeskHandler2_0_0::recvDownloadEnd(const QString& function, bool verifying) {
    ParamMap map;
    if (verifying) {
        if (!recvMap(protocol::kFileVerifyResult, map)) {
            log("error", QString("%1: recv FileVerifyResult failed.").arg(function));
            return false;
        }
        if (map.value("verifyResult") != "true") {
            log("error", QString("%1: FileVerifyResult error.").arg(function));
            return false;
        }
    }
    // TaskComplete only marks the end; what it carries is not needed here.
    if (!recvMap(protocol::kTaskComplete, map)) {
        log("error",
            QString("%1: recv %2 failed.").arg(function, QString::number(protocol::kTaskComplete)));
        return false;
    }
    return true;
}

} // namespace VESK
