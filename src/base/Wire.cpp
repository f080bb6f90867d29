#include "Wire.h"

#include "Net.h"

#include <QDeadlineTimer>

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

// The sentence for a header that announces more than a reader takes.
QString overLimit(const FrameHeader& header, quint32 limit) {
    return QStringLiteral("message %1 announces %2 bytes, more than the limit of %3")
        .arg(header.number)
        .arg(header.length)
        .arg(limit);
}

// Bodies are read in pieces of this size (see recvFrame).
constexpr int kBodyChunkBytes = 1024 * 1024;

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

QByteArray encodeFrame(quint32 number, const QByteArray& body) {
    QByteArray frame(kHeaderBytes, Qt::Uninitialized);
    qToBigEndian<quint32>(number, frame.data());
    qToBigEndian<quint32>(quint32(body.size()), frame.data() + 4);
    frame.append(body);
    return frame;
}

bool decodeHeader(const char* bytes, FrameHeader& header, QString* error) {
    header.number = qFromBigEndian<quint32>(bytes);
    header.length = qFromBigEndian<quint32>(bytes + 4);
    if (header.length > kMaxBodyBytes) {
        setError(error, overLimit(header, kMaxBodyBytes));
        return false;
    }
    return true;
}

Decoded decodeFrame(const QByteArray& bytes, quint32& number, QByteArray& body, int& consumed,
                    QString* error) {
    if (bytes.size() < kHeaderBytes)
        return Decoded::Incomplete;
    FrameHeader header;
    if (!decodeHeader(bytes.constData(), header, error))
        return Decoded::Invalid;
    // The limit keeps the sum far below INT_MAX.
    const int frameBytes = kHeaderBytes + int(header.length);
    if (bytes.size() < frameBytes)
        return Decoded::Incomplete;
    number = header.number;
    body = bytes.mid(kHeaderBytes, int(header.length));
    consumed = frameBytes;
    return Decoded::Complete;
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
    const QByteArray frame = encodeFrame(number, body);
    return sendAll(socket, frame.constData(), frame.size(), error);
}

bool recvFrame(int socket, quint32& number, QByteArray& body, QString* error) {
    char bytes[kHeaderBytes];
    if (!recvAll(socket, bytes, sizeof bytes, error))
        return false;
    FrameHeader header;
    if (!decodeHeader(bytes, header, error))
        return false;
    number = header.number;
    // The buffer grows as the body arrives, so a peer that announces a large body and sends
    // little of it holds no more memory than it actually sent.
    body.clear();
    qint64 left = header.length;
    while (left > 0) {
        const int chunk = int(std::min<qint64>(left, kBodyChunkBytes));
        const int have = body.size();
        body.resize(have + chunk);
        if (!recvAll(socket, body.data() + have, chunk, error))
            return false;
        left -= chunk;
    }
    return true;
}

namespace {

// recvAll within what is left of `deadline`: each receive waits at most the time remaining.
// `late` tells a missed deadline from a broken connection.
bool recvAllBy(int socket, char* data, qint64 len, const QDeadlineTimer& deadline, bool* late,
               QString* error) {
    while (len > 0) {
        const qint64 left = deadline.remainingTime();
        if (left == 0) {
            *late = true;
            setError(error, QStringLiteral("the time limit was reached"));
            return false;
        }
        net::setReceiveTimeout(socket, int(std::clamp<qint64>(left, 1, 1 << 30)));
        const int n = UDT::recv(socket, data, int(std::min<qint64>(len, 1 << 30)), 0);
        if (n == UDT::ERROR || n <= 0) {
            *late = deadline.hasExpired();
            setError(error, *late ? QStringLiteral("the time limit was reached")
                                  : QStringLiteral("receive failed: %1").arg(lastUdtError()));
            return false;
        }
        data += n;
        len -= n;
    }
    return true;
}

} // namespace

Received recvFrameWithin(int socket, const QDeadlineTimer& deadline, quint32 maxBody,
                         quint32& number, QByteArray& body, QString* error) {
    bool late = false;
    Received result = Received::Frame;
    char bytes[kHeaderBytes];
    FrameHeader header;
    if (!recvAllBy(socket, bytes, sizeof bytes, deadline, &late, error)) {
        result = late ? Received::TimedOut : Received::Failed;
    } else if (!decodeHeader(bytes, header, error) || header.length > maxBody) {
        number = header.number;
        setError(error, overLimit(header, std::min(maxBody, kMaxBodyBytes)));
        result = Received::TooLong;
    } else {
        number = header.number;
        body.resize(int(header.length));
        if (!recvAllBy(socket, body.data(), header.length, deadline, &late, error))
            result = late ? Received::TimedOut : Received::Failed;
    }
    net::setReceiveTimeout(socket, -1);
    return result;
}

} // namespace wire
} // namespace VESK
