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

bool sendAll(int socket, const char* data, qint64 len, QString* error) {
    // UDT::send takes an int length and may write only part of it.
    while (len > 0) {
        const int chunk = int(std::min<qint64>(len, 1 << 30));
        const int n = UDT::send(socket, data, chunk, 0);
        if (n == UDT::ERROR || n <= 0) {
            setError(error, QStringLiteral("send failed: %1").arg(lastUdtError()));
            return false;
        }
        data += n;
        len -= n;
    }
    return true;
}

bool recvAll(int socket, char* data, qint64 len, QString* error) {
    while (len > 0) {
        const int chunk = int(std::min<qint64>(len, 1 << 30));
        const int n = UDT::recv(socket, data, chunk, 0);
        if (n == UDT::ERROR || n <= 0) {
            setError(error, QStringLiteral("receive failed: %1").arg(lastUdtError()));
            return false;
        }
        data += n;
        len -= n;
    }
    return true;
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
