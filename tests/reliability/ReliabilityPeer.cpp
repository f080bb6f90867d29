// reliability_peer: the misbehaving ends the reliability suite needs, speaking raw frames over UDT
// on 127.0.0.1 with the same socket set-up as vesk itself.
//
//   hostile       --port P --outside DIR [--only TEXT]
//                 every hostile case (or those whose name contains TEXT) against `vesk serve`
//   burst         --port P --count N         N connections at once, each a small task
//   stall         --port P --after hello|taskparam|data [--file F --send BYTES] --hold S
//                 a client that stops and keeps its connection open; exit 0 when the server
//                 closed it within S seconds
//   silent-server --after hello|taskparam|data --port-file F
//                 a server that accepts one task and then stops answering, for a client's
//                 stall timeout
//   kill-when     --file F --bytes N (--pid PID | -- COMMAND ARGS...) [--timeout S]
//                 SIGKILL once F holds N bytes; exit 0 when killed, 3 when it ended first
//   trickle-hello --port P --count N [--interval MS] [--hold S]
//                 N connections that each send their hello one byte per MS; exit 0 when the
//                 server cut every one of them before its hello was complete
//   idle          --port P --count N --hold S
//                 N connections that send nothing at all, held for S seconds
//   probe         --port P --user U --count N
//                 a peer without the secret: tasks sent past the challenge for several
//                 application keys, then N guesses of U's secret; prints every answer
//   ack           --port P [--op OP] [--set KEY=VALUE...]
//                 sends one crafted TaskParam and prints the server's acknowledgement
//   trickle       --port P --phase taskparam|data --every MS --hold S
//                 sends a TaskParam (or an upload's data) a little at a time; exit 0 when the
//                 server closed the connection within S seconds
//   big-taskparam --port P --count N --mib M
//                 N connections at once, each sending a TaskParam of M MiB; exit 0 when each
//                 was refused

#include "base/Net.h"
#include "base/Protocol.h"
#include "base/VeskBase.h"
#include "base/Wire.h"

#include <QDateTime>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QRandomGenerator>
#include <QStringList>
#include <QThread>
#include <QtEndian>

#include <udt/udt.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <functional>
#include <memory>
#include <mutex>
#include <spawn.h>
#include <sys/wait.h>
#include <thread>
#include <vector>

using VESK::ParamMap;
using VESK::VeskBase;
namespace net = VESK::net;
namespace wire = VESK::wire;

extern char** environ;

namespace {

using VESK::protocol::kHello;
using VESK::protocol::kHelloAnswer;
using VESK::protocol::kListContent;
using VESK::protocol::kTaskComplete;
using VESK::protocol::kTaskParam;
using VESK::protocol::kTaskParamAck;
// Every case must have ended by then: the server's hello limit is 10 s, its stall timeout is
// set short by the suite.
constexpr int kCaseBoundMs = 30000;
constexpr int kMaxCasesAtOnce = 24;
const char* const kOutsideMarker = "OUTSIDE-THE-MOUNT";

// ---- Options ----------------------------------------------------------------------------------

struct Options {
    QStringList args;
    QString value(const QString& name, const QString& fallback = QString()) const {
        const int i = args.indexOf("--" + name);
        return i >= 0 && i + 1 < args.size() ? args.at(i + 1) : fallback;
    }
    qint64 number(const QString& name, qint64 fallback) const {
        bool ok = false;
        const qint64 n = value(name).toLongLong(&ok);
        return ok ? n : fallback;
    }
};

// ---- One connection ---------------------------------------------------------------------------

enum class Got { Frame, Closed, Silent };

class Peer {
public:
    explicit Peer(quint16 port)
        : m_socket(net::connectTo("127.0.0.1", port)) {}
    explicit Peer(net::Socket socket)
        : m_socket(std::move(socket)) {}

    bool connected() const { return m_socket.valid(); }
    int socket() const { return m_socket.get(); }
    void hangUp() { UDT::close(m_socket.release()); }

    bool sendMap(quint32 number, const ParamMap& map) {
        return wire::sendFrame(m_socket.get(), number, VeskBase::serializeParam(map).toUtf8());
    }
    bool sendRaw(const QByteArray& bytes) {
        return wire::sendAll(m_socket.get(), bytes.constData(), bytes.size());
    }

    // The next frame within `ms`: Closed when the server has ended the connection, Silent when
    // it is still open and nothing came.
    Got receive(quint32& number, QByteArray& body, int ms) {
        net::setReceiveTimeout(m_socket.get(), std::max(ms, 1));
        if (wire::recvFrame(m_socket.get(), number, body))
            return Got::Frame;
        return UDT::getsockstate(m_socket.get()) == CONNECTED ? Got::Silent : Got::Closed;
    }
    Got receiveMap(quint32& number, ParamMap& map, int ms) {
        QByteArray body;
        const Got got = receive(number, body, ms);
        map = VeskBase::unSerializeParam(QString::fromUtf8(body));
        return got;
    }
    bool receiveBytes(QByteArray& bytes, qint64 size, int ms) {
        net::setReceiveTimeout(m_socket.get(), ms);
        bytes.resize(int(size));
        return wire::recvAll(m_socket.get(), bytes.data(), size);
    }

    // Sends the host hello; true when the server accepted it. `answer` holds its reply.
    bool hello(ParamMap* answer = nullptr) {
        if (!sendMap(kHello, {{"protocol", "VESK"}, {"version", "2.0.0"}}))
            return false;
        quint32 number = 0;
        ParamMap map;
        const bool got = receiveMap(number, map, 15000) == Got::Frame && number == kHelloAnswer;
        if (answer)
            *answer = map;
        return got && map.value("accepted") == QLatin1String("true");
    }

private:
    net::Socket m_socket;
};

// ---- Case outcomes ----------------------------------------------------------------------------

enum class Outcome {
    Refused,  // the server answered with a refusal, or ended the connection, in bounded time
    Served,   // the task completed, inside the mount
    HungUp,   // this side hung up on purpose, as the case asks
    Hung,     // the server neither answered nor closed within the bound: a failure
    Escaped,  // the server read or listed something outside the mount: a failure
    Unusable, // the case could not be set up (no connection): a failure
};

const char* outcomeName(Outcome o) {
    switch (o) {
    case Outcome::Refused:
        return "refused";
    case Outcome::Served:
        return "served";
    case Outcome::HungUp:
        return "hung-up";
    case Outcome::Hung:
        return "HUNG";
    case Outcome::Escaped:
        return "ESCAPED";
    case Outcome::Unusable:
        return "UNUSABLE";
    }
    return "?";
}

struct CaseResult {
    QString name;
    Outcome outcome;
    QString detail;
    double seconds = 0;
};

// Reads whatever the server still sends until it ends the connection. A refusal in a hello
// answer or an acknowledgement, or the end itself, is a clean refusal.
CaseResult awaitEnd(Peer& peer, const QString& name, int boundMs = kCaseBoundMs) {
    QElapsedTimer clock;
    clock.start();
    QString detail = "closed";
    for (;;) {
        const int left = boundMs - int(clock.elapsed());
        quint32 number = 0;
        ParamMap map;
        const Got got = left > 0 ? peer.receiveMap(number, map, left) : Got::Silent;
        if (got == Got::Closed)
            return {name, Outcome::Refused, detail, clock.elapsed() / 1000.0};
        if (got == Got::Silent)
            return {name, Outcome::Hung, "no answer and still open", clock.elapsed() / 1000.0};
        if (map.value("accepted") == QLatin1String("false") ||
            map.value("ackRespond") == QLatin1String("false"))
            detail = "refused: " + map.value("errorType");
    }
}

// ---- Tasks as a vesk client would start them --------------------------------------------------

ParamMap taskParam(const QString& op) {
    ParamMap map{{"operator", op},
                 {"rootPath", ""},
                 {"userName", "hostile"},
                 {"appKey", "appA"},
                 {"appVersion", "2.0.0"}};
    if (op == QLatin1String("upload")) {
        map.insert({{"fileName", "f.bin"},
                    {"destPath", "hostile"},
                    {"bVerify", "false"},
                    {"bReplace", "false"},
                    {"mac", "00"},
                    {"fileSize", "16"},
                    {"mtime", "-1"}});
    } else if (op == QLatin1String("download")) {
        map.insert(
            {{"fileName", "f.bin"}, {"srcPath", "hostile"}, {"bVerify", "false"}, {"offset", "0"}});
    } else if (op == QLatin1String("list")) {
        map.insert("srcPath", "");
    } else if (op == QLatin1String("createDir")) {
        map.insert("destPath", "hostile");
    }
    return map;
}

// Plays a whole task after an accepted hello, the way a vesk client would; a refusal or an end
// of the connection along the way is a clean refusal.
CaseResult playTask(Peer& peer, const QString& name, const ParamMap& params) {
    QElapsedTimer clock;
    clock.start();
    auto result = [&](Outcome o, const QString& detail) {
        return CaseResult{name, o, detail, clock.elapsed() / 1000.0};
    };
    if (!peer.sendMap(kTaskParam, params))
        return awaitEnd(peer, name);
    quint32 number = 0;
    ParamMap ack;
    const Got got = peer.receiveMap(number, ack, kCaseBoundMs);
    if (got != Got::Frame)
        return got == Got::Closed ? result(Outcome::Refused, "closed before an answer")
                                  : result(Outcome::Hung, "no acknowledgement");
    if (ack.value("ackRespond") != QLatin1String("true"))
        return awaitEnd(peer, name);

    const QString op = params.value("operator");
    if (op == QLatin1String("upload")) {
        if (ack.value("bTransfer") == QLatin1String("true")) {
            const qint64 size = params.value("fileSize").toLongLong();
            const qint64 offset = ack.value("offset").toLongLong();
            if (offset >= 0 && offset <= size && !peer.sendRaw(QByteArray(int(size - offset), 'u')))
                return awaitEnd(peer, name);
            if (peer.receiveMap(number, ack, kCaseBoundMs) != Got::Frame)
                return awaitEnd(peer, name);
        }
        return result(Outcome::Served, "uploaded");
    }
    if (op == QLatin1String("download")) {
        QByteArray bytes;
        const qint64 size = ack.value("fileSize").toLongLong();
        if (size > 64 * 1024 * 1024 || !peer.receiveBytes(bytes, size, kCaseBoundMs))
            return awaitEnd(peer, name);
        if (bytes.contains(kOutsideMarker))
            return result(Outcome::Escaped, "received a file from outside the mount");
        peer.sendMap(kTaskComplete, {{"fileName", params.value("fileName")}});
        return result(Outcome::Served, QString("downloaded %1 bytes").arg(size));
    }
    if (op == QLatin1String("list")) {
        for (;;) {
            ParamMap chunk;
            if (peer.receiveMap(number, chunk, kCaseBoundMs) != Got::Frame ||
                number != kListContent)
                return awaitEnd(peer, name);
            for (auto it = chunk.cbegin(); it != chunk.cend(); ++it) {
                if (it.key().contains("outside-marker"))
                    return result(Outcome::Escaped, "listed " + it.key());
            }
            if (chunk.value("bLast") == QLatin1String("true"))
                return result(Outcome::Served, "listed");
        }
    }
    return result(Outcome::Served, op);
}

CaseResult helloThenTask(quint16 port, const QString& name, const ParamMap& params) {
    Peer peer(port);
    if (!peer.connected())
        return {name, Outcome::Unusable, "no connection"};
    ParamMap answer;
    if (!peer.hello(&answer))
        return {name, Outcome::Refused, "hello refused: " + answer.value("errorType")};
    return playTask(peer, name, params);
}

// Connects, optionally greets, sends `bytes` raw and waits for the server to end it.
CaseResult rawBytes(quint16 port, const QString& name, bool greet, const QByteArray& bytes) {
    Peer peer(port);
    if (!peer.connected())
        return {name, Outcome::Unusable, "no connection"};
    if (greet && !peer.hello())
        return {name, Outcome::Unusable, "hello refused"};
    peer.sendRaw(bytes);
    return awaitEnd(peer, name);
}

QByteArray randomBytes(quint32 seed, int size) {
    QRandomGenerator random(seed);
    QByteArray bytes(size, Qt::Uninitialized);
    for (char& c : bytes)
        c = char(random.bounded(256));
    return bytes;
}

QByteArray header(quint32 number, quint32 length) {
    QByteArray bytes(wire::kHeaderBytes, Qt::Uninitialized);
    qToBigEndian<quint32>(number, bytes.data());
    qToBigEndian<quint32>(length, bytes.data() + 4);
    return bytes;
}

// A TaskParam that names "fileName" over and over with large objects: the text that once made
// Qt's JSON reader keep memory in the server.
QByteArray repeatedNames(int count, int stringBytes) {
    QByteArray member = "\"fileName\":{\"x\":\"" + QByteArray(stringBytes, 'x') + "\"}";
    QByteArray text = "{\"operator\":\"upload\"";
    for (int i = 0; i < count; ++i)
        text += "," + member;
    return text + "}";
}

// ---- The hostile cases ------------------------------------------------------------------------

struct Case {
    QString name;
    std::function<CaseResult(const QString& name)> run;
};

void addFramingCases(std::vector<Case>& cases, quint16 port) {
    auto raw = [&](const QString& name, bool greet, const QByteArray& bytes) {
        cases.push_back({name, [=](const QString& n) { return rawBytes(port, n, greet, bytes); }});
    };
    for (quint32 seed = 1; seed <= 8; ++seed) {
        const int size = int(QRandomGenerator(seed).bounded(1, 4096));
        raw(QString("random bytes %1 (%2 B)").arg(seed).arg(size), false, randomBytes(seed, size));
        raw(QString("random bytes %1 after the hello").arg(seed), true,
            randomBytes(seed + 100, size));
    }
    raw("truncated header instead of the hello", false, header(kHello, 40).left(5));
    raw("truncated header instead of TaskParam", true, header(kTaskParam, 40).left(5));
    raw("length 2^32-1 in the hello", false, header(kHello, 0xffffffffu));
    raw("length 2^32-1 in TaskParam", true, header(kTaskParam, 0xffffffffu));
    raw("length just over the limit", true, header(kTaskParam, wire::kMaxBodyBytes + 1));
    raw("hello under message number 5", false,
        wire::encodeFrame(kTaskParam, VeskBase::serializeParam({{"protocol", "VESK"}}).toUtf8()));
    raw("TaskParam under message number 7", true,
        wire::encodeFrame(7, VeskBase::serializeParam(taskParam("upload")).toUtf8()));
    raw("TaskParam under message number 2^32-1", true, wire::encodeFrame(0xffffffffu, "{}"));
    raw("non-JSON TaskParam", true, wire::encodeFrame(kTaskParam, "operator=upload&fileName=x"));
    raw("JSON array as TaskParam", true,
        wire::encodeFrame(kTaskParam, "[\"operator\",\"upload\"]"));
    raw("non-string values in TaskParam", true,
        wire::encodeFrame(kTaskParam, "{\"operator\":[\"upload\"],\"fileSize\":1}"));
    raw("4 MiB of repeated names in TaskParam", true,
        wire::encodeFrame(kTaskParam, repeatedNames(16, 256 * 1024)));
    raw("hello of another protocol", false,
        wire::encodeFrame(kHello, "{\"protocol\":\"HTTP\",\"version\":\"1.1\"}"));
}

// A case that greets and then plays a task with these parameters.
void addTask(std::vector<Case>& cases, quint16 port, const QString& name, const ParamMap& params) {
    cases.push_back({name, [=](const QString& n) { return helloThenTask(port, n, params); }});
}

void addParameterCases(std::vector<Case>& cases, quint16 port, const QString& outside) {
    for (const QString op : {"upload", "download"}) {
        ParamMap params = taskParam(op);
        params["fileName"] = QString(1024 * 1024, 'n');
        addTask(cases, port, QString("1 MiB fileName (%1)").arg(op), params);
    }
    // Would forge a summary line and clear a terminal if the server printed it as it is.
    ParamMap forged = taskParam("upload");
    forged["fileName"] =
        "forged\n127.0.0.1:1 upload /forged-summary-line 0 bytes 0.00 s success\x1b[2J";
    addTask(cases, port, "line feed and escape sequence in fileName", forged);
    for (const QString& key : VeskBase::hostOnlyKeys()) {
        // Values that would put the file outside the mount if they were taken.
        ParamMap params = taskParam("upload");
        params[key] =
            key == QLatin1String("total") ? QStringLiteral("4096") : outside + "/host-only-" + key;
        addTask(cases, port, QString("host-only key %1 in TaskParam").arg(key), params);
    }
    for (const QString op : {"upload", "download", "list", "createDir"}) {
        ParamMap params = taskParam(op);
        params["appKey"] = "noSuchApp";
        addTask(cases, port, QString("unknown appKey (%1)").arg(op), params);
    }
    addTask(cases, port, "operator return", {{"operator", "return"}});
    addTask(cases, port, "unknown operator", {{"operator", "move"}});
}

// ".." and absolute pieces in every key that names a path on the server. Uploads and
// directories must land inside the mount; downloads and listings must not reach the marker the
// suite put beside the mount.
void addPathCases(std::vector<Case>& cases, quint16 port, const QString& outside) {
    const QMap<QString, QStringList> pathKeys{
        {"upload", {"fileName", "destPath", "rootPath"}},
        {"download", {"fileName", "srcPath", "rootPath"}},
        {"list", {"srcPath", "rootPath"}},
        {"createDir", {"destPath", "rootPath"}},
    };
    for (auto it = pathKeys.cbegin(); it != pathKeys.cend(); ++it) {
        const QString op = it.key();
        for (const QString& key : it.value()) {
            const QString tag = op + "-" + key;
            const QStringList values{"../../../escaped-" + tag, outside + "/escaped-abs-" + tag,
                                     "a/../../../../../escaped-mixed-" + tag, "..", "/"};
            for (const QString& value : values) {
                ParamMap params = taskParam(op);
                params[key] = value;
                if (op == QLatin1String("download") && key == QLatin1String("fileName") &&
                    value.startsWith(QLatin1String("../")))
                    params[key] = "../../../outside-marker.txt";
                if (op == QLatin1String("download") && key != QLatin1String("fileName"))
                    params["fileName"] = "outside-marker.txt";
                addTask(cases, port, QString("%1 %2=%3").arg(op, key, params[key]), params);
            }
        }
    }
}

// Greets, then sends `params` as TaskParam and, when `dataBytes` > 0, that much of the file
// after the acknowledgement, then hangs up.
CaseResult hangUpAfter(quint16 port, const QString& name, const ParamMap& params, int dataBytes) {
    Peer peer(port);
    if (!peer.connected() || !peer.hello())
        return {name, Outcome::Unusable, "no hello"};
    if (!params.isEmpty()) {
        peer.sendMap(kTaskParam, params);
        quint32 number = 0;
        ParamMap ack;
        if (dataBytes > 0 && peer.receiveMap(number, ack, kCaseBoundMs) == Got::Frame)
            peer.sendRaw(QByteArray(dataBytes, 'h'));
        QThread::msleep(50);
    }
    peer.hangUp();
    return {name, Outcome::HungUp, "closed"};
}

void addHangUpCases(std::vector<Case>& cases, quint16 port) {
    cases.push_back(
        {"hang-up after the hello", [=](const QString& n) { return hangUpAfter(port, n, {}, 0); }});
    ParamMap params = taskParam("upload");
    params["fileName"] = "hangup-after-taskparam.bin";
    cases.push_back({"hang-up after TaskParam",
                     [=](const QString& n) { return hangUpAfter(port, n, params, 0); }});
    params["fileName"] = "hangup-in-data.bin";
    params["fileSize"] = QString::number(8 * 1024 * 1024);
    cases.push_back({"hang-up in the middle of the data",
                     [=](const QString& n) { return hangUpAfter(port, n, params, 1 << 20); }});
    cases.push_back({"silent after the hello", [=](const QString& n) {
                         Peer peer(port);
                         if (!peer.connected() || !peer.hello())
                             return CaseResult{n, Outcome::Unusable, "no hello"};
                         return awaitEnd(peer, n);
                     }});
}

// Runs the cases with a bounded number at once; results in the cases' order.
std::vector<CaseResult> runCases(const std::vector<Case>& cases, int atOnce) {
    std::vector<CaseResult> results(cases.size());
    std::atomic<size_t> next{0};
    std::vector<std::thread> workers;
    for (int w = 0; w < atOnce; ++w) {
        workers.emplace_back([&] {
            for (size_t i = next++; i < cases.size(); i = next++)
                results[i] = cases[i].run(cases[i].name);
        });
    }
    for (std::thread& worker : workers)
        worker.join();
    return results;
}

// Prints one line per case and the counts; true when every connection ended cleanly.
bool report(const char* what, const std::vector<CaseResult>& results) {
    int refused = 0, served = 0, hungUp = 0, failures = 0;
    for (const CaseResult& r : results) {
        std::printf("  %-8s %6.2f s  %s (%s)\n", outcomeName(r.outcome), r.seconds,
                    qPrintable(r.name.left(120)), qPrintable(r.detail.left(120)));
        switch (r.outcome) {
        case Outcome::Refused:
            ++refused;
            break;
        case Outcome::Served:
            ++served;
            break;
        case Outcome::HungUp:
            ++hungUp;
            break;
        default:
            ++failures;
            break;
        }
    }
    std::printf("%s: connections tried %d, refused cleanly %d, served inside the mount %d, "
                "hung up by the peer %d, failures %d\n",
                what, int(results.size()), refused, served, hungUp, failures);
    std::fflush(stdout);
    return failures == 0;
}

int runHostile(const Options& options) {
    const quint16 port = quint16(options.number("port", 0));
    const QString outside = options.value("outside");
    if (port == 0 || outside.isEmpty())
        return 2;
    std::vector<Case> cases;
    addFramingCases(cases, port);
    addParameterCases(cases, port, outside);
    addPathCases(cases, port, outside);
    addHangUpCases(cases, port);
    // --only TEXT keeps the cases whose name contains TEXT, to look at one kind more closely.
    const QString only = options.value("only");
    if (!only.isEmpty()) {
        std::vector<Case> kept;
        for (const Case& c : cases) {
            if (c.name.contains(only))
                kept.push_back(c);
        }
        cases = kept;
    }
    return report("hostile", runCases(cases, kMaxCasesAtOnce)) ? 0 : 1;
}

// What UDT saw of a connection, for a report of one that went wrong.
QString traffic(int socket) {
    UDT::TRACEINFO info;
    if (UDT::perfmon(socket, &info, false) == UDT::ERROR)
        return "no statistics";
    return QString("%1 packets sent (%2 resent), %3 received, round trip %4 ms")
        .arg(info.pktSentTotal)
        .arg(info.pktRetransTotal)
        .arg(info.pktRecvTotal)
        .arg(info.msRTT, 0, 'f', 1);
}

// N connections opened at once; each greets and then, once all have greeted (or a second has
// passed, well within the server's stall timeout), creates a directory. Beyond the server's
// limit a connection must be refused, at the connection or the hello, never left open.
int runBurst(const Options& options) {
    const quint16 port = quint16(options.number("port", 0));
    const int count = int(options.number("count", 200));
    std::mutex mutex;
    std::condition_variable allGreeted;
    int greeted = 0;
    std::vector<CaseResult> results(static_cast<size_t>(count));
    std::vector<std::thread> threads;
    for (int i = 0; i < count; ++i) {
        threads.emplace_back([&, i] {
            const QString name = QString("burst %1").arg(i);
            QString error;
            QElapsedTimer clock;
            clock.start();
            Peer peer{net::Socket(net::connectTo("127.0.0.1", port, &error))};
            ParamMap answer;
            const bool connected = peer.connected();
            const bool accepted = connected && peer.hello(&answer);
            const double answeredAfter = clock.elapsed() / 1000.0;
            const bool leftOpen = connected && !accepted && answer.isEmpty() &&
                                  UDT::getsockstate(peer.socket()) == CONNECTED;
            {
                std::unique_lock<std::mutex> lock(mutex);
                ++greeted;
                allGreeted.notify_all();
                allGreeted.wait_for(lock, std::chrono::seconds(1),
                                    [&] { return greeted == count; });
            }
            // UDT itself turns a connection away when the listener's backlog is full.
            if (!connected)
                results[size_t(i)] = {name, Outcome::Refused, "connection: " + error};
            else if (leftOpen)
                results[size_t(i)] = {name, Outcome::Hung,
                                      "no answer to the hello, still open; " +
                                          traffic(peer.socket())};
            else if (!accepted)
                results[size_t(i)] = {name, Outcome::Refused,
                                      "hello: " + answer.value("errorType", "closed")};
            else {
                ParamMap params = taskParam("createDir");
                params["destPath"] = QString("burst/%1").arg(i);
                results[size_t(i)] = playTask(peer, name, params);
            }
            // How long the connection and the hello took, whatever the outcome.
            results[size_t(i)].seconds = answeredAfter;
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    QMap<QString, int> details;
    for (const CaseResult& r : results)
        ++details[QString("%1 (%2)").arg(outcomeName(r.outcome), r.detail)];
    for (auto it = details.cbegin(); it != details.cend(); ++it)
        std::printf("  %4d x %s\n", it.value(), qPrintable(it.key()));
    int failures = 0, refused = 0, served = 0;
    double slowest = 0;
    for (const CaseResult& r : results) {
        failures += r.outcome != Outcome::Refused && r.outcome != Outcome::Served;
        refused += r.outcome == Outcome::Refused;
        served += r.outcome == Outcome::Served;
        slowest = std::max(slowest, r.seconds);
    }
    std::printf("burst: connections tried %d, refused cleanly %d, served inside the mount %d, "
                "failures %d, slowest hello answer %.2f s\n",
                count, refused, served, failures, slowest);
    return failures == 0 ? 0 : 1;
}

// ---- Stalls -----------------------------------------------------------------------------------

// A client that stops at `after` and keeps its connection open for up to `hold` seconds.
int runStall(const Options& options) {
    const quint16 port = quint16(options.number("port", 0));
    const QString after = options.value("after", "data");
    const int holdMs = int(options.number("hold", 10)) * 1000;
    Peer peer(port);
    if (!peer.connected() || !peer.hello()) {
        std::printf("stall: no accepted connection\n");
        return 2;
    }
    if (after != QLatin1String("hello")) {
        const QString file = options.value("file");
        ParamMap params = taskParam("upload");
        params["fileName"] = QFileInfo(file).fileName();
        params["destPath"] = options.value("dest", "stall");
        params["fileSize"] = QString::number(QFileInfo(file).size());
        // As a vesk client describes the file, so that a real upload of it resumes.
        params["mtime"] = QString::number(QFileInfo(file).lastModified().toSecsSinceEpoch());
        quint32 number = 0;
        ParamMap ack;
        if (!peer.sendMap(kTaskParam, params) ||
            peer.receiveMap(number, ack, 15000) != Got::Frame) {
            std::printf("stall: no acknowledgement\n");
            return 2;
        }
        if (after == QLatin1String("data")) {
            QFile source(file);
            const qint64 offset = ack.value("offset").toLongLong();
            if (!source.open(QIODevice::ReadOnly) || !source.seek(offset) ||
                !peer.sendRaw(source.read(options.number("send", 1 << 20)))) {
                std::printf("stall: cannot send the first part\n");
                return 2;
            }
        }
    }
    QElapsedTimer clock;
    clock.start();
    while (clock.elapsed() < holdMs) {
        if (UDT::getsockstate(peer.socket()) != CONNECTED) {
            std::printf("stall after %s: the server closed the connection after %.1f s\n",
                        qPrintable(after), clock.elapsed() / 1000.0);
            return 0;
        }
        QThread::msleep(50);
    }
    std::printf("stall after %s: still open after %d s\n", qPrintable(after), holdMs / 1000);
    return 1;
}

// Accepts one connection, answers the hello, and goes silent at `after` with the connection
// open, until the client gives up (or 120 s).
int runSilentServer(const Options& options) {
    const QString after = options.value("after", "data");
    quint16 port = 0;
    QString error;
    net::Socket listener(net::listenOn("127.0.0.1", 0, &port, &error));
    if (!listener.valid()) {
        std::printf("silent-server: %s\n", qPrintable(error));
        return 2;
    }
    QFile portFile(options.value("port-file"));
    if (!portFile.open(QIODevice::WriteOnly) || portFile.write(QByteArray::number(port)) <= 0)
        return 2;
    portFile.close();
    Peer peer{net::Socket(net::acceptOn(listener.get()))};
    quint32 number = 0;
    ParamMap map;
    if (peer.receiveMap(number, map, 15000) != Got::Frame ||
        !peer.sendMap(kHelloAnswer, {{"accepted", "true"}}))
        return 2;
    if (after != QLatin1String("hello")) {
        if (peer.receiveMap(number, map, 15000) != Got::Frame)
            return 2;
        if (after == QLatin1String("data")) {
            peer.sendMap(kTaskParamAck, {{"ackRespond", "true"},
                                         {"bTransfer", "true"},
                                         {"offset", "0"},
                                         {"bTruncate", "false"},
                                         {"fileSize", QString::number(64 << 20)},
                                         {"verifyValue", ""}});
            // An uploading client's first megabyte is taken, then nothing more; a downloading
            // client gets its first megabyte, then nothing more.
            QByteArray bytes;
            if (map.value("operator") == QLatin1String("download"))
                peer.sendRaw(QByteArray(1 << 20, 'd'));
            else
                peer.receiveBytes(bytes, 1 << 20, 15000);
        }
    }
    QElapsedTimer clock;
    clock.start();
    while (clock.elapsed() < 120000 && UDT::getsockstate(peer.socket()) == CONNECTED)
        QThread::msleep(50);
    std::printf("silent-server: the client ended the connection after %.1f s of silence\n",
                clock.elapsed() / 1000.0);
    return 0;
}

// ---- Killing at a size ------------------------------------------------------------------------

int runKillWhen(const Options& options, const QStringList& command) {
    const QString file = options.value("file");
    const qint64 bytes = options.number("bytes", 1);
    const int timeoutMs = int(options.number("timeout", 60)) * 1000;
    pid_t pid = pid_t(options.number("pid", 0));
    const bool spawned = pid == 0;
    if (spawned) {
        std::vector<QByteArray> storage;
        std::vector<char*> argv;
        for (const QString& arg : command)
            storage.push_back(arg.toLocal8Bit());
        for (QByteArray& arg : storage)
            argv.push_back(arg.data());
        argv.push_back(nullptr);
        if (argv.size() < 2 ||
            ::posix_spawnp(&pid, argv[0], nullptr, nullptr, argv.data(), environ) != 0) {
            std::printf("kill-when: cannot start the command\n");
            return 2;
        }
    }
    QElapsedTimer clock;
    clock.start();
    while (clock.elapsed() < timeoutMs) {
        if (QFileInfo(file).size() >= bytes) {
            ::kill(pid, SIGKILL);
            if (spawned)
                ::waitpid(pid, nullptr, 0);
            std::printf("kill-when: killed %d with %s at %lld bytes\n", int(pid),
                        qPrintable(QFileInfo(file).fileName()),
                        static_cast<long long>(QFileInfo(file).size()));
            return 0;
        }
        const bool ended = spawned ? ::waitpid(pid, nullptr, WNOHANG) == pid : ::kill(pid, 0) != 0;
        if (ended) {
            std::printf("kill-when: %d ended before %s held %lld bytes\n", int(pid),
                        qPrintable(file), static_cast<long long>(bytes));
            return 3;
        }
        QThread::usleep(200);
    }
    ::kill(pid, SIGKILL);
    std::printf("kill-when: timed out\n");
    return 3;
}

// ---- Admission --------------------------------------------------------------------------------

// Connections that trickle their hello: every one sends its next byte each `interval` ms, which
// is progress for any per-read time limit, but the hello as a whole arrives far too late.
int runTrickleHello(const Options& options) {
    const quint16 port = quint16(options.number("port", 0));
    const int count = int(options.number("count", 8));
    const int intervalMs = int(options.number("interval", 500));
    const int holdMs = int(options.number("hold", 40)) * 1000;
    const QByteArray frame = wire::encodeFrame(
        kHello, VeskBase::serializeParam({{"protocol", "VESK"}, {"version", "2.0.0"}}).toUtf8());
    std::vector<std::unique_ptr<Peer>> peers;
    for (int i = 0; i < count; ++i)
        peers.push_back(std::make_unique<Peer>(port));
    std::vector<int> sent(size_t(count), 0);
    std::vector<bool> cut(size_t(count), false);
    QElapsedTimer clock;
    clock.start();
    double lastCut = 0;
    int open = count, completed = 0;
    while (open > 0 && clock.elapsed() < holdMs) {
        for (int i = 0; i < count; ++i) {
            Peer& peer = *peers[size_t(i)];
            if (cut[size_t(i)] || sent[size_t(i)] == frame.size())
                continue;
            if (!peer.connected() || UDT::getsockstate(peer.socket()) != CONNECTED ||
                !peer.sendRaw(frame.mid(sent[size_t(i)], 1))) {
                cut[size_t(i)] = true;
                lastCut = clock.elapsed() / 1000.0;
                --open;
                continue;
            }
            if (++sent[size_t(i)] == frame.size()) {
                ++completed;
                --open;
            }
        }
        QThread::msleep(quint32(intervalMs));
    }
    const int cutCount = int(std::count(cut.begin(), cut.end(), true));
    std::printf("trickle: %d connections sending one byte every %d ms; the server cut %d before "
                "their %d-byte hello was complete (the last after %.1f s), %d completed it\n",
                count, intervalMs, cutCount, int(frame.size()), lastCut, completed);
    return cutCount == count ? 0 : 1;
}

// Connections that only connect, and hold them.
int runIdle(const Options& options) {
    const quint16 port = quint16(options.number("port", 0));
    const int count = int(options.number("count", 100));
    const int holdMs = int(options.number("hold", 20)) * 1000;
    std::vector<std::unique_ptr<Peer>> peers;
    for (int i = 0; i < count; ++i)
        peers.push_back(std::make_unique<Peer>(port));
    QThread::msleep(quint32(holdMs));
    int closed = 0;
    for (const auto& peer : peers)
        closed += !peer->connected() || UDT::getsockstate(peer->socket()) != CONNECTED;
    std::printf("idle: %d connections held %d s, %d of them closed by the server\n", count,
                holdMs / 1000, closed);
    return 0;
}

// A peer that does not know the secret. First it skips the challenge and sends tasks for
// several application keys, to learn which exist; then it guesses the user's secret.
int runProbe(const Options& options) {
    const quint16 port = quint16(options.number("port", 0));
    const QString user = options.value("user", "alice");
    const int count = int(options.number("count", 12));
    int failures = 0;
    for (const QString& key : QStringList{"appA", "appB", "nope"}) {
        Peer peer(port);
        ParamMap answer;
        peer.hello(&answer);
        ParamMap params = taskParam("list");
        params["appKey"] = key;
        peer.sendMap(kTaskParam, params);
        quint32 number = 0;
        ParamMap reply;
        const Got got = peer.receiveMap(number, reply, 15000);
        const bool leaked = got == Got::Frame && number == kTaskParamAck;
        failures += leaked || got == Got::Silent;
        std::printf("  task for '%s' past the challenge (%s): %s\n", qPrintable(key),
                    qPrintable(answer.value("accepted")),
                    leaked               ? "ANSWERED"
                    : got == Got::Closed ? "closed without an answer"
                                         : "NO ANSWER");
    }
    QMap<QString, int> answers;
    QStringList order;
    for (int i = 0; i < count; ++i) {
        Peer peer(port);
        ParamMap challenge;
        peer.hello(&challenge);
        QString outcome = challenge.value("errorType");
        if (challenge.value("accepted") == QLatin1String("challenge")) {
            const QByteArray guess = randomBytes(quint32(i + 1), 32).toHex();
            peer.sendMap(3, {{"user", user},
                             {"nonce", QString(randomBytes(quint32(i + 100), 32).toHex())},
                             {"proof", QString(guess.left(64))}});
            quint32 number = 0;
            ParamMap reply;
            const Got got = peer.receiveMap(number, reply, 15000);
            outcome = got != Got::Frame ? QStringLiteral("no answer")
                      : reply.value("accepted") == QLatin1String("true")
                          ? QStringLiteral("ACCEPTED")
                          : reply.value("errorType");
        }
        ++answers[outcome];
        order << outcome;
    }
    std::printf("  guesses, in order: %s\n", qPrintable(order.join(' ')));
    for (auto it = answers.cbegin(); it != answers.cend(); ++it)
        std::printf("  %4d x %s\n", it.value(), qPrintable(it.key()));
    // Ten wrong guesses are answered alike; after them the address is turned away at once.
    const int expectedFailed = std::min(count, 10);
    const bool ok = failures == 0 && answers.value("AuthenticationFailed") == expectedFailed &&
                    answers.value("TooManyFailures") == count - expectedFailed;
    std::printf("probe: %d guesses of %s's secret, %d answered \"authentication failed\", %d "
                "refused as too many failures; %s\n",
                count, qPrintable(user), answers.value("AuthenticationFailed"),
                answers.value("TooManyFailures"), ok ? "as expected" : "NOT as expected");
    return ok ? 0 : 1;
}

// ---- Crafted and greedy task parameters -------------------------------------------------------

int runAck(const Options& options) {
    ParamMap params = taskParam(options.value("op", "upload"));
    for (int i = 0; i + 1 < options.args.size(); ++i) {
        if (options.args.at(i) != QLatin1String("--set"))
            continue;
        const QString pair = options.args.at(i + 1);
        const int equals = pair.indexOf('=');
        params[pair.left(equals)] = pair.mid(equals + 1);
    }
    Peer peer(quint16(options.number("port", 0)));
    quint32 number = 0;
    ParamMap ack;
    if (!peer.connected() || !peer.hello() || !peer.sendMap(kTaskParam, params) ||
        peer.receiveMap(number, ack, kCaseBoundMs) != Got::Frame) {
        std::printf("ack: none\n");
        return 1;
    }
    std::printf("ack: message %u %s\n", number, qPrintable(VeskBase::serializeParam(ack)));
    return 0;
}

// Waits until the server closes the connection, at most until `holdMs` has passed on `clock`.
int closedWithin(Peer& peer, const QElapsedTimer& clock, int holdMs, const char* what) {
    while (clock.elapsed() < holdMs) {
        if (UDT::getsockstate(peer.socket()) != CONNECTED) {
            std::printf("trickle %s: the server closed the connection after %.1f s\n", what,
                        clock.elapsed() / 1000.0);
            return 0;
        }
        QThread::msleep(20);
    }
    std::printf("trickle %s: still open after %.1f s\n", what, clock.elapsed() / 1000.0);
    return 1;
}

int runTrickle(const Options& options) {
    const QString phase = options.value("phase", "taskparam");
    const int everyMs = int(options.number("every", 1000));
    const int holdMs = int(options.number("hold", 20)) * 1000;
    Peer peer(quint16(options.number("port", 0)));
    if (!peer.connected() || !peer.hello()) {
        std::printf("trickle: no accepted connection\n");
        return 2;
    }
    ParamMap params = taskParam("upload");
    params["fileName"] = "trickled.bin";
    params["fileSize"] = QString::number(64 << 20);
    const QByteArray frame =
        wire::encodeFrame(kTaskParam, VeskBase::serializeParam(params).toUtf8());
    QElapsedTimer clock;
    clock.start();
    if (phase == QLatin1String("taskparam")) {
        // One byte at a time: every packet is progress, but the whole never arrives in time.
        for (int i = 0; i < frame.size() && UDT::getsockstate(peer.socket()) == CONNECTED &&
                        clock.elapsed() < holdMs;
             ++i) {
            peer.sendRaw(frame.mid(i, 1));
            QThread::msleep(everyMs);
        }
        return closedWithin(peer, clock, holdMs, "taskparam");
    }
    quint32 number = 0;
    ParamMap ack;
    if (!peer.sendRaw(frame) || peer.receiveMap(number, ack, kCaseBoundMs) != Got::Frame ||
        ack.value("ackRespond") != QLatin1String("true")) {
        std::printf("trickle: the upload was not accepted\n");
        return 2;
    }
    clock.restart();
    // 64 bytes at a time: always some progress, far below any useful rate.
    while (UDT::getsockstate(peer.socket()) == CONNECTED && clock.elapsed() < holdMs) {
        peer.sendRaw(QByteArray(64, 't'));
        QThread::msleep(everyMs);
    }
    return closedWithin(peer, clock, holdMs, "data");
}

int runBigTaskParam(const Options& options) {
    const quint16 port = quint16(options.number("port", 0));
    const int count = int(options.number("count", 4));
    const quint32 bytes = quint32(options.number("mib", 16)) * 1024u * 1024u;
    std::vector<QString> answers(size_t(count), QString("none"));
    std::vector<std::thread> threads;
    for (int i = 0; i < count; ++i) {
        threads.emplace_back([&, i] {
            Peer peer(port);
            if (!peer.connected() || !peer.hello())
                return;
            // The body goes out from a thread of its own, as fast as the server takes it.
            std::thread body([&] {
                peer.sendRaw(header(kTaskParam, bytes));
                const QByteArray chunk(1 << 20, 'p');
                for (quint32 sent = 0; sent < bytes; sent += quint32(chunk.size())) {
                    if (!peer.sendRaw(chunk))
                        break;
                }
            });
            quint32 number = 0;
            ParamMap ack;
            if (peer.receiveMap(number, ack, kCaseBoundMs) == Got::Frame)
                answers[size_t(i)] = ack.value("ackRespond") + ": " + ack.value("errorType");
            peer.hangUp();
            body.join();
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    int refused = 0;
    for (const QString& answer : answers) {
        std::printf("  big-taskparam: %s\n", qPrintable(answer));
        refused += answer.startsWith(QLatin1String("false: "));
    }
    return refused == count ? 0 : 1;
}

} // namespace

int main(int argc, char** argv) {
    QStringList args;
    for (int i = 1; i < argc; ++i)
        args << QString::fromLocal8Bit(argv[i]);
    const int dashes = args.indexOf("--");
    const QStringList command = dashes >= 0 ? args.mid(dashes + 1) : QStringList();
    const Options options{dashes >= 0 ? args.mid(0, dashes) : args};
    const QString mode = args.value(0);
    net::ensureStarted();
    if (mode == QLatin1String("hostile"))
        return runHostile(options);
    if (mode == QLatin1String("burst"))
        return runBurst(options);
    if (mode == QLatin1String("stall"))
        return runStall(options);
    if (mode == QLatin1String("silent-server"))
        return runSilentServer(options);
    if (mode == QLatin1String("kill-when"))
        return runKillWhen(options, command);
    if (mode == QLatin1String("trickle-hello"))
        return runTrickleHello(options);
    if (mode == QLatin1String("idle"))
        return runIdle(options);
    if (mode == QLatin1String("probe"))
        return runProbe(options);
    if (mode == QLatin1String("ack"))
        return runAck(options);
    if (mode == QLatin1String("trickle"))
        return runTrickle(options);
    if (mode == QLatin1String("big-taskparam"))
        return runBigTaskParam(options);
    std::fprintf(stderr, "usage: reliability_peer hostile|burst|stall|silent-server|kill-when|"
                         "trickle-hello|idle|probe|ack|trickle|big-taskparam OPTIONS (see the "
                         "source's header)\n");
    return 2;
}
