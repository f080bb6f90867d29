// The base library: parameter store and its trust boundary, serialized maps, framing over UDT,
// logging, paths, modes, verify values and temporary paths.

#include "Support.h"
#include "base/Verify.h"
#include "base/Wire.h"

#include <QDateTime>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QRegularExpression>
#include <QSignalSpy>
#include <QTest>
#include <QThread>

#include <fcntl.h>
#include <fstream>
#include <limits>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <udt/udt.h>
#define XXH_INLINE_ALL
#include <xxhash.h>

using namespace vesktest;
using VESK::ParamMap;

namespace {

// The smallest concrete base: every handler operation fails, the base's own parts are reachable.
class ProbeBase : public VESK::VeskBase {
public:
    using VeskBase::generateTmpFilePath;
    using VeskBase::getFileVerifyValue;
    using VeskBase::getParamInner;
    using VeskBase::log;
    using VeskBase::recv;
    using VeskBase::send;
    using VeskBase::setParamInner;

    QString getKey() override { return "probe"; }
    QString getLastError() override { return QString(); }
    bool process() override { return false; }
    bool pause() override { return false; }
    bool cancel() override { return false; }

protected:
    bool request() override { return false; }
    bool uploadRequest() override { return false; }
    bool downloadRequest() override { return false; }
    bool listRequest() override { return false; }
    bool createDirRequest() override { return false; }
    bool respond() override { return false; }
    bool uploadRespond() override { return false; }
    bool downloadRespond() override { return false; }
    bool listRespond() override { return false; }
    bool createDirRespond() override { return false; }
};

// Puts `probe` on `socket` as the end `endPoint` ("client" or "server").
void attach(ProbeBase& probe, const QString& endPoint, int socket) {
    probe.setParam("endPoint", endPoint);
    probe.setParam(endPoint + "Socket", QString::number(socket));
}

// A base whose log goes to a file of its own in a temporary directory.
struct LoggingProbe {
    QTemporaryDir dir;
    QString file = dir.path() + "/vesk.log";
    ProbeBase base;
    LoggingProbe() { base.setParam("logFile", file); }
};

QString toolDigest(const QString& tool, const QString& path) {
    QProcess p;
    p.start(tool, {path});
    if (!p.waitForFinished(60000))
        return QString();
    return QString::fromLatin1(p.readAllStandardOutput()).section(' ', 0, 0);
}

QString oneShotXxh3(const QByteArray& data) {
    XXH128_canonical_t c;
    XXH128_canonicalFromHash(&c, XXH3_128bits(data.constData(), size_t(data.size())));
    return QString::fromLatin1(
        QByteArray(reinterpret_cast<const char*>(c.digest), sizeof c.digest).toHex());
}

int modeOf(const QString& path) {
    struct stat st;
    return ::stat(QFile::encodeName(path).constData(), &st) == 0 ? int(st.st_mode & 07777) : -1;
}

// The fields of a kept verify value, or nothing.
QList<QByteArray> keptRecord(const QByteArray& native, const char* name) {
    char buffer[256];
    const ssize_t n = ::getxattr(native.constData(), name, buffer, sizeof buffer);
    return n > 0 ? QByteArray(buffer, int(n)).split(' ') : QList<QByteArray>();
}

void setRecord(const QByteArray& native, const char* name, const QList<QByteArray>& fields) {
    const QByteArray text = fields.join(' ');
    QCOMPARE(::setxattr(native.constData(), name, text.constData(), size_t(text.size()), 0), 0);
}

} // namespace

class tst_Base : public QObject {
    Q_OBJECT

private slots:
    // ---- Parameter store ----

    void storesAndReadsParameters() {
        ProbeBase b;
        QVERIFY(b.setParam("a", "1"));
        QCOMPARE(b.getParam("a", "x"), QString("1"));
        QCOMPARE(b.getParam("b", "x"), QString("x"));
        QVERIFY(b.setParamInner("_errorStr", "e"));
        QCOMPARE(b.getParamInner("_errorStr", ""), QString("e"));
        QCOMPARE(b.getParam("_errorStr", "none"), QString("none"));
        QVERIFY(b.clearParam());
        QCOMPARE(b.getParam("a", "x"), QString("x"));
    }

    void getParamsCopiesListedKeysOrNothing() {
        ProbeBase b;
        b.setParam("a", "1");
        b.setParam("b", "");
        ParamMap out;
        QVERIFY(b.getParams({"a", "b"}, out));
        QCOMPARE(out, (ParamMap{{"a", "1"}, {"b", ""}}));
        ParamMap none;
        QVERIFY(!b.getParams({"a", "missing"}, none));
        QVERIFY(none.isEmpty());
        ParamMap all;
        QVERIFY(b.getParams(all));
        QCOMPARE(all.size(), 2);
    }

    void setParamsMergesPeerKeys() {
        ProbeBase b;
        b.setParam("operator", "list");
        QVERIFY(b.setParams({{"operator", "upload"}, {"fileName", "f"}}));
        QCOMPARE(b.getParam("operator", ""), QString("upload"));
        QCOMPARE(b.getParam("fileName", ""), QString("f"));
    }

    void setParamsRefusesEachHostOnlyKeyAndMergesNothing_data() {
        QTest::addColumn<QString>("key");
        for (const QString& key : VESK::VeskBase::hostOnlyKeys())
            QTest::newRow(qPrintable(key)) << key;
    }

    void setParamsRefusesEachHostOnlyKeyAndMergesNothing() {
        QFETCH(QString, key);
        ProbeBase b;
        b.setParam(key, "host");
        QVERIFY(!b.setParams({{"aaa", "peer"}, {key, "peer"}, {"zzz", "peer"}}));
        QCOMPARE(b.getParam(key, ""), QString("host"));
        QCOMPARE(b.getParam("aaa", "unset"), QString("unset"));
        QCOMPARE(b.getParam("zzz", "unset"), QString("unset"));
    }

    void hostOnlyKeysAreTheDocumentedTwenty() {
        QCOMPARE(VESK::VeskBase::hostOnlyKeys().size(), 20);
        QVERIFY(!VESK::VeskBase::hostOnlyKeys().contains("operator"));
        QVERIFY(!VESK::VeskBase::hostOnlyKeys().contains("offset"));
    }

    // ---- Serialized maps ----

    void serializedMapRoundTripsAwkwardText() {
        const ParamMap map = {{"quote", "say \"hi\""},
                              {"backslash", "C:\\dir\\"},
                              {"lines", "a\nb\r\nc\t"},
                              {"unicode", QString::fromUtf8("Grüße ✓ 文件")},
                              {"empty", ""},
                              {"", "empty key"},
                              {"control", QString(QChar(1)) + QChar(0x7f)}};
        const QString text = VESK::VeskBase::serializeParam(map);
        QVERIFY(!text.contains('\n'));
        QCOMPARE(VESK::VeskBase::unSerializeParam(text), map);
    }

    void serializedMapIsCompactJsonInKeyOrder() {
        QCOMPARE(VESK::VeskBase::serializeParam({{"b", "2"}, {"a", "1"}}),
                 QString("{\"a\":\"1\",\"b\":\"2\"}"));
        QCOMPARE(VESK::VeskBase::serializeParam({}), QString("{}"));
    }

    void unserializeRejectsWhatIsNotAnObjectOfStrings() {
        QVERIFY(VESK::VeskBase::unSerializeParam("not json").isEmpty());
        QVERIFY(VESK::VeskBase::unSerializeParam("[\"a\"]").isEmpty());
        QVERIFY(VESK::VeskBase::unSerializeParam("").isEmpty());
        QVERIFY(VESK::VeskBase::unSerializeParam("{\"a\":").isEmpty());
        QCOMPARE(VESK::VeskBase::unSerializeParam(
                     "{\"n\":1,\"b\":true,\"o\":{},\"a\":[],\"z\":null,\"s\":\"ok\"}"),
                 (ParamMap{{"s", "ok"}}));
    }

    // ---- Framing over UDT ----

    void frameRoundTripsOverUdt() {
        UdtPair pair = connectedPair();
        QByteArray big(3 * 1024 * 1024, 'x');
        QVERIFY(VESK::wire::sendFrame(pair.client.get(), 7, "hello"));
        QVERIFY(VESK::wire::sendFrame(pair.client.get(), 9, big));
        QVERIFY(VESK::wire::sendFrame(pair.client.get(), 5, QByteArray()));
        quint32 number = 0;
        QByteArray body;
        QVERIFY(VESK::wire::recvFrame(pair.server.get(), number, body));
        QCOMPARE(number, 7u);
        QCOMPARE(body, QByteArray("hello"));
        QVERIFY(VESK::wire::recvFrame(pair.server.get(), number, body));
        QCOMPARE(number, 9u);
        QCOMPARE(body, big);
        QVERIFY(VESK::wire::recvFrame(pair.server.get(), number, body));
        QCOMPARE(number, 5u);
        QVERIFY(body.isEmpty());
    }

    void frameHeaderIsBigEndianNumberThenLength() {
        UdtPair pair = connectedPair();
        QVERIFY(VESK::wire::sendFrame(pair.client.get(), 0x01020304, "ab"));
        char raw[10];
        QVERIFY(VESK::wire::recvAll(pair.server.get(), raw, sizeof raw));
        QCOMPARE(QByteArray(raw, 10), QByteArray("\x01\x02\x03\x04\x00\x00\x00\x02"
                                                 "ab",
                                                 10));
    }

    void sendAndRecvCarryMapsUnderTheirNumber() {
        UdtPair pair = connectedPair();
        ProbeBase client, server;
        attach(client, "client", pair.client.get());
        attach(server, "server", pair.server.get());
        QVERIFY(!client.isActive());
        const QString text = VESK::VeskBase::serializeParam({{"k", QString::fromUtf8("v ✓")}});
        QVERIFY(client.send(6, text));
        QVERIFY(client.isActive());
        QString got;
        QVERIFY(server.recv(6, got));
        QCOMPARE(got, text);
        QVERIFY(server.isActive());
    }

    void recvRejectsWrongMessageNumber() {
        UdtPair pair = connectedPair();
        ProbeBase server;
        server.setParam("endPoint", "server");
        server.setParam("serverSocket", QString::number(pair.server.get()));
        QSignalSpy logs(&server, &VESK::VeskBase::sigLog);
        QVERIFY(VESK::wire::sendFrame(pair.client.get(), 6, "{}"));
        QString text = "unchanged";
        QVERIFY(!server.recv(5, text));
        QCOMPARE(text, QString("unchanged"));
        QCOMPARE(logs.size(), 1);
        QCOMPARE(logs.at(0).at(0).toString(), QString("error"));
    }

    void recvRejectsOverlongLengthWithoutReadingIt() {
        UdtPair pair = connectedPair();
        ProbeBase server;
        server.setParam("endPoint", "server");
        server.setParam("serverSocket", QString::number(pair.server.get()));
        const char header[8] = {0, 0, 0, 5, char(0xff), char(0xff), char(0xff), char(0xff)};
        QVERIFY(VESK::wire::sendAll(pair.client.get(), header, sizeof header));
        QElapsedTimer timer;
        timer.start();
        QString text;
        QVERIFY(!server.recv(5, text));
        QVERIFY(timer.elapsed() < 5000);
        // One byte over the limit is refused too; exactly the limit would be read.
        quint32 number = 0;
        QByteArray body;
        const char over[8] = {0, 0, 0, 5, 0x01, 0x00, 0x00, 0x01};
        QVERIFY(VESK::wire::sendAll(pair.client.get(), over, sizeof over));
        QVERIFY(!VESK::wire::recvFrame(pair.server.get(), number, body));
    }

    void recvFailsWhenThePeerHangsUpMidFrame() {
        UdtPair pair = connectedPair();
        const char header[8] = {0, 0, 0, 5, 0, 0, 0, 100};
        QVERIFY(VESK::wire::sendAll(pair.client.get(), header, sizeof header));
        QVERIFY(VESK::wire::sendAll(pair.client.get(), "{\"a\"", 4));
        pair.client.reset();
        quint32 number = 0;
        QByteArray body;
        QVERIFY(!VESK::wire::recvFrame(pair.server.get(), number, body));
    }

    void sendFailsOnClosedSocket() {
        ProbeBase client;
        client.setParam("endPoint", "client");
        client.setParam("clientSocket", "-1");
        QSignalSpy logs(&client, &VESK::VeskBase::sigLog);
        QVERIFY(!client.send(5, "{}"));
        QCOMPARE(logs.size(), 1);
        QVERIFY(!client.isActive());
    }

    void messageRecordFollowsEverySendAndRecv() {
        using VESK::MessageEvent;
        using Result = MessageEvent::Result;
        UdtPair pair = connectedPair();
        ProbeBase client, server;
        attach(client, "client", pair.client.get());
        attach(server, "server", pair.server.get());
        QVERIFY(client.send(5, "{}"));
        QVERIFY(client.send(9, "{}"));
        QVERIFY(client.send(9, "{}"));
        // The two messages with a verdict say whether it was no.
        QVERIFY(client.send(6, VESK::VeskBase::serializeParam({{"ackRespond", "false"}})));
        QVERIFY(client.send(7, VESK::VeskBase::serializeParam({{"verifyResult", "true"}})));
        QString text;
        QVERIFY(server.recv(5, text));
        QVERIFY(!server.recv(6, text));
        server.setReceivedFrame(6, "{\"ackRespond\":\"true\"}");
        QVERIFY(server.recv(6, text));

        const QVector<MessageEvent> sent = client.messageRecord();
        QCOMPARE(sent.size(), 4);
        QCOMPARE(sent.at(1).number, 9);
        QCOMPARE(sent.at(1).repeats, 2);
        QVERIFY(sent.at(2).refusal);
        QVERIFY(!sent.at(3).refusal);
        for (const MessageEvent& event : sent) {
            QVERIFY(event.direction == MessageEvent::Direction::Sent);
            QVERIFY(event.result == Result::Ok);
        }
        const QVector<MessageEvent> got = server.messageRecord();
        QCOMPARE(got.size(), 3);
        QVERIFY(got.at(0).direction == MessageEvent::Direction::Received);
        QVERIFY(got.at(0).result == Result::Ok);
        QCOMPARE(got.at(1).number, 6);
        QVERIFY(got.at(1).result == Result::Unexpected);
        QVERIFY(got.at(2).result == Result::Ok && !got.at(2).refusal);

        ProbeBase closed;
        closed.setParam("endPoint", "client");
        closed.setParam("clientSocket", "-1");
        QVERIFY(!closed.send(8, "{}"));
        QVERIFY(!closed.recv(8, text));
        const QVector<MessageEvent> broken = closed.messageRecord();
        QCOMPARE(broken.size(), 2);
        QVERIFY(broken.at(0).result == Result::Failed);
        QVERIFY(broken.at(1).direction == MessageEvent::Direction::Received);
        QVERIFY(broken.at(1).result == Result::Failed);
    }

    // ---- Logging ----

    void logEmitsSignalAndAppendsRecordToLogFile() {
        LoggingProbe probe;
        const QString& file = probe.file;
        ProbeBase& b = probe.base;
        QSignalSpy spy(&b, &VESK::VeskBase::sigLog);
        const QDateTime before = QDateTime::currentDateTime().addMSecs(-1);
        b.log("info", "first");
        b.log("error", "two\nlines");
        QCOMPARE(spy.size(), 2);
        QCOMPARE(spy.at(1).at(0).toString(), QString("error"));
        QCOMPARE(spy.at(1).at(1).toString(), QString("two\nlines"));
        const QString text = QString::fromUtf8(readAll(file));
        const QStringList lines = text.split('\n');
        QCOMPARE(lines.size(), 4); // two records, the second spanning two lines, final newline
        const QRegularExpression record(
            R"(^(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}) \[info\] first$)");
        const auto match = record.match(lines.at(0));
        QVERIFY2(match.hasMatch(), qPrintable(lines.at(0)));
        const QDateTime stamp =
            QDateTime::fromString(match.captured(1), "yyyy-MM-dd'T'hh:mm:ss.zzz");
        QVERIFY(stamp >= before.addSecs(-1) && stamp <= QDateTime::currentDateTime());
        QVERIFY(lines.at(1).endsWith(" [error] two"));
        // A further line of a message is indented, so it cannot pass for a record.
        QCOMPARE(lines.at(2), QString("  lines"));
        QCOMPARE(lines.at(3), QString());
    }

    void logFileRecordCannotBeForgedByTheMessage() {
        LoggingProbe probe;
        const QString& file = probe.file;
        ProbeBase& b = probe.base;
        QSignalSpy spy(&b, &VESK::VeskBase::sigLog);
        const QString forged =
            QString("name\n2026-01-01T00:00:00.000 [info] forged\r\x1b[2J\tend") + QChar(0x9b) +
            QChar(0x7f) + QChar(0) + "\u00e9";
        b.log("debug", forged);
        // The signal has the message as given; the file has it escaped.
        QCOMPARE(spy.size(), 1);
        QCOMPARE(spy.at(0).at(1).toString(), forged);
        const QStringList lines = QString::fromUtf8(readAll(file)).split('\n');
        QCOMPARE(lines.size(), 3);
        QVERIFY2(lines.at(0).endsWith(" [debug] name"), qPrintable(lines.at(0)));
        QCOMPARE(lines.at(1), QString("  2026-01-01T00:00:00.000 [info] forged\\x0d\\x1b[2J\tend"
                                      "\\x9b\\x7f\\x00") +
                                  QString::fromUtf8("\u00e9"));
        QCOMPARE(lines.at(2), QString());
        // Every record starts with its time stamp; no line of the message does.
        const QRegularExpression record(R"(^\d{4}-\d\d-\d\dT)");
        QCOMPARE(int(lines.filter(record).size()), 1);
    }

    void logFileIsReopenedAfterARotation() {
        LoggingProbe probe;
        const QString& file = probe.file;
        ProbeBase& b = probe.base;
        b.log("info", "before");
        QVERIFY(QFile::rename(file, file + ".1"));
        b.log("info", "after");
        QVERIFY(QString::fromUtf8(readAll(file + ".1")).contains("[info] before"));
        const QString text = QString::fromUtf8(readAll(file));
        QVERIFY2(text.contains("[info] after") && !text.contains("before"), qPrintable(text));
    }

    // ---- Listing limit ----

    void listEntryLimitFailsTheChunkThatGoesOver() {
        UdtPair pair = connectedPair();
        ProbeBase server;
        server.setParam("endPoint", "server");
        server.setParam("serverSocket", QString::number(pair.server.get()));
        server.setListEntryLimit(150);
        QSignalSpy logs(&server, &VESK::VeskBase::sigLog);
        ParamMap chunk{{"bLast", "false"}};
        for (int i = 0; i < 100; ++i)
            chunk.insert(QString("/a \"%1\":\"x").arg(i), "file");
        QVERIFY(server.send(9, VESK::VeskBase::serializeParam(chunk)));
        chunk.remove("bLast");
        // Other messages are not counted.
        QVERIFY(server.send(5, VESK::VeskBase::serializeParam(chunk)));
        chunk.insert("bLast", "true");
        QCOMPARE(logs.size(), 0);
        QVERIFY(!server.send(9, VESK::VeskBase::serializeParam(chunk)));
        QCOMPARE(logs.size(), 1);
        QCOMPARE(logs.at(0).at(0).toString(), QString("error"));
        QCOMPARE(logs.at(0).at(1).toString(),
                 QString("listing stopped: it has more than 150 entries, the most this server "
                         "lists"));
        QVERIFY(server.messageRecord().last().result == VESK::MessageEvent::Result::OverLimit);
        // What went over was not sent: the peer has the first chunk and the other message only.
        quint32 number = 0;
        QByteArray body;
        QVERIFY(VESK::wire::recvFrame(pair.client.get(), number, body));
        QCOMPARE(number, 9u);
        QCOMPARE(VESK::VeskBase::unSerializeParam(QString::fromUtf8(body)).size(), 101);
        QVERIFY(VESK::wire::recvFrame(pair.client.get(), number, body));
        QCOMPARE(number, 5u);
        setReceiveTimeout(pair.client.get(), 300);
        QVERIFY(!VESK::wire::recvFrame(pair.client.get(), number, body));
    }

    void listEntryLimitOfZeroCountsNothing() {
        UdtPair pair = connectedPair();
        ProbeBase server;
        server.setParam("endPoint", "server");
        server.setParam("serverSocket", QString::number(pair.server.get()));
        ParamMap chunk;
        for (int i = 0; i < 300; ++i)
            chunk.insert(QString("/%1").arg(i), "file");
        QVERIFY(server.send(9, VESK::VeskBase::serializeParam(chunk)));
        server.setListEntryLimit(0);
        QVERIFY(server.send(9, VESK::VeskBase::serializeParam(chunk)));
    }

    void logWithoutLogFileWritesNoFile() {
        QTemporaryDir dir;
        ProbeBase b;
        b.log("info", "nothing on disk");
        QVERIFY(QDir(dir.path()).entryList(QDir::Files).isEmpty());
    }

    void logGoesToTheProtocolCategory() {
        ProbeBase b;
        QTest::ignoreMessage(QtCriticalMsg, "bad thing");
        QTest::ignoreMessage(QtWarningMsg, "odd thing");
        b.log("error", "bad thing");
        b.log("warning", "odd thing");
    }

    // ---- Paths ----

    void pathJoinConfinesTheSecondPiece_data() {
        QTest::addColumn<QString>("a");
        QTest::addColumn<QString>("b");
        QTest::addColumn<QString>("joined");
        QTest::newRow("plain") << "/srv"
                               << "x/y"
                               << "/srv/x/y";
        QTest::newRow("empty b") << "/srv"
                                 << ""
                                 << "/srv";
        QTest::newRow("empty a") << ""
                                 << "x/../y"
                                 << "x/../y";
        QTest::newRow("dot dot") << "/srv"
                                 << "../../etc"
                                 << "/srv/etc";
        QTest::newRow("inner dot dot") << "/srv"
                                       << "a/b/../../../c"
                                       << "/srv/c";
        QTest::newRow("absolute") << "/srv"
                                  << "/etc/passwd"
                                  << "/srv/etc/passwd";
        QTest::newRow("repeated slashes") << "/srv//"
                                          << "a//b///c"
                                          << "/srv/a/b/c";
        QTest::newRow("dots") << "/srv"
                              << "./a/./b/."
                              << "/srv/a/b";
        QTest::newRow("trailing slash") << "/srv/"
                                        << "a/"
                                        << "/srv/a";
        QTest::newRow("only dot dot") << "/srv"
                                      << ".."
                                      << "/srv/";
        QTest::newRow("only slash") << "/srv"
                                    << "/"
                                    << "/srv/";
        QTest::newRow("root a") << "/"
                                << "x"
                                << "/x";
        QTest::newRow("dotted names") << "/srv"
                                      << "..a/b.."
                                      << "/srv/..a/b..";
    }

    void pathJoinConfinesTheSecondPiece() {
        QFETCH(QString, a);
        QFETCH(QString, b);
        QFETCH(QString, joined);
        QCOMPARE(VESK::VeskBase::pathJoin(a, b), joined);
    }

    void mkdirCreatesParentsAndAcceptsExisting() {
        QTemporaryDir dir;
        QString deep = dir.path() + "/a/b/c";
        QVERIFY(VESK::VeskBase::mkdir(deep));
        QVERIFY(QFileInfo(deep).isDir());
        QVERIFY(VESK::VeskBase::mkdir(deep));
        QString file = dir.path() + "/f";
        QVERIFY(writePatternFile(file, 1));
        QString underFile = file + "/x";
        QVERIFY(!VESK::VeskBase::mkdir(underFile));
        QVERIFY(!VESK::VeskBase::mkdir(file));
    }

    void existSeesFilesDirectoriesAndLinkTargets() {
        QTemporaryDir dir;
        QString file = dir.path() + "/f";
        QString missing = dir.path() + "/missing";
        QString link = dir.path() + "/link";
        QString broken = dir.path() + "/broken";
        QString directory = dir.path();
        QVERIFY(writePatternFile(file, 1));
        QVERIFY(QFile::link(file, link));
        QVERIFY(QFile::link(missing, broken));
        QVERIFY(VESK::VeskBase::exist(file));
        QVERIFY(VESK::VeskBase::exist(directory));
        QVERIFY(VESK::VeskBase::exist(link));
        QVERIFY(!VESK::VeskBase::exist(broken));
        QVERIFY(!VESK::VeskBase::exist(missing));
    }

    void chmodWithDecimal777KeepsTheMode() {
        QTemporaryDir dir;
        const QString file = dir.path() + "/f";
        QVERIFY(writePatternFile(file, 1));
        QVERIFY(::chmod(QFile::encodeName(file).constData(), 0640) == 0);
        QVERIFY(VESK::VeskBase::chmod(file, 777));
        QCOMPARE(modeOf(file), 0640);
        QVERIFY(VESK::VeskBase::chmod(file, 0755));
        QCOMPARE(modeOf(file), 0755);
        QVERIFY(VESK::VeskBase::chmod(file, 0777)); // octal 777 is a real mode
        QCOMPARE(modeOf(file), 0777);
        QVERIFY(!VESK::VeskBase::chmod(dir.path() + "/missing", 0644));
    }

    void chmodRecursivelyChangesEachLevelBelowBase() {
        QTemporaryDir dir;
        const QString base = dir.path() + "/base";
        QVERIFY(QDir().mkpath(base + "/a/b/c"));
        QVERIFY(::chmod(QFile::encodeName(base).constData(), 0700) == 0);
        QVERIFY(VESK::VeskBase::chmodRecursively(base, base + "/a/b", 0750));
        QCOMPARE(modeOf(base), 0700);
        QCOMPARE(modeOf(base + "/a"), 0750);
        QCOMPARE(modeOf(base + "/a/b"), 0750);
        QVERIFY(modeOf(base + "/a/b/c") != 0750); // below the target: untouched
        QVERIFY(VESK::VeskBase::chmodRecursively(base + "/", base + "//a/./b/c/", 0711));
        QCOMPARE(modeOf(base + "/a/b/c"), 0711);
        QVERIFY(VESK::VeskBase::chmodRecursively(base, base, 0700));
        QVERIFY(!VESK::VeskBase::chmodRecursively(base, dir.path() + "/elsewhere", 0700));
        QVERIFY(!VESK::VeskBase::chmodRecursively(base, base + "x/a", 0700));
        QVERIFY(!VESK::VeskBase::chmodRecursively(base, base + "/missing", 0700));
        QVERIFY(VESK::VeskBase::chmodRecursively(base, base + "/missing", 777));
    }

    // ---- Verify values ----

    void verifyValuesMatchReferenceTools_data() {
        QTest::addColumn<qint64>("size");
        QTest::newRow("empty") << qint64(0);
        QTest::newRow("one byte") << qint64(1);
        QTest::newRow("several MiB, not block aligned") << qint64(9 * 1024 * 1024 + 17);
    }

    void verifyValuesMatchReferenceTools() {
        QFETCH(qint64, size);
        QTemporaryDir dir;
        QString path = dir.path() + "/data";
        QVERIFY(writePatternFile(path, size, 42));
        ProbeBase b;
        QCOMPARE(b.getFileVerifyValue(path, "md5"), toolDigest("md5sum", path));
        QCOMPARE(b.getFileVerifyValue(path, "sha1"), toolDigest("sha1sum", path));
        QCOMPARE(b.getFileVerifyValue(path, "sha256"), toolDigest("sha256sum", path));
        QCOMPARE(b.getFileVerifyValue(path, "xxh3"), oneShotXxh3(readAll(path)));
        QCOMPARE(b.getFileVerifyValue(path, "fileattr"), QString::number(size));
    }

    void verifyValueIsKeptWithTheFileAndDroppedWhenTheFileChanges() {
        QTemporaryDir dir;
        QString path = dir.path() + "/kept";
        QVERIFY(writePatternFile(path, 300000, 1));
        const QByteArray native = QFile::encodeName(path);
        if (::setxattr(native.constData(), "user.vesk.probe", "x", 1, 0) != 0)
            QSKIP("the temporary directory's file system keeps no user extended attributes");
        ProbeBase b;
        const QString first = b.getFileVerifyValue(path, "xxh3");
        QCOMPARE(first, oneShotXxh3(readAll(path)));
        const QList<QByteArray> record = keptRecord(native, "user.vesk.xxh3");
        QCOMPARE(record.size(), 6);
        QCOMPARE(record[5], first.toLatin1());

        // A record with the file's facts is believed without reading the file: give it another
        // value (and a change-time bound far ahead, since writing it changes the change time).
        QList<QByteArray> forged = record;
        forged[4] = QByteArray::number(std::numeric_limits<qint64>::max());
        forged[5] = "0123456789abcdef0123456789abcdef";
        setRecord(native, "user.vesk.xxh3", forged);
        QCOMPARE(b.getFileVerifyValue(path, "xxh3"), QString::fromLatin1(forged[5]));

        // New contents change the modification time: the value is computed again.
        QVERIFY(writePatternFile(path, 300000, 2));
        QCOMPARE(b.getFileVerifyValue(path, "xxh3"), oneShotXxh3(readAll(path)));

        // Contents changed and the modification time set back: the change time gives it away.
        const QString before = b.getFileVerifyValue(path, "xxh3");
        struct stat st {};
        QCOMPARE(::stat(native.constData(), &st), 0);
        QThread::msleep(300);
        QVERIFY(writePatternFile(path, 300000, 3));
        const timespec times[2] = {st.st_atim, st.st_mtim};
        QCOMPARE(::utimensat(AT_FDCWD, native.constData(), times, 0), 0);
        const QString after = b.getFileVerifyValue(path, "xxh3");
        QCOMPARE(after, oneShotXxh3(readAll(path)));
        QVERIFY(after != before);
    }

    void keptValueFollowsARenameAndANewModificationTime() {
        QTemporaryDir dir;
        QString part = dir.path() + "/.f.vesk-part";
        QString path = dir.path() + "/f";
        QVERIFY(writePatternFile(part, 100000, 4));
        const QByteArray native = QFile::encodeName(path);
        ProbeBase b;
        const QString value = b.getFileVerifyValue(part, "sha256");
        if (keptRecord(QFile::encodeName(part), "user.vesk.sha256").isEmpty())
            QSKIP("the temporary directory's file system keeps no user extended attributes");
        QThread::msleep(300);
        QVERIFY(QFile::rename(part, path));
        const timespec times[2] = {{1000000000, 5}, {1000000000, 5}};
        QCOMPARE(::utimensat(AT_FDCWD, native.constData(), times, 0), 0);
        VESK::verify::adoptKeptValue(path, "sha256");
        const QList<QByteArray> record = keptRecord(native, "user.vesk.sha256");
        QCOMPARE(record.size(), 6);
        QCOMPARE(record[2], QByteArray("1000000000000000005"));
        QCOMPARE(record[5], value.toLatin1());
        // Another size is other contents: nothing is carried over.
        QVERIFY(writePatternFile(path, 100001, 4));
        VESK::verify::adoptKeptValue(path, "sha256");
        QCOMPARE(keptRecord(native, "user.vesk.sha256")[1], QByteArray("100000"));
        QCOMPARE(b.getFileVerifyValue(path, "sha256"), toolDigest("sha256sum", path));
    }

    // The value of bytes written through a ValueTee is kept with the file when the file holds
    // exactly those bytes, and with nothing when anything else happened to it.
    void valueOfWrittenBytesIsKeptWithTheFile_data() {
        QTest::addColumn<QString>("method");
        QTest::addColumn<QString>("afterwards"); // what happens after the writes
        QTest::addColumn<bool>("kept");
        for (const char* m : {"md5", "sha1", "sha256", "xxh3"})
            QTest::newRow(m) << QString(m) << QString() << true;
        QTest::newRow("tell the position") << "xxh3"
                                           << "tell" << true;
        QTest::newRow("fileattr") << "fileattr" << QString() << false;
        QTest::newRow("moved back") << "xxh3"
                                    << "seek" << false;
        QTest::newRow("read through it") << "xxh3"
                                         << "read" << false;
        QTest::newRow("appended beside it") << "sha256"
                                            << "append" << false;
    }

    void valueOfWrittenBytesIsKeptWithTheFile() {
        QFETCH(QString, method);
        QFETCH(QString, afterwards);
        QFETCH(bool, kept);
        QTemporaryDir dir;
        QString path = dir.path() + "/written";
        const QByteArray native = QFile::encodeName(path);
        QByteArray data(300007, Qt::Uninitialized);
        for (int i = 0; i < data.size(); ++i)
            data[i] = char(i * 13 + (i >> 8));
        std::filebuf file;
        QVERIFY(file.open(native.constData(),
                          std::ios::in | std::ios::out | std::ios::app | std::ios::binary));
        if (::setxattr(native.constData(), "user.vesk.probe", "x", 1, 0) != 0)
            QSKIP("the temporary directory's file system keeps no user extended attributes");
        VESK::verify::ValueTee tee(&file, method);
        std::iostream stream(&tee);
        stream.seekp(0);
        stream.write(data.constData(), 1000);
        stream.put(data[1000]);
        stream.write(data.constData() + 1001, data.size() - 1001);
        if (afterwards == "tell")
            QCOMPARE(qint64(stream.tellp()), qint64(data.size()));
        if (afterwards == "seek")
            stream.seekp(10);
        if (afterwards == "read") {
            stream.seekg(0);
            char c = 0;
            stream.get(c);
        }
        QVERIFY(stream.good());
        file.close();
        if (afterwards == "append") {
            QFile more(path);
            QVERIFY(more.open(QIODevice::Append));
            QCOMPARE(more.write("!", 1), qint64(1));
        }
        QCOMPARE(tee.value().keep(path), kept);
        const QList<QByteArray> record = keptRecord(native, qPrintable("user.vesk." + method));
        if (!kept) {
            QVERIFY(record.isEmpty());
            return;
        }
        QCOMPARE(readAll(path), data);
        QCOMPARE(record.size(), 6);
        QCOMPARE(record[1], QByteArray::number(data.size()));
        const QString value = VESK::verify::computeFileValue(path, method);
        QCOMPARE(QString::fromLatin1(record[5]), value);
        ProbeBase b;
        QCOMPARE(b.getFileVerifyValue(path, method), value);
    }

    void xxh3OfEmptyFileIsTheKnownValue() {
        QTemporaryDir dir;
        QString path = dir.path() + "/empty";
        QVERIFY(writePatternFile(path, 0));
        ProbeBase b;
        QCOMPARE(b.getFileVerifyValue(path, "xxh3"), QString("99aa06d3014798d86001c324468d497f"));
    }

    void unknownMethodsUseTheDefault() {
        QTemporaryDir dir;
        QString path = dir.path() + "/data";
        QVERIFY(writePatternFile(path, 12345));
        ProbeBase b;
        const QString xxh3 = b.getFileVerifyValue(path, "xxh3");
        QCOMPARE(xxh3.size(), 32);
        for (const QString& m : QStringList{"true", "fasle", "", "MD5", "crc"})
            QCOMPARE(b.getFileVerifyValue(path, m), xxh3);
    }

    void verifyValueOfMissingOrUnreadableFileIsEmpty() {
        QTemporaryDir dir;
        QString missing = dir.path() + "/missing";
        QString directory = dir.path();
        ProbeBase b;
        for (const QString& m : QStringList{"fileattr", "md5", "sha1", "sha256", "xxh3"}) {
            QCOMPARE(b.getFileVerifyValue(missing, m), QString());
            QCOMPARE(b.getFileVerifyValue(directory, m), QString());
        }
    }

    // ---- Temporary paths ----

    void temporaryPathIsHiddenBesideTheDestination() {
        ProbeBase b;
        QString p = "/srv/data/report.pdf";
        QCOMPARE(b.generateTmpFilePath(p), QString("/srv/data/.report.pdf.vesk-part"));
        QCOMPARE(b.generateTmpFilePath(p), b.generateTmpFilePath(p));
        QString bare = "name";
        QCOMPARE(b.generateTmpFilePath(bare), QString(".name.vesk-part"));
        QString unicode = QString::fromUtf8("/d/文件");
        QCOMPARE(b.generateTmpFilePath(unicode), QString::fromUtf8("/d/.文件.vesk-part"));
    }
};

QTEST_GUILESS_MAIN(tst_Base)
#include "tst_Base.moc"
