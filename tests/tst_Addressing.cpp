// How a client names a server: host and port forms (IPv6 in brackets), server aliases from the
// client configuration, and the send rate a connection gets from the two sides' caps.

#include "host/ClientConfig.h"
#include "host/HostHello.h"
#include "host/Url.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>

using namespace VESK::host;

class tst_Addressing : public QObject {
    Q_OBJECT

    QTemporaryDir m_config;

    void writeConfig(const QByteArray& text) {
        QVERIFY(QDir().mkpath(m_config.path() + "/vesk"));
        QFile file(clientConfigFile());
        QVERIFY(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
        file.write(text);
    }

private slots:
    void initTestCase() {
        QVERIFY(m_config.isValid());
        qputenv("XDG_CONFIG_HOME", m_config.path().toUtf8());
        QCOMPARE(clientConfigFile(), m_config.path() + "/vesk/config");
    }

    void hostAndPortForms_data() {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QString>("host");
        QTest::addColumn<int>("port");
        QTest::newRow("name") << "server:9001"
                              << "server" << 9001;
        QTest::newRow("IPv4") << "10.0.0.7:1"
                              << "10.0.0.7" << 1;
        QTest::newRow("no port") << "server"
                                 << "server" << int(kDefaultPort);
        QTest::newRow("IPv6") << "[::1]:9002"
                              << "::1" << 9002;
        QTest::newRow("IPv6 no port") << "[2001:db8::7]"
                                      << "2001:db8::7" << int(kDefaultPort);
        QTest::newRow("IPv6 zone") << "[fe80::1%eth0]:5"
                                   << "fe80::1%eth0" << 5;
    }
    void hostAndPortForms() {
        QFETCH(QString, text);
        QFETCH(QString, host);
        QFETCH(int, port);
        QString parsedHost, error;
        quint16 parsedPort = 0;
        QVERIFY2(parseHostPort(text, parsedHost, parsedPort, false, &error), qPrintable(error));
        QCOMPARE(parsedHost, host);
        QCOMPARE(int(parsedPort), port);
        QCOMPARE(hostPortText(parsedHost, parsedPort), text.contains(':') && !text.endsWith(']')
                                                           ? text
                                                           : hostPortText(host, kDefaultPort));
    }

    void badHostForms_data() {
        QTest::addColumn<QString>("text");
        for (const char* text : {"::1:9000", "[::1:9000", "[::1]9000", "[]:9000", "[server]:1",
                                 "[[::1]]:1", ":9000", "[::1]:0", "[::1]:65536"})
            QTest::newRow(text) << QString(text);
    }
    void badHostForms() {
        QFETCH(QString, text);
        QString host, error;
        quint16 port = 0;
        QVERIFY(!parseHostPort(text, host, port, false, &error));
        QVERIFY(!error.isEmpty());
    }

    void urlKeepsItsIpv6Form() {
        VeskUrl url;
        QString error;
        QVERIFY(parseUrl("vesk://alice@[::1]:9000/appA/docs/a.txt", url, &error));
        QCOMPARE(url.user, QString("alice"));
        QCOMPARE(url.host, QString("::1"));
        QVERIFY(url.portGiven);
        QCOMPARE(url.toString(), QString("vesk://alice@[::1]:9000/appA/docs/a.txt"));
        QVERIFY(parseUrl("vesk://box/appA", url, &error));
        QVERIFY(!url.portGiven);
    }

    void aliasGivesHostPortUserAndSecret() {
        writeConfig("[box]\nhost = [2001:db8::7]\nport = 9100\nuser = alice\n"
                    "secret-file = keys/box\n");
        VeskUrl url;
        QString error, secret;
        QVERIFY(parseUrl("vesk://box/appA/in", url, &error));
        QCOMPARE(applyServerAlias(url, &secret), QString());
        QCOMPARE(url.toString(), QString("vesk://alice@[2001:db8::7]:9100/appA/in"));
        QCOMPARE(secret, m_config.path() + "/vesk/keys/box");
        // The URL's own port and user win.
        QVERIFY(parseUrl("vesk://bob@box:9200/appA", url, &error));
        QCOMPARE(applyServerAlias(url, &secret), QString());
        QCOMPARE(url.toString(), QString("vesk://bob@[2001:db8::7]:9200/appA"));
        // A host that is no alias is left as it is.
        QVERIFY(parseUrl("vesk://other:1/appA", url, &error));
        QCOMPARE(applyServerAlias(url, &secret), QString());
        QCOMPARE(url.toString(), QString("vesk://other:1/appA"));
        QCOMPARE(secret, QString());
    }

    void badAliasIsNamed() {
        writeConfig("[nohost]\nport = 1\n[badport]\nhost = h\nport = 70000\n");
        VeskUrl url;
        QString error, secret;
        QVERIFY(parseUrl("vesk://nohost/appA", url, &error));
        QVERIFY(applyServerAlias(url, &secret).contains("[nohost] in "));
        QVERIFY(parseUrl("vesk://badport/appA", url, &error));
        QVERIFY(applyServerAlias(url, &secret).contains("'70000' is not a valid port"));
    }

    void connectionRateIsTheLowerCap() {
        QCOMPARE(connectionRate(0, 0), qint64(0));
        QCOMPARE(connectionRate(0, 500), qint64(500));
        QCOMPARE(connectionRate(1000, 0), qint64(1000));
        QCOMPARE(connectionRate(1000, 500), qint64(500));
        QCOMPARE(connectionRate(1000, 5000), qint64(1000));
        QCOMPARE(connectionRate(0, -3), qint64(0));
    }
};

QTEST_GUILESS_MAIN(tst_Addressing)
#include "tst_Addressing.moc"
