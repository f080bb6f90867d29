// Downloads end to end: two handlers from the plug-in over a real UDT pair, and each side alone
// against a peer that the test plays by hand on the raw socket.

#include "Support.h"
#include "base/Wire.h"

#include <QCryptographicHash>
#include <QDateTime>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QTest>
#include <QThread>

#define XXH_INLINE_ALL
#include <xxhash.h>

#include <udt/udt.h>

#include <sys/stat.h>
#include <sys/xattr.h>

#include <memory>

using namespace vesktest;
using VESK::ParamMap;

namespace {

constexpr qint64 kMiB = 1024 * 1024;
// Large enough that a stop lands in the middle of the transfer on loopback.
constexpr qint64 kBigSize = 300 * kMiB;
// The large file takes two seconds at this rate, far longer than any stop needs to be seen.
constexpr qint64 kStopTestRate = 150 * kMiB;

// ---- Helpers ----------------------------------------------------------------------------------

bool sendMapOn(int socket, quint32 number, const ParamMap& map) {
    return VESK::wire::sendFrame(socket, number, VESK::VeskBase::serializeParam(map).toUtf8());
}

// The next frame's map; `ok` is false when it fails or carries another number.
ParamMap recvMapOn(int socket, quint32 expected, bool* ok) {
    quint32 number = 0;
    QByteArray body;
    *ok = VESK::wire::recvFrame(socket, number, body) && number == expected;
    return VESK::VeskBase::unSerializeParam(QString::fromUtf8(body));
}

// Nothing arrives on `socket` within a short wait.
bool silent(int socket) {
    setReceiveTimeout(socket, 300);
    quint32 number = 0;
    QByteArray body;
    return !VESK::wire::recvFrame(socket, number, body);
}

// Waits a bounded time for a task started in the background; false when it did not end.
bool finish(std::unique_ptr<AsyncTask>& task, bool& result, int timeoutMs = 20000) {
    bool done = false;
    result = task->wait(timeoutMs, &done);
    return done;
}

// What the peer computes for a verify method, independently of the base's own code.
// Bytes this process has read from files so far (socket receives are not counted).
qint64 bytesReadFromFiles() {
    QFile io("/proc/self/io");
    if (!io.open(QIODevice::ReadOnly))
        return -1;
    for (const QByteArray& line : io.readAll().split('\n')) {
        if (line.startsWith("rchar:"))
            return line.mid(6).trimmed().toLongLong();
    }
    return -1;
}

bool keepsUserAttributes(const QString& directory) {
    const QString probe = directory + "/.attribute-probe";
    QFile file(probe);
    if (!file.open(QIODevice::WriteOnly))
        return false;
    file.close();
    const bool kept =
        ::setxattr(QFile::encodeName(probe).constData(), "user.vesk.probe", "x", 1, 0) == 0;
    QFile::remove(probe);
    return kept;
}

QString expectedValue(const QByteArray& data, const QString& method) {
    if (method == "fileattr")
        return QString::number(data.size());
    if (method == "md5")
        return QCryptographicHash::hash(data, QCryptographicHash::Md5).toHex();
    if (method == "sha1")
        return QCryptographicHash::hash(data, QCryptographicHash::Sha1).toHex();
    if (method == "sha256")
        return QCryptographicHash::hash(data, QCryptographicHash::Sha256).toHex();
    // "xxh3" and every word the base does not know: XXH3 128-bit.
    XXH128_canonical_t canonical;
    XXH128_canonicalFromHash(&canonical, XXH3_128bits(data.constData(), size_t(data.size())));
    return QByteArray(reinterpret_cast<const char*>(canonical.digest), sizeof canonical.digest)
        .toHex();
}

bool writeBytes(const QString& path, const QByteArray& bytes) {
    QFile file(path);
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate) &&
           file.write(bytes) == bytes.size();
}

// Compares two files block by block, without holding either whole.
bool sameContent(const QString& a, const QString& b) {
    QFile fa(a);
    QFile fb(b);
    if (!fa.open(QIODevice::ReadOnly) || !fb.open(QIODevice::ReadOnly) || fa.size() != fb.size())
        return false;
    while (!fa.atEnd()) {
        if (fa.read(8 * kMiB) != fb.read(8 * kMiB))
            return false;
    }
    return true;
}

qint64 mtimeOf(const QString& path) {
    return QFileInfo(path).lastModified().toSecsSinceEpoch();
}

bool setMtime(const QString& path, qint64 seconds) {
    QFile file(path);
    return file.open(QIODevice::ReadWrite) &&
           file.setFileTime(QDateTime::fromSecsSinceEpoch(seconds),
                            QFileDevice::FileModificationTime);
}

mode_t permissionsOf(const QString& path) {
    struct stat info {};
    ::stat(QFile::encodeName(path).constData(), &info);
    return info.st_mode & 07777;
}

QString tmpOf(const QString& destination) {
    const QFileInfo info(destination);
    return info.path() + "/." + info.fileName() + ".vesk-part";
}

// True when some entry of `level` starts with `prefix`.
bool hasPrefix(const LogCapture& logs, const QString& level, const QString& prefix) {
    for (const QString& message : logs.messages(level)) {
        if (message.startsWith(prefix))
            return true;
    }
    return false;
}

// Puts a pattern file of `size` bytes into appA on the server; returns its path.
QString servePattern(const MountTree& tree, const QString& name, qint64 size, quint32 seed) {
    const QString path = tree.appDir("appA") + "/" + name;
    return writePatternFile(path, size, seed) ? path : QString();
}

// ---- Two handlers on one connection -----------------------------------------------------------

// A client and a server handler on a connected pair, configured the way their hosts would.
struct Session {
    const MountTree& tree;
    UdtPair pair = connectedPair();
    Handler client = makeHandler();
    Handler server = makeHandler();
    LogCapture clientLog{client.get()};
    LogCapture serverLog{server.get()};
    Counters counters;
    std::unique_ptr<AsyncTask> serverTask;
    std::unique_ptr<AsyncTask> clientTask;

    explicit Session(const MountTree& mount)
        : tree(mount) {
        configureClient(client.get(), pair.client.get(), "download");
        counters.install(client.get());
        client->setParam("appKey", "appA");
        client->setParam("bVerify", "false");
        configureServer(server.get(), pair.server.get(), tree.mount(), tree.appTable());
    }

    QString serve(const QString& name, qint64 size, quint32 seed = 1) {
        return servePattern(tree, name, size, seed);
    }

    // Asks for `fileName`, to be placed in `destPath` (the local scratch directory by default).
    void want(const QString& fileName, const QString& destPath = QString(),
              const QString& srcPath = "", const QString& rootPath = "") {
        client->setParam("fileName", fileName);
        client->setParam("destPath", destPath.isEmpty() ? tree.local() : destPath);
        client->setParam("srcPath", srcPath);
        client->setParam("rootPath", rootPath);
    }

    void start() {
        serverTask.reset(new AsyncTask(server.get()));
        clientTask.reset(new AsyncTask(client.get()));
    }

    // Starts both tasks and returns once the client's offset counter, the host's view of the
    // running transfer, has passed `bytes`.
    bool startAndWaitForProgress(qint64 bytes) {
        start();
        QElapsedTimer timer;
        timer.start();
        while (__atomic_load_n(&counters.offset, __ATOMIC_RELAXED) <= bytes) {
            if (timer.elapsed() > 20000)
                return false;
            QThread::usleep(200);
        }
        return true;
    }

    // Both tasks, run the way two hosts run them: each host closes its socket (after draining
    // it) as soon as its own task has ended, which is what releases a peer still waiting. With
    // `clientClosesLast` the client's socket stays open until the server's task has ended too.
    TaskResults run(int timeoutMs = 30000, bool clientClosesLast = false) {
        start();
        TaskResults results;
        bool clientDone = false;
        bool serverDone = false;
        QElapsedTimer timer;
        timer.start();
        while ((!clientDone || !serverDone) && timer.elapsed() < timeoutMs) {
            if (!clientDone && (clientDone = finish(clientTask, results.client, 5)) &&
                !clientClosesLast)
                pair.client.reset();
            if (!serverDone && (serverDone = finish(serverTask, results.server, 5)))
                pair.server.reset();
        }
        if (!clientDone || !serverDone) {
            results.timedOut = true;
            pair.client.reset();
            pair.server.reset();
            finish(clientTask, results.client, timeoutMs);
            finish(serverTask, results.server, timeoutMs);
        }
        return results;
    }
};

// A client handler with only the host's own settings: nothing else is in its parameters.
struct BareClient {
    Handler client = makeHandler();
    LogCapture log{client.get()};
    Counters counters;

    BareClient() {
        client->clearParam();
        configureClient(client.get(), 12345, "download");
        counters.install(client.get());
    }
};

// ---- One handler, the test as its peer --------------------------------------------------------

// An accepting TaskParamAck for `data` with the given verify value.
ParamMap acceptingAck(const QByteArray& data, const QString& verifyValue) {
    return {{"ackRespond", "true"},
            {"bTruncate", "false"},
            {"fileSize", QString::number(data.size())},
            {"verifyValue", verifyValue},
            {"bTransfer", "true"}};
}

// A client handler whose server the test plays on the raw socket.
struct ClientAlone {
    UdtPair pair = connectedPair();
    Handler client = makeHandler();
    LogCapture log{client.get()};
    Counters counters;
    std::unique_ptr<AsyncTask> task;

    ClientAlone(const QString& destPath, const QString& fileName, const QString& bVerify) {
        configureClient(client.get(), pair.client.get(), "download");
        counters.install(client.get());
        client->setParam("fileName", fileName);
        client->setParam("destPath", destPath);
        client->setParam("bVerify", bVerify);
    }
    int peer() const { return pair.server.get(); }

    // Starts the client and reads its TaskParam into `param`.
    bool start(ParamMap& param) {
        task.reset(new AsyncTask(client.get()));
        bool ok = false;
        param = recvMapOn(peer(), 5, &ok);
        return ok;
    }
    // Answers with `ack`, then sends `data` as the file's bytes.
    bool answer(const ParamMap& ack, const QByteArray& data) {
        return sendMapOn(peer(), 6, ack) &&
               VESK::wire::sendAll(peer(), data.constData(), data.size());
    }
    // The next control message; an empty map with `ok` false when it is not `number`.
    ParamMap next(quint32 number, bool& ok) { return recvMapOn(peer(), number, &ok); }
};

// A server handler whose client the test plays on the raw socket.
struct ServerAlone {
    const MountTree& tree;
    UdtPair pair = connectedPair();
    Handler server = makeHandler();
    LogCapture log{server.get()};
    std::unique_ptr<AsyncTask> task;

    explicit ServerAlone(const MountTree& mount)
        : tree(mount) {
        configureServer(server.get(), pair.server.get(), tree.mount(), tree.appTable());
    }
    int peer() const { return pair.client.get(); }

    // Puts a pattern file into appA and returns its contents.
    QByteArray serve(const QString& name, qint64 size, quint32 seed) {
        return readAll(servePattern(tree, name, size, seed));
    }

    // Starts the server with a download TaskParam and reads its TaskParamAck into `ack`.
    bool request(const ParamMap& param, ParamMap& ack) {
        task.reset(new AsyncTask(server.get()));
        ParamMap full = param;
        full.insert("operator", "download");
        bool ok = false;
        if (sendMapOn(peer(), 5, full))
            ack = recvMapOn(peer(), 6, &ok);
        return ok;
    }
    // Reads the file's bytes that the server sends.
    QByteArray receive(qint64 size) {
        QByteArray data(int(size), Qt::Uninitialized);
        return VESK::wire::recvAll(peer(), data.data(), size) ? data : QByteArray();
    }
};

} // namespace

class tst_Download : public QObject {
    Q_OBJECT

    std::unique_ptr<MountTree> m_big;

    QString bigFile() const { return m_big->appDir("appA") + "/big.bin"; }

private slots:
    void initTestCase() {
        // One large file, made at run time, for the stop tests; the server only reads it.
        m_big.reset(new MountTree);
        QVERIFY(m_big->isValid());
        QVERIFY(writePatternFile(bigFile(), kBigSize, 300));
    }

    // ---- A plain download ----

    void freshDownloadIsByteIdenticalAndReportsProgress() {
        MountTree tree;
        Session s(tree);
        QVERIFY(QDir().mkpath(tree.appDir("appA") + "/root/src"));
        const qint64 size = 4 * kMiB + 123;
        const QString served = s.serve("root/src/data.bin", size, 7);
        QVERIFY(::chmod(QFile::encodeName(served).constData(), 0604) == 0);
        QVERIFY(setMtime(served, 1000000000));
        const QByteArray original = readAll(served);
        const QString destDir = tree.local() + "/new/deeper";
        s.want("data.bin", destDir, "src", "root");
        s.client->setParam("bVerify", "xxh3");
        const qint64 before = QDateTime::currentSecsSinceEpoch();
        const TaskResults r = s.run();
        QVERIFY(!r.timedOut);
        QVERIFY(r.client);
        QVERIFY(r.server);

        const QString dest = destDir + "/data.bin";
        QCOMPARE(readAll(dest), original);
        QVERIFY(!QFile::exists(tmpOf(dest)));
        QCOMPARE(s.client->getParam("tmpFilePath", ""), tmpOf(dest));
        QCOMPARE(s.counters.total, size);
        QCOMPARE(s.counters.offset, size);
        QCOMPARE(s.client->getParam("transferBeginSize", ""), QString("0"));
        QCOMPARE(s.client->getParam("transferEndSize", ""), QString::number(size));
        QCOMPARE(s.server->getParam("transferBeginSize", ""), QString("0"));
        QCOMPARE(s.server->getParam("transferEndSize", ""), QString::number(size));
        QCOMPARE(s.server->getParam("path", ""), served);
        QCOMPARE(s.server->getParam("fileSize", ""), QString::number(size));
        QCOMPARE(s.server->getParam("respondStatus", ""), QString("success"));

        // The download stamps neither the server's time nor its mode on the new file.
        QVERIFY(mtimeOf(dest) >= before);
        const QString probe = destDir + "/probe";
        QVERIFY(writeBytes(probe, "x"));
        QCOMPARE(permissionsOf(dest), permissionsOf(probe));

        // The served file is left exactly as it was.
        QCOMPARE(readAll(served), original);
        QCOMPARE(mtimeOf(served), qint64(1000000000));
        QCOMPARE(permissionsOf(served), mode_t(0604));

        QVERIFY(s.serverLog.contains("info", "downloadRespond: " + served + " ..."));
        QVERIFY(s.clientLog.contains("info", "downloadRequest: local mac "));
        QCOMPARE(s.clientLog.messages("error"), QStringList());
        QCOMPARE(s.serverLog.messages("error"), QStringList());
        QCOMPARE(s.clientLog.messages("warning"), QStringList());
        QCOMPARE(s.serverLog.messages("warning"), QStringList());
    }

    void macIsLoggedAndKept() {
        MountTree tree;
        Session s(tree);
        QVERIFY(!s.serve("m.bin", 1000).isEmpty());
        s.want("m.bin");
        s.client->setParam("mac", "00:11:22:33:44:55");
        const TaskResults r = s.run();
        QVERIFY(r.client && r.server);
        QVERIFY(s.clientLog.contains("info", "downloadRequest: local mac 00:11:22:33:44:55"));
        QCOMPARE(s.client->getParam("mac", ""), QString("00:11:22:33:44:55"));
    }

    // ---- Resuming ----

    void resumeContinuesFromPartialTemporaryFile() {
        MountTree tree;
        Session s(tree);
        const QByteArray original = readAll(s.serve("r.bin", 3 * kMiB + 5, 11));
        const QString dest = tree.local() + "/r.bin";
        const qint64 partial = 1536 * 1024 + 17;
        QVERIFY(writeBytes(tmpOf(dest), original.left(partial)));
        s.want("r.bin");
        s.client->setParam("bVerify", "md5");
        const TaskResults r = s.run();
        QVERIFY(r.client && r.server);
        QCOMPARE(readAll(dest), original);
        QCOMPARE(s.server->getParam("transferBeginSize", ""), QString::number(partial));
        QCOMPARE(s.client->getParam("transferBeginSize", ""), QString::number(partial));
        QCOMPARE(s.server->getParam("transferEndSize", ""), QString::number(original.size()));
        QCOMPARE(s.counters.offset, qint64(original.size()));
        QCOMPARE(s.counters.total, qint64(original.size()));
        QCOMPARE(s.serverLog.messages("warning"), QStringList());
    }

    void temporaryFileLongerThanServerFileIsDiscarded() {
        MountTree tree;
        Session s(tree);
        const QString served = s.serve("t.bin", 200000, 12);
        const QString dest = tree.local() + "/t.bin";
        QVERIFY(writePatternFile(tmpOf(dest), 250000, 99));
        s.want("t.bin");
        s.client->setParam("bVerify", "sha1");
        const TaskResults r = s.run();
        QVERIFY(r.client && r.server);
        QCOMPARE(readAll(dest), readAll(served));
        QVERIFY(s.serverLog.contains(
            "warning",
            "downloadRespond: client tmp file offset[250000], server file size[200000]."));
        QVERIFY(s.clientLog.contains("warning",
                                     "downloadRequest: client tmp file offset[250000], server file "
                                     "size[200000], remove tmp file [" +
                                         tmpOf(dest) + "]."));
        // The server records the offset as it was asked for; the whole file then moves.
        QCOMPARE(s.server->getParam("transferBeginSize", ""), QString("250000"));
        QCOMPARE(s.server->getParam("transferEndSize", ""), QString("200000"));
        QCOMPARE(s.counters.offset, qint64(200000));
        QCOMPARE(s.counters.total, qint64(200000));
    }

    void offsetEqualToFileSizeMovesNothingAndCompletes() {
        MountTree tree;
        Session s(tree);
        const QString served = s.serve("e.bin", 123457, 13);
        const QString dest = tree.local() + "/e.bin";
        QVERIFY(QFile::copy(served, tmpOf(dest)));
        s.want("e.bin");
        s.client->setParam("bVerify", "sha256");
        // With nothing left to move, the client may finish before the server reaches its empty
        // bulk step, which fails on a connection already closed. A client host then waits for
        // the server to close first, and so does this test.
        const TaskResults r = s.run(30000, true);
        QVERIFY(r.client && r.server);
        QCOMPARE(readAll(dest), readAll(served));
        QVERIFY(!QFile::exists(tmpOf(dest)));
        QCOMPARE(s.server->getParam("transferBeginSize", ""), QString("123457"));
        QCOMPARE(s.server->getParam("transferEndSize", ""), QString("123457"));
        QCOMPARE(s.client->getParam("transferEndSize", ""), QString("123457"));
        QCOMPARE(s.serverLog.messages("warning"), QStringList());
        QCOMPARE(s.clientLog.messages("warning"), QStringList());
    }

    // ---- Verification ----

    void everyVerifyMethodDownloadsEndToEnd_data() { methodRows({"true"}); }
    void everyVerifyMethodDownloadsEndToEnd() {
        QFETCH(QString, method);
        MountTree tree;
        Session s(tree);
        const QString served = s.serve("v.bin", 300001, 14);
        s.want("v.bin");
        s.client->setParam("bVerify", method);
        const TaskResults r = s.run();
        QVERIFY(r.client && r.server);
        QCOMPARE(readAll(tree.local() + "/v.bin"), readAll(served));
        QCOMPARE(s.clientLog.messages("error"), QStringList());
        QCOMPARE(s.serverLog.messages("error"), QStringList());
    }

    // The client checks the received file with the very method it asked for, and tells the
    // server with message 7 before TaskComplete.
    void clientVerifiesWithRequestedMethod_data() { methodRows(); }
    void clientVerifiesWithRequestedMethod() {
        QFETCH(QString, method);
        MountTree tree;
        ClientAlone c(tree.local(), "p.bin", method);
        QByteArray data(77777, Qt::Uninitialized);
        for (int i = 0; i < data.size(); ++i)
            data[i] = char(i * 31);
        ParamMap param;
        QVERIFY(c.start(param));
        QCOMPARE(param.value("bVerify", "absent"), method);
        QVERIFY(!param.contains("verifyValue"));
        QCOMPARE(param.value("offset"), QString("0"));
        QVERIFY(c.answer(acceptingAck(data, expectedValue(data, method)), data));
        bool ok = false;
        QCOMPARE(c.next(7, ok), (ParamMap{{"verifyResult", "true"}}));
        QVERIFY(ok);
        QCOMPARE(c.next(8, ok), (ParamMap{{"fileName", "p.bin"}}));
        QVERIFY(ok);
        bool result = false;
        QVERIFY(finish(c.task, result));
        QVERIFY(result);
        QCOMPARE(readAll(tree.local() + "/p.bin"), data);
    }

    // A new file is verified with the value of its bytes taken as they arrived: the client does
    // not read the whole file back, and keeps that value with the file for later comparisons.
    void receivedFileIsVerifiedWithoutReadingItBack() {
        MountTree tree;
        if (!keepsUserAttributes(tree.local()))
            QSKIP("the temporary directory's file system keeps no user extended attributes");
        ClientAlone c(tree.local(), "r.bin", "sha256");
        QByteArray data(4 * 1024 * 1024 + 3, Qt::Uninitialized);
        for (int i = 0; i < data.size(); ++i)
            data[i] = char((i * 7) ^ (i >> 9));
        const QString value = expectedValue(data, "sha256");
        ParamMap param;
        QVERIFY(c.start(param));
        const qint64 before = bytesReadFromFiles();
        QVERIFY(before >= 0);
        QVERIFY(c.answer(acceptingAck(data, value), data));
        bool ok = false;
        QCOMPARE(c.next(7, ok), (ParamMap{{"verifyResult", "true"}}));
        QVERIFY(ok);
        const qint64 read = bytesReadFromFiles() - before;
        QVERIFY2(read < data.size() / 4, qPrintable(QString("%1 bytes read").arg(read)));
        QCOMPARE(c.next(8, ok), (ParamMap{{"fileName", "r.bin"}}));
        QVERIFY(ok);
        bool result = false;
        QVERIFY(finish(c.task, result));
        QVERIFY(result);
        const QString path = tree.local() + "/r.bin";
        QCOMPARE(readAll(path), data);
        char record[256] = {};
        const ssize_t n = ::getxattr(QFile::encodeName(path).constData(), "user.vesk.sha256",
                                     record, sizeof record - 1);
        QVERIFY(n > 0);
        QVERIFY(QByteArray(record, int(n)).endsWith(" " + value.toLatin1()));
    }

    // The server answers with its file's value under the method the client named.
    void serverAnswersWithRequestedMethod_data() { methodRows(); }
    void serverAnswersWithRequestedMethod() {
        QFETCH(QString, method);
        MountTree tree;
        ServerAlone s(tree);
        const QByteArray data = s.serve("s.bin", 65537, 15);
        ParamMap ack;
        // No verifyValue: the client holds no file, so the transfer goes ahead.
        QVERIFY(s.request(
            {{"appKey", "appA"}, {"fileName", "s.bin"}, {"bVerify", method}, {"offset", "0"}},
            ack));
        QCOMPARE(ack, acceptingAck(data, expectedValue(data, method)));
        QCOMPARE(s.receive(data.size()), data);
        QVERIFY(sendMapOn(s.peer(), 7, {{"verifyResult", "true"}}));
        QVERIFY(sendMapOn(s.peer(), 8, {{"fileName", "s.bin"}}));
        bool result = false;
        QVERIFY(finish(s.task, result));
        QVERIFY(result);
    }

    void verifyMismatchRejectsFileAndKeepsOldDestination() {
        MountTree tree;
        const QString dest = tree.local() + "/w.bin";
        QVERIFY(writeBytes(dest, "old contents"));
        ClientAlone c(tree.local(), "w.bin", "md5");
        const QByteArray data(5000, 'w');
        ParamMap param;
        QVERIFY(c.start(param));
        QCOMPARE(param.value("verifyValue"), expectedValue("old contents", "md5"));
        QVERIFY(c.answer(acceptingAck(data, expectedValue("something else", "md5")), data));
        bool ok = false;
        QCOMPARE(c.next(7, ok), (ParamMap{{"verifyResult", "false"}}));
        QVERIFY(ok);
        bool result = true;
        QVERIFY(finish(c.task, result));
        QVERIFY(!result);
        QVERIFY(c.log.contains("error", "downloadRequest: FileVerify failed."));
        QVERIFY(silent(c.peer()));
        QCOMPARE(readAll(dest), QByteArray("old contents"));
        QVERIFY(!QFile::exists(tmpOf(dest)));
    }

    void identicalFilesEndAsSecondPass() {
        MountTree tree;
        Session s(tree);
        const QString served = s.serve("i.bin", 500000, 16);
        const QString dest = tree.local() + "/i.bin";
        QVERIFY(QFile::copy(served, dest));
        QVERIFY(setMtime(dest, 1200000000));
        s.want("i.bin");
        s.client->setParam("bVerify", "sha256");
        s.counters.offset = 4242;
        const TaskResults r = s.run();
        QVERIFY(r.client && r.server);
        QVERIFY(s.clientLog.contains("info", "downloadRequest: file " + dest + " second pass."));
        QVERIFY(s.serverLog.contains("info", "downloadRespond: file " + served + " second pass."));
        QCOMPARE(readAll(dest), readAll(served));
        QCOMPARE(mtimeOf(dest), qint64(1200000000));
        QVERIFY(!QFile::exists(tmpOf(dest)));
        QCOMPARE(s.counters.total, qint64(500000));
        QCOMPARE(s.counters.offset, qint64(0)); // the (absent) temporary file's length
        QCOMPARE(s.server->getParam("transferEndSize", "unset"), QString());
        QCOMPARE(s.client->getParam("transferEndSize", "unset"), QString());
    }

    void fileattrTakesSameSizedFileAsSame() {
        MountTree tree;
        Session s(tree);
        QVERIFY(!s.serve("a.bin", 4096, 1).isEmpty());
        const QString dest = tree.local() + "/a.bin";
        QVERIFY(writePatternFile(dest, 4096, 2));
        const QByteArray mine = readAll(dest);
        s.want("a.bin");
        s.client->setParam("bVerify", "fileattr");
        const TaskResults r = s.run();
        QVERIFY(r.client && r.server);
        QVERIFY(s.clientLog.contains("info", "downloadRequest: file " + dest + " second pass."));
        QCOMPARE(readAll(dest), mine);
    }

    void differingDestinationIsReplacedAfterVerifiedReceipt() {
        MountTree tree;
        Session s(tree);
        const QString served = s.serve("d.bin", 100000, 17);
        const QString dest = tree.local() + "/d.bin";
        QVERIFY(writePatternFile(dest, 100000, 18));
        s.want("d.bin");
        s.client->setParam("bVerify", "md5");
        const TaskResults r = s.run();
        QVERIFY(r.client && r.server);
        QCOMPARE(readAll(dest), readAll(served));
        QVERIFY(!QFile::exists(tmpOf(dest)));
    }

    void noVerifyResultWhenVerificationIsOff() {
        MountTree tree;
        ClientAlone c(tree.local(), "n.bin", "false");
        const QByteArray data(3000, 'n');
        ParamMap param;
        QVERIFY(c.start(param));
        QVERIFY(c.answer(acceptingAck(data, ""), data));
        // The next frame is TaskComplete: no FileVerifyResult comes first.
        bool ok = false;
        QCOMPARE(c.next(8, ok), (ParamMap{{"fileName", "n.bin"}}));
        QVERIFY(ok);
        bool result = false;
        QVERIFY(finish(c.task, result));
        QVERIFY(result);
        QCOMPARE(readAll(tree.local() + "/n.bin"), data);
    }

    void replyWithoutTransferFlagMeansTransfer() {
        MountTree tree;
        const QString dest = tree.local() + "/x.bin";
        const QByteArray data("same");
        // The client holds the same file and says so; a reply without bTransfer still sends.
        QVERIFY(writeBytes(dest, data));
        ClientAlone c(tree.local(), "x.bin", "sha1");
        ParamMap param;
        QVERIFY(c.start(param));
        QCOMPARE(param.value("verifyValue"), expectedValue(data, "sha1"));
        ParamMap ack = acceptingAck(data, expectedValue(data, "sha1"));
        ack.remove("bTransfer");
        QVERIFY(c.answer(ack, data));
        bool ok = false;
        QCOMPARE(c.next(7, ok), (ParamMap{{"verifyResult", "true"}}));
        QVERIFY(ok);
        c.next(8, ok);
        QVERIFY(ok);
        bool result = false;
        QVERIFY(finish(c.task, result));
        QVERIFY(result);
        QCOMPARE(readAll(dest), data);
        QCOMPARE(c.counters.total, qint64(4));
        QCOMPARE(c.counters.offset, qint64(4));
        QCOMPARE(c.client->getParam("transferEndSize", ""), QString("4"));
    }

    // ---- Replacing ----

    void replaceWithPartialTemporaryFileAppendsAfterOldBytes_data() {
        QTest::addColumn<QString>("verify");
        QTest::newRow("verified") << "xxh3";
        QTest::newRow("unverified") << "false";
    }
    void replaceWithPartialTemporaryFileAppendsAfterOldBytes() {
        QFETCH(QString, verify);
        MountTree tree;
        Session s(tree);
        const QByteArray original = readAll(s.serve("b.bin", 40000, 19));
        const QString dest = tree.local() + "/b.bin";
        const QByteArray old(1000, 'o');
        QVERIFY(writeBytes(tmpOf(dest), old));
        s.want("b.bin");
        s.client->setParam("bReplace", "true");
        s.client->setParam("bVerify", verify);
        const TaskResults r = s.run();
        QVERIFY(!r.timedOut);
        // Offset 0 is asked for, but the temporary file is opened for appending all the same.
        QCOMPARE(s.server->getParam("transferBeginSize", ""), QString("0"));
        QCOMPARE(s.client->getParam("transferBeginSize", ""), QString("0"));
        QCOMPARE(s.client->getParam("transferEndSize", ""), QString("40000"));
        if (verify == "false") {
            QVERIFY(r.client && r.server);
            QCOMPARE(readAll(dest), old + original);
        } else {
            QVERIFY(!r.client);
            QVERIFY(!r.server);
            QVERIFY(s.clientLog.contains("error", "downloadRequest: FileVerify failed."));
            QVERIFY(s.serverLog.contains("error", "downloadRespond: FileVerifyResult error."));
            QVERIFY(!QFile::exists(tmpOf(dest)));
            QVERIFY(!QFile::exists(dest));
        }
    }

    void existingDestinationIsKeptWithoutContact() {
        MountTree tree;
        Session s(tree);
        QVERIFY(!s.serve("k.bin", 9000, 20).isEmpty());
        const QString dest = tree.local() + "/k.bin";
        QVERIFY(writeBytes(dest, "mine, 16 bytes.."));
        s.want("k.bin");
        s.counters.offset = 777;
        QVERIFY(s.client->process());
        QCOMPARE(s.counters.total, qint64(16));
        QCOMPARE(s.counters.offset, qint64(777));
        QCOMPARE(readAll(dest), QByteArray("mine, 16 bytes.."));
        QVERIFY(s.clientLog.entries().isEmpty());
        QCOMPARE(s.client->getParam("tmpFilePath", "unset"), QString());
        QVERIFY(silent(s.pair.server.get()));
    }

    void replaceWithoutVerifyFetchesExistingDestinationAgain() {
        MountTree tree;
        Session s(tree);
        const QString served = s.serve("k.bin", 9000, 20);
        const QString dest = tree.local() + "/k.bin";
        QVERIFY(writeBytes(dest, "mine"));
        s.want("k.bin");
        s.client->setParam("bReplace", "true");
        const TaskResults r = s.run();
        QVERIFY(r.client && r.server);
        QCOMPARE(readAll(dest), readAll(served));
    }

    // ---- Refusals and failures ----

    void missingServerFileIsRefused() {
        MountTree tree;
        Session s(tree);
        s.want("nothing.bin", tree.local() + "/sub");
        s.client->setParam("bVerify", "md5");
        const TaskResults r = s.run();
        QVERIFY(!r.timedOut);
        QVERIFY(!r.client);
        QVERIFY(!r.server);
        const QString path = tree.appDir("appA") + "/nothing.bin";
        QVERIFY(s.clientLog.contains("error", "downloadRequest: TaskParam Nak."));
        QCOMPARE(s.client->getLastError(), QString("FileNotExist"));
        QVERIFY(s.serverLog.contains("error", "downloadRespond: file " + path + " not exist."));
        QCOMPARE(s.server->getParam("fileSize", ""), QString("0"));
        QCOMPARE(s.server->getParam("path", ""), path);
        QCOMPARE(s.server->getParam("respondStatus", ""), QString("failed"));
        QVERIFY(!QFile::exists(tree.local() + "/sub"));
    }

    void missingFileAcknowledgementCarriesReason() {
        MountTree tree;
        ServerAlone s(tree);
        ParamMap ack;
        QVERIFY(s.request(
            {{"appKey", "appB"}, {"fileName", "gone.bin"}, {"bVerify", "false"}, {"offset", "0"}},
            ack));
        QCOMPARE(ack, (ParamMap{{"ackRespond", "false"},
                                {"bTruncate", "false"},
                                {"fileSize", "0"},
                                {"verifyValue", ""},
                                {"bTransfer", "true"},
                                {"errorType", "FileNotExist"}}));
        bool result = true;
        QVERIFY(finish(s.task, result));
        QVERIFY(!result);
        QVERIFY(s.log.contains("error", "downloadRespond: file " + tree.appDir("appB") +
                                            "/gone.bin not exist."));
    }

    void unknownAppKeyGetsNoAnswer() {
        MountTree tree;
        Session s(tree);
        QVERIFY(!s.serve("u.bin", 100).isEmpty());
        s.want("u.bin");
        s.client->setParam("appKey", "appZ");
        const TaskResults r = s.run();
        QVERIFY(!r.timedOut);
        QVERIFY(!r.server);
        QVERIFY(!r.client);
        QCOMPARE(s.serverLog.messages("error"),
                 QStringList{"downloadRespond: get path of app [appZ] failed."});
        QCOMPARE(s.server->getParam("path", "unset"), QString());
        // The client waited for an answer until the server's host closed the connection.
        QVERIFY(s.clientLog.contains("error", "downloadRequest: recv TaskParamAck failed."));
        QVERIFY(!QFile::exists(tree.local() + "/u.bin"));
    }

    void unknownAppKeySendsNothing() {
        MountTree tree;
        ServerAlone s(tree);
        ParamMap ack;
        setReceiveTimeout(s.peer(), 300);
        // No answer comes: the receive runs into its timeout.
        QVERIFY(!s.request({{"appKey", "nope"}, {"fileName", "f"}}, ack));
        bool result = true;
        QVERIFY(finish(s.task, result));
        QVERIFY(!result);
        QVERIFY(s.log.contains("error", "downloadRespond: get path of app [nope] failed."));
    }

    void missingProgressCounterFailsBeforeAnything_data() {
        QTest::addColumn<QString>("total");
        QTest::addColumn<QString>("offset");
        QTest::addColumn<QString>("message");
        const QString set = "counter";
        const QString total = "downloadRequest: get total failed.";
        const QString offset = "downloadRequest: get offset failed.";
        QTest::newRow("total empty") << "" << set << total;
        QTest::newRow("total 0") << "0" << set << total;
        QTest::newRow("total absent") << "absent" << set << total;
        QTest::newRow("offset empty") << set << "" << offset;
        QTest::newRow("offset 0") << set << "0" << offset;
        QTest::newRow("offset absent") << set << "absent" << offset;
    }
    void missingProgressCounterFailsBeforeAnything() {
        QFETCH(QString, total);
        QFETCH(QString, offset);
        QFETCH(QString, message);
        MountTree tree;
        Session s(tree);
        QVERIFY(!s.serve("c.bin", 100).isEmpty());
        // Only the host's own settings, so that an absent key is really absent.
        s.client->clearParam();
        configureClient(s.client.get(), s.pair.client.get(), "download");
        fillRequestKeys(s.client.get());
        s.want("c.bin");
        const QString addresses[] = {
            QString::number(reinterpret_cast<quintptr>(&s.counters.total)),
            QString::number(reinterpret_cast<quintptr>(&s.counters.offset))};
        const QString keys[] = {"total", "offset"};
        const QString values[] = {total, offset};
        for (int i = 0; i < 2; ++i) {
            if (values[i] != "absent")
                s.client->setParam(keys[i], values[i] == "counter" ? addresses[i] : values[i]);
        }
        QVERIFY(!s.client->process());
        QCOMPARE(s.clientLog.messages(), QStringList{message});
        QCOMPARE(s.clientLog.entries().first().level, QString("error"));
        QCOMPARE(s.client->getParam("tmpFilePath", ""), QString());
        QVERIFY(QDir(tree.local())
                    .entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden)
                    .isEmpty());
        QVERIFY(silent(s.pair.server.get()));
    }

    void getParamsFailureDumpsRequestKeys() {
        BareClient c;
        c.client->setParam("fileName", "f.bin");
        c.client->setParam("srcPath", "s");
        c.client->setParam("rootPath", "r");
        c.client->setParam("userName", "u");
        c.client->setParam("appKey", "appA");
        c.client->setParam("bVerify", "md5");
        QVERIFY(!c.client->process());
        QCOMPARE(c.log.messages("error"),
                 (QStringList{"downloadRequest: getParams failed.",
                              "downloadRequest: params ====\noperator:[download] fileName:[f.bin] "
                              "srcPath:[s] rootPath:[r] userName:[u] appKey:[appA] "
                              "appVersion:[] bVerify:[md5] "}));
        QCOMPARE(c.log.entries().size(), 2);
    }

    // "fasle" is the client's default switch, but the switch is also one of the TaskParam keys:
    // without it the request cannot be built, so the default is never handed on.
    void absentVerifySwitchStopsAtTaskParam() {
        MountTree tree;
        QVERIFY(writeBytes(tree.local() + "/f.bin", "present"));
        BareClient c;
        fillRequestKeys(c.client.get(), "bVerify");
        c.client->setParam("fileName", "f.bin");
        c.client->setParam("destPath", tree.local());
        QVERIFY(!c.client->process());
        QCOMPARE(c.log.messages("error"),
                 (QStringList{"downloadRequest: getParams failed.",
                              "downloadRequest: params ====\noperator:[download] fileName:[f.bin] "
                              "srcPath:[] rootPath:[] userName:[] appKey:[] appVersion:[] "
                              "bVerify:[] "}));
        QCOMPARE(c.counters.total, qint64(0));
    }

    void closedConnectionFailsSendingTaskParam() {
        MountTree tree;
        Session s(tree);
        s.want("c.bin");
        s.pair.client.reset();
        QVERIFY(!s.client->process());
        QVERIFY(s.clientLog.contains("error", "downloadRequest: send TaskParam failed."));
        QCOMPARE(s.client->getParam("transferBeginSize", ""), QString("0"));
        QVERIFY(!QFile::exists(tmpOf(tree.local() + "/c.bin")));
    }

    void unreadableDestinationFailsVerifyValue() {
        MountTree tree;
        QVERIFY(QDir().mkpath(tree.local() + "/dir.bin/inside"));
        Session s(tree);
        s.want("dir.bin");
        s.client->setParam("bVerify", "md5");
        QVERIFY(!s.client->process());
        QCOMPARE(s.clientLog.messages("error"),
                 QStringList{"downloadRequest: calc FileVerifyValue failed."});
        QVERIFY(silent(s.pair.server.get()));
    }

    void mkdirFailureNamesDirectory() {
        MountTree tree;
        Session s(tree);
        QVERIFY(!s.serve("m.bin", 5000).isEmpty());
        QVERIFY(writeBytes(tree.local() + "/plain", "a file, not a directory"));
        const QString destDir = tree.local() + "/plain/sub";
        s.want("m.bin", destDir);
        const TaskResults r = s.run();
        QVERIFY(!r.timedOut);
        QVERIFY(!r.client);
        QVERIFY(s.clientLog.contains("error", "downloadRequest: mkdir " + destDir + " failed."));
        QCOMPARE(s.counters.total, qint64(5000));
    }

    void createStreamFailureNamesDestination() {
        MountTree tree;
        Session s(tree);
        QVERIFY(!s.serve("cs.bin", 64 * 1024).isEmpty());
        const QString dest = tree.local() + "/cs.bin";
        // A directory where the temporary file belongs cannot be opened for appending.
        QVERIFY(QDir().mkpath(tmpOf(dest)));
        s.want("cs.bin");
        const TaskResults r = s.run();
        QVERIFY(!r.timedOut);
        QVERIFY(!r.client);
        QVERIFY(!r.server);
        QVERIFY(
            s.clientLog.contains("error", "downloadRequest: createStream " + dest + " failed."));
        QVERIFY(hasPrefix(s.clientLog, "error", "createStream: QFile open file " + tmpOf(dest)));
        // The small file was all queued before the client gave up; the server then waited in vain.
        QVERIFY(s.serverLog.contains("error", "downloadRespond: recv 8 failed."));
        QVERIFY(!QFile::exists(dest));
    }

    void brokenTransferNamesDestinationAndKeepsPartialFile() {
        MountTree tree;
        ClientAlone c(tree.local(), "h.bin", "false");
        const QByteArray data(200000, 'h');
        ParamMap param;
        QVERIFY(c.start(param));
        QVERIFY(c.answer(acceptingAck(data, ""), data.left(80000)));
        c.pair.server.reset();
        bool result = true;
        QVERIFY(finish(c.task, result));
        QVERIFY(!result);
        const QString dest = tree.local() + "/h.bin";
        QVERIFY(hasPrefix(c.log, "error", "downloadRequest: recvfile " + dest + " failed.\n"));
        QCOMPARE(QFileInfo(tmpOf(dest)).size(), qint64(80000));
        QCOMPARE(c.client->getParam("transferEndSize", ""), QString("80000"));
        QCOMPARE(c.counters.offset, qint64(80000));
        QCOMPARE(c.counters.total, qint64(200000));
        QCOMPARE(c.client->getLastError(), QString());
        QVERIFY(!QFile::exists(dest));
    }

    void oldDestinationThatCannotBeRemovedFailsAfterReceipt() {
        MountTree tree;
        Session s(tree);
        const QString served = s.serve("o.bin", 30000, 21);
        const QString dest = tree.local() + "/o.bin";
        QVERIFY(QDir().mkpath(dest + "/keeps/it"));
        s.want("o.bin");
        s.client->setParam("bReplace", "true");
        const TaskResults r = s.run();
        QVERIFY(!r.timedOut);
        QVERIFY(!r.client);
        QVERIFY(!r.server);
        QVERIFY(s.clientLog.contains("error", "downloadRequest: removeFile " + dest + " failed."));
        // The received file stays for a later attempt; the server heard no TaskComplete.
        QCOMPARE(readAll(tmpOf(dest)), readAll(served));
        QVERIFY(s.serverLog.contains("error", "downloadRespond: recv 8 failed."));
    }

    // ---- The server alone ----

    void negativeOffsetIsTruncatedToWholeFile() {
        MountTree tree;
        ServerAlone s(tree);
        const QByteArray data = s.serve("neg.bin", 70000, 22);
        ParamMap ack;
        QVERIFY(s.request(
            {{"appKey", "appA"}, {"fileName", "neg.bin"}, {"bVerify", "false"}, {"offset", "-1"}},
            ack));
        QCOMPARE(ack.value("bTruncate"), QString("true"));
        QCOMPARE(ack.value("ackRespond"), QString("true"));
        QCOMPARE(s.receive(data.size()), data);
        QVERIFY(sendMapOn(s.peer(), 8, {}));
        bool result = false;
        QVERIFY(finish(s.task, result));
        QVERIFY(result);
        QVERIFY(s.log.contains(
            "warning", "downloadRespond: client tmp file offset[-1], server file size[70000]."));
        QCOMPARE(s.server->getParam("transferBeginSize", ""), QString("-1"));
        QCOMPARE(s.server->getParam("transferEndSize", ""), QString("70000"));
    }

    void serverFailsWhenVerifyResultNeverComes() {
        MountTree tree;
        ServerAlone s(tree);
        QCOMPARE(s.serve("nv.bin", 10000, 23).size(), 10000);
        ParamMap ack;
        QVERIFY(s.request(
            {{"appKey", "appA"}, {"fileName", "nv.bin"}, {"bVerify", "md5"}, {"offset", "0"}},
            ack));
        QCOMPARE(s.receive(10000).size(), 10000);
        s.pair.client.reset();
        bool result = true;
        QVERIFY(finish(s.task, result));
        QVERIFY(!result);
        QVERIFY(s.log.contains("error", "downloadRespond: recv FileVerifyResult failed."));
    }

    // ---- Paths from the client stay inside the mount ----

    void requestPiecesCannotLeaveMount_data() {
        QTest::addColumn<QStringList>("pieces"); // rootPath, srcPath, fileName
        QTest::newRow("srcPath climbs") << QStringList{"", "../../../..", "secret.txt"};
        QTest::newRow("fileName climbs") << QStringList{"", "", "../../../../secret.txt"};
        QTest::newRow("rootPath climbs") << QStringList{"../../../../", "", "secret.txt"};
        QTest::newRow("pieces climb together") << QStringList{"..", "../..", "../../secret.txt"};
        QTest::newRow("absolute srcPath") << QStringList{"", "ROOT", "secret.txt"};
        QTest::newRow("absolute fileName") << QStringList{"", "", "ROOT/secret.txt"};
        QTest::newRow("absolute rootPath") << QStringList{"ROOT", "", "/secret.txt"};
    }
    void requestPiecesCannotLeaveMount() {
        QFETCH(QStringList, pieces);
        MountTree tree;
        const QString secret = tree.root() + "/secret.txt";
        QVERIFY(writeBytes(secret, "top secret"));
        pieces.replaceInStrings("ROOT", tree.root());
        Session s(tree);
        s.want(pieces[2], tree.local() + "/got", pieces[1], pieces[0]);
        const TaskResults r = s.run();
        QVERIFY(!r.timedOut);
        QVERIFY(!r.client);
        QCOMPARE(s.client->getLastError(), QString("FileNotExist"));
        QVERIFY(s.server->getParam("path", "").startsWith(tree.appDir("appA") + "/"));
        QVERIFY(!QFile::exists(tree.local() + "/got"));
        QCOMPARE(readAll(secret), QByteArray("top secret"));
    }

    void climbingPiecesResolveBelowApplication() {
        MountTree tree;
        QVERIFY(QDir().mkpath(tree.appDir("appA") + "/etc"));
        const QString inside = tree.appDir("appA") + "/etc/passwd";
        QVERIFY(writeBytes(inside, "inside the mount"));
        Session s(tree);
        s.want("passwd", tree.local(), "../../../../etc", "/..");
        const TaskResults r = s.run();
        QVERIFY(r.client && r.server);
        QCOMPARE(s.server->getParam("path", ""), inside);
        QCOMPARE(readAll(tree.local() + "/passwd"), QByteArray("inside the mount"));
    }

    // ---- Pause and cancel during a large transfer ----

    void serverStopEndsTransferAndClientKeepsPartialFile_data() {
        QTest::addColumn<QString>("word");
        QTest::newRow("pause") << "pause";
        QTest::newRow("cancel") << "cancel";
    }
    void serverStopEndsTransferAndClientKeepsPartialFile() {
        QFETCH(QString, word);
        Session s(*m_big);
        const QString dest = bigDestination("server-" + word);
        QVERIFY(startBig(s, dest));
        QVERIFY(word == "pause" ? s.server->pause() : s.server->cancel());
        // The handler closed the server's socket itself.
        s.pair.server.release();
        bool serverResult = true;
        bool clientResult = true;
        QVERIFY(finish(s.serverTask, serverResult));
        QVERIFY(finish(s.clientTask, clientResult));

        QVERIFY(!serverResult);
        QCOMPARE(s.server->getLastError(), word);
        QVERIFY(!hasPrefix(s.serverLog, "error", "downloadRespond: sendfile"));
        QCOMPARE(s.serverLog.messages("error"), QStringList());
        const qint64 sent = s.server->getParam("transferEndSize", "").toLongLong();
        QVERIFY(sent > 0 && sent < kBigSize);

        QVERIFY(!clientResult);
        QVERIFY(
            hasPrefix(s.clientLog, "error", "downloadRequest: recvfile " + dest + " failed.\n"));
        const qint64 kept = QFileInfo(tmpOf(dest)).size();
        QVERIFY(kept > 0 && kept < kBigSize);
        QCOMPARE(s.counters.offset, kept);
        QCOMPARE(s.client->getParam("transferEndSize", ""), QString::number(kept));
        QVERIFY(!QFile::exists(dest));
    }

    // The client's socket belongs to its host: cancel() leaves it open, so the transfer runs
    // to its end and the stop only shows when process() returns.
    void clientCancelWithoutClosingSocketEndsFalseAfterTransfer() {
        Session s(*m_big);
        const QString dest = bigDestination("client-cancel");
        QVERIFY(startBig(s, dest));
        QVERIFY(s.client->cancel());
        QCOMPARE(socketState(s.pair.client.get()), int(CONNECTED));
        bool clientResult = true;
        bool serverResult = false;
        QVERIFY(finish(s.clientTask, clientResult, 30000));
        s.pair.client.reset();
        QVERIFY(finish(s.serverTask, serverResult));

        QVERIFY(!clientResult);
        QCOMPARE(s.client->getLastError(), QString("cancel"));
        // By then the file was complete and renamed, so there is no temporary file to remove.
        QCOMPARE(s.client->getParam("transferEndSize", ""), QString::number(kBigSize));
        QVERIFY(!QFile::exists(tmpOf(dest)));
        QCOMPARE(s.clientLog.messages("error"),
                 QStringList{"process: removeFile " + tmpOf(dest) + " failed."});
        QVERIFY(sameContent(dest, bigFile()));
        QVERIFY(serverResult);
    }

    void clientCancelWithHostClosingSocketRemovesTemporaryFile() {
        const QString dest = bigDestination("client-cancel-close");
        qint64 reached = 0;
        interruptClient("cancel", dest, reached);
        if (QTest::currentTestFailed())
            return;
        QVERIFY(reached > 0 && reached < kBigSize);
        QVERIFY(!QFile::exists(tmpOf(dest)));
        QVERIFY(!QFile::exists(dest));
    }

    void clientPauseKeepsPartialFileAndNextDownloadResumes() {
        const QString dest = bigDestination("client-pause");
        qint64 reached = 0;
        interruptClient("pause", dest, reached);
        if (QTest::currentTestFailed())
            return;
        const qint64 kept = QFileInfo(tmpOf(dest)).size();
        QVERIFY(kept > 0 && kept < kBigSize);
        QCOMPARE(reached, kept);

        Session s(*m_big);
        s.want("big.bin", QFileInfo(dest).path());
        s.client->setParam("bVerify", "xxh3");
        const TaskResults r = s.run();
        QVERIFY(!r.timedOut);
        QVERIFY(r.client && r.server);
        QCOMPARE(s.server->getParam("transferBeginSize", ""), QString::number(kept));
        QCOMPARE(s.client->getParam("transferBeginSize", ""), QString::number(kept));
        QCOMPARE(s.counters.offset, kBigSize);
        QVERIFY(sameContent(dest, bigFile()));
        QVERIFY(!QFile::exists(tmpOf(dest)));
    }

    void cleanup() {
        // The copies of the large file are not needed past their test.
        if (m_big)
            QDir(m_big->local()).removeRecursively();
    }

private:
    // Where a stop test puts its copy of the large file.
    QString bigDestination(const QString& test) const {
        return m_big->local() + "/" + test + "/big.bin";
    }

    // Starts downloading the large file to `dest` and returns once it is well under way.
    static bool startBig(Session& s, const QString& dest) {
        s.want("big.bin", QFileInfo(dest).path());
        limitSendRate(s.pair.server.get(), kStopTestRate);
        return s.startAndWaitForProgress(8 * kMiB);
    }

    // Stops the client in the middle of the large download the way its host does on an
    // interrupt: pause() or cancel(), then the host closes its own socket so that the blocked
    // transfer returns at once. `reached` is the offset the client got to.
    void interruptClient(const QString& word, const QString& dest, qint64& reached) {
        Session s(*m_big);
        QVERIFY(startBig(s, dest));
        QVERIFY(word == "pause" ? s.client->pause() : s.client->cancel());
        UDT::close(s.pair.client.release());
        bool clientResult = true;
        bool serverResult = true;
        QVERIFY(finish(s.clientTask, clientResult));
        QVERIFY(finish(s.serverTask, serverResult));
        QVERIFY(!clientResult);
        QCOMPARE(s.client->getLastError(), word);
        // A stop is no transport failure for the client. The server fails at its next use of
        // the connection: its send when data was still to go, or, when its whole file already
        // sat in UDT's buffers (a slow test machine lets the client run far ahead of the
        // check), its wait for message 8.
        QCOMPARE(s.clientLog.messages("error"), QStringList());
        QVERIFY(!serverResult);
        QVERIFY2(hasPrefix(s.serverLog, "error",
                           "downloadRespond: sendfile " + bigFile() + " failed.\n") ||
                     s.serverLog.contains("error", "downloadRespond: recv 8 failed."),
                 qPrintable(s.serverLog.messages("error").join(" | ")));
        reached = s.counters.offset;
        QCOMPARE(s.client->getParam("transferEndSize", ""), QString::number(reached));
    }

    // Rows of verify methods: the five the base knows, the client's default word "fasle" and
    // the empty text a fresh handler holds, plus `more`.
    static void methodRows(const QStringList& more = {}) {
        QTest::addColumn<QString>("method");
        for (const QString& m :
             QStringList{"fileattr", "md5", "sha1", "sha256", "xxh3", "fasle", ""} + more)
            QTest::newRow(m.isEmpty() ? "empty" : qPrintable(m)) << m;
    }

    // Every TaskParam key but `except` present and empty, the way a fresh handler holds them.
    static void fillRequestKeys(VESK::VeskBase* client, const QString& except = QString()) {
        for (const QString& key : QStringList{"fileName", "srcPath", "rootPath", "userName",
                                              "appKey", "appVersion", "bVerify"}) {
            if (key != except)
                client->setParam(key, "");
        }
    }
};

QTEST_GUILESS_MAIN(tst_Download)
#include "tst_Download.moc"
