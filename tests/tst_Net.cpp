// The socket helper shared by the host and the tests: connections that answer at once, bind
// failures reported with their cause, and no descriptor left behind.

#include "Support.h"
#include "base/Net.h"
#include "base/Wire.h"

#include <QDir>
#include <QFile>
#include <QSet>
#include <QTest>

#include <cerrno>
#include <cstring>
#include <future>
#include <netinet/in.h>
#include <udt/udt.h>
#include <vector>

using namespace vesktest;

namespace {

// Packets the socket had to send again.
qint64 resentPackets(int socket) {
    UDT::TRACEINFO trace{};
    UDT::perfmon(socket, &trace, false);
    return trace.pktRetransTotal;
}

int threadCount() {
    return int(QDir("/proc/self/task").entryList(QDir::Dirs | QDir::NoDotAndDotDot).size());
}

} // namespace

class tst_Net : public QObject {
    Q_OBJECT

private slots:
    // A listener binds a UDP socket of its own, which UDT closes a few seconds after the
    // listener is gone; client connections share one that lives as long as the process. First
    // in the file, so that no other test's sockets are still being collected while this one
    // counts.
    void closedConnectionsReleaseTheirDescriptors() {
        const int before = openDescriptorCount();
        {
            UdtPair first = connectedPair();
            QVERIFY(first.client.valid() && first.server.valid());
        }
        // What stays is the shared client socket, one descriptor.
        QTRY_VERIFY_WITH_TIMEOUT(openDescriptorCount() <= before + 1, 20000);
        for (int i = 0; i < 10; ++i) {
            UdtPair pair = connectedPair();
            QVERIFY(pair.client.valid() && pair.server.valid());
        }
        QVERIFY(openDescriptorCount() > before + 1);
        QTRY_VERIFY_WITH_TIMEOUT(openDescriptorCount() <= before + 1, 20000);
    }

    // Connections to one server leave from one UDP port, so UDT runs one sending and one
    // receiving thread for all of them instead of a pair per connection.
    void connectionsShareOnePortAndThreads() {
        quint16 port = 0;
        QString error;
        VESK::net::Socket listener(VESK::net::listenOn("127.0.0.1", 0, &port, &error));
        QVERIFY2(listener.valid(), qPrintable(error));
        std::vector<VESK::net::Socket> clients;
        std::vector<VESK::net::Socket> servers;
        QSet<quint16> localPorts;
        int threadsAfterFirst = 0;
        for (int i = 0; i < 8; ++i) {
            auto accepting =
                std::async(std::launch::async, [&] { return VESK::net::acceptOn(listener.get()); });
            clients.emplace_back(VESK::net::connectTo("127.0.0.1", port, &error));
            servers.emplace_back(accepting.get());
            QVERIFY2(clients.back().valid() && servers.back().valid(), qPrintable(error));
            sockaddr_storage local{};
            int len = sizeof local;
            QVERIFY(UDT::getsockname(clients.back().get(), reinterpret_cast<sockaddr*>(&local),
                                     &len) != UDT::ERROR);
            localPorts.insert(ntohs(reinterpret_cast<sockaddr_in*>(&local)->sin_port));
            if (i == 0)
                threadsAfterFirst = threadCount();
        }
        QCOMPARE(localPorts.size(), 1);
        QCOMPARE(threadCount(), threadsAfterFirst);
        // And every one of them carries its own conversation.
        for (size_t i = 0; i < clients.size(); ++i) {
            const QByteArray body = QByteArray::number(qulonglong(i));
            QVERIFY(VESK::wire::sendFrame(clients[i].get(), 7, body));
        }
        for (size_t i = 0; i < servers.size(); ++i) {
            VESK::net::setReceiveTimeout(servers[i].get(), 10000);
            quint32 number = 0;
            QByteArray body;
            QVERIFY(VESK::wire::recvFrame(servers[i].get(), number, body));
            QCOMPARE(number, 7u);
            QCOMPARE(body, QByteArray::number(qulonglong(i)));
        }
    }

    // A peer that answers the moment it is connected must not have its answer dropped (and sent
    // again after a timeout, which also slows the connection for seconds). The race is rare per
    // connection, so the test makes many, and counts resent packets rather than timing answers:
    // a loaded machine delays answers without any resend.
    void replyRightAfterConnectArrivesFirstTime() {
        constexpr int kConnections = 200;
        quint16 port = 0;
        QString error;
        VESK::net::Socket listener(VESK::net::listenOn("127.0.0.1", 0, &port, &error));
        QVERIFY2(listener.valid(), qPrintable(error));

        // Every wait below is bounded, and a failed check on this side closes the listener
        // (which ends a pending accept), so a failure reports itself instead of hanging.
        constexpr int kWaitMs = 15000;
        auto server = std::async(std::launch::async, [&]() -> QString {
            qint64 resent = 0;
            for (int i = 0; i < kConnections; ++i) {
                VESK::net::Socket s(VESK::net::acceptOn(listener.get()));
                quint32 number = 0;
                QByteArray body;
                if (!s.valid())
                    return QString("accept %1 failed").arg(i);
                VESK::net::setReceiveTimeout(s.get(), kWaitMs);
                if (!VESK::wire::recvFrame(s.get(), number, body) ||
                    !VESK::wire::sendFrame(s.get(), 2, body) ||
                    !VESK::wire::recvFrame(s.get(), number, body))
                    return QString("exchange %1 failed").arg(i);
                resent += resentPackets(s.get());
            }
            return resent == 0 ? QString() : QString("%1 packets sent again").arg(resent);
        });
        struct CloseListener {
            VESK::net::Socket& listener;
            ~CloseListener() { listener.reset(); }
        } closeOnExit{listener};

        for (int i = 0; i < kConnections; ++i) {
            VESK::net::Socket c(VESK::net::connectTo("127.0.0.1", port, &error));
            QVERIFY2(c.valid(), qPrintable(error));
            VESK::net::setReceiveTimeout(c.get(), kWaitMs);
            quint32 number = 0;
            QByteArray body;
            QVERIFY(VESK::wire::sendFrame(c.get(), 1, "hello"));
            QVERIFY2(VESK::wire::recvFrame(c.get(), number, body),
                     qPrintable(QString("no answer on connection %1").arg(i)));
            QCOMPARE(body, QByteArray("hello"));
            QVERIFY(VESK::wire::sendFrame(c.get(), 3, "done"));
        }
        const QString serverError = server.get();
        QVERIFY2(serverError.isEmpty(), qPrintable(serverError));
    }

    // UDT counts buffers and the flow window in packets: whatever the packet size, they hold
    // the whole window and at most one packet more.
    void windowSizingHoldsTheWholeWindow() {
        for (const int mss : {576, 1280, 1500, 9000, 65000}) {
            const VESK::net::WindowPlan plan = VESK::net::windowFor(mss);
            const qint64 payload = mss - 28;
            QCOMPARE(qint64(plan.bufferBytes), plan.packets * payload);
            QVERIFY(plan.bufferBytes >= VESK::net::kWindowBytes);
            QVERIFY(plan.bufferBytes < VESK::net::kWindowBytes + payload);
        }
        QCOMPARE(VESK::net::windowFor(1500).packets, 45591);
    }

    // A listener takes its packet size from the interface that holds its address, not from the
    // loopback route to itself; an address no interface holds gets Ethernet's.
    void listenerPacketSizeComesFromItsInterface() {
        QFile sysfs("/sys/class/net/lo/mtu");
        QVERIFY(sysfs.open(QIODevice::ReadOnly));
        const int loopbackMtu = sysfs.readAll().trimmed().toInt();
        QCOMPARE(VESK::net::listenerMss("127.0.0.1"), std::min(loopbackMtu, 65000));
        QCOMPARE(VESK::net::listenerMss("192.0.2.1"), 1500);

        quint16 port = 0;
        VESK::net::Socket listener(VESK::net::listenOn("127.0.0.1", 0, &port));
        QVERIFY(listener.valid());
        int mss = 0;
        int len = sizeof mss;
        QVERIFY(UDT::getsockopt(listener.get(), 0, UDT_MSS, &mss, &len) != UDT::ERROR);
        QCOMPARE(mss, std::min(loopbackMtu, 65000));
    }

    // Both ends of a connection can hold the whole window: buffers and flow window alike.
    void connectionsHoldTheWholeWindow() {
        UdtPair pair = connectedPair();
        QVERIFY(pair.client.valid() && pair.server.valid());
        for (const int socket : {pair.client.get(), pair.server.get()}) {
            int value = 0;
            int len = sizeof value;
            QVERIFY(UDT::getsockopt(socket, 0, UDT_RCVBUF, &value, &len) != UDT::ERROR);
            QVERIFY2(value >= VESK::net::kWindowBytes, qPrintable(QString::number(value)));
            QVERIFY(UDT::getsockopt(socket, 0, UDT_SNDBUF, &value, &len) != UDT::ERROR);
            QVERIFY2(value >= VESK::net::kWindowBytes, qPrintable(QString::number(value)));
            int mss = 0;
            QVERIFY(UDT::getsockopt(socket, 0, UDT_MSS, &mss, &len) != UDT::ERROR);
            QVERIFY(UDT::getsockopt(socket, 0, UDT_FC, &value, &len) != UDT::ERROR);
            QVERIFY(qint64(value) * (mss - 28) >= VESK::net::kWindowBytes);
        }
    }

    // Connections run vesk's congestion control unless the process chose UDT's.
    void congestionControlIsApplied() {
        using VESK::net::Congestion;
        {
            UdtPair pair = connectedPair();
            QVERIFY(pair.client.valid() && pair.server.valid());
            QCOMPARE(VESK::net::congestionOf(pair.client.get()), Congestion::Vesk);
            QCOMPARE(VESK::net::congestionOf(pair.server.get()), Congestion::Vesk);
        }
        VESK::net::setCongestion(Congestion::Udt);
        UdtPair pair = connectedPair();
        VESK::net::setCongestion(Congestion::Vesk);
        QVERIFY(pair.client.valid() && pair.server.valid());
        QCOMPARE(VESK::net::congestionOf(pair.client.get()), Congestion::Udt);
        QCOMPARE(VESK::net::congestionOf(pair.server.get()), Congestion::Udt);
    }

    // The note names the limit and the fix when the kernel kept the buffers small (it reports
    // twice the usable size), and stays silent when they are large enough.
    void bufferNoteOnlyWhenTheKernelLimits() {
        const QString note = VESK::net::bufferNoteFor(8 << 20);
        QVERIFY2(note.contains("4096 KiB") && note.contains("net.core.rmem_max=67108864"),
                 qPrintable(note));
        QVERIFY(VESK::net::bufferNoteFor(qint64(512) << 20).isEmpty());
        QVERIFY(VESK::net::bufferNoteFor(-1).isEmpty());
    }

    void listeningOnATakenPortFailsWithTheCause() {
        quint16 port = 0;
        QString error;
        VESK::net::Socket first(VESK::net::listenOn("127.0.0.1", 0, &port, &error));
        QVERIFY2(first.valid(), qPrintable(error));
        VESK::net::Socket second(VESK::net::listenOn("127.0.0.1", port, nullptr, &error));
        QVERIFY(!second.valid());
        QCOMPARE(error, QString("cannot listen on 127.0.0.1:%1 (%2)")
                            .arg(port)
                            .arg(QString::fromLocal8Bit(std::strerror(EADDRINUSE))));
    }

    void connectingToNoListenerFails() {
        QString error;
        VESK::net::Socket s(VESK::net::connectTo("127.0.0.1", 1, &error));
        QVERIFY(!s.valid());
        QVERIFY2(error.startsWith("cannot reach 127.0.0.1:1 ("), qPrintable(error));
    }
};

QTEST_GUILESS_MAIN(tst_Net)
#include "tst_Net.moc"
