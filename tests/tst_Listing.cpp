// The recursive listing: the client's request and chunk loop, the server's breadth-first walk and
// its chunking, end to end over real UDT pairs and against raw peers that read or write frames.

#include "HandlerInternals.h"
#include "Support.h"
#include "base/Wire.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QSet>
#include <QTest>
#include <QThread>

#include <udt/udt.h>

#include <climits>
#include <functional>
#include <sys/stat.h>

using namespace vesktest;
using VESK::ParamMap;

namespace {

// ---- Trees ------------------------------------------------------------------------------------

bool touch(const QString& path) {
    QFile file(path);
    return file.open(QIODevice::WriteOnly);
}

// Creates `count` empty files <dir>/<prefix>000, <prefix>001, ... and returns their names.
QStringList makeFiles(const QString& dir, const QString& prefix, int count) {
    QStringList names;
    QDir().mkpath(dir);
    for (int i = 0; i < count; ++i) {
        const QString name = prefix + QString("%1").arg(i, 3, 10, QChar('0'));
        if (!touch(dir + "/" + name))
            return {};
        names << name;
    }
    return names;
}

// Creates every path below `base`: a path ending in "/" as a directory, any other as an empty
// file (with its parent directories).
bool makeTree(const QString& base, const QStringList& paths) {
    for (const QString& path : paths) {
        const QString full = base + "/" + path;
        if (path.endsWith('/')) {
            if (!QDir().mkpath(full))
                return false;
        } else if (!QDir().mkpath(QFileInfo(full).path()) || !touch(full)) {
            return false;
        }
    }
    return true;
}

int depth(const QString& key) {
    return key.count('/');
}

// ---- Listings seen by the host ----------------------------------------------------------------

// Records every sigList map of one handler. The signal comes from the worker thread running
// process(); a functor without a context object runs right there, so the list is locked.
class ListCapture {
public:
    explicit ListCapture(VeskBase* handler)
        : m_state(std::make_shared<State>()) {
        auto state = m_state;
        QObject::connect(handler, &VeskBase::sigList, [state](QMap<QString, QString> map) {
            QMutexLocker lock(&state->mutex);
            state->maps.append(map);
        });
    }

    QList<ParamMap> maps() const {
        QMutexLocker lock(&m_state->mutex);
        return m_state->maps;
    }

    QList<int> sizes() const {
        QList<int> out;
        for (const ParamMap& map : maps())
            out << map.size();
        return out;
    }

    // Every map merged into one; the sizes tell whether a key came twice.
    ParamMap merged() const {
        ParamMap all;
        for (const ParamMap& map : maps()) {
            for (auto it = map.cbegin(); it != map.cend(); ++it)
                all.insert(it.key(), it.value());
        }
        return all;
    }

private:
    struct State {
        QMutex mutex;
        QList<ParamMap> maps;
    };
    std::shared_ptr<State> m_state;
};

// ---- Raw peers --------------------------------------------------------------------------------

struct Frame {
    quint32 number = 0;
    ParamMap map;
};

bool sendMapFrame(int socket, quint32 number, const ParamMap& map) {
    return VESK::wire::sendFrame(socket, number, VeskBase::serializeParam(map).toUtf8());
}

bool recvMapFrame(int socket, Frame& frame) {
    QByteArray body;
    if (!VESK::wire::recvFrame(socket, frame.number, body))
        return false;
    frame.map = VeskBase::unSerializeParam(QString::fromUtf8(body));
    return true;
}

// Reads frames until the final ListContent or until the connection gives no more.
QList<Frame> readFrames(int socket) {
    QList<Frame> frames;
    Frame frame;
    while (recvMapFrame(socket, frame)) {
        frames << frame;
        if (frame.number == 9 && frame.map.value("bLast") == "true")
            break;
    }
    return frames;
}

// One ListContent per item as "<entries>:<bLast>" ("-" when the key is absent); any other
// message number is shown as "#<number>".
QString describeChunks(const QList<Frame>& frames) {
    QStringList parts;
    for (const Frame& f : frames) {
        if (f.number != 9) {
            parts << QString("#%1").arg(f.number);
            continue;
        }
        const bool hasLast = f.map.contains("bLast");
        parts << QString("%1:%2").arg(QString::number(f.map.size() - (hasLast ? 1 : 0)),
                                      hasLast ? f.map.value("bLast") : QString("-"));
    }
    return parts.join(',');
}

ParamMap listingTaskParam(const QString& srcPath, const QString& rootPath = "",
                          const QString& appKey = "appA") {
    return {{"operator", "list"}, {"srcPath", srcPath}, {"rootPath", rootPath},
            {"userName", "ann"},  {"appKey", appKey},   {"appVersion", "1.0"}};
}

const ParamMap kAck = {{"ackRespond", "true"}};

// Waits (bounded) until the peer has acknowledged everything sent on `socket`.
//
// Tests call it on both ends before they close the server's socket: UDT loses the shutdown
// notice when it reaches a side that still waits for an acknowledgment, and that side then
// notices the closed connection only after some 45 s of silence.
void waitUntilDelivered(int socket) {
    for (int waited = 0; waited < 5000; waited += 10) {
        int pending = 0;
        int len = sizeof pending;
        if (UDT::getsockopt(socket, 0, UDT_SNDDATA, &pending, &len) == UDT::ERROR || pending == 0)
            return;
        QThread::msleep(10);
    }
}

// ---- Running ----------------------------------------------------------------------------------

// Runs both tasks and, as the host does, closes the server's socket once the server's task has
// ended; a client still waiting for a reply then sees its receive fail.
TaskResults runTaskClosingServer(VeskBase* client, VeskBase* server, UdtPair& pair) {
    TaskResults results;
    AsyncTask serverTask(server);
    AsyncTask clientTask(client);
    bool serverDone = false;
    bool clientDone = false;
    results.server = serverTask.wait(30000, &serverDone);
    waitUntilDelivered(pair.client.get());
    pair.server.reset();
    results.client = clientTask.wait(30000, &clientDone);
    results.timedOut = !serverDone || !clientDone;
    if (results.timedOut)
        UDT::close(pair.client.get()); // lets both threads end so they can be joined
    return results;
}

// Runs `server` against a raw client that sends `request` as its TaskParam. Once the server's
// task has ended its socket is closed (after draining), and every frame that reached the client
// is returned, so a test sees exactly what went on the wire.
QList<Frame> serveToRawClient(VeskBase* server, UdtPair& pair, const ParamMap& request,
                              bool* result, bool* finished) {
    AsyncTask task(server);
    sendMapFrame(pair.client.get(), 5, request);
    *result = task.wait(30000, finished);
    if (!*finished) {
        UDT::close(pair.server.get());
        task.wait(30000);
    }
    waitUntilDelivered(pair.client.get());
    pair.server.reset();
    setReceiveTimeout(pair.client.get(), 10000);
    return readFrames(pair.client.get());
}

// A client handler from the plug-in and a server handler from the plug-in on one UDT pair, with
// the server mounted on `mountPath`.
struct ListingSession {
    ListingSession(const QString& mountPath, const QString& appTable)
        : pair(connectedPair())
        , client(makeHandler())
        , server(makeHandler())
        , clientLogs(client.get())
        , serverLogs(server.get())
        , lists(client.get()) {
        configureClient(client.get(), pair.client.get(), "list");
        configureServer(server.get(), pair.server.get(), mountPath, appTable);
        ask("");
    }

    explicit ListingSession(const MountTree& tree)
        : ListingSession(tree.mount(), tree.appTable()) {}

    void ask(const QString& srcPath, const QString& rootPath = "", const QString& appKey = "appA") {
        const ParamMap request = listingTaskParam(srcPath, rootPath, appKey);
        for (auto it = request.cbegin(); it != request.cend(); ++it)
            client->setParam(it.key(), it.value());
    }

    TaskResults run() { return runTask(client.get(), server.get(), 30000); }
    // Runs the listing; true when both sides succeeded in time.
    bool succeeds() {
        const TaskResults r = run();
        return !r.timedOut && r.client && r.server;
    }
    TaskResults runClosingServer() {
        return runTaskClosingServer(client.get(), server.get(), pair);
    }

    UdtPair pair;
    Handler client;
    Handler server;
    LogCapture clientLogs;
    LogCapture serverLogs;
    ListCapture lists;
};

// A server whose control messages pass a hook first, so a test can stop the task or break the
// socket at an exact point of the conversation.
class HookedServer : public VESK::VeskHandler2_0_0 {
public:
    // Called before every send with the message number and how many of that number went out.
    std::function<void(HookedServer&, int number, int sentBefore)> beforeSend;
    // Called after every successful send, with the same arguments.
    std::function<void(HookedServer&, int number, int sentBefore)> afterSend;

    // Records a stop word without closing the socket, as if the request came in meanwhile.
    void setStatusQuietly(const QString& word) { VESK::HandlerInternals(*this).setStatus(word); }

protected:
    bool send(int number, const QString& text) override {
        const int before = m_sent.value(number);
        if (beforeSend)
            beforeSend(*this, number, before);
        if (!VeskHandler2_0_0::send(number, text))
            return false;
        m_sent[number] = before + 1;
        if (afterSend)
            afterSend(*this, number, before);
        return true;
    }

private:
    QMap<int, int> m_sent;
};

VESK::HandlerInternals internals(Handler& h) {
    return VESK::HandlerInternals(static_cast<VESK::VeskHandler2_0_0&>(*h));
}

} // namespace

class tst_Listing : public QObject {
    Q_OBJECT

private:
    // Configures a fresh server handler (from the plug-in) on `pair` for `tree`.
    Handler serverFor(UdtPair& pair, const MountTree& tree) {
        Handler h = makeHandler();
        configureServer(h.get(), pair.server.get(), tree.mount(), tree.appTable());
        return h;
    }

    // Flat roots of `entries` files: the chunks on the wire ("<entries>:<bLast>") and the map
    // sizes the host receives.
    void checkChunkRows() {
        QTest::addColumn<int>("entries");
        QTest::addColumn<QString>("wire");
        QTest::addColumn<QString>("host");
        struct Row {
            int entries;
            const char* wire;
            const char* host;
        };
        const Row rows[] = {
            {0, "0:true", "0"},
            {1, "1:true", "1"},
            {99, "99:true", "99"},
            {100, "100:false,0:true", "100,0"},
            {101, "100:false,1:true", "100,1"},
            {200, "100:false,100:true", "100,100"},
            {201, "100:false,101:-,0:true", "100,101,0"},
            {202, "100:false,101:-,1:true", "100,101,1"},
            {250, "100:false,101:-,49:true", "100,101,49"},
            {302, "100:false,101:-,101:-,0:true", "100,101,101,0"},
        };
        for (const Row& row : rows) {
            QTest::newRow(qPrintable(QString::number(row.entries)))
                << row.entries << QString(row.wire) << QString(row.host);
        }
    }

private slots:
    // ---- Chunking ----

    void chunkSizesOnTheWire_data() { checkChunkRows(); }
    void chunkSizesOnTheWire() {
        QFETCH(int, entries);
        QFETCH(QString, wire);
        MountTree tree;
        const QStringList names = makeFiles(tree.appDir("appA") + "/docs", "f", entries);
        QCOMPARE(names.size(), entries);
        UdtPair pair = connectedPair();
        Handler server = serverFor(pair, tree);
        bool result = false;
        bool finished = false;
        QList<Frame> frames =
            serveToRawClient(server.get(), pair, listingTaskParam("docs"), &result, &finished);
        QVERIFY(finished);
        QVERIFY(result);
        QCOMPARE(server->getParam("respondStatus", ""), QString("success"));
        QVERIFY(!frames.isEmpty());
        QCOMPARE(frames.first().number, quint32(6));
        QCOMPARE(frames.takeFirst().map, kAck);
        QCOMPARE(describeChunks(frames), wire);
        QSet<QString> seen;
        for (const Frame& f : frames) {
            for (auto it = f.map.cbegin(); it != f.map.cend(); ++it) {
                if (it.key() == "bLast")
                    continue;
                QVERIFY(!seen.contains(it.key()));
                seen.insert(it.key());
                QCOMPARE(it.value(), QString("file"));
            }
        }
        QCOMPARE(seen.size(), entries);
        for (const QString& name : names)
            QVERIFY(seen.contains("/" + name));
    }

    void chunkSizesReachTheHost_data() { checkChunkRows(); }
    void chunkSizesReachTheHost() {
        QFETCH(int, entries);
        QFETCH(QString, host);
        MountTree tree;
        QCOMPARE(makeFiles(tree.appDir("appA") + "/docs", "f", entries).size(), entries);
        ListingSession s(tree);
        s.ask("docs");
        const TaskResults r = s.run();
        QVERIFY(!r.timedOut);
        QVERIFY(r.client);
        QVERIFY(r.server);
        QStringList sizes;
        for (int size : s.lists.sizes())
            sizes << QString::number(size);
        QCOMPARE(sizes.join(','), host);
        for (const ParamMap& map : s.lists.maps())
            QVERIFY(!map.contains("bLast"));
        QCOMPARE(s.lists.merged().size(), entries);
        QVERIFY(s.clientLogs.entries().isEmpty());
        QCOMPARE(s.client->getLastError(), QString());
    }

    void emptyDirectoryGivesOneEmptyMap() {
        MountTree tree;
        QVERIFY(makeTree(tree.appDir("appA"), {"r/empty/"}));
        ListingSession s(tree);
        s.ask("empty", "r");
        const TaskResults r = s.run();
        QVERIFY(r.client);
        QVERIFY(r.server);
        QCOMPARE(s.lists.maps(), QList<ParamMap>{ParamMap()});
        QCOMPARE(s.server->getParam("respondStatus", ""), QString("success"));
        QVERIFY(!s.client->getParam("endTime", "").isEmpty());
        const QString root = tree.appDir("appA") + "/r/empty";
        QCOMPARE(s.serverLogs.messages(), QStringList{"listRespond: " + root + " ..."});
        QCOMPARE(s.serverLogs.entries().first().level, QString("info"));
        QVERIFY(s.clientLogs.entries().isEmpty());
    }

    // ---- Walk order and content ----

    void directoryPairTravelsWithItsContents() {
        MountTree tree;
        QVERIFY(makeTree(tree.appDir("appA"), {"a/b.txt"}));
        ListingSession s(tree);
        QVERIFY(s.succeeds());
        const ParamMap expected = {{"/a", "dir"}, {"/a/b.txt", "file"}};
        QCOMPARE(s.lists.maps(), QList<ParamMap>{expected});
    }

    void walkIsBreadthFirstAcrossMessages() {
        // a holds "deep" and 150 files, b 150 files, a/deep one file: a depth-first walk would
        // send a/deep/x long before b's files.
        MountTree tree;
        const QString base = tree.appDir("appA");
        const QStringList aFiles = makeFiles(base + "/a", "f", 150);
        const QStringList bFiles = makeFiles(base + "/b", "g", 150);
        QVERIFY(makeTree(base, {"a/deep/x"}));
        QStringList order = {"/a", "/b", "/a/deep"};
        for (const QString& f : aFiles)
            order << "/a/" + f;
        for (const QString& g : bFiles)
            order << "/b/" + g;
        order << "/a/deep/x";
        QCOMPARE(order.size(), 304);

        ListingSession s(tree);
        QVERIFY(s.succeeds());
        const QList<ParamMap> maps = s.lists.maps();
        QCOMPARE(s.lists.sizes(), (QList<int>{100, 101, 101, 2}));
        int next = 0;
        for (const ParamMap& map : maps) {
            const QStringList expectedKeys = order.mid(next, map.size());
            next += map.size();
            QCOMPARE(QSet<QString>(map.keyBegin(), map.keyEnd()),
                     QSet<QString>(expectedKeys.begin(), expectedKeys.end()));
        }
        // No message holds an entry shallower than one in an earlier message.
        int deepestSoFar = 0;
        for (const ParamMap& map : maps) {
            int shallowest = INT_MAX;
            for (const QString& key : map.keys())
                shallowest = std::min(shallowest, depth(key));
            QVERIFY(shallowest >= deepestSoFar);
            for (const QString& key : map.keys())
                deepestSoFar = std::max(deepestSoFar, depth(key));
        }
        QCOMPARE(s.lists.merged().value("/a/deep"), QString("dir"));
        QCOMPARE(s.lists.merged().value("/a/deep/x"), QString("file"));
    }

    void entriesOfOneDirectoryComeByNameIgnoringCase() {
        // 50 lower-case names and 51 upper-case ones: sorted ignoring case the last entry is
        // B050; sorted by code point it would be a049.
        MountTree tree;
        const QString base = tree.appDir("appA");
        QCOMPARE(makeFiles(base, "a", 50).size(), 50);
        QCOMPARE(makeFiles(base, "B", 51).size(), 51);
        ListingSession s(tree);
        QVERIFY(s.succeeds());
        QCOMPARE(s.lists.sizes(), (QList<int>{100, 1}));
        QCOMPARE(s.lists.maps().last(), (ParamMap{{"/B050", "file"}}));
    }

    void hiddenEntriesAreNotListed() {
        MountTree tree;
        const QString base = tree.appDir("appA");
        QVERIFY(makeTree(base, {".hidden", ".hdir/inner", "v/.dot", "v/shown"}));
        ListingSession s(tree);
        QVERIFY(s.succeeds());
        const ParamMap expected = {{"/v", "dir"}, {"/v/shown", "file"}};
        QCOMPARE(s.lists.maps(), QList<ParamMap>{expected});
    }

    void linkToDirectoryIsListedAsDirAndWalked() {
        MountTree tree;
        const QString base = tree.appDir("appA");
        const QString target = tree.local() + "/target";
        QVERIFY(makeTree(tree.local(), {"target/t.txt", "target/sub/u.txt", "plain"}));
        QVERIFY(QFile::link(target, base + "/l"));
        QVERIFY(QFile::link(tree.local() + "/plain", base + "/lf"));
        QVERIFY(QFile::link(tree.local() + "/missing", base + "/broken"));
        ListingSession s(tree);
        QVERIFY(s.succeeds());
        const ParamMap expected = {{"/l", "dir"},
                                   {"/l/sub", "dir"},
                                   {"/l/sub/u.txt", "file"},
                                   {"/l/t.txt", "file"},
                                   {"/lf", "file"}};
        QCOMPARE(s.lists.merged(), expected);
    }

    void entryNeitherFileNorDirectoryAddsNothing() {
        // A link to a named pipe is enumerated (it is a link that resolves) but is neither.
        MountTree tree;
        const QString base = tree.appDir("appA");
        const QString fifo = tree.local() + "/pipe";
        QCOMPARE(::mkfifo(QFile::encodeName(fifo).constData(), 0600), 0);
        QVERIFY(QFile::link(fifo, base + "/lpipe"));
        QCOMPARE(::mkfifo(QFile::encodeName(base + "/pipe").constData(), 0600), 0);
        QVERIFY(makeTree(base, {"f"}));
        ListingSession s(tree);
        QVERIFY(s.succeeds());
        QCOMPARE(s.lists.maps(), QList<ParamMap>{(ParamMap{{"/f", "file"}})});
    }

    void rootEndingInSlashStillGivesLeadingSlash_data() {
        QTest::addColumn<QString>("srcPath");
        QTest::addColumn<QString>("rootPath");
        QTest::addColumn<QString>("rootSuffix");
        QTest::newRow("slash") << "/"
                               << ""
                               << "/";
        QTest::newRow("dot") << "."
                             << ""
                             << "/";
        QTest::newRow("dot in both") << "./"
                                     << "."
                                     << "/";
        QTest::newRow("empty") << ""
                               << ""
                               << "";
    }
    void rootEndingInSlashStillGivesLeadingSlash() {
        QFETCH(QString, srcPath);
        QFETCH(QString, rootPath);
        QFETCH(QString, rootSuffix);
        MountTree tree;
        const QString base = tree.appDir("appA");
        QVERIFY(makeTree(base, {"x.txt", "d/y.txt"}));
        ListingSession s(tree);
        s.ask(srcPath, rootPath);
        QVERIFY(s.succeeds());
        QCOMPARE(s.serverLogs.messages(),
                 QStringList{"listRespond: " + base + rootSuffix + " ..."});
        const ParamMap expected = {{"/d", "dir"}, {"/d/y.txt", "file"}, {"/x.txt", "file"}};
        QCOMPARE(s.lists.maps(), QList<ParamMap>{expected});
    }

    void dotDotStaysInsideTheApplicationDirectory_data() {
        QTest::addColumn<QString>("srcPath");
        QTest::addColumn<QString>("rootPath");
        QTest::addColumn<QString>("root");
        QTest::addColumn<QStringList>("keys");
        QTest::newRow("srcPath climbs") << "../../../.."
                                        << ""
                                        << "/" << QStringList{"/b", "/b/in.txt"};
        QTest::newRow("rootPath names the other app") << "../../.."
                                                      << "../b"
                                                      << "/b/" << QStringList{"/in.txt"};
        QTest::newRow("both climb") << "../.."
                                    << "../../.."
                                    << "/" << QStringList{"/b", "/b/in.txt"};
    }
    void dotDotStaysInsideTheApplicationDirectory() {
        QFETCH(QString, srcPath);
        QFETCH(QString, rootPath);
        QFETCH(QString, root);
        QFETCH(QStringList, keys);
        MountTree tree;
        QVERIFY(makeTree(tree.mount(), {"apps/a/b/in.txt", "apps/b/other.txt", "top.txt"}));
        ListingSession s(tree);
        s.ask(srcPath, rootPath);
        QVERIFY(s.succeeds());
        QCOMPARE(s.serverLogs.messages(),
                 QStringList{"listRespond: " + tree.appDir("appA") + root + " ..."});
        QCOMPARE(s.lists.merged().keys(), keys);
    }

    void rootNamingAFileGivesEmptyListing() {
        MountTree tree;
        QVERIFY(makeTree(tree.appDir("appA"), {"file.txt"}));
        ListingSession s(tree);
        s.ask("file.txt");
        QVERIFY(s.succeeds());
        QCOMPARE(s.lists.maps(), QList<ParamMap>{ParamMap()});
    }

    void hugeTreeIsListedCompletelyOnce() {
        // 100 directories of 199 files each: 20,000 entries.
        MountTree tree;
        const QString base = tree.appDir("appA");
        QSet<QString> expected;
        for (int d = 0; d < 100; ++d) {
            const QString dir = QString("d%1").arg(d, 3, 10, QChar('0'));
            expected.insert("/" + dir);
            const QStringList files = makeFiles(base + "/" + dir, "f", 199);
            QCOMPARE(files.size(), 199);
            for (const QString& f : files)
                expected.insert("/" + dir + "/" + f);
        }
        QCOMPARE(expected.size(), 20000);
        QElapsedTimer timer;
        timer.start();
        ListingSession s(tree);
        const TaskResults r = s.run();
        QVERIFY(!r.timedOut);
        QVERIFY(r.client && r.server);
        const QList<int> sizes = s.lists.sizes();
        QCOMPARE(sizes.size(), 1 + (20000 - 100) / 101 + 1);
        QCOMPARE(sizes.first(), 100);
        int total = 0;
        for (int i = 0; i < sizes.size(); ++i) {
            if (i > 0 && i + 1 < sizes.size())
                QCOMPARE(sizes[i], 101);
            total += sizes[i];
        }
        QCOMPARE(total, 20000);
        const ParamMap merged = s.lists.merged();
        QCOMPARE(merged.size(), 20000);
        for (auto it = merged.cbegin(); it != merged.cend(); ++it) {
            QVERIFY2(expected.contains(it.key()), qPrintable(it.key()));
            QCOMPARE(it.value(), depth(it.key()) == 1 ? QString("dir") : QString("file"));
        }
        QVERIFY(timer.elapsed() < 30000);
    }

    // ---- Server failures ----

    void missingRootIsReportedWithFullPath() {
        MountTree tree;
        ListingSession s(tree);
        s.ask("nope/deeper", "r");
        const TaskResults r = s.runClosingServer();
        QVERIFY(!r.timedOut);
        QVERIFY(!r.client);
        QVERIFY(!r.server);
        const QString root = tree.appDir("appA") + "/r/nope/deeper";
        const QList<LogEntry> logs = s.serverLogs.entries();
        QCOMPARE(logs.size(), 2);
        QCOMPARE(logs[0].level, QString("info"));
        QCOMPARE(logs[0].message, "listRespond: " + root + " ...");
        QCOMPARE(logs[1].level, QString("error"));
        QCOMPARE(logs[1].message, "listRespond: dir " + root + " is not exist.");
        QCOMPARE(s.server->getParam("respondStatus", ""), QString("failed"));
        QVERIFY(s.clientLogs.contains("error", "listRequest: recv TaskParamAck failed."));
        QVERIFY(s.lists.maps().isEmpty());
    }

    void missingRootSendsNothing() {
        MountTree tree;
        UdtPair pair = connectedPair();
        Handler server = serverFor(pair, tree);
        bool result = true;
        bool finished = false;
        const QList<Frame> frames =
            serveToRawClient(server.get(), pair, listingTaskParam("nope"), &result, &finished);
        QVERIFY(finished);
        QVERIFY(!result);
        QCOMPARE(describeChunks(frames), QString());
    }

    void unknownAppKeyIsReportedAndNothingSent() {
        MountTree tree;
        ListingSession s(tree);
        s.ask("", "", "appC");
        const TaskResults r = s.runClosingServer();
        QVERIFY(!r.timedOut);
        QVERIFY(!r.client);
        QVERIFY(!r.server);
        const QList<LogEntry> logs = s.serverLogs.entries();
        QCOMPARE(logs.size(), 1);
        QCOMPARE(logs[0].level, QString("error"));
        QCOMPARE(logs[0].message, QString("listRespond: get path of app [appC] failed."));
        QVERIFY(s.clientLogs.contains("error", "listRequest: recv TaskParamAck failed."));
        QVERIFY(s.lists.maps().isEmpty());

        UdtPair pair = connectedPair();
        Handler server = serverFor(pair, tree);
        bool result = true;
        bool finished = false;
        const QList<Frame> frames = serveToRawClient(
            server.get(), pair, listingTaskParam("", "", "appC"), &result, &finished);
        QVERIFY(finished);
        QVERIFY(!result);
        QVERIFY(frames.isEmpty());
    }

    void entryReportedUnderDifferentRootTextStopsWithoutFinalMessage() {
        // The mount's name holds a character that has no file-name encoding: it reaches the disk
        // as "?", and the enumeration reports the paths as the disk spells them.
        QTemporaryDir dir;
        QVERIFY(makeTree(dir.path(), {"?/apps/a/x"}));
        const QString mount = dir.path() + "/" + QChar(0xD800);
        UdtPair pair = connectedPair();
        Handler server = makeHandler();
        configureServer(server.get(), pair.server.get(), mount, "appA:/apps/a");
        LogCapture logs(server.get());
        bool result = true;
        bool finished = false;
        const QList<Frame> frames =
            serveToRawClient(server.get(), pair, listingTaskParam(""), &result, &finished);
        QVERIFY(finished);
        QVERIFY(!result);
        QCOMPARE(describeChunks(frames), QString("#6"));
        QCOMPARE(logs.messages(), (QStringList{"listRespond: " + mount + "/apps/a ...",
                                               "listRespond: get ListContent failed."}));
        QCOMPARE(logs.entries().last().level, QString("error"));
        QCOMPARE(server->getParam("respondStatus", ""), QString("failed"));
    }

    void acknowledgmentThatCannotBeSentIsReported() {
        MountTree tree;
        UdtPair pair = connectedPair();
        HookedServer server;
        configureServer(&server, pair.server.get(), tree.mount(), tree.appTable());
        server.beforeSend = [&pair](HookedServer&, int number, int) {
            if (number == 6) {
                waitUntilDelivered(pair.client.get());
                UDT::close(pair.server.get());
            }
        };
        LogCapture logs(&server);
        bool result = true;
        bool finished = false;
        const QList<Frame> frames =
            serveToRawClient(&server, pair, listingTaskParam(""), &result, &finished);
        QVERIFY(finished);
        QVERIFY(!result);
        QVERIFY(frames.isEmpty());
        QVERIFY(logs.contains("error", "listRespond: send TaskParamAck failed."));
        QCOMPARE(server.getParam("respondStatus", ""), QString("failed"));
        QCOMPARE(server.getLastError(), QString());
    }

    // ---- Stopping the server ----

    void serverStopIsSeenRightAfterTheAcknowledgment() {
        // Enough entries for a full chunk: had the root been walked, one would have gone out.
        MountTree tree;
        QCOMPARE(makeFiles(tree.appDir("appA"), "f", 120).size(), 120);
        UdtPair pair = connectedPair();
        HookedServer server;
        configureServer(&server, pair.server.get(), tree.mount(), tree.appTable());
        server.setStatusQuietly("pause");
        LogCapture logs(&server);
        bool result = true;
        bool finished = false;
        const QList<Frame> frames =
            serveToRawClient(&server, pair, listingTaskParam(""), &result, &finished);
        QVERIFY(finished);
        QVERIFY(!result);
        QCOMPARE(describeChunks(frames), QString("#6"));
        QCOMPARE(server.getLastError(), QString("pause"));
        QCOMPARE(logs.messages("error"), QStringList());
        // The stop leaves through process() before any outcome of the operation is written.
        QCOMPARE(server.getParam("respondStatus", ""), QString());
        QVERIFY(!server.getParam("endTime", "").isEmpty());
    }

    void serverStopTakesEffectAfterTheCurrentDirectory() {
        // The stop comes in once the first chunk is out; the rest of the root directory is still
        // walked (a second full chunk goes out), then the walk ends before "sub".
        MountTree tree;
        const QString base = tree.appDir("appA");
        QCOMPARE(makeFiles(base, "f", 250).size(), 250);
        QVERIFY(makeTree(base, {"sub/x"}));
        UdtPair pair = connectedPair();
        HookedServer server;
        configureServer(&server, pair.server.get(), tree.mount(), tree.appTable());
        server.afterSend = [](HookedServer& h, int number, int sentBefore) {
            if (number == 9 && sentBefore == 0)
                h.setStatusQuietly("cancel");
        };
        LogCapture logs(&server);
        bool result = true;
        bool finished = false;
        const QList<Frame> frames =
            serveToRawClient(&server, pair, listingTaskParam(""), &result, &finished);
        QVERIFY(finished);
        QVERIFY(!result);
        QCOMPARE(describeChunks(frames), QString("#6,100:false,101:-"));
        QCOMPARE(server.getLastError(), QString("cancel"));
        QCOMPARE(logs.messages("error"), QStringList());
    }

    void pauseClosingTheSocketFailsTheNextChunk_data() {
        QTest::addColumn<int>("entries");
        QTest::addColumn<QString>("wire");
        QTest::newRow("full chunk") << 250 << "#6,100:false";
        QTest::newRow("final message") << 30 << "#6";
    }
    void pauseClosingTheSocketFailsTheNextChunk() {
        QFETCH(int, entries);
        QFETCH(QString, wire);
        MountTree tree;
        QCOMPARE(makeFiles(tree.appDir("appA"), "f", entries).size(), entries);
        UdtPair pair = connectedPair();
        HookedServer server;
        configureServer(&server, pair.server.get(), tree.mount(), tree.appTable());
        // The pause arrives while the chunk after the first one (or the only one) is prepared.
        const int pauseAt = entries > 100 ? 1 : 0;
        // The chunks sent before it are let through first: a zero-linger close drops unsent data.
        server.beforeSend = [pauseAt, &pair](HookedServer& h, int number, int sentBefore) {
            if (number == 9 && sentBefore == pauseAt) {
                waitUntilDelivered(pair.server.get());
                waitUntilDelivered(pair.client.get());
                h.pause();
            }
        };
        LogCapture logs(&server);
        bool result = true;
        bool finished = false;
        const QList<Frame> frames =
            serveToRawClient(&server, pair, listingTaskParam(""), &result, &finished);
        QVERIFY(finished);
        QVERIFY(!result);
        QCOMPARE(describeChunks(frames), wire);
        QVERIFY(logs.contains("error", "listRespond: send ListContent failed."));
        QCOMPARE(server.getLastError(), QString("pause"));
        QCOMPARE(server.getParam("respondStatus", ""), QString("failed"));
    }

    // ---- Client against a raw server ----

    void requestCarriesExactlyTheSixKeys() {
        UdtPair pair = connectedPair();
        Handler client = makeHandler();
        configureClient(client.get(), pair.client.get(), "list");
        const ParamMap request = listingTaskParam("docs", "base", "appB");
        for (auto it = request.cbegin(); it != request.cend(); ++it)
            client->setParam(it.key(), it.value());
        client->setParam("fileName", "not sent");
        ListCapture lists(client.get());
        AsyncTask task(client.get());
        setReceiveTimeout(pair.server.get(), 10000);
        Frame frame;
        QVERIFY(recvMapFrame(pair.server.get(), frame));
        QCOMPARE(frame.number, quint32(5));
        QCOMPARE(frame.map, request);
        QVERIFY(sendMapFrame(pair.server.get(), 6, kAck));
        QVERIFY(sendMapFrame(pair.server.get(), 9, {{"/a", "file"}, {"bLast", "true"}}));
        QVERIFY(task.wait(10000));
        QCOMPARE(lists.maps(), QList<ParamMap>{(ParamMap{{"/a", "file"}})});
    }

    void onlyExactTrueEndsTheListing() {
        UdtPair pair = connectedPair();
        Handler client = makeHandler();
        configureClient(client.get(), pair.client.get(), "list");
        LogCapture logs(client.get());
        ListCapture lists(client.get());
        AsyncTask task(client.get());
        setReceiveTimeout(pair.server.get(), 10000);
        Frame frame;
        QVERIFY(recvMapFrame(pair.server.get(), frame));
        QVERIFY(sendMapFrame(pair.server.get(), 6, kAck));
        const QList<ParamMap> chunks = {{{"/a", "file"}, {"bLast", "True"}},
                                        {{"/b", "file"}, {"bLast", "true "}},
                                        {{"/c", "dir"}},
                                        {{"/d", "file"}, {"bLast", "false"}},
                                        {{"/e", "file"}, {"bLast", "TRUE"}},
                                        {{"bLast", "true"}}};
        for (const ParamMap& chunk : chunks)
            QVERIFY(sendMapFrame(pair.server.get(), 9, chunk));
        bool finished = false;
        QVERIFY(task.wait(10000, &finished));
        QVERIFY(finished);
        const QList<ParamMap> expected = {{{"/a", "file"}}, {{"/b", "file"}}, {{"/c", "dir"}},
                                          {{"/d", "file"}}, {{"/e", "file"}}, {}};
        QCOMPARE(lists.maps(), expected);
        QVERIFY(logs.entries().isEmpty());
    }

    void refusalKeepsErrorType_data() {
        QTest::addColumn<ParamMap>("ack");
        QTest::addColumn<QString>("error");
        QTest::newRow("no errorType") << ParamMap{{"ackRespond", "false"}} << "";
        QTest::newRow("errorType")
            << ParamMap{{"ackRespond", "false"}, {"errorType", "busy"}} << "busy";
        QTest::newRow("capital True") << ParamMap{{"ackRespond", "True"}} << "";
        QTest::newRow("no ackRespond") << ParamMap{{"errorType", "odd"}} << "odd";
    }
    void refusalKeepsErrorType() {
        QFETCH(ParamMap, ack);
        QFETCH(QString, error);
        UdtPair pair = connectedPair();
        Handler client = makeHandler();
        configureClient(client.get(), pair.client.get(), "list");
        // A stale reason shows that the refusal writes its own, even an empty one.
        internals(client).setParamInner("_errorStr", "stale");
        LogCapture logs(client.get());
        ListCapture lists(client.get());
        AsyncTask task(client.get());
        setReceiveTimeout(pair.server.get(), 10000);
        Frame frame;
        QVERIFY(recvMapFrame(pair.server.get(), frame));
        QVERIFY(sendMapFrame(pair.server.get(), 6, ack));
        bool finished = false;
        QVERIFY(!task.wait(10000, &finished));
        QVERIFY(finished);
        QCOMPARE(logs.messages(), QStringList{"listRequest: TaskParam Nak."});
        QCOMPARE(logs.entries().first().level, QString("error"));
        QCOMPARE(client->getLastError(), error);
        QVERIFY(lists.maps().isEmpty());
    }

    void pauseBetweenChunksLeavesWithoutLog() {
        MountTree tree;
        QCOMPARE(makeFiles(tree.appDir("appA"), "f", 150).size(), 150);
        ListingSession s(tree);
        VeskBase* client = s.client.get();
        QObject::connect(client, &VeskBase::sigList,
                         [client](QMap<QString, QString>) { client->pause(); });
        const TaskResults r = s.run();
        QVERIFY(!r.timedOut);
        QVERIFY(!r.client);
        QCOMPARE(s.client->getLastError(), QString("pause"));
        QVERIFY(s.clientLogs.entries().isEmpty());
        QCOMPARE(s.lists.sizes(), QList<int>{100});
        // The server never waits for the client, so its side completes.
        QVERIFY(r.server);
    }

    void stopBeforeTheListingIsSeenAfterTheAcknowledgment() {
        UdtPair pair = connectedPair();
        Handler client = makeHandler();
        configureClient(client.get(), pair.client.get(), "list");
        QVERIFY(client->cancel());
        LogCapture logs(client.get());
        ListCapture lists(client.get());
        AsyncTask task(client.get());
        setReceiveTimeout(pair.server.get(), 10000);
        // The request still goes out: the first status reading stops nothing.
        Frame frame;
        QVERIFY(recvMapFrame(pair.server.get(), frame));
        QCOMPARE(frame.number, quint32(5));
        QVERIFY(sendMapFrame(pair.server.get(), 6, kAck));
        QVERIFY(sendMapFrame(pair.server.get(), 9, {{"/a", "file"}, {"bLast", "true"}}));
        bool finished = false;
        QVERIFY(!task.wait(10000, &finished));
        QVERIFY(finished);
        QCOMPARE(client->getLastError(), QString("cancel"));
        QVERIFY(logs.entries().isEmpty());
        QVERIFY(lists.maps().isEmpty());
        // The chunk arrived but was never read.
        setReceiveTimeout(pair.client.get(), 10000);
        QVERIFY(recvMapFrame(pair.client.get(), frame));
        QCOMPARE(frame.number, quint32(9));
    }

    void brokenListingKeepsEmittedChunks() {
        UdtPair pair = connectedPair();
        Handler client = makeHandler();
        configureClient(client.get(), pair.client.get(), "list");
        LogCapture logs(client.get());
        ListCapture lists(client.get());
        AsyncTask task(client.get());
        setReceiveTimeout(pair.server.get(), 10000);
        Frame frame;
        QVERIFY(recvMapFrame(pair.server.get(), frame));
        QVERIFY(sendMapFrame(pair.server.get(), 6, kAck));
        QVERIFY(sendMapFrame(pair.server.get(), 9, {{"/a", "file"}, {"bLast", "false"}}));
        QVERIFY(sendMapFrame(pair.server.get(), 9, {{"/b", "dir"}}));
        waitUntilDelivered(pair.client.get());
        pair.server.reset();
        bool finished = false;
        QVERIFY(!task.wait(10000, &finished));
        QVERIFY(finished);
        QVERIFY(logs.contains("error", "listRequest: recv ListContent failed."));
        const QList<ParamMap> expected = {{{"/a", "file"}}, {{"/b", "dir"}}};
        QCOMPARE(lists.maps(), expected);
        QCOMPARE(client->getLastError(), QString());
    }

    void closedConnectionBeforeAcknowledgmentIsReported() {
        UdtPair pair = connectedPair();
        Handler client = makeHandler();
        configureClient(client.get(), pair.client.get(), "list");
        LogCapture logs(client.get());
        AsyncTask task(client.get());
        setReceiveTimeout(pair.server.get(), 10000);
        Frame frame;
        QVERIFY(recvMapFrame(pair.server.get(), frame));
        waitUntilDelivered(pair.client.get());
        pair.server.reset();
        bool finished = false;
        QVERIFY(!task.wait(10000, &finished));
        QVERIFY(finished);
        QVERIFY(logs.contains("error", "listRequest: recv TaskParamAck failed."));
    }

    void unusableSocketFailsTheRequestSend() {
        Handler client = makeHandler();
        configureClient(client.get(), 987654, "list");
        LogCapture logs(client.get());
        QVERIFY(!client->process());
        QVERIFY(logs.contains("error", "listRequest: send TaskParam failed."));
        QVERIFY(!logs.contains("error", "listRequest: recv TaskParamAck failed."));
    }

    void missingParameterDumpsTheRequestKeys() {
        UdtPair pair = connectedPair();
        Handler client = makeHandler();
        QVERIFY(client->clearParam());
        configureClient(client.get(), pair.client.get(), "list");
        client->setParam("srcPath", "/x");
        client->setParam("appKey", "appA");
        LogCapture logs(client.get());
        QVERIFY(!client->process());
        QCOMPARE(logs.messages("error"),
                 (QStringList{"listRequest: getParams failed.",
                              "listRequest: params ====\noperator:[list] srcPath:[/x] "
                              "rootPath:[] userName:[] appKey:[appA] appVersion:[] "}));
        QCOMPARE(logs.entries().size(), 2);
        // Nothing went out.
        setReceiveTimeout(pair.server.get(), 300);
        Frame frame;
        QVERIFY(!recvMapFrame(pair.server.get(), frame));
    }
};

QTEST_GUILESS_MAIN(tst_Listing)
#include "tst_Listing.moc"
