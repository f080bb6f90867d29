#include "base/Protocol.h"
#include "handler/VeskHandler2_0_0.h"
#include "operations/upload/UploadTime.h"

#include <QFile>
#include <QFileInfo>

#include <sys/stat.h>

namespace VESK {

namespace {

struct SizeAndTime {
    qint64 size = 0;
    qint64 mtime = 0;
};

// A link reports its target's size and time; when the target cannot be queried both stay 0. A
// missing plain file gives size 0 and the time 4294967295.
SizeAndTime localSizeAndTime(const QString& path) {
    SizeAndTime result;
    const QFileInfo info(path);
    if (info.isSymLink()) {
        struct stat target;
        if (::stat(QFile::encodeName(path).constData(), &target) == 0) {
            result.size = qint64(target.st_size);
            result.mtime = qint64(target.st_mtime);
        }
        return result;
    }
    result.size = info.size();
    result.mtime = unsignedSeconds(info.lastModified());
    return result;
}

} // namespace

bool VeskHandler2_0_0::uploadRequest() {
    const QString fn = "uploadRequest";
    // Every failure is logged at "error" and ends the upload.
    const auto fail = [this](const QString& message) {
        log("error", message);
        return false;
    };
    const int socket = getParam("clientSocket", "-1").toInt();
    const QString fileName = getParam("fileName", "");
    const QString srcPath = getParam("srcPath", "");
    const QString method = getParam("bVerify", "false");
    qint64* total = counterFromParam("total");
    qint64* offset = counterFromParam("offset");
    QString path = pathJoin(srcPath, fileName);
    if (!total)
        return fail(QString("%1: get total failed.").arg(fn));
    if (!offset)
        return fail(QString("%1: get offset failed.").arg(fn));

    ParamMap map;
    const QStringList keys = {"operator", "fileName",   "destPath", "rootPath", "userName",
                              "appKey",   "appVersion", "bVerify",  "bReplace", "mac"};
    if (!collectTaskParam(fn, keys, map))
        return false;

    const SizeAndTime local = localSizeAndTime(path);
    map.insert("fileSize", QString::number(local.size));
    map.insert("mtime", QString::number(local.mtime));
    if (method != "false") {
        const QString value = getFileVerifyValue(path, method);
        if (value.isEmpty())
            return fail(QString("%1: calc FileVerifyValue failed.").arg(fn));
        map.insert("verifyValue", value);
    }
    // The host sees the size even when the file then turns out to be missing.
    *total = local.size;
    if (!exist(path))
        return fail(QString("%1: file %2 not exist.").arg(fn, path));

    ParamMap ack;
    if (!sendTaskParam(fn, map) || !recvTaskParamAck(fn, ack))
        return false;
    // A missing "bTransfer" means data is wanted; a missing "offset" is -1 and fails below.
    const bool transfer = ack.value("bTransfer") != "false";
    *offset = ack.value("offset", "-1").toLongLong();
    setParam("transferBeginSize", QString::number(*offset));
    if (!ackAccepted(fn, ack))
        return false;
    if (!transfer) {
        log("info", QString("%1: file %2 second pass.").arg(fn, path));
        return true;
    }
    if (*offset < 0 || *offset > local.size)
        return fail(QString("%1: get offset[%2] fileSize[%3] failed.")
                        .arg(fn, QString::number(*offset), QString::number(local.size)));

    checkStatus();
    // The host's own counter is the offset the transfer advances, so it shows progress live.
    if (!bulkTransfer(fn, Direction::Send, socket, path, path, protocol::kOpenRead, *offset,
                      local.size))
        return false;

    if (method != "false") {
        if (!recvMap(protocol::kFileVerifyResult, ack))
            return fail(QString("%1: recv FileVerifyResult failed.").arg(fn));
        if (ack.value("verifyResult") != "true")
            return fail(QString("%1: FileVerifyResult error.").arg(fn));
    }
    // The server's closing message says the file is in place; its contents do not matter.
    ParamMap complete;
    if (!recvMap(protocol::kTaskComplete, complete))
        return fail(
            QString("%1: recv %2 failed.").arg(fn, QString::number(protocol::kTaskComplete)));
    return true;
}

} // namespace VESK
