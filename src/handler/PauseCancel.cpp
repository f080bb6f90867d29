#include "VeskHandler2_0_0.h"

#include <QMutexLocker>

#include <udt/udt.h>

namespace VESK {

bool VeskHandler2_0_0::pause() {
    return requestStop("pause");
}

bool VeskHandler2_0_0::cancel() {
    return requestStop("cancel");
}

bool VeskHandler2_0_0::requestStop(const QString& word) {
    // Held across the close so that it cannot interleave with opening or closing the stream.
    QMutexLocker lock(&m_streamLock);
    m_status = word;
    clearActive();
    const QString endPoint = getParam("endPoint", "");
    const QString op = getParam("operator", "");
    Q_UNUSED(op)
    // A non-numeric value converts to 0, not -1: only a missing key counts as "no socket".
    const int socket = getParam(endPoint + "Socket", "-1").toInt(nullptr, 10);
    if (socket == -1) {
        log("error", QString("%1: localSocket get failed.").arg(word));
        return false;
    }
    // Closing the server's socket makes a transfer blocked in UDT return at once; the client's
    // socket belongs to its host, and its worker stops at the next checkpoint.
    if (endPoint == "server")
        UDT::close(socket);
    return true;
}

} // namespace VESK
