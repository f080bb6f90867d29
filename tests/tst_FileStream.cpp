// The transfer stream: read and append opens over a duplicated descriptor, the failure stages,
// "beginTime", and the release of every descriptor.

#include "HandlerInternals.h"
#include "Support.h"
#include "base/Wire.h"

#include <QDateTime>
#include <QFile>
#include <QTest>

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <fstream>
#include <sys/resource.h>
#include <unistd.h>
#include <vector>

using namespace vesktest;
using VESK::HandlerInternals;
using VESK::VeskHandler2_0_0;

namespace {

constexpr int kRead = 33;    // in | binary
constexpr int kAppend = 42;  // out | app | binary
constexpr int kReplace = 50; // out | trunc | binary

bool writeText(const QString& path, const QByteArray& data) {
    QFile file(path);
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.write(data) == data.size();
}

} // namespace

class tst_FileStream : public QObject {
    Q_OBJECT

private slots:
    void readModeReadsFromWhereSeekgPutsIt() {
        QTemporaryDir dir;
        QString path = dir.path() + "/source.bin";
        QVERIFY(writePatternFile(path, 300000, 7));
        const QByteArray expected = readAll(path);
        VeskHandler2_0_0 h;
        HandlerInternals in(h);
        QVERIFY(in.createStream(path, kRead));
        std::fstream* stream = in.getStream();
        QVERIFY(stream);
        stream->seekg(123457);
        QByteArray got(70000, '\0');
        stream->read(got.data(), got.size());
        QCOMPARE(stream->gcount(), std::streamsize(got.size()));
        QCOMPARE(got, expected.mid(123457, 70000));
        // Reading past the end sets eof, as UDT's sendfile expects of a short file.
        stream->seekg(299990);
        stream->read(got.data(), 100);
        QCOMPARE(stream->gcount(), std::streamsize(10));
        QVERIFY(stream->eof());
        QVERIFY(in.destroyStream());
        QCOMPARE(readAll(path), expected);
    }

    void writeModesAppendAfterOldContentsEvenAfterSeekToStart_data() {
        QTest::addColumn<int>("mode");
        QTest::newRow("42 out|app|binary") << kAppend;
        QTest::newRow("50 out|trunc|binary") << kReplace;
    }

    void writeModesAppendAfterOldContentsEvenAfterSeekToStart() {
        QFETCH(int, mode);
        QTemporaryDir dir;
        QString path = dir.path() + "/.target.vesk-part";
        QVERIFY(writeText(path, "old contents|"));
        VeskHandler2_0_0 h;
        HandlerInternals in(h);
        QVERIFY(in.createStream(path, mode));
        std::fstream* stream = in.getStream();
        QVERIFY(stream);
        // UDT's recvfile seeks to the offset the server announced, 0 for a replace: the
        // descriptor's append flag still puts every write at the end.
        stream->seekp(0);
        stream->write("new", 3);
        stream->seekp(2);
        stream->write("er", 2);
        QVERIFY(!stream->fail());
        QVERIFY(in.destroyStream());
        QCOMPARE(readAll(path), QByteArray("old contents|newer"));
    }

    void appendModeCreatesMissingFile() {
        QTemporaryDir dir;
        QString path = dir.path() + "/.fresh.vesk-part";
        VeskHandler2_0_0 h;
        HandlerInternals in(h);
        QVERIFY(in.createStream(path, kAppend));
        QVERIFY(QFile::exists(path));
        QByteArray big(3 * 1024 * 1024 + 5, 'x');
        in.getStream()->write(big.constData(), big.size());
        in.getStream()->write("tail", 4);
        QVERIFY(in.destroyStream());
        QCOMPARE(readAll(path), big + "tail");
    }

    void missingFileReadOpenFailsAtQFileStage() {
        QTemporaryDir dir;
        QString path = dir.path() + "/missing.bin";
        QFile probe(path);
        QVERIFY(!probe.open(QIODevice::ReadOnly));
        const QString qtError = probe.errorString();
        QVERIFY(!qtError.isEmpty());

        VeskHandler2_0_0 h;
        HandlerInternals in(h);
        LogCapture logs(&h);
        const int before = openDescriptorCount();
        QVERIFY(!in.createStream(path, kRead));
        QCOMPARE(logs.entries().size(), 1);
        QCOMPARE(logs.entries().first().level, QString("error"));
        QCOMPARE(logs.entries().first().message,
                 QString("createStream: QFile open file %1 failed.error %2").arg(path, qtError));
        QCOMPARE(in.getStream(), static_cast<std::fstream*>(nullptr));
        QCOMPARE(openDescriptorCount(), before);
        QCOMPARE(h.getParam("beginTime", "x"), QString());
    }

    void appendOpenInMissingDirectoryFailsAndLeavesNoStream() {
        QTemporaryDir dir;
        QString path = dir.path() + "/no/such/dir/.f.vesk-part";
        VeskHandler2_0_0 h;
        HandlerInternals in(h);
        LogCapture logs(&h);
        QVERIFY(!in.createStream(path, kAppend));
        QCOMPARE(logs.messages("error").size(), 1);
        QVERIFY(logs.messages("error").first().startsWith(
            QString("createStream: QFile open file %1 failed.error ").arg(path)));
        QCOMPARE(in.getStream(), static_cast<std::fstream*>(nullptr));
        QVERIFY(!QFile::exists(path));
    }

    void beginTimeIsWrittenOnlyAfterSuccessfulOpen() {
        QTemporaryDir dir;
        QString missing = dir.path() + "/missing.bin";
        QString present = dir.path() + "/present.bin";
        QVERIFY(writeText(present, "abc"));
        VeskHandler2_0_0 h;
        HandlerInternals in(h);
        QVERIFY(!in.createStream(missing, kRead));
        QCOMPARE(h.getParam("beginTime", "x"), QString());
        const qint64 before = QDateTime::currentMSecsSinceEpoch();
        QVERIFY(in.createStream(present, kRead));
        const qint64 after = QDateTime::currentMSecsSinceEpoch();
        const QString beginTime = h.getParam("beginTime", "");
        QVERIFY(!beginTime.startsWith('0'));
        QVERIFY(beginTime.toLongLong() >= before);
        QVERIFY(beginTime.toLongLong() <= after);
        QVERIFY(in.destroyStream());
    }

    void destroyStreamWithoutStreamOnlyClearsActivityFlag() {
        UdtPair pair = connectedPair();
        VeskHandler2_0_0 h;
        HandlerInternals in(h);
        h.setParam("endPoint", "server");
        h.setParam("serverSocket", QString::number(pair.server.get()));
        // A received message sets the base's activity flag.
        QVERIFY(VESK::wire::sendFrame(pair.client.get(), 5, "{\"operator\":\"return\"}"));
        QVERIFY(!h.process());
        QVERIFY(h.isActive());
        QMap<QString, QString> before;
        QVERIFY(h.getParams(before));
        const QString error = h.getLastError();

        QVERIFY(in.destroyStream());
        QVERIFY(!h.isActive());
        QCOMPARE(in.getStream(), static_cast<std::fstream*>(nullptr));
        QMap<QString, QString> after;
        QVERIFY(h.getParams(after));
        QCOMPARE(after, before);
        QCOMPARE(h.getLastError(), error);
    }

    void destroyStreamReleasesEveryDescriptor_data() {
        QTest::addColumn<int>("mode");
        QTest::newRow("read") << kRead;
        QTest::newRow("append") << kAppend;
        QTest::newRow("replace") << kReplace;
    }

    void destroyStreamReleasesEveryDescriptor() {
        QFETCH(int, mode);
        QTemporaryDir dir;
        QString path = dir.path() + "/file.bin";
        QVERIFY(writeText(path, "0123456789"));
        VeskHandler2_0_0 h;
        HandlerInternals in(h);
        const int before = openDescriptorCount();
        QVERIFY(in.createStream(path, mode));
        // Only the duplicate stays open while the stream lives; Qt's own descriptor is closed.
        QCOMPARE(openDescriptorCount(), before + 1);
        QVERIFY(in.destroyStream());
        QCOMPARE(openDescriptorCount(), before);
        QCOMPARE(in.getStream(), static_cast<std::fstream*>(nullptr));
        QVERIFY(in.destroyStream());
        QCOMPARE(openDescriptorCount(), before);
    }

    void failedDuplicateLogsTheErrorNumberFdopenLeaves() {
        QTemporaryDir dir;
        QString path = dir.path() + "/file.bin";
        QVERIFY(writeText(path, "abc"));
        VeskHandler2_0_0 h;
        HandlerInternals in(h);
        LogCapture logs(&h);

        // Fill the descriptor table but one slot: the QFile open takes it, the dup then fails
        // with EMFILE, and fdopen on the failed descriptor leaves EBADF.
        rlimit old{};
        QCOMPARE(::getrlimit(RLIMIT_NOFILE, &old), 0);
        rlimit low = old;
        low.rlim_cur = std::min<rlim_t>(old.rlim_cur, 256);
        QCOMPARE(::setrlimit(RLIMIT_NOFILE, &low), 0);
        std::vector<int> fillers;
        for (int fd; (fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC)) >= 0;)
            fillers.push_back(fd);
        QVERIFY(!fillers.empty());
        ::close(fillers.back());
        fillers.pop_back();
        const bool opened = in.createStream(path, kRead);
        for (int fd : fillers)
            ::close(fd);
        QCOMPARE(::setrlimit(RLIMIT_NOFILE, &old), 0);

        QVERIFY(!opened);
        QCOMPARE(logs.messages("error"),
                 QStringList{QString("createStream: Fd open file %1 failed.error %2")
                                 .arg(path, QString::number(EBADF))});
        QCOMPARE(in.getStream(), static_cast<std::fstream*>(nullptr));
    }

    void setStreamStoresPointerWithoutDeletingOld() {
        QTemporaryDir dir;
        QString path = dir.path() + "/file.bin";
        QVERIFY(writeText(path, "abc"));
        VeskHandler2_0_0 h;
        HandlerInternals in(h);
        QVERIFY(in.createStream(path, kRead));
        std::fstream* own = in.getStream();
        std::fstream other;
        in.setStream(&other);
        QCOMPARE(in.getStream(), &other);
        // The replaced stream is still alive and usable; hand it back for destroyStream.
        char c = 0;
        own->seekg(1);
        own->read(&c, 1);
        QCOMPARE(c, 'b');
        in.setStream(own);
        QVERIFY(in.destroyStream());
        QCOMPARE(in.getStream(), static_cast<std::fstream*>(nullptr));
    }
};

QTEST_GUILESS_MAIN(tst_FileStream)
#include "tst_FileStream.moc"
