// The server's reception of TaskParam and its dispatch, fed by a raw peer that writes frames.

#include "Support.h"
#include "base/Wire.h"

#include <QTest>

#include <udt/udt.h>

using namespace vesktest;

namespace {

// A server handler on the server end of `pair`, with a log capture.
struct Server {
    Handler handler = makeHandler();
    LogCapture logs{handler.get()};

    explicit Server(const UdtPair& pair) {
        handler->setParam("endPoint", "server");
        handler->setParam("serverSocket", QString::number(pair.server.get()));
        handler->setParam("mountPath", "/srv/mount");
    }

    bool run() {
        AsyncTask task(handler.get());
        bool finished = false;
        const bool result = task.wait(20000, &finished);
        if (!finished)
            qFatal("the server task did not end");
        return result;
    }
};

bool sendRaw(const UdtPair& pair, quint32 number, const QByteArray& body) {
    return VESK::wire::sendFrame(pair.client.get(), number, body);
}

// True when nothing arrives at the client within `ms`.
bool clientHearsNothing(const UdtPair& pair, int ms = 300) {
    setReceiveTimeout(pair.client.get(), ms);
    char byte;
    return UDT::recv(pair.client.get(), &byte, 1, 0) == UDT::ERROR;
}

} // namespace

class tst_Respond : public QObject {
    Q_OBJECT

private slots:
    void returnOperatorTakesTheEarlyReturnPath() {
        UdtPair pair = connectedPair();
        Server server(pair);
        QVERIFY(sendRaw(pair, 5, R"({"operator":"return","userName":"u"})"));
        QVERIFY(!server.run());
        QCOMPARE(server.handler->getLastError(), QString("return"));
        QCOMPARE(server.handler->getParam("return", "x"), QString("false"));
        QCOMPARE(server.handler->getParam("respondStatus", "x"), QString());
        QCOMPARE(server.handler->getParam("endTime", "x"), QString());
        QCOMPARE(server.handler->getParam("userName", ""), QString("u"));
        QVERIFY(server.logs.entries().isEmpty());
        QVERIFY(clientHearsNothing(pair));
    }

    void unknownOperatorIsReportedAndNothingIsSent() {
        UdtPair pair = connectedPair();
        Server server(pair);
        QVERIFY(sendRaw(pair, 5, R"({"operator":"move"})"));
        QVERIFY(!server.run());
        QCOMPARE(server.logs.messages(), QStringList{"respond: not found operator [move]."});
        QCOMPARE(server.logs.entries().first().level, QString("error"));
        QCOMPARE(server.handler->getParam("respondStatus", ""), QString("failed"));
        QVERIFY(!server.handler->getParam("endTime", "").isEmpty());
        QCOMPARE(server.handler->getLastError(), QString());
        QVERIFY(clientHearsNothing(pair));
    }

    void peerMayNotSetHostOnlyKeys() {
        UdtPair pair = connectedPair();
        Server server(pair);
        QVERIFY(sendRaw(pair, 5, R"({"operator":"list","mountPath":"/","appKey":"a"})"));
        QVERIFY(!server.run());
        QCOMPARE(server.logs.messages(), QStringList{"respond: TaskParam setParams failed."});
        QCOMPARE(server.handler->getParam("mountPath", ""), QString("/srv/mount"));
        QCOMPARE(server.handler->getParam("operator", "x"), QString());
        QCOMPARE(server.handler->getParam("appKey", "x"), QString());
        QCOMPARE(server.handler->getParam("respondStatus", ""), QString("failed"));
        QVERIFY(clientHearsNothing(pair));
    }

    void wrongMessageNumberFailsTheReceive() {
        UdtPair pair = connectedPair();
        Server server(pair);
        QVERIFY(sendRaw(pair, 6, R"({"operator":"list"})"));
        QVERIFY(!server.run());
        QVERIFY(server.logs.contains("error", "respond: recv TaskParam failed."));
        QCOMPARE(server.handler->getParam("operator", "x"), QString());
        QCOMPARE(server.handler->getParam("respondStatus", ""), QString("failed"));
    }

    void overlongLengthFailsTheReceiveAtOnce() {
        UdtPair pair = connectedPair();
        Server server(pair);
        const char header[8] = {0, 0, 0, 5, char(0xff), char(0xff), char(0xff), char(0xff)};
        QVERIFY(VESK::wire::sendAll(pair.client.get(), header, sizeof header));
        QVERIFY(!server.run());
        QVERIFY(server.logs.contains("error", "respond: recv TaskParam failed."));
    }

    void peerHangingUpBeforeTaskParamFailsTheReceive() {
        UdtPair pair = connectedPair();
        Server server(pair);
        pair.client.reset();
        QVERIFY(!server.run());
        QVERIFY(server.logs.contains("error", "respond: recv TaskParam failed."));
    }

    void bodyThatIsNotAnObjectMergesNothing_data() {
        QTest::addColumn<QByteArray>("body");
        QTest::newRow("not json") << QByteArray("operator=list");
        QTest::newRow("array") << QByteArray(R"(["operator","list"])");
        QTest::newRow("empty") << QByteArray();
        QTest::newRow("number values") << QByteArray(R"({"operator":5})");
    }

    void bodyThatIsNotAnObjectMergesNothing() {
        QFETCH(QByteArray, body);
        UdtPair pair = connectedPair();
        Server server(pair);
        QVERIFY(sendRaw(pair, 5, body));
        QVERIFY(!server.run());
        QCOMPARE(server.logs.messages(), QStringList{"respond: not found operator []."});
    }

    void clientOperatorOverwritesTheServersOwn() {
        UdtPair pair = connectedPair();
        Server server(pair);
        server.handler->setParam("operator", "upload");
        QVERIFY(sendRaw(pair, 5, R"({"operator":"Upload"})"));
        QVERIFY(!server.run());
        QCOMPARE(server.logs.messages(), QStringList{"respond: not found operator [Upload]."});
    }

    void stopDuringReceiveEndsWithTheStopWord() {
        UdtPair pair = connectedPair();
        Server server(pair);
        AsyncTask task(server.handler.get());
        QTest::qWait(100);
        QVERIFY(server.handler->cancel());
        bool finished = false;
        QVERIFY(!task.wait(10000, &finished));
        QVERIFY(finished);
        QCOMPARE(server.handler->getLastError(), QString("cancel"));
        QCOMPARE(server.handler->getParam("respondStatus", ""), QString("failed"));
        QVERIFY(!server.handler->getParam("endTime", "").isEmpty());
        pair.server.release(); // closed by cancel()
    }
};

QTEST_GUILESS_MAIN(tst_Respond)
#include "tst_Respond.moc"
