#pragma once

// UDT socket set-up shared by the host and the tests, so that both run with the same options:
// zero linger (a pause or cancel that closes the socket stops a transfer at once), the path MTU
// as UDT's packet size, buffers and flow window for a long fast link, the congestion control,
// and a drain of unsent data before the close.

#include "Congestion.h"

#include <QString>

namespace VESK {
namespace net {

// UDT::startup() once per process; safe to call from anywhere, any number of times.
void ensureStarted();

// Data a connection can have unacknowledged, and so what its buffers and flow window hold:
// 1 Gbit/s for a second and a half. UDT acknowledges cumulatively, so behind a lost packet
// everything sent stays in both ends' buffers until the resend arrives; on a lossy 200 ms path a
// resend that is lost too keeps a hole open for three round trips or more on top of the path's
// own. The buffers take memory as data fills them (only an index of a pointer per packet is
// allocated up front) and keep it until the connection closes.
constexpr int kWindowBytes = 192 * 1024 * 1024;

// The packet size for a peer: the path MTU read from a connected UDP socket, at most 65000.
int pathMss(const QString& host, quint16 port);

// The packet size for a listener on `host`: the MTU of the interface that holds the address;
// for the wildcard address the largest MTU of the machine's other interfaces than loopback
// (loopback's when it has none). A peer with smaller packets lowers it for its connection.
int listenerMss(const QString& host);

// UDT counts its buffers and flow window in packets of the size set when they are set.
struct WindowPlan {
    int packets;     // flow window and buffers, in packets
    int bufferBytes; // what to give UDT_SNDBUF and UDT_RCVBUF for that many packets
};
WindowPlan windowFor(int mss);

// The congestion control of the sockets this process opens from now on (default Vesk).
void setCongestion(Congestion congestion);
Congestion congestion();

// Options set before bind/connect.
bool applyOptions(int socket, int mss, QString* error = nullptr);

// A sentence for the user when the kernel kept this process's UDP buffers below what a long
// fast link needs (no CAP_NET_ADMIN and low net.core.rmem_max/wmem_max), else "". Meaningful
// once a socket has been bound.
QString bufferNote();
// The same check for buffers of `grantedBytes` (what the kernel reports, twice the usable size).
QString bufferNoteFor(qint64 grantedBytes);

// A blocking stream socket connected to host:port, or -1 with `error` set.
int connectTo(const QString& host, quint16 port, QString* error = nullptr);

// A listening socket on host:port (port 0 picks a free one; `boundPort` reports it). Its
// connections use packets of `mss` bytes at most, or, with 0, of the size the route to the
// listening address allows.
int listenOn(const QString& host, quint16 port, quint16* boundPort = nullptr,
             QString* error = nullptr, int mss = 0);

// Accepts one connection; -1 with `error` set when the listener fails or was closed.
int acceptOn(int listener, QString* peer = nullptr, QString* error = nullptr);

// Bounds each receive on `socket` to `ms` milliseconds; -1 waits without limit (UDT's default).
bool setReceiveTimeout(int socket, int ms);

// Caps what `socket` sends at `bytesPerSecond` (0 or less: no cap). UDT paces its packets to the
// cap, so a transfer leaves room on a shared link instead of filling it.
bool limitSendRate(int socket, qint64 bytesPerSecond);

// Waits (at most `timeoutMs`) until the socket has no unsent data, then closes it. With zero
// linger this is what keeps the last control message from being cut off.
void drainAndClose(int socket, int timeoutMs = 5000);

// Waits (at most `timeoutMs`) until the peer has closed the connection; false when it has not.
bool waitForPeerClose(int socket, int timeoutMs);

// Owns one UDT socket and closes it (after draining) when it goes out of scope.
class Socket {
public:
    Socket() = default;
    explicit Socket(int socket)
        : m_socket(socket) {}
    ~Socket() { reset(); }
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;
    Socket(Socket&& other) noexcept
        : m_socket(other.release()) {}
    Socket& operator=(Socket&& other) noexcept;

    int get() const { return m_socket; }
    bool valid() const { return m_socket >= 0; }
    int release();
    void reset(int socket = -1);

private:
    int m_socket = -1;
};

} // namespace net
} // namespace VESK
