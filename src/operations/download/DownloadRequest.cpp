#include "base/Protocol.h"
#include "handler/VeskHandler2_0_0.h"

#include <QFile>
#include <QFileInfo>

namespace VESK {

namespace {

const char* const kFunction = "downloadRequest";

} // namespace

bool VeskHandler2_0_0::downloadRequest() {
    const QString function = kFunction;
    // Read once here; a stop is acted on only at the checkpoint before the transfer.
    getStatus();
    const int socket = getParam("clientSocket", "-1").toInt(nullptr, 10);
    const QString fileName = getParam("fileName", "");
    const QString destPath = getParam("destPath", "");
    // "fasle" is deliberate: only the exact word "false" turns verification off, so a client
    // without a switch verifies, and the base maps the unknown word to its default method.
    const QString bVerify = getParam("bVerify", "fasle");
    const bool verifying = bVerify != "false";
    const bool replace = getParam("bReplace", "") == "true";

    qint64* total = counterFromParam("total");
    if (!total) {
        log("error", QString("%1: get total failed.").arg(function));
        return false;
    }
    qint64* offset = counterFromParam("offset");
    if (!offset) {
        log("error", QString("%1: get offset failed.").arg(function));
        return false;
    }

    const QStringList keys = {"operator", "fileName", "srcPath",    "rootPath",
                              "userName", "appKey",   "appVersion", "bVerify"};
    ParamMap map;
    if (!collectTaskParam(function, keys, map))
        return false;

    QString destination = pathJoin(destPath, fileName);
    const bool destinationExisted = exist(destination);
    // An existing file that is neither to be replaced nor checked is taken as it is.
    if (destinationExisted && !replace && !verifying) {
        *total = QFileInfo(destination).size();
        return true;
    }
    if (destinationExisted && verifying) {
        // Lets the server answer with a second pass when it holds the same file.
        const QString value = getFileVerifyValue(destination, bVerify);
        if (value.isEmpty()) {
            log("error", QString("%1: calc FileVerifyValue failed.").arg(function));
            return false;
        }
        map.insert("verifyValue", value);
    }

    const QString mac = getParam("mac", "");
    log("info", QString("%1: local mac %2").arg(function, mac));
    setParam("mac", mac);

    QString tmpPath = generateTmpFilePath(destination);
    if (!setParam("tmpFilePath", tmpPath)) {
        log("error", QString("%1: setParam tmpFilePath %2 failed.").arg(function, tmpPath));
        return false;
    }

    // A temporary file left by an earlier attempt is resumed from its length.
    *offset = QFileInfo(tmpPath).size();
    // The stream only looks at the read bit, so both modes append: a replaced temporary file
    // keeps its old bytes.
    int mode = protocol::kOpenAppend;
    if (replace) {
        mode = protocol::kOpenReplace;
        *offset = 0;
    }

    setParam("transferBeginSize", QString::number(*offset));
    map.insert("offset", QString::number(*offset));
    if (!sendTaskParam(function, map))
        return false;

    ParamMap ack;
    if (!recvTaskParamAck(function, ack))
        return false;
    const qint64 fileSize = ack.value("fileSize", "-1").toLongLong(nullptr, 10);
    const QString serverValue = ack.value("verifyValue", "");
    const bool transfer = ack.value("bTransfer") != "false";
    if (!ackAccepted(function, ack))
        return false;

    if (ack.value("bTruncate") == "true" &&
        !dropRejectedTmpFile(function, tmpPath, *offset, fileSize))
        return false;
    *total = fileSize;

    if (!transfer) {
        log("info", QString("%1: file %2 second pass.").arg(function, destination));
        return true;
    }

    checkStatus();

    QString directory = QFileInfo(destination).path();
    if (!mkdir(directory)) {
        log("error", QString("%1: mkdir %2 failed.").arg(function, directory));
        return false;
    }

    // The counter itself is the offset, so the host watches it advance during the transfer.
    if (!bulkTransfer(function, Direction::Receive, socket, tmpPath, destination, mode, *offset,
                      fileSize))
        return false;

    if (verifying && !sendVerifyResult(function, tmpPath, bVerify, serverValue))
        return false;

    if (!placeDownloadedFile(function, tmpPath, destination, destinationExisted))
        return false;

    map.clear();
    map.insert("fileName", fileName);
    if (!sendMap(protocol::kTaskComplete, map)) {
        log("error",
            QString("%1: send %2 failed.").arg(function, QString::number(protocol::kTaskComplete)));
        return false;
    }
    return true;
}

bool VeskHandler2_0_0::sendVerifyResult(const QString& function, QString& tmpPath,
                                        const QString& method, const QString& expected) {
    // The server hears the outcome either way; a mismatching file is of no use for a resume.
    const bool matches = getFileVerifyValue(tmpPath, method) == expected;
    if (!matches)
        QFile::remove(tmpPath);
    ParamMap result;
    result.insert("verifyResult", matches ? "true" : "false");
    if (!sendMap(protocol::kFileVerifyResult, result)) {
        log("error", QString("%1: send FileVerifyResult failed.").arg(function));
        return false;
    }
    if (!matches) {
        log("error", QString("%1: FileVerify failed.").arg(function));
        return false;
    }
    return true;
}

bool VeskHandler2_0_0::dropRejectedTmpFile(const QString& function, const QString& tmpPath,
                                           qint64& offset, qint64 fileSize) {
    // The server found the resume offset outside its file and sends the whole file instead.
    log("warning",
        QString("%1: client tmp file offset[%2], server file size[%3], remove tmp file [%4].")
            .arg(function, QString::number(offset), QString::number(fileSize), tmpPath));
    if (!QFile::remove(tmpPath)) {
        log("error", QString("%1: remove tmp file %2 failed.").arg(function, tmpPath));
        return false;
    }
    offset = 0;
    return true;
}

bool VeskHandler2_0_0::placeDownloadedFile(const QString& function, const QString& tmpPath,
                                           const QString& destination, bool replaceOld) {
    // The old file goes only now that its replacement is complete and checked.
    if (replaceOld && !QFile::remove(destination)) {
        log("error", QString("%1: removeFile %2 failed.").arg(function, destination));
        return false;
    }
    if (!QFile::rename(tmpPath, destination)) {
        log("error", QString("%1: rename %2 to %3 failed.").arg(function, tmpPath, destination));
        return false;
    }
    return true;
}

} // namespace VESK
