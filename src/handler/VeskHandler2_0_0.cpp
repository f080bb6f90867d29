#include "VeskHandler2_0_0.h"

#include <QFile>
#include <QMutexLocker>

namespace VESK {

VeskHandler2_0_0::VeskHandler2_0_0() {
    m_inner.insert("_protocol", "VESK");
    m_inner.insert("_version", "2.0.0");

    // Every key the protocol knows exists from the start, empty. "offset" is inserted twice on
    // purpose: the registry keeps the protocol's own order, which lists it twice.
    static const char* const registry[] = {"offset",
                                           "total",
                                           "fileMod",
                                           "dirMod",
                                           "appPath",
                                           "logFile",
                                           "transtat-rec",
                                           "endPoint",
                                           "operator",
                                           "clientSocket",
                                           "serverSocket",
                                           "fileName",
                                           "srcPath",
                                           "destPath",
                                           "rootPath",
                                           "userName",
                                           "appKey",
                                           "appVersion",
                                           "bVerify",
                                           "bReplace",
                                           "fileSize",
                                           "offset",
                                           "verifyValue",
                                           "mountPath",
                                           "tmpFilePath",
                                           "return",
                                           "respondStatus",
                                           "beginTime",
                                           "endTime",
                                           "transferBeginSize",
                                           "transferEndSize",
                                           "clientIp",
                                           "clientPort",
                                           "path",
                                           "mac",
                                           "mtime"};
    for (const char* key : registry)
        m_params.insert(QString::fromLatin1(key), QString());
}

// The stream and the file object are released by destroyStream(), never here.
VeskHandler2_0_0::~VeskHandler2_0_0() = default;

QString VeskHandler2_0_0::getKey() {
    return getParamInner("_protocol", "") + "-" + getParamInner("_version", "");
}

QString VeskHandler2_0_0::getLastError() {
    return getParamInner("_errorStr", "");
}

QString VeskHandler2_0_0::getStatus() {
    QMutexLocker lock(&m_streamLock);
    return m_status;
}

void VeskHandler2_0_0::setStatus(const QString& text) {
    QMutexLocker lock(&m_streamLock);
    m_status = text;
}

} // namespace VESK
