// Uploads end to end between two handlers from the plug-in over a real UDT pair, and against a
// scripted peer where one side's reaction to an odd message is what is checked.

#include "Support.h"
#include "base/Verify.h"
#include "base/Wire.h"

#include <QCryptographicHash>
#include <QDateTime>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTest>
#include <QThread>

#include <udt/udt.h>

#include <fcntl.h>
#include <sys/stat.h>

using namespace vesktest;

namespace {

constexpr qint64 kMiB = 1024 * 1024;
constexpr qint64 kClientMtime = 1500000000;

// ---- Files ----

// Both create the file's directory first: server-side files are placed before any upload ran.
bool writeBytes(const QString& path, const QByteArray& data) {
    QFile file(path);
    return QDir().mkpath(QFileInfo(path).path()) &&
           file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.write(data) == data.size();
}

bool placePattern(const QString& path, qint64 size, quint32 seed = 1) {
    return QDir().mkpath(QFileInfo(path).path()) && writePatternFile(path, size, seed);
}

bool setMtime(const QString& path, qint64 seconds) {
    const timespec times[2] = {{0, UTIME_OMIT}, {time_t(seconds), 0}};
    return ::utimensat(AT_FDCWD, QFile::encodeName(path).constData(), times, 0) == 0;
}

qint64 mtimeOf(const QString& path) {
    struct stat info;
    if (::stat(QFile::encodeName(path).constData(), &info) != 0)
        return -1;
    return qint64(info.st_mtime);
}

int modeOf(const QString& path) {
    struct stat info;
    if (::stat(QFile::encodeName(path).constData(), &info) != 0)
        return -1;
    return int(info.st_mode & 07777);
}

QByteArray digestOf(const QString& path, QCryptographicHash::Algorithm algorithm) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return QByteArray();
    QCryptographicHash hash(algorithm);
    hash.addData(&file);
    return hash.result().toHex();
}

// Makes a source file of `size` pattern bytes with the client's fixed mtime.
bool makeSource(const QString& path, qint64 size, quint32 seed = 1) {
    return writePatternFile(path, size, seed) && setMtime(path, kClientMtime);
}

// ---- Scripted peer ----

QByteArray json(const QMap<QString, QString>& map) {
    return VeskBase::serializeParam(map).toUtf8();
}

// Receives one frame and checks its number; the body comes back as a map.
bool recvMessage(int socket, quint32 expected, QMap<QString, QString>& map) {
    quint32 number = 0;
    QByteArray body;
    if (!VESK::wire::recvFrame(socket, number, body) || number != expected)
        return false;
    // Keep the raw JSON check strict: every value is a string.
    const QJsonObject object = QJsonDocument::fromJson(body).object();
    map.clear();
    for (auto it = object.begin(); it != object.end(); ++it) {
        if (!it.value().isString())
            return false;
        map.insert(it.key(), it.value().toString());
    }
    return true;
}

// ---- One upload between two handlers ----

// The destination the server builds for rootPath "root", destPath "in" under appA.
QString destinationOf(const MountTree& tree, const QString& name) {
    return tree.appDir("appA") + "/root/in/" + name;
}

QString temporaryOf(const MountTree& tree, const QString& name) {
    return tree.appDir("appA") + "/root/in/." + name + ".vesk-part";
}

struct Session {
    UdtPair pair = connectedPair();
    Handler client = makeHandler();
    Handler server = makeHandler();
    LogCapture clientLogs{client.get()};
    LogCapture serverLogs{server.get()};
    Counters counters;

    Session(const MountTree& tree, const QString& fileName, const QString& method = "false",
            const QString& replace = "false", const QString& srcPath = QString()) {
        configureClient(client.get(), pair.client.get(), "upload");
        configureServer(server.get(), pair.server.get(), tree.mount(), tree.appTable());
        counters.install(client.get());
        client->setParam("srcPath", srcPath.isEmpty() ? tree.local() : srcPath);
        client->setParam("fileName", fileName);
        client->setParam("destPath", "in");
        client->setParam("rootPath", "root");
        client->setParam("userName", "tester");
        client->setParam("appKey", "appA");
        client->setParam("appVersion", "1.0");
        client->setParam("bVerify", method);
        client->setParam("bReplace", replace);
        client->setParam("mac", "00:11:22:33:44:55");
    }

    ~Session() {
        // A test that stopped half way must not leave the client blocked in UDT.
        bool done = true;
        if (clientTask)
            clientTask->wait(3000, &done);
        if (!done) {
            UDT::close(pair.client.release());
            UDT::close(pair.server.release());
        }
        clientTask.reset();
    }

    TaskResults run(int timeoutMs = 30000) {
        return runTask(client.get(), server.get(), timeoutMs);
    }

    // For a server that gives up without answering: once it has ended, its socket is closed so
    // that the client's pending receive fails instead of waiting for the runner's time limit.
    TaskResults runServerThenClose() {
        TaskResults results;
        AsyncTask serverTask(server.get());
        AsyncTask clientTask(client.get());
        bool serverDone = false;
        results.server = serverTask.wait(20000, &serverDone);
        // Drained first: the server may have queued an answer the client still has to read.
        VESK::net::drainAndClose(pair.server.release());
        results.client = waitOrClose(clientTask, pair.client);
        results.timedOut = !serverDone;
        return results;
    }

    // The peer's close normally wakes a blocked client at once; should its shutdown notice get
    // lost, the client's own socket is closed, which ends the task the same way.
    static bool waitOrClose(AsyncTask& task, VESK::net::Socket& socket) {
        bool done = false;
        const bool result = task.wait(5000, &done);
        if (done)
            return result;
        UDT::close(socket.release());
        return task.wait(20000);
    }

    // The test thread plays the server: starts the client and takes its TaskParam.
    std::unique_ptr<AsyncTask> clientTask;
    bool startClient(QMap<QString, QString>& param) {
        clientTask = std::make_unique<AsyncTask>(client.get());
        return recvMessage(pair.server.get(), 5, param);
    }
    bool answer(quint32 number, const QMap<QString, QString>& map) {
        return VESK::wire::sendFrame(pair.server.get(), number, json(map));
    }

    // Whether each side logged the second pass, naming its own file.
    bool clientSecondPass(const QString& src) const {
        return clientLogs.contains("info", "uploadRequest: file " + src + " second pass.");
    }
    bool serverSecondPass(const QString& dest) const {
        return serverLogs.contains("info", "uploadRespond: file " + dest + " second pass.");
    }

    QStringList errors() const {
        return clientLogs.messages("error") + serverLogs.messages("error");
    }
};

// A TaskParam for `fileName` in root/in of appA without verification; `extra` adds or overrides.
QMap<QString, QString> taskParam(const QString& fileName, const QMap<QString, QString>& extra) {
    QMap<QString, QString> map = {
        {"operator", "upload"}, {"fileName", fileName}, {"destPath", "in"},   {"rootPath", "root"},
        {"appKey", "appA"},     {"bVerify", "false"},   {"bReplace", "false"}};
    for (auto it = extra.cbegin(); it != extra.cend(); ++it)
        map.insert(it.key(), it.value());
    return map;
}

// The test thread plays the client against a server handler from the plug-in.
struct ScriptedClient {
    UdtPair pair = connectedPair();
    Handler server = makeHandler();
    LogCapture logs{server.get()};
    std::unique_ptr<AsyncTask> task;

    // Without the registry the server holds only what configureServer and TaskParam set.
    ScriptedClient(const MountTree& tree, bool registry = true) {
        if (!registry)
            server->clearParam();
        configureServer(server.get(), pair.server.get(), tree.mount(), tree.appTable());
    }
    ~ScriptedClient() {
        // A test that stopped half way must not leave the server blocked in UDT.
        bool done = true;
        if (task)
            task->wait(3000, &done);
        if (!done) {
            UDT::close(pair.client.release());
            UDT::close(pair.server.release());
        }
        task.reset();
    }

    int socket() const { return pair.client.get(); }

    // Starts the server, sends it `param` as TaskParam and receives its TaskParamAck.
    bool start(const QMap<QString, QString>& param, QMap<QString, QString>& ack) {
        task = std::make_unique<AsyncTask>(server.get());
        return VESK::wire::sendFrame(socket(), 5, json(param)) && recvMessage(socket(), 6, ack);
    }

    // Ends the conversation from the client's side and returns the server's result.
    bool hangUp() {
        UDT::close(pair.client.release());
        return task->wait(10000);
    }
};

bool anyContains(const QStringList& lines, const QString& part) {
    for (const QString& line : lines) {
        if (line.contains(part))
            return true;
    }
    return false;
}

} // namespace

class tst_Upload : public QObject {
    Q_OBJECT

    QTemporaryDir m_bigDir;
    QString m_bigName = "big.bin";
    qint64 m_bigSize = 300 * kMiB;
    QByteArray m_bigDigest;

    QString bigPath() const { return m_bigDir.path() + "/" + m_bigName; }

    // Runs an upload of the big file, stops the server once its temporary file has grown, and
    // returns the length the partial file had when the server ended.
    void stopServerMidTransfer(const MountTree& tree, const QString& word, qint64& partial) {
        Session s(tree, m_bigName, "false", "false", m_bigDir.path());
        const QString tmp = temporaryOf(tree, m_bigName);
        // Two seconds for the whole file, far longer than the stop needs to be seen.
        limitSendRate(s.pair.client.get(), 150 * kMiB);
        AsyncTask serverTask(s.server.get());
        AsyncTask clientTask(s.client.get());
        QElapsedTimer timer;
        timer.start();
        while (QFileInfo(tmp).size() < 24 * kMiB && timer.elapsed() < 20000)
            QThread::msleep(1);
        QVERIFY2(QFileInfo(tmp).size() >= 24 * kMiB, "the server never started writing");
        QVERIFY(word == "pause" ? s.server->pause() : s.server->cancel());
        bool serverDone = false;
        QVERIFY(!serverTask.wait(20000, &serverDone));
        QVERIFY(serverDone);
        // The server's close breaks the connection; the client's send fails by itself.
        QVERIFY(!Session::waitOrClose(clientTask, s.pair.client));
        s.pair.server.release();
        UDT::close(s.pair.client.release());

        QCOMPARE(s.server->getLastError(), word);
        QCOMPARE(s.server->getParam("respondStatus", "x"), QString());
        QVERIFY(!s.server->getParam("endTime", "").isEmpty());
        QVERIFY(!anyContains(s.serverLogs.messages(), "recvfile"));
        QCOMPARE(s.serverLogs.messages("error"), QStringList());
        QCOMPARE(s.server->getParam("tmpFilePath", ""), tmp);
        partial = s.server->getParam("transferEndSize", "-1").toLongLong();
        QVERIFY(partial > 0);
        QVERIFY(partial < m_bigSize);
        QVERIFY(!QFile::exists(destinationOf(tree, m_bigName)));
    }

private slots:
    void initTestCase() {
        QVERIFY(m_bigDir.isValid());
        QVERIFY(makeSource(bigPath(), m_bigSize, 99));
        m_bigDigest = digestOf(bigPath(), QCryptographicHash::Sha1);
    }

    // ---- Fresh uploads ----

    void freshUploadInstallsIdenticalFileWithModeAndMtime() {
        MountTree tree;
        const QString src = tree.local() + "/data.bin";
        const qint64 size = 5 * kMiB + 12345;
        QVERIFY(makeSource(src, size));
        Session s(tree, "data.bin");
        s.server->setParam("fileMod", "640");
        s.server->setParam("dirMod", "750");
        s.counters.offset = 99;
        const TaskResults r = s.run();
        QVERIFY(!r.timedOut);
        QVERIFY(r.client);
        QVERIFY(r.server);
        QCOMPARE(s.errors(), QStringList());

        const QString dest = destinationOf(tree, "data.bin");
        QCOMPARE(readAll(dest), readAll(src));
        QCOMPARE(modeOf(dest), 0640);
        QCOMPARE(modeOf(tree.appDir("appA") + "/root/in"), 0750);
        QCOMPARE(mtimeOf(dest), kClientMtime);
        QVERIFY(!QFile::exists(temporaryOf(tree, "data.bin")));

        QCOMPARE(s.counters.total, size);
        QCOMPARE(s.counters.offset, size);
        QCOMPARE(s.client->getParam("transferBeginSize", ""), QString("0"));
        QCOMPARE(s.client->getParam("transferEndSize", ""), QString::number(size));
        QCOMPARE(s.server->getParam("transferBeginSize", ""), QString("0"));
        QCOMPARE(s.server->getParam("transferEndSize", ""), QString::number(size));
        QCOMPARE(s.server->getParam("path", ""), dest);
        QCOMPARE(s.server->getParam("tmpFilePath", ""), temporaryOf(tree, "data.bin"));
        QCOMPARE(s.server->getParam("respondStatus", ""), QString("success"));
        QCOMPARE(s.server->getParam("mac", ""), QString("00:11:22:33:44:55"));
        QCOMPARE(s.server->getParam("fileSize", ""), QString::number(size));
        QCOMPARE(s.server->getParam("mtime", ""), QString::number(kClientMtime));
        QVERIFY(!s.client->getParam("beginTime", "").isEmpty());
        QVERIFY(!s.server->getParam("beginTime", "").isEmpty());
        QVERIFY(!s.client->getParam("endTime", "").isEmpty());

        const int start = s.serverLogs.indexOf("info", "uploadRespond: " + dest + " ...");
        const int mac = s.serverLogs.indexOf("info", "uploadRespond: recv mac: 00:11:22:33:44:55");
        QVERIFY(start >= 0);
        QVERIFY(mac > start);
        QVERIFY(
            s.serverLogs.contains("debug", QString("uploadRespond: set [%1] mtime [%2] finished!")
                                               .arg(dest, QString::number(kClientMtime))));
    }

    void emptyModeKeepsCreatedModeOfFileAndDirectories() {
        MountTree tree;
        QVERIFY(makeSource(tree.local() + "/plain.bin", 1000));
        Session s(tree, "plain.bin");
        const mode_t mask = ::umask(0);
        ::umask(mask);
        const TaskResults r = s.run();
        QVERIFY(r.client && r.server);
        QCOMPARE(modeOf(destinationOf(tree, "plain.bin")), int(0666 & ~mask));
        QCOMPARE(modeOf(tree.appDir("appA") + "/root/in"), int(0777 & ~mask));
    }

    void emptyFileUploads() {
        MountTree tree;
        QVERIFY(writeBytes(tree.local() + "/empty.bin", QByteArray()));
        QVERIFY(setMtime(tree.local() + "/empty.bin", kClientMtime));
        Session s(tree, "empty.bin", "md5");
        s.counters.total = 5;
        const TaskResults r = s.run();
        QVERIFY(r.client && r.server);
        const QString dest = destinationOf(tree, "empty.bin");
        QVERIFY(QFileInfo(dest).isFile());
        QCOMPARE(QFileInfo(dest).size(), qint64(0));
        QCOMPARE(mtimeOf(dest), kClientMtime);
        QCOMPARE(s.counters.total, qint64(0));
        QCOMPARE(s.counters.offset, qint64(0));
        QCOMPARE(s.server->getParam("transferEndSize", ""), QString("0"));
    }

    // ---- Resume ----

    void resumeContinuesFromPartialTemporaryFile() {
        MountTree tree;
        const QString src = tree.local() + "/resume.bin";
        QVERIFY(makeSource(src, 3 * kMiB + 7));
        const QByteArray source = readAll(src);
        const qint64 partial = kMiB + 3;
        QVERIFY(writeBytes(temporaryOf(tree, "resume.bin"), source.left(partial)));
        Session s(tree, "resume.bin", "sha256");
        const TaskResults r = s.run();
        QVERIFY(r.client && r.server);
        QCOMPARE(s.errors(), QStringList());
        QCOMPARE(s.server->getParam("transferBeginSize", ""), QString::number(partial));
        QCOMPARE(s.client->getParam("transferBeginSize", ""), QString::number(partial));
        QCOMPARE(s.server->getParam("transferEndSize", ""), QString::number(source.size()));
        QCOMPARE(s.counters.offset, qint64(source.size()));
        QCOMPARE(readAll(destinationOf(tree, "resume.bin")), source);
        QVERIFY(!QFile::exists(temporaryOf(tree, "resume.bin")));
    }

    void temporaryFileLongerThanSourceIsDeletedAndUploadRestartsAtZero() {
        MountTree tree;
        const QString src = tree.local() + "/short.bin";
        QVERIFY(makeSource(src, 2 * kMiB));
        QVERIFY(placePattern(temporaryOf(tree, "short.bin"), 3 * kMiB, 5));
        Session s(tree, "short.bin");
        const TaskResults r = s.run();
        QVERIFY(r.client && r.server);
        QVERIFY(s.serverLogs.contains(
            "warning", QString("uploadRespond: server tmp offset[%1], client fileSize[%2].")
                           .arg(QString::number(3 * kMiB), QString::number(2 * kMiB))));
        // The server reports the length it found; the client is told to start at 0.
        QCOMPARE(s.server->getParam("transferBeginSize", ""), QString::number(3 * kMiB));
        QCOMPARE(s.client->getParam("transferBeginSize", ""), QString("0"));
        QCOMPARE(readAll(destinationOf(tree, "short.bin")), readAll(src));
        QCOMPARE(s.errors(), QStringList());
    }

    // ---- Verification ----

    void everyVerifyMethodConfirmsTheUpload_data() {
        QTest::addColumn<QString>("method");
        QTest::newRow("fileattr") << "fileattr";
        QTest::newRow("md5") << "md5";
        QTest::newRow("sha1") << "sha1";
        QTest::newRow("sha256") << "sha256";
        QTest::newRow("xxh3") << "xxh3";
        QTest::newRow("unknown word") << "true";
    }

    void everyVerifyMethodConfirmsTheUpload() {
        QFETCH(QString, method);
        MountTree tree;
        const QString src = tree.local() + "/v.bin";
        QVERIFY(makeSource(src, 2 * kMiB + 1, 3));
        Session s(tree, "v.bin", method);
        const TaskResults r = s.run();
        QVERIFY(r.client && r.server);
        QCOMPARE(s.errors(), QStringList());
        QCOMPARE(readAll(destinationOf(tree, "v.bin")), readAll(src));

        // The value the client sent, as the server received it.
        const QString value = s.server->getParam("verifyValue", "");
        QString expected;
        if (method == "fileattr")
            expected = QString::number(2 * kMiB + 1);
        else if (method == "md5")
            expected = QString::fromLatin1(digestOf(src, QCryptographicHash::Md5));
        else if (method == "sha1")
            expected = QString::fromLatin1(digestOf(src, QCryptographicHash::Sha1));
        else if (method == "sha256")
            expected = QString::fromLatin1(digestOf(src, QCryptographicHash::Sha256));
        else
            expected = VESK::verify::fileValue(src, "xxh3");
        QCOMPARE(value, expected);
        if (method == "xxh3" || method == "true")
            QCOMPARE(value.size(), 32);
    }

    void corruptedPartialFileFailsVerificationAndIsDeleted() {
        MountTree tree;
        const QString src = tree.local() + "/c.bin";
        QVERIFY(makeSource(src, 3 * kMiB));
        QByteArray wrong = readAll(src).left(kMiB);
        wrong[1000] = char(wrong[1000] ^ 0x55);
        const QString tmp = temporaryOf(tree, "c.bin");
        QVERIFY(writeBytes(tmp, wrong));
        Session s(tree, "c.bin", "md5");
        const TaskResults r = s.run();
        QVERIFY(!r.timedOut);
        QVERIFY(!r.client);
        QVERIFY(!r.server);
        QCOMPARE(s.serverLogs.messages("error"), QStringList{"uploadRespond: FileVerify failed."});
        QCOMPARE(s.clientLogs.messages("error"),
                 QStringList{"uploadRequest: FileVerifyResult error."});
        QCOMPARE(s.server->getParam("transferBeginSize", ""), QString::number(kMiB));
        QCOMPARE(s.server->getParam("respondStatus", ""), QString("failed"));
        QVERIFY(!QFile::exists(tmp));
        QVERIFY(!QFile::exists(destinationOf(tree, "c.bin")));
    }

    // ---- Second pass ----

    void existingFileWithoutVerificationIsSecondPassButGetsClientMtime() {
        MountTree tree;
        const QString src = tree.local() + "/same.bin";
        QVERIFY(makeSource(src, 4096));
        const QString dest = destinationOf(tree, "same.bin");
        QVERIFY(writeBytes(dest, "an older, different file"));
        QVERIFY(setMtime(dest, 1000));
        // A partial file is still offered as the offset, and left in place.
        const QString tmp = temporaryOf(tree, "same.bin");
        QVERIFY(writeBytes(tmp, QByteArray(100, 'p')));
        Session s(tree, "same.bin");
        const TaskResults r = s.run();
        QVERIFY(r.client && r.server);
        QVERIFY(s.clientSecondPass(src));
        QVERIFY(s.serverSecondPass(dest));
        QCOMPARE(readAll(dest), QByteArray("an older, different file"));
        QCOMPARE(mtimeOf(dest), kClientMtime);
        QCOMPARE(s.client->getParam("transferBeginSize", ""), QString("100"));
        QCOMPARE(s.counters.offset, qint64(100));
        QCOMPARE(s.counters.total, qint64(4096));
        QCOMPARE(QFileInfo(tmp).size(), qint64(100));
        QCOMPARE(s.server->getParam("transferEndSize", "x"), QString());
        QCOMPARE(s.errors(), QStringList());
    }

    void identicalFileWithVerificationIsSecondPassEvenWithReplace_data() {
        QTest::addColumn<QString>("method");
        QTest::addColumn<QString>("replace");
        QTest::addColumn<qint64>("destMtime");
        QTest::addColumn<qint64>("offset"); // announced with a 100-byte partial file present
        QTest::newRow("md5") << "md5"
                             << "false" << qint64(1000) << qint64(100);
        QTest::newRow("xxh3 replace") << "xxh3"
                                      << "true" << qint64(1000) << qint64(0);
        QTest::newRow("fileattr same mtime") << "fileattr"
                                             << "false" << kClientMtime << qint64(100);
    }

    void identicalFileWithVerificationIsSecondPassEvenWithReplace() {
        QFETCH(QString, method);
        QFETCH(QString, replace);
        QFETCH(qint64, destMtime);
        QFETCH(qint64, offset);
        MountTree tree;
        const QString src = tree.local() + "/id.bin";
        QVERIFY(makeSource(src, kMiB));
        const QString dest = destinationOf(tree, "id.bin");
        QVERIFY(writeBytes(dest, readAll(src)));
        QVERIFY(setMtime(dest, destMtime));
        QVERIFY(writeBytes(temporaryOf(tree, "id.bin"), QByteArray(100, 'p')));
        Session s(tree, "id.bin", method, replace);
        const TaskResults r = s.run();
        QVERIFY(r.client && r.server);
        QVERIFY(s.clientSecondPass(src));
        QVERIFY(s.serverSecondPass(dest));
        QCOMPARE(mtimeOf(dest), kClientMtime);
        QCOMPARE(s.client->getParam("transferBeginSize", ""), QString::number(offset));
        QCOMPARE(s.counters.offset, offset);
        QCOMPARE(s.client->getParam("transferEndSize", "x"), QString());
        QCOMPARE(QFileInfo(temporaryOf(tree, "id.bin")).size(), qint64(100));
        QCOMPARE(s.errors(), QStringList());
    }

    void fileattrWithDifferentMtimeTransfersSameSizedFile() {
        MountTree tree;
        const QString src = tree.local() + "/attr.bin";
        QVERIFY(makeSource(src, kMiB, 1));
        const QString dest = destinationOf(tree, "attr.bin");
        QVERIFY(placePattern(dest, kMiB, 2));
        QVERIFY(setMtime(dest, kClientMtime + 1));
        Session s(tree, "attr.bin", "fileattr");
        const TaskResults r = s.run();
        QVERIFY(r.client && r.server);
        QVERIFY(!s.clientSecondPass(src));
        QCOMPARE(readAll(dest), readAll(src));
        QCOMPARE(mtimeOf(dest), kClientMtime);
    }

    void fileattrWithoutClientMtimeComparesValuesOnly_data() {
        QTest::addColumn<QString>("mtime");
        QTest::addColumn<QString>("transfer");
        QTest::newRow("mtime -1, same size") << "-1"
                                             << "false";
        QTest::newRow("other mtime, same size") << "12345"
                                                << "true";
    }

    void fileattrWithoutClientMtimeComparesValuesOnly() {
        QFETCH(QString, mtime);
        QFETCH(QString, transfer);
        MountTree tree;
        const QString dest = destinationOf(tree, "raw.bin");
        QVERIFY(placePattern(dest, 777));
        QVERIFY(setMtime(dest, 5000));
        ScriptedClient peer(tree);
        QMap<QString, QString> ack;
        QVERIFY(peer.start(taskParam("raw.bin", {{"bVerify", "fileattr"},
                                                 {"fileSize", "777"},
                                                 {"mtime", mtime},
                                                 {"verifyValue", "777"}}),
                           ack));
        QCOMPARE(ack.value("bTransfer"), transfer);
        if (transfer == "false") {
            QVERIFY(peer.task->wait(10000));
            QCOMPARE(mtimeOf(dest), qint64(5000)); // -1 means no time is set
        } else {
            QVERIFY(!peer.hangUp());
        }
    }

    // ---- Replace ----

    void replaceWithoutVerificationOverwritesExistingFile() {
        MountTree tree;
        const QString src = tree.local() + "/r.bin";
        QVERIFY(makeSource(src, kMiB + 5));
        const QString dest = destinationOf(tree, "r.bin");
        QVERIFY(writeBytes(dest, "old version"));
        Session s(tree, "r.bin", "false", "true");
        s.server->setParam("fileMod", "600");
        const TaskResults r = s.run();
        QVERIFY(r.client && r.server);
        QCOMPARE(readAll(dest), readAll(src));
        QCOMPARE(modeOf(dest), 0600);
        QCOMPARE(mtimeOf(dest), kClientMtime);
        QCOMPARE(s.errors(), QStringList());
    }

    void replaceWithVerificationReplacesDifferentFile() {
        MountTree tree;
        const QString src = tree.local() + "/rv.bin";
        QVERIFY(makeSource(src, kMiB));
        const QString dest = destinationOf(tree, "rv.bin");
        QVERIFY(placePattern(dest, kMiB, 8));
        Session s(tree, "rv.bin", "sha1", "true");
        const TaskResults r = s.run();
        QVERIFY(r.client && r.server);
        QCOMPARE(readAll(dest), readAll(src));
        QCOMPARE(s.errors(), QStringList());
    }

    void existingDifferentFileIsReplacedWhenVerificationIsSet() {
        MountTree tree;
        const QString src = tree.local() + "/d.bin";
        QVERIFY(makeSource(src, 2 * kMiB));
        const QString dest = destinationOf(tree, "d.bin");
        QVERIFY(writeBytes(dest, "different"));
        Session s(tree, "d.bin", "xxh3", "false");
        const TaskResults r = s.run();
        QVERIFY(r.client && r.server);
        QVERIFY(!s.serverSecondPass(dest));
        QCOMPARE(readAll(dest), readAll(src));
        QCOMPARE(s.errors(), QStringList());
    }

    void replaceAppendsOntoOldTemporaryFileFromOffsetZero() {
        MountTree tree;
        const QString src = tree.local() + "/a.bin";
        QVERIFY(makeSource(src, 200000));
        QVERIFY(writeBytes(temporaryOf(tree, "a.bin"), "left over|"));
        Session s(tree, "a.bin", "false", "true");
        const TaskResults r = s.run();
        QVERIFY(r.client && r.server);
        // Offset 0 is announced, yet the old bytes stay in front: installed as it is.
        QCOMPARE(s.client->getParam("transferBeginSize", ""), QString("0"));
        QCOMPARE(readAll(destinationOf(tree, "a.bin")), "left over|" + readAll(src));
    }

    void replaceOntoOldTemporaryFileIsRejectedByVerification() {
        MountTree tree;
        const QString src = tree.local() + "/b.bin";
        QVERIFY(makeSource(src, 200000));
        const QString tmp = temporaryOf(tree, "b.bin");
        QVERIFY(writeBytes(tmp, "left over|"));
        Session s(tree, "b.bin", "md5", "true");
        const TaskResults r = s.run();
        QVERIFY(!r.client);
        QVERIFY(!r.server);
        QVERIFY(s.serverLogs.contains("error", "uploadRespond: FileVerify failed."));
        QVERIFY(s.clientLogs.contains("error", "uploadRequest: FileVerifyResult error."));
        QVERIFY(!QFile::exists(tmp));
        QVERIFY(!QFile::exists(destinationOf(tree, "b.bin")));
    }

    // ---- Client-side failures ----

    void missingCountersStopTheClientAtOnce_data() {
        QTest::addColumn<QString>("key");
        QTest::addColumn<QString>("message");
        QTest::newRow("total") << "total"
                               << "uploadRequest: get total failed.";
        QTest::newRow("offset") << "offset"
                                << "uploadRequest: get offset failed.";
    }

    void missingCountersStopTheClientAtOnce() {
        QFETCH(QString, key);
        QFETCH(QString, message);
        MountTree tree;
        QVERIFY(makeSource(tree.local() + "/f.bin", 10));
        Handler client = makeHandler();
        LogCapture logs(client.get());
        Counters counters;
        configureClient(client.get(), -1, "upload");
        counters.install(client.get());
        client->setParam("srcPath", tree.local());
        client->setParam("fileName", "f.bin");
        client->setParam("bVerify", "false");
        client->setParam(key, "0");
        QVERIFY(!client->process());
        QCOMPARE(logs.messages(), QStringList{message});
        QCOMPARE(counters.total, qint64(0));
    }

    void missingSourceFileIsReportedAfterTotalIsWritten() {
        MountTree tree;
        Session s(tree, "absent.bin");
        s.counters.total = 77;
        QVERIFY(!s.client->process());
        const QString src = tree.local() + "/absent.bin";
        QCOMPARE(s.clientLogs.messages(),
                 QStringList{"uploadRequest: file " + src + " not exist."});
        QCOMPARE(s.counters.total, qint64(0));
        QVERIFY(!s.client->isActive()); // nothing was sent
    }

    void missingSourceFileWithVerificationFailsOnVerifyValue() {
        MountTree tree;
        Session s(tree, "absent.bin", "md5");
        s.counters.total = 77;
        QVERIFY(!s.client->process());
        QCOMPARE(s.clientLogs.messages(),
                 QStringList{"uploadRequest: calc FileVerifyValue failed."});
        QCOMPARE(s.counters.total, qint64(77));
    }

    void missingTaskParameterIsDumped() {
        MountTree tree;
        QVERIFY(makeSource(tree.local() + "/f.bin", 10));
        Handler client = makeHandler();
        LogCapture logs(client.get());
        Counters counters;
        client->clearParam();
        configureClient(client.get(), -1, "upload");
        counters.install(client.get());
        client->setParam("srcPath", tree.local());
        client->setParam("fileName", "f.bin");
        client->setParam("bVerify", "false");
        client->setParam("appKey", "appA");
        QVERIFY(!client->process());
        QCOMPARE(logs.messages("error"),
                 (QStringList{"uploadRequest: getParams failed.",
                              "uploadRequest: params ====\noperator:[upload] fileName:[f.bin] "
                              "destPath:[] rootPath:[] userName:[] appKey:[appA] appVersion:[] "
                              "bVerify:[false] bReplace:[] mac:[] "}));
    }

    void symlinkReportsTargetSizeAndTime() {
        MountTree tree;
        const QString target = tree.local() + "/target.bin";
        QVERIFY(makeSource(target, 300000));
        QVERIFY(QFile::link(target, tree.local() + "/link.bin"));
        Session s(tree, "link.bin");
        const TaskResults r = s.run();
        QVERIFY(r.client && r.server);
        QCOMPARE(s.server->getParam("fileSize", ""), QString("300000"));
        QCOMPARE(s.server->getParam("mtime", ""), QString::number(kClientMtime));
        QCOMPARE(readAll(destinationOf(tree, "link.bin")), readAll(target));
    }

    // ---- Scripted server ----

    void ackWithoutOffsetFailsRangeCheck() {
        MountTree tree;
        QVERIFY(makeSource(tree.local() + "/o.bin", 4321));
        Session s(tree, "o.bin");
        QMap<QString, QString> param;
        QVERIFY(s.startClient(param));
        QCOMPARE(param.keys(),
                 (QStringList{"appKey", "appVersion", "bReplace", "bVerify", "destPath", "fileName",
                              "fileSize", "mac", "mtime", "operator", "rootPath", "userName"}));
        QVERIFY(s.answer(6, {{"ackRespond", "true"}}));
        QVERIFY(!s.clientTask->wait(10000));
        QCOMPARE(s.clientLogs.messages("error"),
                 QStringList{"uploadRequest: get offset[-1] fileSize[4321] failed."});
        QCOMPARE(s.counters.offset, qint64(-1));
        QCOMPARE(s.client->getParam("transferBeginSize", ""), QString("-1"));
    }

    void ackWithoutTransferFlagMeansTransfer() {
        MountTree tree;
        QVERIFY(makeSource(tree.local() + "/t.bin", 4321));
        Session s(tree, "t.bin");
        QMap<QString, QString> param;
        QVERIFY(s.startClient(param));
        // The whole file is already there: a zero-length send, then the closing message.
        QVERIFY(s.answer(6, {{"ackRespond", "true"}, {"offset", "4321"}}));
        QVERIFY(s.answer(8, {{"fileName", "t.bin"}}));
        QVERIFY(s.clientTask->wait(10000));
        QCOMPARE(s.clientLogs.messages(), QStringList());
        QCOMPARE(s.client->getParam("transferEndSize", ""), QString("4321"));
        QCOMPARE(s.counters.offset, qint64(4321));
    }

    void refusedAckKeepsErrorTypeAfterRecordingOffset() {
        MountTree tree;
        QVERIFY(makeSource(tree.local() + "/n.bin", 10));
        Session s(tree, "n.bin");
        QMap<QString, QString> param;
        QVERIFY(s.startClient(param));
        QVERIFY(s.answer(6, {{"ackRespond", "false"}, {"errorType", "busy"}, {"offset", "3"}}));
        QVERIFY(!s.clientTask->wait(10000));
        QCOMPARE(s.clientLogs.messages(), QStringList{"uploadRequest: TaskParam Nak."});
        QCOMPARE(s.client->getLastError(), QString("busy"));
        QCOMPARE(s.client->getParam("transferBeginSize", ""), QString("3"));
        QCOMPARE(s.counters.offset, qint64(3));
    }

    void clientWithoutVerificationWaitsOnlyForCompletion() {
        MountTree tree;
        QVERIFY(makeSource(tree.local() + "/w.bin", 10));
        Session s(tree, "w.bin");
        QMap<QString, QString> param;
        QVERIFY(s.startClient(param));
        QVERIFY(!param.contains("verifyValue"));
        QVERIFY(s.answer(6, {{"ackRespond", "true"}, {"bTransfer", "true"}, {"offset", "0"}}));
        QByteArray data(10, '\0');
        QVERIFY(VESK::wire::recvAll(s.pair.server.get(), data.data(), data.size()));
        QCOMPARE(data, readAll(tree.local() + "/w.bin"));
        // A verification result here would be a message of the wrong number.
        QVERIFY(s.answer(8, {}));
        QVERIFY(s.clientTask->wait(10000));
        QCOMPARE(s.clientLogs.messages(), QStringList());
    }

    // ---- Scripted client ----

    void serverMessagesCarryAckVerifyResultAndFileName() {
        MountTree tree;
        const QByteArray data = "exactly these bytes";
        ScriptedClient peer(tree);
        const QString md5 =
            QString::fromLatin1(QCryptographicHash::hash(data, QCryptographicHash::Md5).toHex());
        const QMap<QString, QString> param =
            taskParam("m.bin", {{"bVerify", "md5"},
                                {"fileSize", QString::number(data.size())},
                                {"mtime", QString::number(kClientMtime)},
                                {"verifyValue", md5}});
        QMap<QString, QString> ack;
        QVERIFY(peer.start(param, ack));
        const int socket = peer.socket();
        const QMap<QString, QString> expectedAck = {
            {"ackRespond", "true"}, {"bTransfer", "true"}, {"offset", "0"}};
        QCOMPARE(ack, expectedAck);
        QVERIFY(VESK::wire::sendAll(socket, data.constData(), data.size()));
        QMap<QString, QString> result;
        QVERIFY(recvMessage(socket, 7, result));
        QMap<QString, QString> expectedResult = expectedAck;
        expectedResult.insert("verifyResult", "true");
        QCOMPARE(result, expectedResult);
        QMap<QString, QString> complete;
        QVERIFY(recvMessage(socket, 8, complete));
        expectedResult.insert("fileName", "m.bin");
        QCOMPARE(complete, expectedResult);
        QVERIFY(peer.task->wait(10000));
        QCOMPARE(readAll(destinationOf(tree, "m.bin")), data);
    }

    void missingClientFileSizeMakesAnyTemporaryFileTooLong() {
        MountTree tree;
        const QString tmp = temporaryOf(tree, "s.bin");
        QVERIFY(writeBytes(tmp, "12345"));
        // No "fileSize" in the map and none preset: the client's size counts as -1.
        ScriptedClient peer(tree, false);
        QMap<QString, QString> ack;
        QVERIFY(peer.start(taskParam("s.bin", {}), ack));
        QCOMPARE(ack.value("offset"), QString("0"));
        // The old file was deleted before the ack; the server then opens a new one to append to,
        // so its existence is not checked here.
        QVERIFY(peer.logs.contains("warning",
                                   "uploadRespond: server tmp offset[5], client fileSize[-1]."));
        // What follows depends on a transfer of -1 bytes; only the offset decision is checked.
        peer.hangUp();
    }

    void temporaryFileThatCannotBeRemovedFailsTheUpload() {
        MountTree tree;
        QVERIFY(makeSource(tree.local() + "/x.bin", 10));
        // A directory in the temporary file's place: longer than 10 bytes, and not removable.
        const QString tmp = temporaryOf(tree, "x.bin");
        QVERIFY(QDir().mkpath(tmp + "/inside"));
        QVERIFY(QFileInfo(tmp).size() > 10);
        Session s(tree, "x.bin");
        const TaskResults r = s.runServerThenClose();
        QVERIFY(!r.timedOut);
        QVERIFY(!r.client);
        QVERIFY(!r.server);
        QVERIFY(
            s.serverLogs.contains("error", "uploadRespond: remove tmp file " + tmp + " failed."));
        QVERIFY(s.clientLogs.contains("error", "uploadRequest: recv TaskParamAck failed."));
    }

    void bulkFailureOnServerNamesDestinationNotTemporaryFile() {
        MountTree tree;
        const QString src = tree.local() + "/y.bin";
        QVERIFY(makeSource(src, 200000));
        // A directory in the temporary file's place: a resume offset, but it cannot be opened.
        const QString tmp = temporaryOf(tree, "y.bin");
        QVERIFY(QDir().mkpath(tmp));
        const qint64 offset = QFileInfo(tmp).size();
        QVERIFY(offset > 0 && offset < 200000);
        Session s(tree, "y.bin");
        const TaskResults r = s.runServerThenClose();
        QVERIFY(!r.timedOut);
        QVERIFY(!r.server);
        QVERIFY(!r.client);
        const QString dest = destinationOf(tree, "y.bin");
        const QStringList errors = s.serverLogs.messages("error");
        QCOMPARE(errors.size(), 2);
        QVERIFY(errors[0].startsWith("createStream: QFile open file " + tmp + " failed.error "));
        QCOMPARE(errors[1], "uploadRespond: createStream " + dest + " failed.");
        QCOMPARE(s.client->getParam("transferBeginSize", ""), QString::number(offset));
    }

    void brokenConnectionDuringReceiveNamesDestination() {
        MountTree tree;
        ScriptedClient peer(tree);
        QMap<QString, QString> ack;
        QVERIFY(peer.start(taskParam("z.bin", {{"fileSize", "100000"}, {"mtime", "1"}}), ack));
        QVERIFY(VESK::wire::sendAll(peer.socket(), "part", 4));
        QThread::msleep(100);
        QVERIFY(!peer.hangUp());
        const QString dest = destinationOf(tree, "z.bin");
        const QStringList errors = peer.logs.messages("error");
        QCOMPARE(errors.size(), 1);
        QVERIFY(errors[0].startsWith("uploadRespond: recvfile " + dest + " failed.\n"));
        QVERIFY(errors[0].size() >
                QString("uploadRespond: recvfile " + dest + " failed.\n").size());
        // The partial file stays for the next attempt.
        QCOMPARE(readAll(temporaryOf(tree, "z.bin")), QByteArray("part"));
        QCOMPARE(peer.server->getParam("transferEndSize", ""), QString("4"));
    }

    // ---- Server-side failures ----

    void unknownAppKeyIsRefusedWithoutAnswer() {
        MountTree tree;
        QVERIFY(makeSource(tree.local() + "/k.bin", 10));
        Session s(tree, "k.bin");
        s.client->setParam("appKey", "appZ");
        const TaskResults r = s.runServerThenClose();
        QVERIFY(!r.timedOut);
        QVERIFY(!r.server);
        QVERIFY(!r.client);
        QCOMPARE(s.serverLogs.messages("error"),
                 QStringList{"uploadRespond: get path of app [appZ] failed."});
        QVERIFY(s.clientLogs.contains("error", "uploadRequest: recv TaskParamAck failed."));
        QCOMPARE(s.server->getParam("respondStatus", ""), QString("failed"));
        QCOMPARE(s.server->getParam("path", "x"), QString());
    }

    void dotDotSegmentsStayInsideTheMount() {
        MountTree tree;
        QVERIFY(makeSource(tree.local() + "/esc.bin", 1000));
        Session s(tree, "../esc.bin");
        s.client->setParam("destPath", "../../../../..");
        s.client->setParam("rootPath", "../../..");
        const TaskResults r = s.run();
        QVERIFY(r.client && r.server);
        const QString dest = tree.appDir("appA") + "/esc.bin";
        QCOMPARE(QDir::cleanPath(s.server->getParam("path", "")), dest);
        QCOMPARE(readAll(dest), readAll(tree.local() + "/esc.bin"));
        QVERIFY(!QFile::exists(tree.root() + "/esc.bin"));
        QVERIFY(!QFile::exists(tree.mount() + "/esc.bin"));
        QVERIFY(!QFile::exists(tree.mount() + "/apps/esc.bin"));
    }

    // ---- Pause and cancel of the server ----

    void pauseOfServerKeepsPartialFileAndNextUploadResumes() {
        MountTree tree;
        qint64 partial = 0;
        stopServerMidTransfer(tree, "pause", partial);
        if (QTest::currentTestFailed())
            return;
        const QString tmp = temporaryOf(tree, m_bigName);
        QCOMPARE(QFileInfo(tmp).size(), partial);

        Session s(tree, m_bigName, "false", "false", m_bigDir.path());
        const TaskResults r = s.run(40000);
        QVERIFY(!r.timedOut);
        QVERIFY(r.client && r.server);
        QCOMPARE(s.server->getParam("transferBeginSize", ""), QString::number(partial));
        QCOMPARE(s.client->getParam("transferBeginSize", ""), QString::number(partial));
        const QString dest = destinationOf(tree, m_bigName);
        QCOMPARE(QFileInfo(dest).size(), m_bigSize);
        QCOMPARE(digestOf(dest, QCryptographicHash::Sha1), m_bigDigest);
        QVERIFY(!QFile::exists(tmp));
    }

    void cancelOfServerRemovesPartialFile() {
        MountTree tree;
        qint64 partial = 0;
        stopServerMidTransfer(tree, "cancel", partial);
        if (QTest::currentTestFailed())
            return;
        QVERIFY(!QFile::exists(temporaryOf(tree, m_bigName)));
    }
};

QTEST_GUILESS_MAIN(tst_Upload)
#include "tst_Upload.moc"
