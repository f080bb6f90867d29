#include "base/Protocol.h"
#include "handler/VeskHandler2_0_0.h"
#include "operations/upload/UploadTime.h"

#include <QFile>
#include <QFileInfo>

namespace VESK {

namespace {

// Whether the data has to move, given what the destination already holds. Without a method an
// existing file is kept unless the client asks to replace it; with one, an identical file is
// always kept and a different one always replaced. "fileattr" also compares the mtime unless
// the client gave none.
bool needsTransfer(bool existed, bool replace, const QString& method, qint64 clientMtime,
                   const QString& clientValue, const QString& serverValue, qint64 serverMtime) {
    if (existed && !replace && method == "false")
        return false;
    if (!existed || method == "false")
        return true;
    const bool sameValue = serverValue == clientValue;
    if (method == "fileattr" && clientMtime != -1)
        return !(clientMtime == serverMtime && sameValue);
    return !sameValue;
}

} // namespace

bool VeskHandler2_0_0::uploadRespond() {
    const QString fn = "uploadRespond";
    // Every failure is logged at "error" and ends the upload.
    const auto fail = [this](const QString& message) {
        log("error", message);
        return false;
    };
    const int socket = getParam("serverSocket", "-1").toInt();
    const QString fileName = getParam("fileName", "");
    const QString destPath = getParam("destPath", "");
    // "userName" and "appVersion" travel with the task but do not affect where the file lands;
    // "mountPath", "appKey" and "rootPath" are resolved by resolveAppRoot.
    const int fileMod = parseMode(getParam("fileMod", ""));
    const int dirMod = parseMode(getParam("dirMod", ""));
    const QString method = getParam("bVerify", "false");
    const bool replace = getParam("bReplace", "") == "true";
    const qint64 fileSize = getParam("fileSize", "-1").toLongLong();
    const qint64 mtime = getParam("mtime", "-1").toLongLong();
    const QString clientValue = method != "false" ? getParam("verifyValue", "") : QString();

    QString root;
    if (!resolveAppRoot(fn, root))
        return false;
    QString dest = pathJoin(pathJoin(root, destPath), fileName);
    QString destDir = QFileInfo(dest).path();
    log("info", QString("%1: %2 ...").arg(fn, dest));

    // Taken once, before anything is written: it decides the second pass and the final removal.
    const bool existed = exist(dest);
    // The destination's verify value is computed only when a method is set and there is a file.
    QString serverValue;
    qint64 serverMtime = 0;
    if (existed && method != "false") {
        serverValue = getFileVerifyValue(dest, method);
        serverMtime = unsignedSeconds(QFileInfo(dest).lastModified());
    }
    const bool transfer =
        needsTransfer(existed, replace, method, mtime, clientValue, serverValue, serverMtime);
    setParam("path", dest);
    const QString mac = getParam("mac", "");
    log("info", QString("%1: recv mac: %2").arg(fn, mac));
    setParam("mac", mac);

    QString tmp = generateTmpFilePath(dest);
    if (!setParam("tmpFilePath", tmp))
        return fail(QString("%1: setParam tmpFilePath %2 failed.").arg(fn, tmp));
    // The partial file of an earlier attempt is the resume point, unless the client replaces.
    qint64 offset = QFileInfo(tmp).size();
    // Both open the temporary file for appending; the truncate bit of the replace mode is not
    // looked at, so a replace still writes after whatever an earlier attempt left there.
    const int openMode = replace ? protocol::kOpenReplace : protocol::kOpenAppend;
    if (replace)
        offset = 0;
    setParam("transferBeginSize", QString::number(offset));
    if (offset < 0 || offset > fileSize) {
        log("warning", QString("%1: server tmp offset[%2], client fileSize[%3].")
                           .arg(fn, QString::number(offset), QString::number(fileSize)));
        if (!QFile::remove(tmp))
            return fail(QString("%1: remove tmp file %2 failed.").arg(fn, tmp));
        offset = 0;
    }

    ParamMap ack;
    ack.insert("ackRespond", "true");
    ack.insert("bTransfer", transfer ? "true" : "false");
    ack.insert("offset", QString::number(offset));
    if (!sendTaskParamAck(fn, ack))
        return false;
    if (!transfer) {
        log("info", QString("%1: file %2 second pass.").arg(fn, dest));
        UpdateMtime(dest, fn, mtime);
        return true;
    }

    checkStatus();
    if (!mkdir(destDir))
        return fail(QString("%1: mkdir %2 failed.").arg(fn, destDir));
    if (!chmodRecursively(root, destDir, dirMod))
        return fail(QString("%1: chmodRecursively %2 failed.").arg(fn, destDir));
    // Failures name the destination, which is what the client asked for, not the hidden file.
    if (!bulkTransfer(fn, Direction::Receive, socket, tmp, dest, openMode, offset, fileSize))
        return false;

    if (method != "false") {
        const bool same = getFileVerifyValue(tmp, method) == clientValue;
        ack.insert("verifyResult", same ? "true" : "false");
        // A file that does not match is of no use for resuming either.
        if (!same)
            QFile::remove(tmp);
        if (!sendMap(protocol::kFileVerifyResult, ack))
            return fail(QString("%1: send FileVerifyResult failed.").arg(fn));
        if (!same)
            return fail(QString("%1: FileVerify failed.").arg(fn));
    }

    // The earlier version goes only now that the new data is complete and verified.
    if (existed && !QFile::remove(dest))
        return fail(QString("%1: removeFile %2 failed.").arg(fn, dest));
    if (!chmod(tmp, fileMod))
        return fail(QString("%1: chmod %2 failed.").arg(fn, tmp));
    if (!QFile::rename(tmp, dest))
        return fail(QString("%1: rename %2 to %3 failed.").arg(fn, tmp, dest));
    UpdateMtime(dest, fn, mtime);
    ack.insert("fileName", fileName);
    if (!sendMap(protocol::kTaskComplete, ack))
        return fail(
            QString("%1: send %2 failed.").arg(fn, QString::number(protocol::kTaskComplete)));
    return true;
}

} // namespace VESK
