#pragma once

// Framing of control messages on a UDT stream socket. Every message is
//   uint32 big-endian number | uint32 big-endian body length | body
// The handler's send/recv and the host's own hello use the same two functions.

#include <QByteArray>
#include <QString>

namespace VESK {
namespace wire {

// The largest body a peer may announce; anything longer ends the connection.
constexpr quint32 kMaxBodyBytes = 16u * 1024u * 1024u;

// Writes the whole of `len` bytes, looping over partial sends.
bool sendAll(int socket, const char* data, qint64 len, QString* error = nullptr);
// Reads exactly `len` bytes, looping over partial receives.
bool recvAll(int socket, char* data, qint64 len, QString* error = nullptr);

bool sendFrame(int socket, quint32 number, const QByteArray& body, QString* error = nullptr);
// Reads one frame of any number. Fails on a transport error or an over-long length; the body of
// such a frame is not read, so the connection is of no further use afterwards.
bool recvFrame(int socket, quint32& number, QByteArray& body, QString* error = nullptr);

} // namespace wire
} // namespace VESK
