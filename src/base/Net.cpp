#include "Net.h"

#include <QByteArray>
#include <QMap>
#include <QPair>
#include <QThread>

#include <udt/udt.h>

#include <arpa/inet.h>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <ifaddrs.h>
#include <mutex>
#include <net/if.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace VESK {
namespace net {

namespace {

constexpr int kMaxMss = 65000;
constexpr int kDefaultMss = 1500;
// IP and UDP headers, which UDT's packet size includes.
constexpr int kUdpIpHeaderBytes = 28;
// The kernel caps what UDT asks for at net.core.rmem_max/wmem_max (often 4 MiB, about 64 full
// packets): a burst then overflows the receiving socket and UDT's rate control backs off for the
// rest of the transfer. A process that may (CAP_NET_ADMIN) raises it to this size. Smaller sizes
// still overflow when several connections share a busy machine and a receiving thread waits its
// turn: with 8 uploads at once on 2 cores, 32 MiB lost about 30 % of the packets and 128 MiB
// about 5 %; at 256 MiB none were lost. The memory is taken only while packets wait, and UDT's
// flow window bounds how many can.
constexpr int kUdpBufferBytes = 256 * 1024 * 1024;
// Below this the note of bufferNote() is due: a receiving thread that waits its turn for 100 ms
// on a 1 Gbit/s link has 12 MB queued, and several connections share the machine.
constexpr qint64 kUdpBufferWantedBytes = 64 * 1024 * 1024;
constexpr int kCloseGraceMs = 20;

std::atomic<Congestion> g_congestion{Congestion::Vesk};
// The smallest UDP buffer the kernel granted a socket of this process, as it reports it; -1
// before the first.
std::atomic<qint64> g_grantedUdpBuffer{-1};

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

// The address without its port, as text.
QString hostOf(const Address& addr) {
    char text[INET6_ADDRSTRLEN] = {};
    if (addr.family() == AF_INET6)
        ::inet_ntop(AF_INET6, &reinterpret_cast<const sockaddr_in6*>(&addr.storage)->sin6_addr,
                    text, sizeof text);
    else
        ::inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in*>(&addr.storage)->sin_addr, text,
                    sizeof text);
    return QString::fromLatin1(text);
}

// "1.2.3.4:PORT" or "[::1]:PORT".
QString describe(const Address& addr) {
    if (addr.family() == AF_INET6)
        return QStringLiteral("[%1]:%2").arg(hostOf(addr)).arg(addr.port());
    return QStringLiteral("%1:%2").arg(hostOf(addr)).arg(addr.port());
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

namespace {

// MTU of the interface `name`, or 0.
int interfaceMtu(const char* name) {
    const int fd = ::socket(AF_INET, SOCK_DGRAM, 0);
    if (fd < 0)
        return 0;
    ifreq request{};
    std::strncpy(request.ifr_name, name, IFNAMSIZ - 1);
    const int mtu = ::ioctl(fd, SIOCGIFMTU, &request) == 0 ? request.ifr_mtu : 0;
    ::close(fd);
    return mtu;
}

void noteGrantedBuffer(int udp) {
    int rcv = 0, snd = 0;
    socklen_t len = sizeof rcv;
    if (::getsockopt(udp, SOL_SOCKET, SO_RCVBUF, &rcv, &len) != 0)
        return;
    len = sizeof snd;
    if (::getsockopt(udp, SOL_SOCKET, SO_SNDBUF, &snd, &len) != 0)
        return;
    const qint64 granted = std::min(rcv, snd);
    qint64 seen = g_grantedUdpBuffer.load();
    while ((seen < 0 || granted < seen) &&
           !g_grantedUdpBuffer.compare_exchange_weak(seen, granted)) {
    }
}

} // namespace

namespace {

// The address bytes of an IPv4 or IPv6 socket address, to compare two of one family.
QByteArray addressBytes(const sockaddr* address) {
    if (address->sa_family == AF_INET6) {
        const auto* in6 = reinterpret_cast<const sockaddr_in6*>(address);
        return QByteArray(reinterpret_cast<const char*>(&in6->sin6_addr), sizeof in6->sin6_addr);
    }
    const auto* in = reinterpret_cast<const sockaddr_in*>(address);
    return QByteArray(reinterpret_cast<const char*>(&in->sin_addr), sizeof in->sin_addr);
}

} // namespace

int listenerMss(const QString& host) {
    Address addr;
    if (!resolve(host, 0, addr, nullptr))
        return kDefaultMss;
    ifaddrs* list = nullptr;
    if (::getifaddrs(&list) != 0)
        return kDefaultMss;
    const QByteArray own = addressBytes(addr.get());
    // 0.0.0.0 and :: are all zeros.
    const bool wildcard = own.count('\0') == own.size();
    int mtu = 0;
    int loopbackMtu = 0;
    for (const ifaddrs* entry = list; entry; entry = entry->ifa_next) {
        if (!entry->ifa_addr || entry->ifa_addr->sa_family != addr.family() ||
            !(entry->ifa_flags & IFF_UP))
            continue;
        if (wildcard) {
            const int m = interfaceMtu(entry->ifa_name);
            if (entry->ifa_flags & IFF_LOOPBACK)
                loopbackMtu = std::max(loopbackMtu, m);
            else
                mtu = std::max(mtu, m);
        } else if (addressBytes(entry->ifa_addr) == own) {
            mtu = interfaceMtu(entry->ifa_name);
            break;
        }
    }
    ::freeifaddrs(list);
    if (mtu <= 0)
        mtu = loopbackMtu > 0 ? loopbackMtu : kDefaultMss;
    return std::min(mtu, kMaxMss);
}

WindowPlan windowFor(int mss) {
    const int payload = std::max(mss - kUdpIpHeaderBytes, 1);
    const int packets = (kWindowBytes + payload - 1) / payload;
    return {packets, packets * payload};
}

void setCongestion(Congestion congestion) {
    g_congestion = congestion;
}

Congestion congestion() {
    return g_congestion;
}

QString bufferNoteFor(qint64 grantedBytes) {
    // Linux reports twice the size asked for (its bookkeeping), which is what it grants.
    if (grantedBytes < 0 || grantedBytes / 2 >= kUdpBufferWantedBytes)
        return QString();
    return QStringLiteral(
               "note: the kernel limits UDP socket buffers to %1 KiB (net.core.rmem_max and "
               "wmem_max; raising them past that needs CAP_NET_ADMIN). Long fast links need %2 "
               "MiB: sysctl -w net.core.rmem_max=%3 net.core.wmem_max=%3")
        .arg(grantedBytes / 2 / 1024)
        .arg(kUdpBufferWantedBytes >> 20)
        .arg(kUdpBufferWantedBytes);
}

QString bufferNote() {
    return bufferNoteFor(g_grantedUdpBuffer.load());
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
    // UDT turns buffer sizes into packets of the size set at that moment, and caps the receive
    // buffer at the flow window: the order below matters.
    const WindowPlan plan = windowFor(mss);
    const bool ok =
        UDT::setsockopt(socket, 0, UDT_LINGER, &noLinger, sizeof noLinger) != UDT::ERROR &&
        UDT::setsockopt(socket, 0, UDP_SNDBUF, &kUdpBufferBytes, sizeof(int)) != UDT::ERROR &&
        UDT::setsockopt(socket, 0, UDP_RCVBUF, &kUdpBufferBytes, sizeof(int)) != UDT::ERROR &&
        UDT::setsockopt(socket, 0, UDT_MSS, &mss, sizeof mss) != UDT::ERROR &&
        UDT::setsockopt(socket, 0, UDT_FC, &plan.packets, sizeof(int)) != UDT::ERROR &&
        UDT::setsockopt(socket, 0, UDT_SNDBUF, &plan.bufferBytes, sizeof(int)) != UDT::ERROR &&
        UDT::setsockopt(socket, 0, UDT_RCVBUF, &plan.bufferBytes, sizeof(int)) != UDT::ERROR &&
        useCongestion(socket, congestion());
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
    noteGrantedBuffer(udp);
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
int newSocket(const QString& host, quint16 port, int mss, Address& addr, QString* error) {
    ensureStarted();
    if (!resolve(host, port, addr, error))
        return -1;
    Socket socket(UDT::socket(addr.family(), SOCK_STREAM, 0));
    if (socket.get() == UDT::INVALID_SOCK) {
        socket.release();
        setError(error, QStringLiteral("cannot create a socket: %1").arg(udtError()));
        return -1;
    }
    if (!applyOptions(socket.get(), mss, error))
        return -1;
    return socket.release();
}

// The UDP ports this process's connections leave from. UDT runs a sending and a receiving
// thread per UDP socket, and its receiving thread wakes every 100 microseconds even when idle; a
// socket per connection made a copy of many small files keep hundreds of such threads spinning
// (closed connections linger until UDT's collector runs) and spend most of its time there.
// Connections that share a port share one pair: UDT tells them apart by socket id.
//
// But a port carries one connection set-up at a time. UDT seeds a connection's first sequence
// number from the microsecond clock when the set-up starts, so two set-ups that start in the
// same microsecond get the same one; a server that sees the second request come from the
// address and port of the first with that number takes it for a repeat and answers with the
// first connection's socket, and the second connection then talks to a socket that ignores it
// (no answer ever comes). Set-ups at once therefore take different ports: one that finds every
// port busy opens another, up to kMaxClientPorts of a kind (the most files a command copies at
// once), beyond which it waits for one.
//
// An unconnected socket bound to our own UDP socket holds each port (and its raised buffers)
// for the life of the process.
constexpr int kMaxClientPorts = 8;

class ClientPorts {
public:
    // A port for one set-up, busy until release(); 0 when none could be opened, and then the
    // connection gets a UDP socket of its own as before.
    quint16 acquire(int family, int mss) {
        std::unique_lock<std::mutex> lock(m_mutex);
        std::vector<Port>& ports = m_ports[qMakePair(family, mss)];
        for (;;) {
            for (Port& port : ports) {
                if (!port.busy) {
                    port.busy = true;
                    return port.number;
                }
            }
            if (int(ports.size()) < kMaxClientPorts)
                break;
            m_released.wait(lock);
        }
        const quint16 number = openPort(family, mss);
        if (number != 0)
            ports.push_back({number, true});
        return number;
    }

    void release(int family, int mss, quint16 number) {
        std::lock_guard<std::mutex> lock(m_mutex);
        for (Port& port : m_ports[qMakePair(family, mss)]) {
            if (port.number == number)
                port.busy = false;
        }
        m_released.notify_one();
    }

private:
    struct Port {
        quint16 number;
        bool busy;
    };

    static quint16 openPort(int family, int mss) {
        Address any;
        any.storage.ss_family = family;
        any.length = family == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
        Socket anchor(UDT::socket(family, SOCK_STREAM, 0));
        if (anchor.get() == UDT::INVALID_SOCK) {
            anchor.release();
            return 0;
        }
        QString reason;
        if (!applyOptions(anchor.get(), mss) || !bindOwnUdpSocket(anchor.get(), any, reason))
            return 0;
        Address bound;
        int len = sizeof bound.storage;
        if (UDT::getsockname(anchor.get(), bound.get(), &len) == UDT::ERROR)
            return 0;
        anchor.release(); // kept open until UDT::cleanup()
        return bound.port();
    }

    std::mutex m_mutex;
    std::condition_variable m_released;
    QMap<QPair<int, int>, std::vector<Port>> m_ports;
};

ClientPorts& clientPorts() {
    static ClientPorts ports;
    return ports;
}

// Holds a shared port for the length of one connection set-up.
class PortForSetUp {
public:
    PortForSetUp(int family, int mss)
        : m_family(family)
        , m_mss(mss)
        , m_port(clientPorts().acquire(family, mss)) {}
    ~PortForSetUp() {
        if (m_port != 0)
            clientPorts().release(m_family, m_mss, m_port);
    }
    PortForSetUp(const PortForSetUp&) = delete;
    PortForSetUp& operator=(const PortForSetUp&) = delete;

    // Binds `socket` to the port, else to a UDP socket of its own.
    bool bind(int socket, QString& reason) const {
        Address local;
        local.storage.ss_family = m_family;
        local.length = m_family == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
        if (m_port != 0) {
            local.setPort(m_port);
            if (UDT::bind(socket, local.get(), int(local.length)) != UDT::ERROR)
                return true;
            local.setPort(0);
        }
        return bindOwnUdpSocket(socket, local, reason);
    }

private:
    int m_family;
    int m_mss;
    quint16 m_port;
};

// A peer whose last packet we have not acknowledged yet can miss our close (seen in about one
// close in ten on loopback) and would then wait for UDT's keep-alive timeout, tens of seconds.
// UDT acknowledges on a timer (every 10 ms), so an acknowledgement sent after this wait began
// covers everything received before it; past a short grace there was nothing left to
// acknowledge. Waiting for it rather than for the whole grace keeps the close of a small task
// short (a tree of small files closes a connection per file).
void awaitAcknowledgement(int socket) {
    UDT::TRACEINFO before;
    if (UDT::perfmon(socket, &before, false) == UDT::ERROR)
        return;
    // UDT sends an acknowledgement only for data that arrived since its last one (or again, after
    // a round trip without an answer): as many as packets received means, in a conversation of
    // small messages, that each was acknowledged and nothing is owed.
    if (before.pktSentACKTotal >= before.pktRecvTotal)
        return;
    for (int waited = 0; waited < kCloseGraceMs; ++waited) {
        QThread::msleep(1);
        UDT::TRACEINFO now;
        if (UDT::perfmon(socket, &now, false) == UDT::ERROR ||
            now.pktSentACKTotal != before.pktSentACKTotal)
            return;
    }
}

} // namespace

int connectTo(const QString& host, quint16 port, QString* error) {
    Address addr;
    const int mss = pathMss(host, port);
    Socket socket(newSocket(host, port, mss, addr, error));
    if (!socket.valid())
        return -1;
    QString reason;
    {
        const PortForSetUp local(addr.family(), mss);
        if (!local.bind(socket.get(), reason) ||
            UDT::connect(socket.get(), addr.get(), addr.length) == UDT::ERROR) {
            if (reason.isEmpty())
                reason = udtError();
            setError(error,
                     QStringLiteral("cannot reach %1:%2 (%3)").arg(host).arg(port).arg(reason));
            return -1;
        }
    }
    wakeReceiver(socket.get());
    joinPath(socket.get(), hostOf(addr));
    return socket.release();
}

int listenOn(const QString& host, quint16 port, quint16* boundPort, QString* error, int mss) {
    Address addr;
    Socket socket(newSocket(host, port, mss > 0 ? mss : listenerMss(host), addr, error));
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
    joinPath(s, hostOf(addr));
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
    if (UDT::getsockstate(socket) == CONNECTED)
        awaitAcknowledgement(socket);
    UDT::close(socket);
}

bool waitForPeerClose(int socket, int timeoutMs) {
    for (int waited = 0; waited < timeoutMs; waited += 5) {
        if (UDT::getsockstate(socket) != CONNECTED)
            return true;
        QThread::msleep(5);
    }
    return UDT::getsockstate(socket) != CONNECTED;
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
