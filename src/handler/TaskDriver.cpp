#include "VeskHandler2_0_0.h"
#include "base/Protocol.h"

#include <QDateTime>
#include <QFile>

namespace VESK {

bool VeskHandler2_0_0::process() {
    const QString endPoint = getParam("endPoint", "");
    bool result = false;
    try {
        if (endPoint == "server") {
            result = respond();
            setParam("respondStatus", result ? "success" : "failed");
        } else if (endPoint == "client") {
            result = request();
        } else {
            log("error", QString("%1: not found endPoint [%2].").arg("process", endPoint));
            return false;
        }
    } catch (const QString& signal) {
        if (signal == "return")
            return getParam("return", "") == "true";
        // "status": a pause or cancel; the outcome is recorded below with result false.
    } catch (...) {
        return false;
    }

    transfer();
    const QString status = getStatus();
    if (status.isEmpty())
        return result;
    // A stop requested after the operation finished still turns the task into a failure.
    setParamInner("_errorStr", status);
    if (status == "cancel") {
        const QString tmp = getParam("tmpFilePath", "");
        if (!tmp.isEmpty() && !QFile::remove(tmp))
            log("error", QString("%1: removeFile %2 failed.").arg("process", tmp));
    }
    return false;
}

bool VeskHandler2_0_0::request() {
    return dispatch("request", getParam("operator", ""), &VeskHandler2_0_0::uploadRequest,
                    &VeskHandler2_0_0::downloadRequest, &VeskHandler2_0_0::listRequest,
                    &VeskHandler2_0_0::createDirRequest);
}

bool VeskHandler2_0_0::respond() {
    QString text;
    if (!recv(protocol::kTaskParam, text)) {
        log("error", QString("%1: recv TaskParam failed.").arg("respond"));
        return false;
    }
    if (!setParams(unSerializeParam(text))) {
        log("error", QString("%1: TaskParam setParams failed.").arg("respond"));
        return false;
    }
    const QString op = getParam("operator", "");
    if (op == "return") {
        setParamInner("_errorStr", "return");
        setParam("return", "false");
        throw QString("return");
    }
    // For an unknown operator no TaskParamAck goes out: the client fails on its own receive.
    return dispatch("respond", op, &VeskHandler2_0_0::uploadRespond,
                    &VeskHandler2_0_0::downloadRespond, &VeskHandler2_0_0::listRespond,
                    &VeskHandler2_0_0::createDirRespond);
}

bool VeskHandler2_0_0::dispatch(const QString& function, const QString& op, Operation upload,
                                Operation download, Operation list, Operation createDir) {
    // Exact, case-sensitive names, in this order.
    if (op == "upload")
        return (this->*upload)();
    if (op == "download")
        return (this->*download)();
    if (op == "list")
        return (this->*list)();
    if (op == "createDir")
        return (this->*createDir)();
    log("error", QString("%1: not found operator [%2].").arg(function, op));
    return false;
}

void VeskHandler2_0_0::transfer() {
    setParam("endTime", QString("%1").arg(QDateTime::currentDateTime().toMSecsSinceEpoch()));
}

void VeskHandler2_0_0::checkStatus() {
    const QString status = getStatus();
    if (status.isEmpty())
        return;
    setParamInner("_errorStr", status);
    throw QString("status");
}

bool VeskHandler2_0_0::collectTaskParam(const QString& function, const QStringList& keys,
                                        ParamMap& map) {
    if (getParams(keys, map))
        return true;
    log("error", QString("%1: getParams failed.").arg(function));
    logParamDump(function, keys);
    return false;
}

void VeskHandler2_0_0::logParamDump(const QString& function, const QStringList& keys) {
    QString text;
    for (const QString& key : keys)
        text += QString("%1:[%2] ").arg(key, getParam(key, ""));
    log("error", QString("%1: params ====\n%2").arg(function, text));
}

bool VeskHandler2_0_0::sendTaskParam(const QString& function, const ParamMap& map) {
    if (sendMap(protocol::kTaskParam, map))
        return true;
    log("error", QString("%1: send TaskParam failed.").arg(function));
    return false;
}

bool VeskHandler2_0_0::recvTaskParamAck(const QString& function, ParamMap& ack) {
    if (recvMap(protocol::kTaskParamAck, ack))
        return true;
    log("error", QString("%1: recv TaskParamAck failed.").arg(function));
    return false;
}

bool VeskHandler2_0_0::ackAccepted(const QString& function, const ParamMap& ack) {
    if (ack.value("ackRespond") == "true")
        return true;
    log("error", QString("%1: TaskParam Nak.").arg(function));
    setParamInner("_errorStr", ack.value("errorType"));
    return false;
}

bool VeskHandler2_0_0::sendTaskParamAck(const QString& function, const ParamMap& ack) {
    if (sendMap(protocol::kTaskParamAck, ack))
        return true;
    log("error", QString("%1: send TaskParamAck failed.").arg(function));
    return false;
}

bool VeskHandler2_0_0::sendMap(int number, const ParamMap& map) {
    return send(number, serializeParam(map));
}

bool VeskHandler2_0_0::recvMap(int number, ParamMap& map) {
    QString text;
    if (!recv(number, text))
        return false;
    map = unSerializeParam(text);
    return true;
}

int VeskHandler2_0_0::parseMode(const QString& text) {
    // The empty default is the decimal 777 on purpose: the base reads it as "not configured".
    return text.isEmpty() ? kModeNotConfigured : text.toInt(nullptr, 8);
}

} // namespace VESK
