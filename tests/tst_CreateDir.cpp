// Directory creation end to end: a client handler asks, a server handler creates the directory
// below the application's area of its mount, both loaded from the plug-in and joined by a real
// UDT connection. Refusals come from a raw peer writing frames itself.

#include "HandlerInternals.h"
#include "Support.h"
#include "base/Wire.h"

#include <QDateTime>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QTest>

#include <udt/udt.h>

#include <sys/stat.h>

using namespace vesktest;

namespace {

// Permission bits of a path, or -1 when it cannot be queried.
int modeOf(const QString& path) {
    struct stat info;
    if (::stat(QFile::encodeName(path).constData(), &info) != 0)
        return -1;
    return int(info.st_mode & 07777);
}

bool setMode(const QString& path, int mode) {
    return ::chmod(QFile::encodeName(path).constData(), mode_t(mode)) == 0;
}

// Sets the process's file creation mask for one test and puts the old one back.
class UmaskScope {
public:
    explicit UmaskScope(mode_t mask)
        : m_old(::umask(mask)) {}
    ~UmaskScope() { ::umask(m_old); }

private:
    mode_t m_old;
};

// Every path below `root`, so a test can see exactly what a task created.
QStringList treeOf(const QString& root) {
    QStringList paths;
    QDirIterator it(root, QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden | QDir::System,
                    QDirIterator::Subdirectories);
    while (it.hasNext())
        paths << it.next();
    paths.sort();
    return paths;
}

QStringList added(const QStringList& before, const QStringList& after) {
    QStringList out;
    for (const QString& path : after) {
        if (!before.contains(path))
            out << path;
    }
    return out;
}

// One createDir task between two plug-in handlers over a fresh connection.
struct CreateDirTask {
    MountTree tree;
    UdtPair pair = connectedPair();
    Handler client = makeHandler();
    Handler server = makeHandler();
    LogCapture clientLogs{client.get()};
    LogCapture serverLogs{server.get()};

    CreateDirTask() {
        configureClient(client.get(), pair.client.get(), "createDir");
        configureServer(server.get(), pair.server.get(), tree.mount(), tree.appTable());
        client->setParam("appKey", "appA");
        client->setParam("userName", "alice");
        client->setParam("appVersion", "1.0");
    }

    void request(const QString& rootPath, const QString& destPath) {
        client->setParam("rootPath", rootPath);
        client->setParam("destPath", destPath);
    }

    QString app() const { return tree.appDir("appA"); }

    // The host closes the server's socket after its process() returns: that is how a client
    // learns of a failure the server does not answer.
    TaskResults run() { return runTaskClosingServer(client.get(), server.get(), pair.server); }
};

// A client handler facing a peer that the test drives frame by frame.
struct RawServerPeer {
    UdtPair pair = connectedPair();
    Handler client = makeHandler();
    LogCapture logs{client.get()};

    RawServerPeer() {
        configureClient(client.get(), pair.client.get(), "createDir");
        client->setParam("destPath", "d");
        client->setParam("rootPath", "r");
        client->setParam("userName", "alice");
        client->setParam("appKey", "appA");
        client->setParam("appVersion", "1.0");
        // Extra parameters of the client must not travel with the request.
        client->setParam("fileName", "f.bin");
        client->setParam("dirMod", "700");
        setReceiveTimeout(pair.server.get(), 10000);
    }

    VESK::HandlerInternals internals() {
        return VESK::HandlerInternals(static_cast<VESK::VeskHandler2_0_0&>(*client));
    }

    // Runs the client, reads its TaskParam and answers with `ack`. Returns the client's result;
    // `number`/`taskParam` receive what the peer read.
    bool exchange(const QByteArray& ack, quint32& number, VESK::ParamMap& taskParam) {
        AsyncTask task(client.get());
        QByteArray body;
        if (VESK::wire::recvFrame(pair.server.get(), number, body)) {
            taskParam = VeskBase::unSerializeParam(QString::fromUtf8(body));
            VESK::wire::sendFrame(pair.server.get(), 6, ack);
        }
        return finish(task);
    }

    // Runs a client that is expected to fail before it sends; `sent` tells whether a frame came.
    bool runWithoutPeer(bool& sent) {
        AsyncTask task(client.get());
        const bool result = finish(task);
        setReceiveTimeout(pair.server.get(), 300);
        quint32 number = 0;
        QByteArray body;
        sent = VESK::wire::recvFrame(pair.server.get(), number, body);
        return result;
    }

private:
    bool finish(AsyncTask& task) {
        bool finished = false;
        const bool result = task.wait(10000, &finished);
        if (finished)
            return result;
        // Unblock the client so the task's thread can be joined, and fail the test.
        UDT::close(pair.client.get());
        task.wait(10000);
        return !result;
    }
};

} // namespace

class tst_CreateDir : public QObject {
    Q_OBJECT

private slots:
    // ---- Success ----

    void createsNestedTreeWithMissingParents() {
        CreateDirTask t;
        t.request("r/s", "x/y/z");
        const QStringList before = treeOf(t.tree.root());
        const TaskResults results = t.run();
        QVERIFY(!results.timedOut);
        QVERIFY(results.client);
        QVERIFY(results.server);
        const QString base = t.app() + "/r/s";
        QCOMPARE(added(before, treeOf(t.tree.root())),
                 (QStringList{t.app() + "/r", base, base + "/x", base + "/x/y", base + "/x/y/z"}));
        QVERIFY(QFileInfo(base + "/x/y/z").isDir());
        QVERIFY(t.clientLogs.messages("error").isEmpty());
        QVERIFY(t.serverLogs.messages("error").isEmpty());
        QCOMPARE(t.client->getLastError(), QString());
    }

    void serverRecordsSuccessAndEndTime() {
        CreateDirTask t;
        t.request("", "new");
        const qint64 before = QDateTime::currentMSecsSinceEpoch();
        const TaskResults results = t.run();
        QVERIFY(results.client && results.server);
        QCOMPARE(t.server->getParam("respondStatus", ""), QString("success"));
        for (VeskBase* h : {t.server.get(), t.client.get()}) {
            const QString endTime = h->getParam("endTime", "");
            QVERIFY(!endTime.startsWith('0'));
            QVERIFY(endTime.toLongLong() >= before);
            QVERIFY(endTime.toLongLong() <= QDateTime::currentMSecsSinceEpoch());
        }
        QCOMPARE(t.client->getParam("respondStatus", "x"), QString());
    }

    void serverLogsTargetDirectory() {
        CreateDirTask t;
        t.request("r", "x/y");
        QVERIFY(t.run().client);
        QCOMPARE(t.serverLogs.messages("info"),
                 QStringList{"createDirRespond: " + t.app() + "/r/x/y ..."});
        QVERIFY(t.clientLogs.entries().isEmpty());
    }

    void percentInPathIsLoggedAsIs() {
        CreateDirTask t;
        t.request("%1", "a%2b");
        QVERIFY(t.run().client);
        QCOMPARE(t.serverLogs.messages("info"),
                 QStringList{"createDirRespond: " + t.app() + "/%1/a%2b ..."});
        QVERIFY(QFileInfo(t.app() + "/%1/a%2b").isDir());
    }

    void appKeySelectsApplicationArea() {
        CreateDirTask t;
        t.client->setParam("appKey", "appB");
        t.request("", "only-b");
        QVERIFY(t.run().client);
        QVERIFY(QFileInfo(t.tree.appDir("appB") + "/only-b").isDir());
        QVERIFY(!QFile::exists(t.app() + "/only-b"));
    }

    void existingDirectoryStillSucceedsAndTakesMode() {
        CreateDirTask t;
        QVERIFY(QDir(t.app()).mkpath("r/there"));
        QVERIFY(setMode(t.app() + "/r/there", 0700));
        t.server->setParam("dirMod", "755");
        t.request("r", "there");
        const TaskResults results = t.run();
        QVERIFY(results.client);
        QVERIFY(results.server);
        QCOMPARE(t.server->getParam("respondStatus", ""), QString("success"));
        // The existence probe does not cut the task short: mkdir and the mode still run.
        QCOMPARE(modeOf(t.app() + "/r/there"), 0755);
        QCOMPARE(t.serverLogs.messages("info"),
                 QStringList{"createDirRespond: " + t.app() + "/r/there ..."});
    }

    void emptyDestPathTargetsRootItself() {
        UmaskScope mask(077);
        CreateDirTask t;
        t.server->setParam("dirMod", "755");
        t.request("root/only", "");
        const QStringList before = treeOf(t.tree.root());
        QVERIFY(t.run().client);
        QCOMPARE(added(before, treeOf(t.tree.root())),
                 (QStringList{t.app() + "/root", t.app() + "/root/only"}));
        QCOMPARE(t.serverLogs.messages("info"),
                 QStringList{"createDirRespond: " + t.app() + "/root/only ..."});
        // The root is the base of the mode change, which never touches the base itself.
        QCOMPARE(modeOf(t.app() + "/root/only"), 0700);
    }

    void emptyRootAndDestTargetApplicationDirectory() {
        CreateDirTask t;
        t.request("", "");
        const QStringList before = treeOf(t.tree.root());
        QVERIFY(t.run().client);
        QCOMPARE(treeOf(t.tree.root()), before);
        QCOMPARE(t.serverLogs.messages("info"),
                 QStringList{"createDirRespond: " + t.app() + " ..."});
    }

    // ---- Modes ----

    void emptyDirModKeepsCreatedMode() {
        UmaskScope mask(027);
        CreateDirTask t;
        QVERIFY(QDir(t.app()).mkpath("r/old"));
        QVERIFY(setMode(t.app() + "/r/old", 0700));
        t.request("r", "old/m/n");
        QVERIFY(t.run().client);
        QCOMPARE(modeOf(t.app() + "/r/old/m"), 0750);
        QCOMPARE(modeOf(t.app() + "/r/old/m/n"), 0750);
        QCOMPARE(modeOf(t.app() + "/r/old"), 0700);
    }

    void dirMod755GoesToEachDirectoryBelowRoot() {
        UmaskScope mask(077);
        CreateDirTask t;
        QVERIFY(QDir(t.app()).mkpath("r/old"));
        QVERIFY(setMode(t.app(), 0711));
        QVERIFY(setMode(t.app() + "/r", 0711));
        t.server->setParam("dirMod", "755");
        t.request("r", "old/x/y");
        QVERIFY(t.run().client);
        QCOMPARE(modeOf(t.app() + "/r/old"), 0755);
        QCOMPARE(modeOf(t.app() + "/r/old/x"), 0755);
        QCOMPARE(modeOf(t.app() + "/r/old/x/y"), 0755);
        QCOMPARE(modeOf(t.app() + "/r"), 0711);
        QCOMPARE(modeOf(t.app()), 0711);
    }

    void dirMod777GivesFullPermissions() {
        UmaskScope mask(022);
        CreateDirTask t;
        t.server->setParam("dirMod", "777");
        t.request("r", "x/y");
        QVERIFY(t.run().client);
        QCOMPARE(modeOf(t.app() + "/r/x"), 0777);
        QCOMPARE(modeOf(t.app() + "/r/x/y"), 0777);
        QCOMPARE(modeOf(t.app() + "/r"), 0755);
    }

    void nonOctalDirModGivesNoPermissions() {
        UmaskScope mask(022);
        CreateDirTask t;
        t.server->setParam("dirMod", "9");
        t.request("r", "locked");
        QVERIFY(t.run().client);
        const QString locked = t.app() + "/r/locked";
        QCOMPARE(modeOf(locked), 0);
        QVERIFY(setMode(locked, 0700));
    }

    // ---- Paths a client sends stay inside the mount ----

    void dotDotPiecesStayInsideApplicationArea() {
        CreateDirTask t;
        t.request("../../..", "../../escape/../../deep");
        const QStringList before = treeOf(t.tree.root());
        QVERIFY(t.run().client);
        QCOMPARE(added(before, treeOf(t.tree.root())), QStringList{t.app() + "/deep"});
        QCOMPARE(t.serverLogs.messages("info"),
                 QStringList{"createDirRespond: " + t.app() + "/deep ..."});
    }

    void absolutePiecesStayInsideApplicationArea() {
        CreateDirTask t;
        // Both pieces name real places outside the mount; they are taken as relative ones.
        t.request(t.tree.root() + "/outside", t.tree.root() + "/elsewhere");
        const QStringList before = treeOf(t.tree.root());
        QVERIFY(t.run().client);
        const QString target = t.app() + t.tree.root() + "/outside" + t.tree.root() + "/elsewhere";
        QVERIFY(QFileInfo(target).isDir());
        const QStringList created = added(before, treeOf(t.tree.root()));
        QVERIFY(!created.isEmpty());
        for (const QString& path : created)
            QVERIFY2(path.startsWith(t.app() + "/"), qPrintable(path));
        QVERIFY(!QFile::exists(t.tree.root() + "/outside"));
        QVERIFY(!QFile::exists(t.tree.root() + "/elsewhere"));
        QCOMPARE(t.serverLogs.messages("info"),
                 QStringList{"createDirRespond: " + target + " ..."});
    }

    // ---- Server failures: no reply ----

    void unknownAppKeyGetsNoReply() {
        CreateDirTask t;
        t.client->setParam("appKey", "x");
        t.request("r", "d");
        const QStringList before = treeOf(t.tree.root());
        const qint64 start = QDateTime::currentMSecsSinceEpoch();
        const TaskResults results = t.run();
        QVERIFY(!results.timedOut);
        QVERIFY(!results.server);
        QVERIFY(!results.client);
        QCOMPARE(t.serverLogs.messages("error"),
                 QStringList{"createDirRespond: get path of app [x] failed."});
        QVERIFY(t.serverLogs.messages("info").isEmpty());
        QVERIFY(t.clientLogs.contains("error", "createDirRequest: recv TaskParamAck failed."));
        QCOMPARE(t.server->getParam("respondStatus", ""), QString("failed"));
        QVERIFY(t.server->getParam("endTime", "").toLongLong() >= start);
        QCOMPARE(treeOf(t.tree.root()), before);
    }

    void emptyAppKeyGetsNoReply() {
        CreateDirTask t;
        t.client->setParam("appKey", "");
        t.request("", "d");
        const TaskResults results = t.run();
        QVERIFY(!results.client && !results.server && !results.timedOut);
        QCOMPARE(t.serverLogs.messages("error"),
                 QStringList{"createDirRespond: get path of app [] failed."});
    }

    void serverFailureSendsNoFrame() {
        UdtPair pair = connectedPair();
        MountTree tree;
        Handler server = makeHandler();
        configureServer(server.get(), pair.server.get(), tree.mount(), tree.appTable());
        const VESK::ParamMap taskParam = {{"operator", "createDir"}, {"destPath", "d"},
                                          {"rootPath", ""},          {"userName", "alice"},
                                          {"appKey", "nope"},        {"appVersion", "1"}};
        QVERIFY(VESK::wire::sendFrame(pair.client.get(), 5,
                                      VeskBase::serializeParam(taskParam).toUtf8()));
        QVERIFY(!server->process());
        // The socket is still open, so silence here means nothing was sent.
        setReceiveTimeout(pair.client.get(), 300);
        quint32 number = 0;
        QByteArray body;
        QVERIFY(!VESK::wire::recvFrame(pair.client.get(), number, body));
    }

    void failedMkdirGetsNoReply() {
        CreateDirTask t;
        QVERIFY(writePatternFile(t.app() + "/blocked", 10));
        t.request("", "blocked/sub");
        const TaskResults results = t.run();
        QVERIFY(!results.timedOut);
        QVERIFY(!results.server);
        QVERIFY(!results.client);
        QCOMPARE(t.serverLogs.messages("error"),
                 QStringList{"createDirRespond: mkdir " + t.app() + "/blocked/sub failed."});
        QCOMPARE(t.serverLogs.messages("info"),
                 QStringList{"createDirRespond: " + t.app() + "/blocked/sub ..."});
        QVERIFY(t.clientLogs.contains("error", "createDirRequest: recv TaskParamAck failed."));
        QCOMPARE(t.server->getParam("respondStatus", ""), QString("failed"));
        QCOMPARE(readAll(t.app() + "/blocked").size(), 10);
    }

    // ---- Client side against a raw peer ----

    void requestCarriesExactlyItsSixKeys() {
        RawServerPeer peer;
        quint32 number = 0;
        VESK::ParamMap taskParam;
        QVERIFY(peer.exchange(R"({"ackRespond":"true"})", number, taskParam));
        QCOMPARE(number, quint32(5));
        const VESK::ParamMap expected = {{"operator", "createDir"}, {"destPath", "d"},
                                         {"rootPath", "r"},         {"userName", "alice"},
                                         {"appKey", "appA"},        {"appVersion", "1.0"}};
        QCOMPARE(taskParam, expected);
        QVERIFY(peer.logs.entries().isEmpty());
        QCOMPARE(peer.client->getLastError(), QString());
    }

    void refusalIsReportedWithItsErrorType_data() {
        QTest::addColumn<QByteArray>("ack");
        QTest::addColumn<QString>("errorType");
        QTest::newRow("with errorType")
            << QByteArray(R"({"ackRespond":"false","errorType":"noSpace"})") << QString("noSpace");
        QTest::newRow("without errorType") << QByteArray(R"({"ackRespond":"false"})") << QString();
        QTest::newRow("no ackRespond") << QByteArray(R"({"errorType":"busy"})") << QString("busy");
        QTest::newRow("capitalised TRUE") << QByteArray(R"({"ackRespond":"TRUE"})") << QString();
        QTest::newRow("not a map") << QByteArray("true") << QString();
    }

    void refusalIsReportedWithItsErrorType() {
        QFETCH(QByteArray, ack);
        QFETCH(QString, errorType);
        RawServerPeer peer;
        // An earlier reason is replaced, also by an empty one.
        peer.internals().setParamInner("_errorStr", "earlier");
        quint32 number = 0;
        VESK::ParamMap taskParam;
        QVERIFY(!peer.exchange(ack, number, taskParam));
        QCOMPARE(number, quint32(5));
        QCOMPARE(peer.logs.messages(), QStringList{"createDirRequest: TaskParam Nak."});
        QCOMPARE(peer.logs.entries().first().level, QString("error"));
        QCOMPARE(peer.client->getLastError(), errorType);
        QVERIFY(!peer.client->getParam("endTime", "").isEmpty());
    }

    void missingParametersAreDumped() {
        RawServerPeer peer;
        peer.client->clearParam();
        configureClient(peer.client.get(), peer.pair.client.get(), "createDir");
        bool sent = true;
        QVERIFY(!peer.runWithoutPeer(sent));
        QVERIFY(!sent);
        const QList<LogEntry> entries = peer.logs.entries();
        QCOMPARE(entries.size(), 2);
        QCOMPARE(entries[0].level, QString("error"));
        QCOMPARE(entries[0].message, QString("createDirRequest: getParams failed."));
        QCOMPARE(entries[1].level, QString("error"));
        QCOMPARE(entries[1].message, QString("createDirRequest: params ====\n"
                                             "operator:[createDir] destPath:[] rootPath:[] "
                                             "userName:[] appKey:[] appVersion:[] "));
    }

    void dumpShowsValuesThatArePresent() {
        RawServerPeer peer;
        peer.client->clearParam();
        configureClient(peer.client.get(), peer.pair.client.get(), "createDir");
        peer.client->setParam("destPath", "a/b");
        peer.client->setParam("appKey", "appA");
        bool sent = true;
        QVERIFY(!peer.runWithoutPeer(sent));
        QVERIFY(!sent);
        QCOMPARE(peer.logs.messages("error").value(1),
                 QString("createDirRequest: params ====\n"
                         "operator:[createDir] destPath:[a/b] rootPath:[] "
                         "userName:[] appKey:[appA] appVersion:[] "));
    }

    void failedSendIsReported() {
        Handler client = makeHandler();
        LogCapture logs(client.get());
        configureClient(client.get(), -1, "createDir");
        QVERIFY(!client->process());
        QVERIFY(logs.contains("error", "createDirRequest: send TaskParam failed."));
        QVERIFY(!logs.contains("error", "createDirRequest: recv TaskParamAck failed."));
    }
};

QTEST_GUILESS_MAIN(tst_CreateDir)
#include "tst_CreateDir.moc"
