#include "Net.h"

#include <QThread>

#include <udt/udt.h>

#include <arpa/inet.h>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace VESK {
namespace net {

namespace {

constexpr int kMaxMss = 65000;
constexpr int kDefaultMss = 1500;
// Large buffers keep a fast link busy; UDT clamps them to what the flow window allows.
constexpr int kUdtBufferBytes = 64 * 1024 * 1024;
// The kernel caps what UDT asks for at net.core.rmem_max/wmem_max (often 4 MiB, about 64 full
// packets): a burst then overflows the receiving socket and UDT's rate control backs off for the
// rest of the transfer. A process that may (CAP_NET_ADMIN) raises it to this size. Smaller sizes
// still overflow when several connections share a busy machine and a receiving thread waits its
// turn: with 8 uploads at once on 2 cores, 32 MiB lost about 30 % of the packets and 128 MiB
// about 5 %; at 256 MiB none were lost. The memory is taken only while packets wait, and UDT's
// flow window bounds how many can.
constexpr int kUdpBufferBytes = 256 * 1024 * 1024;
constexpr int kCloseGraceMs = 20;

QString udtError() {
    return QString::fromLocal8Bit(UDT::getlasterror().getErrorMessage());
}

void setError(QString* error, const QString& text) {
    if (error)
        *error = text;
}

// An IPv4 or IPv6 address (or a name, its first address) and a port.
struct Address {
    sockaddr_storage storage{};
    socklen_t length = 0;

    int family() const { return storage.ss_family; }
    sockaddr* get() { return reinterpret_cast<sockaddr*>(&storage); }
    const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&storage); }
    void setPort(quint16 port) {
        if (family() == AF_INET6)
            reinterpret_cast<sockaddr_in6*>(&storage)->sin6_port = htons(port);
        else
            reinterpret_cast<sockaddr_in*>(&storage)->sin_port = htons(port);
    }
    quint16 port() const {
        return ntohs(family() == AF_INET6
                         ? reinterpret_cast<const sockaddr_in6*>(&storage)->sin6_port
                         : reinterpret_cast<const sockaddr_in*>(&storage)->sin_port);
    }
};

bool resolve(const QString& host, quint16 port, Address& addr, QString* error) {
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_DGRAM;
    addrinfo* result = nullptr;
    const int rc = ::getaddrinfo(host.toUtf8().constData(), nullptr, &hints, &result);
    if (rc != 0 || !result) {
        setError(error, QStringLiteral("cannot resolve %1: %2").arg(host, gai_strerror(rc)));
        return false;
    }
    std::memcpy(&addr.storage, result->ai_addr, result->ai_addrlen);
    addr.length = result->ai_addrlen;
    addr.setPort(port);
    ::freeaddrinfo(result);
    return true;
}

QString systemError() {
    return QString::fromLocal8Bit(std::strerror(errno));
}

// "1.2.3.4:PORT" or "[::1]:PORT".
QString describe(const Address& addr) {
    char text[INET6_ADDRSTRLEN] = {};
    if (addr.family() == AF_INET6) {
        ::inet_ntop(AF_INET6, &reinterpret_cast<const sockaddr_in6*>(&addr.storage)->sin6_addr,
                    text, sizeof text);
        return QStringLiteral("[%1]:%2").arg(QString::fromLatin1(text)).arg(addr.port());
    }
    ::inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in*>(&addr.storage)->sin_addr, text,
                sizeof text);
    return QStringLiteral("%1:%2").arg(QString::fromLatin1(text)).arg(addr.port());
}

} // namespace

void ensureStarted() {
    static std::once_flag once;
    std::call_once(once, [] {
        UDT::startup();
        // Registered after UDT's own globals exist, so it runs before they are destroyed: UDT's
        // collector thread must be stopped first, or it races their destruction at exit.
        std::atexit([] { UDT::cleanup(); });
    });
}

int pathMss(const QString& host, quint16 port) {
    Address addr;
    if (!resolve(host, port == 0 ? 9 : port, addr, nullptr))
        return kDefaultMss;
    const int fd = ::socket(addr.family(), SOCK_DGRAM, 0);
    if (fd < 0)
        return kDefaultMss;
    int mtu = kDefaultMss;
    socklen_t len = sizeof mtu;
    const bool v6 = addr.family() == AF_INET6;
    if (::connect(fd, addr.get(), addr.length) != 0 ||
        ::getsockopt(fd, v6 ? IPPROTO_IPV6 : IPPROTO_IP, v6 ? IPV6_MTU : IP_MTU, &mtu, &len) != 0)
        mtu = kDefaultMss;
    ::close(fd);
    return std::min(mtu, kMaxMss);
}

bool applyOptions(int socket, int mss, QString* error) {
    const linger noLinger{0, 0};
    const bool ok =
        UDT::setsockopt(socket, 0, UDT_LINGER, &noLinger, sizeof noLinger) != UDT::ERROR &&
        UDT::setsockopt(socket, 0, UDT_MSS, &mss, sizeof mss) != UDT::ERROR &&
        UDT::setsockopt(socket, 0, UDT_SNDBUF, &kUdtBufferBytes, sizeof(int)) != UDT::ERROR &&
        UDT::setsockopt(socket, 0, UDT_RCVBUF, &kUdtBufferBytes, sizeof(int)) != UDT::ERROR &&
        UDT::setsockopt(socket, 0, UDP_SNDBUF, &kUdpBufferBytes, sizeof(int)) != UDT::ERROR &&
        UDT::setsockopt(socket, 0, UDP_RCVBUF, &kUdpBufferBytes, sizeof(int)) != UDT::ERROR;
    if (!ok)
        setError(error, QStringLiteral("cannot set socket options: %1").arg(udtError()));
    return ok;
}

namespace {

// Binds the UDT socket to a UDP socket of our own at `local`, so that its buffers can be raised
// past the kernel's limits where the process is allowed to; UDT owns (and closes) it afterwards.
// On failure `reason` says why.
bool bindOwnUdpSocket(int socket, const Address& local, QString& reason) {
    const int udp = ::socket(local.family(), SOCK_DGRAM, 0);
    if (udp < 0) {
        reason = systemError();
        return false;
    }
    if (::bind(udp, local.get(), local.length) != 0) {
        reason = systemError();
        ::close(udp);
        return false;
    }
    if (UDT::bind2(socket, udp) == UDT::ERROR) {
        reason = udtError();
        ::close(udp);
        return false;
    }
    // UDT has just set the sizes the kernel allows everyone; without the privilege these calls
    // fail and those sizes stay.
    ::setsockopt(udp, SOL_SOCKET, SO_RCVBUFFORCE, &kUdpBufferBytes, sizeof kUdpBufferBytes);
    ::setsockopt(udp, SOL_SOCKET, SO_SNDBUFFORCE, &kUdpBufferBytes, sizeof kUdpBufferBytes);
    return true;
}

// UDT files a newly connected socket for incoming data only when its receiving thread next comes
// round (on the next datagram or its timer); a reply that arrives first is dropped, and the resend
// after a timeout leaves UDT's rate control crawling (a few packets a second) for seconds. An
// empty datagram to our own port brings that thread round now, ahead of any reply.
void wakeReceiver(int socket) {
    Address self;
    int len = sizeof self.storage;
    if (UDT::getsockname(socket, self.get(), &len) == UDT::ERROR)
        return;
    self.length = socklen_t(len);
    if (self.family() == AF_INET6)
        reinterpret_cast<sockaddr_in6*>(&self.storage)->sin6_addr = in6addr_loopback;
    else
        reinterpret_cast<sockaddr_in*>(&self.storage)->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const int udp = ::socket(self.family(), SOCK_DGRAM, 0);
    if (udp < 0)
        return;
    ::sendto(udp, "", 0, 0, self.get(), self.length);
    ::close(udp);
}

// A new stream socket with the transfer options for host:port, or -1 with `error` set.
int newSocket(const QString& host, quint16 port, Address& addr, QString* error) {
    ensureStarted();
    if (!resolve(host, port, addr, error))
        return -1;
    Socket socket(UDT::socket(addr.family(), SOCK_STREAM, 0));
    if (socket.get() == UDT::INVALID_SOCK) {
        socket.release();
        setError(error, QStringLiteral("cannot create a socket: %1").arg(udtError()));
        return -1;
    }
    if (!applyOptions(socket.get(), pathMss(host, port), error))
        return -1;
    return socket.release();
}

} // namespace

int connectTo(const QString& host, quint16 port, QString* error) {
    Address addr;
    Socket socket(newSocket(host, port, addr, error));
    if (!socket.valid())
        return -1;
    // The wildcard address of the peer's family, any port.
    Address any;
    any.storage.ss_family = addr.family();
    any.length = addr.length;
    QString reason;
    if (!bindOwnUdpSocket(socket.get(), any, reason) ||
        UDT::connect(socket.get(), addr.get(), addr.length) == UDT::ERROR) {
        if (reason.isEmpty())
            reason = udtError();
        setError(error, QStringLiteral("cannot reach %1:%2 (%3)").arg(host).arg(port).arg(reason));
        return -1;
    }
    wakeReceiver(socket.get());
    return socket.release();
}

int listenOn(const QString& host, quint16 port, quint16* boundPort, QString* error) {
    Address addr;
    Socket socket(newSocket(host, port, addr, error));
    if (!socket.valid())
        return -1;
    QString reason;
    if (!bindOwnUdpSocket(socket.get(), addr, reason) ||
        UDT::listen(socket.get(), 128) == UDT::ERROR) {
        if (reason.isEmpty())
            reason = udtError();
        setError(error,
                 QStringLiteral("cannot listen on %1:%2 (%3)").arg(host).arg(port).arg(reason));
        return -1;
    }
    if (boundPort) {
        Address bound;
        int len = sizeof bound.storage;
        UDT::getsockname(socket.get(), bound.get(), &len);
        *boundPort = bound.port();
    }
    return socket.release();
}

int acceptOn(int listener, QString* peer, QString* error) {
    Address addr;
    int len = sizeof addr.storage;
    const int s = UDT::accept(listener, addr.get(), &len);
    if (s == UDT::INVALID_SOCK) {
        setError(error, QStringLiteral("accept failed: %1").arg(udtError()));
        return -1;
    }
    if (peer)
        *peer = describe(addr);
    return s;
}

bool setReceiveTimeout(int socket, int ms) {
    return UDT::setsockopt(socket, 0, UDT_RCVTIMEO, &ms, sizeof ms) != UDT::ERROR;
}

bool limitSendRate(int socket, qint64 bytesPerSecond) {
    // UDT reads a 64-bit value; -1 is its "no cap".
    const int64_t cap = bytesPerSecond > 0 ? bytesPerSecond : -1;
    return UDT::setsockopt(socket, 0, UDT_MAXBW, &cap, sizeof cap) != UDT::ERROR;
}

void drainAndClose(int socket, int timeoutMs) {
    if (socket < 0)
        return;
    // UDT acknowledges a lone small message only after a few hundred milliseconds, so waiting
    // for the acknowledgement is slow; a peer that has hung up already had everything it needed.
    for (int waited = 0; waited < timeoutMs; waited += 5) {
        int pending = 0;
        int len = sizeof pending;
        if (UDT::getsockstate(socket) != CONNECTED ||
            UDT::getsockopt(socket, 0, UDT_SNDDATA, &pending, &len) == UDT::ERROR || pending == 0)
            break;
        QThread::msleep(5);
    }
    // A peer whose last packet we have not acknowledged yet can miss our close (seen in about
    // one close in ten on loopback) and would then wait for UDT's keep-alive timeout, tens of
    // seconds. A short grace lets the acknowledgement go out first.
    if (UDT::getsockstate(socket) == CONNECTED)
        QThread::msleep(kCloseGraceMs);
    UDT::close(socket);
}

Socket& Socket::operator=(Socket&& other) noexcept {
    if (this != &other)
        reset(other.release());
    return *this;
}

int Socket::release() {
    const int s = m_socket;
    m_socket = -1;
    return s;
}

void Socket::reset(int socket) {
    if (m_socket >= 0)
        drainAndClose(m_socket);
    m_socket = socket;
}

} // namespace net
} // namespace VESK
