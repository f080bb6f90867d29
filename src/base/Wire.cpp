#include "Wire.h"

#include <QtEndian>

#include <udt/udt.h>

#include <algorithm>

namespace VESK {
namespace wire {

namespace {

void setError(QString* error, const QString& text) {
    if (error)
        *error = text;
}

QString lastUdtError() {
    return QString::fromLocal8Bit(UDT::getlasterror().getErrorMessage());
}

} // namespace

namespace {

// Moves exactly `len` bytes with UDT::send or UDT::recv, which may move only part of a request.
template <typename Move, typename Buffer>
bool moveAll(Move move, const char* verb, int socket, Buffer data, qint64 len, QString* error) {
    while (len > 0) {
        const int chunk = int(std::min<qint64>(len, 1 << 30));
        const int n = move(socket, data, chunk, 0);
        if (n == UDT::ERROR || n <= 0) {
            setError(error, QStringLiteral("%1 failed: %2").arg(verb, lastUdtError()));
            return false;
        }
        data += n;
        len -= n;
    }
    return true;
}

} // namespace

bool sendAll(int socket, const char* data, qint64 len, QString* error) {
    return moveAll(UDT::send, "send", socket, data, len, error);
}

bool recvAll(int socket, char* data, qint64 len, QString* error) {
    return moveAll(UDT::recv, "receive", socket, data, len, error);
}

bool sendFrame(int socket, quint32 number, const QByteArray& body, QString* error) {
    if (quint32(body.size()) > kMaxBodyBytes) {
        setError(error, QStringLiteral("message %1 is %2 bytes, more than the limit of %3")
                            .arg(number)
                            .arg(body.size())
                            .arg(kMaxBodyBytes));
        return false;
    }
    // Header and body go out in one send so that a small message is one packet.
    QByteArray frame(8, Qt::Uninitialized);
    qToBigEndian<quint32>(number, frame.data());
    qToBigEndian<quint32>(quint32(body.size()), frame.data() + 4);
    frame.append(body);
    return sendAll(socket, frame.constData(), frame.size(), error);
}

bool recvFrame(int socket, quint32& number, QByteArray& body, QString* error) {
    char header[8];
    if (!recvAll(socket, header, sizeof header, error))
        return false;
    number = qFromBigEndian<quint32>(header);
    const quint32 length = qFromBigEndian<quint32>(header + 4);
    if (length > kMaxBodyBytes) {
        setError(error, QStringLiteral("message %1 announces %2 bytes, more than the limit of %3")
                            .arg(number)
                            .arg(length)
                            .arg(kMaxBodyBytes));
        return false;
    }
    body.resize(int(length));
    return recvAll(socket, body.data(), length, error);
}

} // namespace wire
} // namespace VESK
