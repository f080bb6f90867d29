#pragma once

// Framing of control messages on a UDT stream socket. Every message is
//   uint32 big-endian number | uint32 big-endian body length | body
// The handler's send/recv and the host's own hello use the same two functions.

#include <QByteArray>
#include <QDeadlineTimer>
#include <QString>

namespace VESK {
namespace wire {

// The largest body a peer may announce; anything longer ends the connection.
constexpr quint32 kMaxBodyBytes = 16u * 1024u * 1024u;
constexpr int kHeaderBytes = 8;

// ---- Pure encoding and decoding (no socket) ----

struct FrameHeader {
    quint32 number = 0;
    quint32 length = 0;
};

// Header and body as they go on the wire; `body` must not be over the limit.
QByteArray encodeFrame(quint32 number, const QByteArray& body);

// Reads the kHeaderBytes bytes at `bytes`. False, with `error` set, when the announced length is
// over the limit: such a peer is not followed any further.
bool decodeHeader(const char* bytes, FrameHeader& header, QString* error = nullptr);

enum class Decoded {
    Complete,   // one whole frame was taken from the front of the input
    Incomplete, // the input ends inside the frame; more bytes are needed
    Invalid,    // the header announces too much; the stream is of no further use
};

// Takes one frame from the front of `bytes`: its number, its body, and how many input bytes it
// used (`consumed`, set only for a complete frame).
Decoded decodeFrame(const QByteArray& bytes, quint32& number, QByteArray& body, int& consumed,
                    QString* error = nullptr);

// ---- On a UDT socket ----

// Writes the whole of `len` bytes, looping over partial sends.
bool sendAll(int socket, const char* data, qint64 len, QString* error = nullptr);
// Reads exactly `len` bytes, looping over partial receives.
bool recvAll(int socket, char* data, qint64 len, QString* error = nullptr);

bool sendFrame(int socket, quint32 number, const QByteArray& body, QString* error = nullptr);
// Reads one frame of any number. Fails on a transport error or an over-long length; the body of
// such a frame is not read, so the connection is of no further use afterwards.
bool recvFrame(int socket, quint32& number, QByteArray& body, QString* error = nullptr);
enum class Received {
    Frame,    // a whole frame arrived in time
    TooLong,  // its header announced more than the caller accepts; the body was not read
    TimedOut, // the whole frame did not arrive in time
    Failed,   // the connection broke
};

// Reads one frame of any number whose body is at most `maxBody` bytes, all of it before
// `deadline` (a limit on the whole frame, not on each read, so a peer that trickles a byte at a
// time cannot hold the reader; one deadline may also span several frames). The body of a frame
// over the limit is not read. The socket waits without limit again afterwards.
Received recvFrameWithin(int socket, const QDeadlineTimer& deadline, quint32 maxBody,
                         quint32& number, QByteArray& body, QString* error = nullptr);

} // namespace wire
} // namespace VESK
