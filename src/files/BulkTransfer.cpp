#include "base/Verify.h"
#include "handler/VeskHandler2_0_0.h"

#include <QFileInfo>

#include <memory>
#include <udt/udt.h>

namespace VESK {

namespace {

// Fixed per direction: the receiver takes twenty send blocks per call.
constexpr int kSendBlockBytes = 364000;
constexpr int kRecvBlockBytes = 7280000;

} // namespace

qint64* VeskHandler2_0_0::counterFromParam(const QString& key) {
    // The host passes the address of its own 64-bit counter as decimal text.
    return reinterpret_cast<qint64*>(getParam(key, "0").toULongLong(nullptr, 10));
}

bool VeskHandler2_0_0::bulkTransfer(const QString& function, Direction direction, int socket,
                                    QString& streamPath, const QString& logPath, int mode,
                                    qint64& offset, qint64 size) {
    if (!createStream(streamPath, mode)) {
        log("error", QString("%1: createStream %2 failed.").arg(function, logPath));
        return false;
    }
    std::fstream* stream = getStream();
    if (!stream) {
        log("error", QString("%1: getStream %2 failed.").arg(function, logPath));
        return false;
    }

    // A new file received from its start gets its verify value from the bytes on their way to
    // it, so that the verification after the transfer need not read the whole file back.
    std::unique_ptr<verify::ValueTee> tee;
    const QString method = getParam("bVerify", "false");
    if (direction == Direction::Receive && method != "false" && offset == 0 &&
        QFileInfo(streamPath).size() == 0) {
        std::ios& ios = *stream;
        tee = std::make_unique<verify::ValueTee>(ios.rdbuf(), method);
        if (tee->value().active()) // not for "fileattr", which reads no contents
            ios.rdbuf(tee.get());
        else
            tee.reset();
    }

    // One library call moves the whole rest of the file; `offset` advances as it goes, so a
    // host-owned counter passed here shows progress while the call runs.
    int64_t position = offset;
    int64_t* cursor = reinterpret_cast<int64_t*>(&offset);
    static_assert(sizeof(int64_t) == sizeof(qint64), "counters are 64-bit");
    const int64_t result =
        direction == Direction::Send
            ? UDT::sendfile(socket, *stream, *cursor, size - position, kSendBlockBytes)
            : UDT::recvfile(socket, *stream, *cursor, size - position, kRecvBlockBytes);

    setParam("transferEndSize", QString::number(offset));
    if (tee)
        static_cast<std::ios&>(*stream).rdbuf(tee->target());
    destroyStream();
    if (tee && result != int64_t(UDT::ERROR))
        tee->value().keep(streamPath);

    if (result == int64_t(UDT::ERROR)) {
        // A pause or cancel closed the socket: that is a stop, not a transport failure.
        checkStatus();
        const char* text = direction == Direction::Send ? "%1: sendfile %2 failed.\n%3"
                                                        : "%1: recvfile %2 failed.\n%3";
        log("error",
            QString(text).arg(function, logPath,
                              QString::fromLocal8Bit(UDT::getlasterror().getErrorMessage())));
        return false;
    }
    // The byte count is not compared with `size`: only verification can catch a short transfer.
    return true;
}

} // namespace VESK
