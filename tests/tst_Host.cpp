// The vesk program as users run it: a real `vesk serve` on 127.0.0.1 with an ephemeral port and
// the client commands against it, each a separate process. Exit statuses, the one-sentence
// errors, interrupts and resumption, a server stopped in the middle of a transfer, many clients
// at once and the host hello's refusals.

#include "Support.h"
#include "base/Net.h"
#include "base/VeskBase.h"
#include "base/Wire.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>

#include <csignal>
#include <memory>
#include <sys/stat.h>

using namespace vesktest;

namespace {

const QString kVesk = QStringLiteral(VESK_BINARY);
// Large enough that a transfer over loopback is still running when it is interrupted.
constexpr qint64 kBigSize = 256ll * 1024 * 1024;
// Transfers that a test interrupts run at this rate (four seconds for the large file), so that a
// busy machine cannot let one finish before the interrupt arrives.
const QString kInterruptedRate = QStringLiteral("64M");

// Starts vesk. In a sanitizer build the leak checker would add its report of suppressions to
// stderr, which the tests compare word for word.
void startVesk(QProcess& process, const QStringList& args) {
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    const QString lsan = environment.value("LSAN_OPTIONS");
    environment.insert("LSAN_OPTIONS",
                       lsan.isEmpty() ? "print_suppressions=0" : lsan + ":print_suppressions=0");
    process.setProcessEnvironment(environment);
    process.start(kVesk, args);
}

struct Run {
    int code = -1;
    QString out;
    QString err;
};

// Runs vesk to its end (bounded) and collects its output.
Run runVesk(const QStringList& args, int timeoutMs = 60000) {
    QProcess process;
    startVesk(process, args);
    Run run;
    if (!process.waitForStarted(10000))
        return run;
    if (!process.waitForFinished(timeoutMs)) {
        process.kill();
        process.waitForFinished(5000);
        run.err = "timed out";
        return run;
    }
    run.code = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    run.out = QString::fromUtf8(process.readAllStandardOutput());
    run.err = QString::fromUtf8(process.readAllStandardError());
    return run;
}

// Sends `signal` to a running process. QProcess reports 0 once the process has ended, and
// kill(0, ...) would signal this test's whole process group (ctest and its shell included).
void signalProcess(const QProcess& process, int signal) {
    const pid_t pid = pid_t(process.processId());
    if (pid > 0)
        ::kill(pid, signal);
}

// Waits (bounded) until vesk has blocked SIGINT for its interrupt watcher, so that an interrupt
// is its own reaction rather than the default ending; slow starts (a sanitizer build) need it.
bool waitForInterruptHandling(const QProcess& process, int timeoutMs = 10000) {
    QElapsedTimer clock;
    clock.start();
    while (clock.elapsed() < timeoutMs) {
        QFile status(QString("/proc/%1/status").arg(process.processId()));
        if (process.processId() > 0 && status.open(QIODevice::ReadOnly)) {
            for (const QByteArray& line : status.readAll().split('\n')) {
                if (line.startsWith("SigBlk:") &&
                    (line.mid(7).trimmed().toULongLong(nullptr, 16) & (1ull << (SIGINT - 1))))
                    return true;
            }
        }
        QThread::msleep(5);
    }
    return false;
}

// Waits (bounded) until `path` holds more than `bytes` bytes.
bool waitForSizeAbove(const QString& path, qint64 bytes, int timeoutMs = 20000) {
    QElapsedTimer clock;
    clock.start();
    while (clock.elapsed() < timeoutMs) {
        if (QFileInfo(path).size() > bytes)
            return true;
        QThread::usleep(500);
    }
    return false;
}

bool sameContents(const QString& a, const QString& b) {
    QFile fa(a), fb(b);
    if (!fa.open(QIODevice::ReadOnly) || !fb.open(QIODevice::ReadOnly) || fa.size() != fb.size())
        return false;
    while (!fa.atEnd()) {
        if (fa.read(4 << 20) != fb.read(4 << 20))
            return false;
    }
    return true;
}

// Permission bits of a path, or -1 when it cannot be queried.
int modeOf(const QString& path) {
    struct stat info;
    if (::stat(QFile::encodeName(path).constData(), &info) != 0)
        return -1;
    return int(info.st_mode & 07777);
}

// The hidden partial file the receiver keeps beside a destination.
QString partialOf(const QString& destination) {
    const QFileInfo info(destination);
    return info.path() + "/." + info.fileName() + ".vesk-part";
}

// A `vesk serve` process on 127.0.0.1 with a port of its own choosing.
class ServeProcess {
public:
    ServeProcess(const QString& mount, const QStringList& extra = {})
        : m_args(QStringList{"serve", "--listen", "127.0.0.1:0", "--mount", mount, "--app",
                             "appA=apps/a", "--app", "appB=apps/b"} +
                 extra) {}

    ~ServeProcess() {
        if (m_process.state() != QProcess::NotRunning) {
            m_process.kill();
            m_process.waitForFinished(5000);
        }
    }

    // Starts the server and reads the port from its first line.
    bool start() {
        startVesk(m_process, m_args);
        const QString first = waitForLine(QRegularExpression("^vesk: listening on "), 10000);
        const QRegularExpressionMatch m =
            QRegularExpression("^vesk: listening on 127\\.0\\.0\\.1:(\\d+)$").match(first);
        m_port = m.hasMatch() ? quint16(m.captured(1).toUInt()) : 0;
        return m_port != 0;
    }

    quint16 port() const { return m_port; }
    QString url(const QString& rest) const {
        return QString("vesk://127.0.0.1:%1/%2").arg(m_port).arg(rest);
    }

    // The first line of stdout not yet taken that matches `re`; "" after `timeoutMs`.
    QString waitForLine(const QRegularExpression& re, int timeoutMs = 20000) {
        QElapsedTimer clock;
        clock.start();
        for (;;) {
            for (int i = 0; i < m_lines.size(); ++i) {
                if (re.match(m_lines[i]).hasMatch())
                    return m_lines.takeAt(i);
            }
            if (clock.elapsed() > timeoutMs || m_process.state() == QProcess::NotRunning)
                return QString();
            m_process.waitForReadyRead(50);
            m_pending += QString::fromUtf8(m_process.readAllStandardOutput());
            const int end = m_pending.lastIndexOf('\n');
            if (end >= 0) {
                m_lines += m_pending.left(end).split('\n');
                m_pending.remove(0, end + 1);
            }
        }
    }

    // Sends `signal` and waits for the end; the exit status, or -1 when it did not end.
    int stop(int signal = SIGTERM, int timeoutMs = 20000) {
        signalProcess(m_process, signal);
        if (!m_process.waitForFinished(timeoutMs))
            return -1;
        return m_process.exitStatus() == QProcess::NormalExit ? m_process.exitCode() : -1;
    }

    QString stderrText() { return QString::fromUtf8(m_process.readAllStandardError()); }

private:
    QStringList m_args;
    QProcess m_process;
    quint16 m_port = 0;
    QStringList m_lines;
    QString m_pending;
};

// A temporary place with a mount for the server and a local directory for the clients.
struct Scratch {
    QTemporaryDir dir;
    Scratch() {
        QDir(dir.path()).mkpath("mount");
        QDir(dir.path()).mkpath("local");
    }
    QString mount() const { return dir.path() + "/mount"; }
    QString local() const { return dir.path() + "/local"; }
    QString appA() const { return mount() + "/apps/a"; }
};

// A raw UDT connection that speaks only the host hello, for the refusal tests.
struct RawHello {
    VESK::net::Socket socket;
    VESK::ParamMap answer;
    bool answered = false;

    RawHello(quint16 port, const QString& version) {
        socket.reset(VESK::net::connectTo("127.0.0.1", port));
        if (!socket.valid())
            return;
        const VESK::ParamMap hello{{"protocol", "VESK"}, {"version", version}};
        if (!VESK::wire::sendFrame(socket.get(), 1, VESK::VeskBase::serializeParam(hello).toUtf8()))
            return;
        VESK::net::setReceiveTimeout(socket.get(), 10000);
        quint32 number = 0;
        QByteArray body;
        answered = VESK::wire::recvFrame(socket.get(), number, body) && number == 2;
        answer = VESK::VeskBase::unSerializeParam(QString::fromUtf8(body));
    }
    // True when the server has closed its end: a receive fails well before its time limit.
    bool closedByServer() {
        VESK::net::setReceiveTimeout(socket.get(), 5000);
        QElapsedTimer clock;
        clock.start();
        char byte;
        return !VESK::wire::recvAll(socket.get(), &byte, 1) && clock.elapsed() < 4000;
    }
};

} // namespace

class tst_Host : public QObject {
    Q_OBJECT

private:
    QTemporaryDir m_data;
    QString m_big;

private slots:
    void initTestCase() {
        QVERIFY(QFileInfo(kVesk).isExecutable());
        m_big = m_data.path() + "/big.bin";
        QVERIFY(writePatternFile(m_big, kBigSize, 7));
    }

    // ---- Usage ----------------------------------------------------------------------------

    void everyCommandExplainsItselfWithAnExample_data() {
        QTest::addColumn<QString>("command");
        for (const char* command : {"serve", "upload", "download", "ls", "mkdir", "key"})
            QTest::newRow(command) << QString(command);
    }
    void everyCommandExplainsItselfWithAnExample() {
        QFETCH(QString, command);
        const Run run = runVesk({command, "--help"});
        QCOMPARE(run.code, 0);
        QVERIFY2(run.out.startsWith("Usage: vesk " + command), qPrintable(run.out));
        QVERIFY2(run.out.contains("Example:\n  vesk " + command), qPrintable(run.out));
    }

    void overviewListsTheCommands() {
        const Run run = runVesk({"--help"});
        QCOMPARE(run.code, 0);
        for (const char* command : {"serve", "upload", "download", "ls", "mkdir"})
            QVERIFY(run.out.contains(QString("  %1 ").arg(command)));
    }

    void badUsageExitsWithStatusTwo_data() {
        QTest::addColumn<QStringList>("args");
        QTest::addColumn<QString>("message");
        QTest::newRow("no command") << QStringList{} << "vesk: no command given";
        QTest::newRow("unknown command") << QStringList{"move"} << "vesk: unknown command 'move'";
        QTest::newRow("missing argument")
            << QStringList{"upload", "a.txt"} << "vesk upload: expected LOCAL_FILE URL_OF_DIR";
        QTest::newRow("extra argument") << QStringList{"mkdir", "vesk://127.0.0.1:1/a/b", "c"}
                                        << "vesk mkdir: unexpected argument 'c'";
        QTest::newRow("unknown option") << QStringList{"ls", "--colour", "vesk://127.0.0.1:1/a"}
                                        << "vesk ls: Unknown option 'colour'";
        QTest::newRow("not a vesk URL")
            << QStringList{"ls", "http://127.0.0.1:1/a"} << "is not a vesk URL";
        QTest::newRow("no application")
            << QStringList{"ls", "vesk://127.0.0.1:1"} << "names no application";
        QTest::newRow("bad port") << QStringList{"ls", "vesk://127.0.0.1:70000/a"}
                                  << "'70000' is not a valid port";
        QTest::newRow("dot dot") << QStringList{"mkdir", "vesk://127.0.0.1:1/a/../b"}
                                 << "'..' is not allowed";
        QTest::newRow("download of a directory")
            << QStringList{"download", "vesk://127.0.0.1:1/appA"} << "names no file";
        QTest::newRow("unknown verify method")
            << QStringList{"upload", "--verify", "crc", "a.txt", "vesk://127.0.0.1:1/a"}
            << "unknown verify method 'crc'";
        QTest::newRow("rate with a unit of its own")
            << QStringList{"upload", "--max-rate", "5MB/s", "a.txt", "vesk://127.0.0.1:1/a"}
            << "--max-rate takes bytes per second";
        QTest::newRow("rate that rounds to no cap")
            << QStringList{"upload", "--max-rate", "0.5", "a.txt", "vesk://127.0.0.1:1/a"}
            << "--max-rate takes bytes per second";
        QTest::newRow("negative rate")
            << QStringList{"upload", "--max-rate", "-1", "a.txt", "vesk://127.0.0.1:1/a"}
            << "--max-rate takes bytes per second";
        QTest::newRow("unknown congestion control")
            << QStringList{"ls", "--congestion", "bbr", "vesk://127.0.0.1:1/a"}
            << "--congestion takes vesk or udt";
    }
    void badUsageExitsWithStatusTwo() {
        QFETCH(QStringList, args);
        QFETCH(QString, message);
        const Run run = runVesk(args);
        QCOMPARE(run.code, 2);
        QVERIFY2(run.err.contains(message), qPrintable(run.err));
        QCOMPARE(run.err.count('\n'), 1);
    }

    void serveRefusesABadConfigurationWithStatusTwo_data() {
        QTest::addColumn<QStringList>("args");
        QTest::addColumn<QString>("message");
        QTest::newRow("no mount") << QStringList{"--app", "a=x"} << "--mount DIR is required";
        QTest::newRow("missing mount")
            << QStringList{"--mount", "/nonexistent/vesk", "--app", "a=x"} << "does not exist";
        QTest::newRow("no application") << QStringList{"--mount", "."} << "at least one --app";
        QTest::newRow("colon in directory")
            << QStringList{"--mount", ".", "--app", "a=c:d"} << "neither ':' nor '%'";
        QTest::newRow("percent in directory")
            << QStringList{"--mount", ".", "--app", "a=50%"} << "neither ':' nor '%'";
        QTest::newRow("colon in key")
            << QStringList{"--mount", ".", "--app", "a:b=x"} << "neither ':' nor '%'";
        QTest::newRow("outside the mount")
            << QStringList{"--mount", ".", "--app", "a=/nonexistent/elsewhere"}
            << "is not inside the mount";
        QTest::newRow("climbing out")
            << QStringList{"--mount", ".", "--app", "a=../x"} << "is not inside the mount";
        QTest::newRow("no equals") << QStringList{"--mount", ".", "--app", "a"} << "KEY=DIR";
        QTest::newRow("mode") << QStringList{"--mount", ".", "--app", "a=x", "--file-mode", "999"}
                              << "octal modes";
        QTest::newRow("connections")
            << QStringList{"--mount", ".", "--app", "a=x", "--max-connections", "0"}
            << "--max-connections";
        QTest::newRow("rate") << QStringList{"--mount", ".", "--app", "a=x", "--max-rate", "fast"}
                              << "--max-rate takes bytes per second";
        QTest::newRow("congestion")
            << QStringList{"--mount", ".", "--app", "a=x", "--congestion", "cubic"}
            << "--congestion takes vesk or udt";
        QTest::newRow("listen") << QStringList{"--mount", ".",        "--app",
                                               "a=x",     "--listen", "127.0.0.1:x"}
                                << "not a valid port";
        QTest::newRow("missing config")
            << QStringList{"--config", "/nonexistent/vesk.conf"} << "cannot read the config";
    }
    void serveRefusesABadConfigurationWithStatusTwo() {
        QFETCH(QStringList, args);
        QFETCH(QString, message);
        const Run run = runVesk(QStringList{"serve", "--listen", "127.0.0.1:0"} + args);
        QCOMPARE(run.code, 2);
        QVERIFY2(run.err.contains(message), qPrintable(run.err));
    }

    // ---- Every command against a real server ----------------------------------------------

    void roundTripOfEveryCommand() {
        Scratch s;
        ServeProcess server(s.mount());
        QVERIFY(server.start());
        const QString original = s.local() + "/notes.bin";
        QVERIFY(writePatternFile(original, 3 * 1024 * 1024 + 17, 3));

        Run run = runVesk({"mkdir", server.url("appA/docs/2024")});
        QCOMPARE(run.code, 0);
        QVERIFY(QFileInfo(s.appA() + "/docs/2024").isDir());
        QVERIFY(!server
                     .waitForLine(QRegularExpression(" createDir .*/apps/a/docs/2024 0 bytes "
                                                     "[0-9.]+ s success$"))
                     .isEmpty());

        run = runVesk({"upload", "--verify", "xxh3", original, server.url("appA/docs")});
        QCOMPARE(run.code, 0);
        QVERIFY2(run.err.startsWith("vesk: uploaded notes.bin to "), qPrintable(run.err));
        QVERIFY(sameContents(original, s.appA() + "/docs/notes.bin"));
        QVERIFY(!server
                     .waitForLine(QRegularExpression("^127\\.0\\.0\\.1:\\d+ upload "
                                                     ".*/apps/a/docs/notes.bin 3145745 "
                                                     "bytes [0-9.]+ s success$"))
                     .isEmpty());

        run = runVesk({"ls", server.url("appA")});
        QCOMPARE(run.code, 0);
        QCOMPARE(run.out, QString("/docs/\n/docs/2024/\n/docs/notes.bin\n"));
        QCOMPARE(run.err, QString());

        run = runVesk({"ls", "--json", server.url("appA/docs")});
        QCOMPARE(run.code, 0);
        const QStringList lines = run.out.split('\n', Qt::SkipEmptyParts);
        QCOMPARE(lines.size(), 2);
        const QJsonObject first = QJsonDocument::fromJson(lines[0].toUtf8()).object();
        QCOMPARE(first.value("path").toString(), QString("/2024"));
        QCOMPARE(first.value("type").toString(), QString("dir"));
        const QJsonObject second = QJsonDocument::fromJson(lines[1].toUtf8()).object();
        QCOMPARE(second.value("path").toString(), QString("/notes.bin"));
        QCOMPARE(second.value("type").toString(), QString("file"));

        const QString into = s.local() + "/fetched";
        run = runVesk({"download", "--verify", "sha256", server.url("appA/docs/notes.bin"), into});
        QCOMPARE(run.code, 0);
        QVERIFY(sameContents(original, into + "/notes.bin"));
        QVERIFY(!QFileInfo::exists(partialOf(into + "/notes.bin")));

        // Quiet success says nothing at all.
        run = runVesk({"mkdir", "--quiet", server.url("appB/x")});
        QCOMPARE(run.code, 0);
        QCOMPARE(run.err, QString());
        QCOMPARE(server.stop(SIGINT), 0);
    }

    void uploadOfAnIdenticalFileSendsNothing() {
        Scratch s;
        ServeProcess server(s.mount());
        QVERIFY(server.start());
        const QString original = s.local() + "/same.bin";
        QVERIFY(writePatternFile(original, 100000, 4));
        QCOMPARE(runVesk({"upload", original, server.url("appA")}).code, 0);
        const Run again = runVesk({"upload", "--verify", "md5", original, server.url("appA")});
        QCOMPARE(again.code, 0);
        QVERIFY2(again.err.contains("is already on the server; nothing sent"),
                 qPrintable(again.err));
        QCOMPARE(server.stop(), 0);
    }

    void downloadWithReplaceDiscardsTheLocalPartialFile() {
        Scratch s;
        ServeProcess server(s.mount());
        QVERIFY(server.start());
        QVERIFY(QDir().mkpath(s.appA()));
        const QString original = s.appA() + "/r.bin";
        QVERIFY(writePatternFile(original, 2 * 1024 * 1024, 11));
        const QString destination = s.local() + "/r.bin";
        QVERIFY(writePatternFile(destination, 1000, 12));
        QVERIFY(writePatternFile(partialOf(destination), 5000, 13));

        const Run run = runVesk({"download", "--replace", server.url("appA/r.bin"), s.local()});
        QCOMPARE(run.code, 0);
        QVERIFY(sameContents(original, destination));
        QVERIFY(!QFileInfo::exists(partialOf(destination)));
        QCOMPARE(server.stop(), 0);
    }

    void uploadWithReplaceIsVerifiedSoAStalePartialFileCannotSpoilIt() {
        Scratch s;
        ServeProcess server(s.mount());
        QVERIFY(server.start());
        QVERIFY(QDir().mkpath(s.appA()));
        const QString original = s.local() + "/p.bin";
        QVERIFY(writePatternFile(original, 2 * 1024 * 1024, 14));
        const QString destination = s.appA() + "/p.bin";
        QVERIFY(writePatternFile(partialOf(destination), 5000, 15));

        // The server appends to its partial file; the verification catches it and removes it.
        Run run = runVesk({"upload", "--replace", original, server.url("appA")});
        QCOMPARE(run.code, 1);
        QCOMPARE(run.err, QString("vesk: verification failed: the copy differs from the original "
                                  "and its partial data was removed; run the same command "
                                  "again\n"));
        QVERIFY(!QFileInfo::exists(destination));
        QVERIFY(!QFileInfo::exists(partialOf(destination)));

        run = runVesk({"upload", "--replace", original, server.url("appA")});
        QCOMPARE(run.code, 0);
        QVERIFY(sameContents(original, destination));
        QCOMPARE(server.stop(), 0);
    }

    void rootOptionPlacesTheFileBelowTheRoot() {
        Scratch s;
        ServeProcess server(s.mount());
        QVERIFY(server.start());
        const QString original = s.local() + "/r.txt";
        QVERIFY(writePatternFile(original, 1000, 5));
        QCOMPARE(runVesk({"upload", "--root", "tenant1", original, server.url("appB/in")}).code, 0);
        QVERIFY(sameContents(original, s.mount() + "/apps/b/tenant1/in/r.txt"));
        const Run run = runVesk({"ls", "--root", "tenant1", server.url("appB")});
        QCOMPARE(run.out, QString("/in/\n/in/r.txt\n"));
        QCOMPARE(server.stop(), 0);
    }

    // ---- Failures in one sentence ---------------------------------------------------------

    void missingLocalFileFailsWithStatusOne() {
        Scratch s;
        const Run run = runVesk({"upload", s.local() + "/absent.txt", "vesk://127.0.0.1:1/appA"});
        QCOMPARE(run.code, 1);
        QCOMPARE(run.err, QString("vesk: no such local file: %1\n").arg(s.local() + "/absent.txt"));
    }

    void missingServerFileIsNamedInOneSentence() {
        Scratch s;
        ServeProcess server(s.mount());
        QVERIFY(server.start());
        const Run run = runVesk({"download", server.url("appA/a/b.txt"), s.local()});
        QCOMPARE(run.code, 1);
        QCOMPARE(run.err, QString("vesk: no such file on the server: /a/b.txt\n"));
        QVERIFY(!QFileInfo::exists(s.local() + "/b.txt"));
        QCOMPARE(server.stop(), 0);
    }

    void missingServerDirectoryIsNamedInOneSentence() {
        Scratch s;
        ServeProcess server(s.mount());
        QVERIFY(server.start());
        const Run run = runVesk({"ls", server.url("appA/none")});
        QCOMPARE(run.code, 1);
        QCOMPARE(run.err, QString("vesk: no such directory on the server: /none\n"));
        QVERIFY(
            !server.waitForLine(QRegularExpression(" list .* refused: DirNotExist$")).isEmpty());
        QCOMPARE(server.stop(), 0);
    }

    void unknownApplicationIsRefusedByName_data() {
        QTest::addColumn<QString>("command");
        QTest::newRow("ls") << "ls";
        QTest::newRow("mkdir") << "mkdir";
        QTest::newRow("download") << "download";
        QTest::newRow("upload") << "upload";
    }
    void unknownApplicationIsRefusedByName() {
        QFETCH(QString, command);
        Scratch s;
        ServeProcess server(s.mount());
        QVERIFY(server.start());
        const QString local = s.local() + "/u.txt";
        QVERIFY(writePatternFile(local, 10, 1));
        QStringList args{command, server.url("nope/d/u.txt")};
        if (command == "upload")
            args = QStringList{command, local, server.url("nope/d")};
        const Run run = runVesk(args);
        QCOMPARE(run.code, 1);
        QCOMPARE(run.err, QString("vesk: server refused: unknown application 'nope'\n"));
        QCOMPARE(server.stop(), 0);
    }

    void unreachableServerIsNamed() {
        const Run run = runVesk({"ls", "vesk://127.0.0.1:1/appA"});
        QCOMPARE(run.code, 1);
        QVERIFY2(run.err.startsWith("vesk: cannot reach 127.0.0.1:1"), qPrintable(run.err));
    }

    // Each side caps what it sends: the client an upload, the server a download. A cap only
    // slows a transfer down, so the lower bound on its time holds on a busy machine too.
    void maxRateCapsWhatEachSideSends() {
        Scratch s;
        ServeProcess server(s.mount(), {"--max-rate", "2M"});
        QVERIFY(server.start());
        const QString source = s.local() + "/paced.bin";
        QVERIFY(writePatternFile(source, 3 * 1024 * 1024, 8));

        QElapsedTimer clock;
        clock.start();
        const Run up = runVesk({"upload", "--max-rate", "1.5M", source, server.url("appA")});
        QCOMPARE(up.code, 0);
        QVERIFY2(clock.elapsed() >= 1700, qPrintable(QString::number(clock.elapsed())));
        QVERIFY(sameContents(source, s.appA() + "/paced.bin"));

        QVERIFY(QDir().mkpath(s.local() + "/back"));
        clock.restart();
        const Run down = runVesk({"download", server.url("appA/paced.bin"), s.local() + "/back"});
        QCOMPARE(down.code, 0);
        QVERIFY2(clock.elapsed() >= 1200, qPrintable(QString::number(clock.elapsed())));
        QVERIFY(sameContents(source, s.local() + "/back/paced.bin"));
        QCOMPARE(server.stop(), 0);
    }

    // ---- Interrupts and resumption --------------------------------------------------------

    void interruptedUploadKeepsItsPartAndResumesByteIdentical() {
        Scratch s;
        ServeProcess server(s.mount());
        QVERIFY(server.start());
        const QString destination = s.appA() + "/big.bin";

        QProcess client;
        startVesk(client, {"upload", "--max-rate", kInterruptedRate, m_big, server.url("appA")});
        QVERIFY(waitForSizeAbove(partialOf(destination), 0));
        signalProcess(client, SIGINT);
        QVERIFY(client.waitForFinished(20000));
        QCOMPARE(client.exitCode(), 130);
        QVERIFY(QString::fromUtf8(client.readAllStandardError())
                    .contains("run the same command again to resume"));
        // The server ends its side when the connection breaks; the part received stays.
        QVERIFY(!server.waitForLine(QRegularExpression(" upload .*/big.bin \\d+ bytes .* failed"))
                     .isEmpty());
        const qint64 kept = QFileInfo(partialOf(destination)).size();
        QVERIFY2(kept > 0 && kept < kBigSize, qPrintable(QString::number(kept)));
        QVERIFY(!QFileInfo::exists(destination));

        const Run resumed = runVesk({"upload", m_big, server.url("appA")});
        QCOMPARE(resumed.code, 0);
        QVERIFY2(resumed.err.contains("resumed at"), qPrintable(resumed.err));
        QVERIFY(sameContents(m_big, destination));
        QVERIFY(!QFileInfo::exists(partialOf(destination)));
        // Only what was missing travelled the second time.
        const QString line = server.waitForLine(QRegularExpression(" upload .* success$"));
        QVERIFY(line.contains(QString(" %1 bytes ").arg(kBigSize - kept)));
        QCOMPARE(server.stop(), 0);
    }

    void interruptedDownloadKeepsItsPartAndResumes() {
        Scratch s;
        ServeProcess server(s.mount(), {"--max-rate", kInterruptedRate});
        QVERIFY(server.start());
        QVERIFY(QDir().mkpath(s.appA()));
        QVERIFY(QFile::copy(m_big, s.appA() + "/big.bin"));
        const QString destination = s.local() + "/big.bin";

        QProcess client;
        startVesk(client, {"download", server.url("appA/big.bin"), s.local()});
        QVERIFY(waitForSizeAbove(partialOf(destination), 0));
        signalProcess(client, SIGINT);
        QVERIFY(client.waitForFinished(20000));
        QCOMPARE(client.exitCode(), 130);
        const qint64 kept = QFileInfo(partialOf(destination)).size();
        QVERIFY2(kept > 0 && kept < kBigSize, qPrintable(QString::number(kept)));
        QVERIFY(!QFileInfo::exists(destination));

        const Run resumed = runVesk({"download", server.url("appA/big.bin"), s.local()});
        QCOMPARE(resumed.code, 0);
        QVERIFY2(resumed.err.contains("resumed at"), qPrintable(resumed.err));
        QVERIFY(sameContents(m_big, destination));
        QCOMPARE(server.stop(), 0);
    }

    void secondInterruptCancelsAndRemovesThePartialDownload() {
        Scratch s;
        ServeProcess server(s.mount());
        QVERIFY(server.start());
        QVERIFY(QDir().mkpath(s.appA()));
        QVERIFY(QFile::link(m_big, s.appA() + "/big.bin"));
        // An older local copy (sparse, so it costs no disk) keeps the client busy computing its
        // verify value, which a closed socket cannot cut short: the first interrupt pauses,
        // and the second, while the task still runs, turns the pause into a cancel.
        const QString destination = s.local() + "/big.bin";
        QFile old(destination);
        QVERIFY(old.open(QIODevice::WriteOnly) && old.resize(1ll << 30));
        old.close();
        QVERIFY(writePatternFile(partialOf(destination), 1 << 20, 2));

        QProcess client;
        client.setReadChannel(QProcess::StandardError);
        startVesk(client, {"download", "--verify", "md5", server.url("appA/big.bin"), s.local()});
        QVERIFY(client.waitForStarted(10000));
        QVERIFY(waitForInterruptHandling(client));
        QThread::msleep(150);
        signalProcess(client, SIGINT);
        QString err;
        QElapsedTimer clock;
        clock.start();
        while (!err.contains("Ctrl-C again cancels") && clock.elapsed() < 10000) {
            client.waitForReadyRead(10);
            err += QString::fromUtf8(client.readAllStandardError());
        }
        signalProcess(client, SIGINT);
        QVERIFY(client.waitForFinished(20000));
        err += QString::fromUtf8(client.readAllStandardError());
        QCOMPARE(client.exitCode(), 130);
        QVERIFY2(err.endsWith("vesk: cancelled; the partial file was removed\n"), qPrintable(err));
        QVERIFY(!QFileInfo::exists(partialOf(destination)));
        QCOMPARE(QFileInfo(destination).size(), 1ll << 30);
        QCOMPARE(server.stop(), 0);
    }

    void serverStoppedDuringAnUploadExitsZeroAndKeepsThePart() {
        Scratch s;
        const QString destination = s.appA() + "/big.bin";
        auto server = std::make_unique<ServeProcess>(s.mount());
        QVERIFY(server->start());

        QProcess client;
        startVesk(client, {"upload", "--max-rate", kInterruptedRate, m_big, server->url("appA")});
        QVERIFY(waitForSizeAbove(partialOf(destination), 0));
        QCOMPARE(server->stop(SIGTERM), 0);
        QVERIFY(server->stderrText().contains("vesk: stopping; 1 running task(s) paused"));
        QVERIFY(client.waitForFinished(20000));
        QCOMPARE(client.exitCode(), 1);
        const qint64 kept = QFileInfo(partialOf(destination)).size();
        QVERIFY2(kept > 0 && kept < kBigSize, qPrintable(QString::number(kept)));

        // A new server on the same mount lets the client resume.
        server = std::make_unique<ServeProcess>(s.mount());
        QVERIFY(server->start());
        const Run resumed = runVesk({"upload", m_big, server->url("appA")});
        QCOMPARE(resumed.code, 0);
        QVERIFY(sameContents(m_big, destination));
        QCOMPARE(server->stop(), 0);
    }

    // ---- Many clients and the connection limit --------------------------------------------

    void sixteenClientsAtOnce() {
        Scratch s;
        ServeProcess server(s.mount());
        QVERIFY(server.start());
        constexpr int kClients = 16;
        std::vector<std::unique_ptr<QProcess>> clients;
        for (int i = 0; i < kClients; ++i) {
            const QString file = s.local() + QString("/f%1.bin").arg(i);
            QVERIFY(writePatternFile(file, 512 * 1024 + i, quint32(100 + i)));
            clients.push_back(std::make_unique<QProcess>());
            startVesk(*clients.back(), {"upload", "--quiet", file, server.url("appA/many")});
        }
        for (auto& client : clients) {
            QVERIFY(client->waitForFinished(60000));
            QCOMPARE(client->exitCode(), 0);
        }
        for (int i = 0; i < kClients; ++i) {
            const QString name = QString("/f%1.bin").arg(i);
            QVERIFY(sameContents(s.local() + name, s.appA() + "/many" + name));
        }

        // And all of them back at once.
        clients.clear();
        QVERIFY(QDir().mkpath(s.local() + "/back"));
        for (int i = 0; i < kClients; ++i) {
            clients.push_back(std::make_unique<QProcess>());
            startVesk(*clients.back(),
                      {"download", "--quiet", server.url(QString("appA/many/f%1.bin").arg(i)),
                       s.local() + "/back"});
        }
        for (auto& client : clients) {
            QVERIFY(client->waitForFinished(60000));
            QCOMPARE(client->exitCode(), 0);
        }
        for (int i = 0; i < kClients; ++i) {
            const QString name = QString("/f%1.bin").arg(i);
            QVERIFY(sameContents(s.local() + name, s.local() + "/back" + name));
        }
        QCOMPARE(server.stop(), 0);
    }

    void connectionOverTheLimitIsRefusedAtTheHello() {
        Scratch s;
        ServeProcess server(s.mount(), {"--max-connections", "1"});
        QVERIFY(server.start());
        // One accepted connection that sends nothing further holds the only place.
        auto holder = std::make_unique<RawHello>(server.port(), "2.0.0");
        QVERIFY(holder->answered);
        QCOMPARE(holder->answer.value("accepted"), QString("true"));

        QElapsedTimer clock;
        clock.start();
        const Run run = runVesk({"ls", server.url("appA")}, 20000);
        QCOMPARE(run.code, 1);
        QCOMPARE(run.err, QString("vesk: server refused: it is serving as many connections as "
                                  "it allows; try again later\n"));
        QVERIFY(clock.elapsed() < 5000);

        RawHello refused(server.port(), "2.0.0");
        QVERIFY(refused.answered);
        QCOMPARE(refused.answer.value("accepted"), QString("false"));
        QCOMPARE(refused.answer.value("errorType"), QString("TooManyConnections"));
        QVERIFY(refused.closedByServer());

        // Once the place is free again, a client gets in.
        holder.reset();
        QVERIFY(!server
                     .waitForLine(QRegularExpression(
                         " - - 0 bytes [0-9.]+ s failed: respond: recv TaskParam failed\\.$"))
                     .isEmpty());
        QCOMPARE(runVesk({"mkdir", server.url("appA/in")}).code, 0);
        QCOMPARE(server.stop(), 0);
    }

    void helloOfAnotherVersionIsRefused() {
        Scratch s;
        ServeProcess server(s.mount());
        QVERIFY(server.start());
        RawHello hello(server.port(), "9.9.9");
        QVERIFY(hello.answered);
        QCOMPARE(hello.answer.value("accepted"), QString("false"));
        QCOMPARE(hello.answer.value("errorType"), QString("UnsupportedVersion"));
        QVERIFY(hello.closedByServer());
        QVERIFY(!server.waitForLine(QRegularExpression(" refused: UnsupportedVersion$")).isEmpty());
        QCOMPARE(server.stop(), 0);
    }

    // ---- Configuration ----------------------------------------------------------------------

    void configFileSuppliesOptionsAndTheCommandLineWins() {
        Scratch s;
        const QString config = s.dir.path() + "/vesk.conf";
        QFile file(config);
        QVERIFY(file.open(QIODevice::WriteOnly));
        // The file's listen address is unusable; the command line's replaces it. The mount is
        // relative to the file's own directory.
        file.write("listen = 127.0.0.1:1\nmount = mount\ndir-mode = 700\nmax-rate = 1M\n"
                   "congestion = udt\n[apps]\nfromFile = files\n");
        file.close();
        ServeProcess server(s.mount(), {"--config", config});
        QVERIFY(server.start());
        QVERIFY(server.port() != 1);
        QCOMPARE(runVesk({"mkdir", "--congestion", "udt", server.url("fromFile/d")}).code, 0);
        QVERIFY(QFileInfo(s.mount() + "/files/d").isDir());
        QCOMPARE(modeOf(s.mount() + "/files/d"), 0700);
        QCOMPARE(server.stop(), 0);
    }

    void configFileWithAnUnknownSettingIsBadUsage() {
        Scratch s;
        const QString config = s.dir.path() + "/vesk.conf";
        QFile file(config);
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write("mount = mount\nmax-conections = 3\n[apps]\na = a\n");
        file.close();
        const Run run = runVesk({"serve", "--config", config});
        QCOMPARE(run.code, 2);
        QVERIFY2(run.err.contains("unknown setting 'max-conections'"), qPrintable(run.err));
    }

    void absoluteApplicationDirectoryInsideTheMountIsAccepted() {
        Scratch s;
        ServeProcess server(s.mount(), {"--app", "abs=" + s.mount() + "/deep/er"});
        QVERIFY(server.start());
        const QString local = s.local() + "/x.txt";
        QVERIFY(writePatternFile(local, 4096, 9));
        QCOMPARE(runVesk({"upload", local, server.url("abs")}).code, 0);
        QVERIFY(sameContents(local, s.mount() + "/deep/er/x.txt"));
        QCOMPARE(server.stop(), 0);
    }
};

QTEST_GUILESS_MAIN(tst_Host)
#include "tst_Host.moc"
