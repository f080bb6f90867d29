// The socket helper shared by the host and the tests: connections that answer at once, bind
// failures reported with their cause, and no descriptor left behind.

#include "Support.h"
#include "base/Net.h"
#include "base/Wire.h"

#include <QTest>

#include <cerrno>
#include <cstring>
#include <future>
#include <udt/udt.h>

using namespace vesktest;

namespace {

// Packets the socket had to send again.
qint64 resentPackets(int socket) {
    UDT::TRACEINFO trace{};
    UDT::perfmon(socket, &trace, false);
    return trace.pktRetransTotal;
}

} // namespace

class tst_Net : public QObject {
    Q_OBJECT

private slots:
    // Each connection binds a UDP socket of its own, which UDT closes a few seconds after the
    // connection is gone. First in the file, so that no other test's connections are still
    // being collected while this one counts.
    void closedConnectionsReleaseTheirDescriptors() {
        const int before = openDescriptorCount();
        for (int i = 0; i < 10; ++i) {
            UdtPair pair = connectedPair();
            QVERIFY(pair.client.valid() && pair.server.valid());
        }
        QVERIFY(openDescriptorCount() > before);
        QTRY_VERIFY_WITH_TIMEOUT(openDescriptorCount() <= before, 20000);
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
