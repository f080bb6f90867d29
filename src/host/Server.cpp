#include "Server.h"

#include "Confinement.h"
#include "Console.h"
#include "ErrorText.h"
#include "HostHello.h"
#include "PartialFiles.h"
#include "TaskLog.h"
#include "Transfer.h"
#include "Url.h"
#include "base/Net.h"
#include "base/Protocol.h"
#include "base/Wire.h"

#include <QElapsedTimer>
#include <QStringList>
#include <QThread>

#include <udt/udt.h>

#include <malloc.h>

namespace VESK {
namespace host {

namespace {

// Connections beyond --max-connections each get a short-lived thread that answers the hello
// with a refusal; past this many at once the server stops accepting until one ends (UDT then
// turns further connections away itself once its backlog is full). A socket closed without
// reading its hello would lose the close and leave the peer waiting for most of a minute.
constexpr int kMaxRefusing = 16;
// The handler's acknowledgement of a task, which the host sends itself when the handler gave up
// before answering.
// How often running tasks are checked for progress.
constexpr int kStallCheckMs = 250;
// An upload that received nothing for this long gives its partial file up to another upload of
// the same file: its client is most likely gone (killed, or its machine down) without a word,
// which the connection itself would notice only much later.
constexpr qint64 kIdleHolderMs = 3000;

void sendRefusalAck(int socket, const QString& errorType) {
    const ParamMap ack{{"ackRespond", "false"}, {"errorType", errorType}};
    wire::sendFrame(socket, protocol::kTaskParamAck, VeskBase::serializeParam(ack).toUtf8());
}

// A peer names the operation and the path: in the summary they are kept to one line of bounded
// length, so that a client can neither forge further summary lines nor flood the output.
QString summaryField(const QString& text) {
    constexpr int kMaxChars = 512;
    QString field = text.left(kMaxChars);
    for (QChar& c : field) {
        if (c.unicode() < 0x20 || c.unicode() == 0x7f)
            c = '?';
    }
    return text.size() > kMaxChars ? field + "..." : field;
}

qint64 paramNumber(VeskBase* handler, const QString& key) {
    return handler->getParam(key, "").toLongLong();
}

} // namespace

// ---- ServeConfig ------------------------------------------------------------------------------

QString ServeConfig::appTable() const {
    QStringList keys;
    for (const AppEntry& app : apps)
        keys << app.key;
    return appTable(keys);
}

QString ServeConfig::appTable(const QStringList& keys) const {
    QStringList entries;
    for (const AppEntry& app : apps) {
        if (keys.contains(app.key))
            entries << app.key + ':' + app.dir;
    }
    return entries.join('%');
}

QString ServeConfig::appDirectory(const QString& key) const {
    for (const AppEntry& app : apps) {
        if (app.key == key)
            return VeskBase::pathJoin(mount, app.dir);
    }
    return QString();
}

// ---- ThreadSet --------------------------------------------------------------------------------

void ThreadSet::start(std::function<void()> work) {
    std::lock_guard<std::mutex> lock(m_mutex);
    const quint64 id = m_nextId++;
    // The new thread records its end under the same lock, so only after it is in the map.
    m_threads.emplace(id, std::thread([this, id, work = std::move(work)] {
                          work();
                          std::lock_guard<std::mutex> done(m_mutex);
                          m_finished.push_back(id);
                      }));
}

void ThreadSet::reapFinished() {
    std::vector<std::thread> ended;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        for (quint64 id : m_finished) {
            ended.push_back(std::move(m_threads.at(id)));
            m_threads.erase(id);
        }
        m_finished.clear();
    }
    for (std::thread& thread : ended)
        thread.join();
}

void ThreadSet::joinAll() {
    std::vector<std::thread> all;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        for (auto& entry : m_threads)
            all.push_back(std::move(entry.second));
        m_threads.clear();
        m_finished.clear();
    }
    for (std::thread& thread : all)
        thread.join();
}

// ---- Server -----------------------------------------------------------------------------------

Server::Server(const ServeConfig& config, const PluginLoader& loader)
    : m_config(config)
    , m_loader(loader) {
    // The plug-in's key names the one protocol version this server speaks.
    PluginLoader::Handler probe = m_loader.create();
    splitProtocolKey(probe->getKey(), &m_protocol, &m_version);
}

int Server::run() {
    QString error;
    quint16 bound = 0;
    net::setCongestion(m_config.congestion);
    const int listener = net::listenOn(m_config.host, m_config.port, &bound, &error);
    if (listener < 0) {
        printErr("vesk: " + error);
        return kExitFailed;
    }
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_listener = listener;
        if (m_stopping)
            UDT::close(listener);
    }
    printOut("vesk: listening on " + hostPortText(m_config.host, bound));
    QStringList apps;
    for (const AppEntry& app : m_config.apps)
        apps << QString("%1 -> %2").arg(app.key, m_config.appDirectory(app.key));
    printErr(QString("vesk: serving %1-%2 from %3 (%4), at most %5 connections, %6")
                 .arg(m_protocol, m_version, m_config.mount, apps.join(", "),
                      QString::number(m_config.maxConnections),
                      m_config.authenticate
                          ? QString("%1 user(s) authenticated").arg(m_config.secrets.size())
                          : QString("anonymous")));
    printErr(confinement::startupNotice());
    if (const QString note = net::bufferNote(); !note.isEmpty())
        printErr("vesk: " + note);

    std::thread watchdog([this] { watchForStalls(); });
    std::thread sweeper([this] { removeStalePartials(); });
    int status = kExitOk;
    for (;;) {
        QString peer;
        const int socket = net::acceptOn(listener, &peer, &error);
        m_threads.reapFinished();
        std::unique_lock<std::mutex> lock(m_mutex);
        if (m_stopping) {
            if (socket >= 0)
                UDT::close(socket);
            break;
        }
        if (socket < 0) {
            lock.unlock();
            printErr("vesk: " + error);
            if (UDT::getsockstate(listener) != LISTENING) {
                status = kExitFailed;
                break;
            }
            // A failed accept on a listener that still listens is passing; do not spin on it.
            QThread::msleep(100);
            continue;
        }
        const QString address = peer.left(peer.lastIndexOf(':'));
        const QString addressReason = addressRefusal(address);
        m_slotFreed.wait(lock, [&] {
            return m_stopping ||
                   (addressReason.isEmpty() &&
                    int(m_connections.size()) < m_config.maxConnections) ||
                   m_refusing < kMaxRefusing;
        });
        if (m_stopping) {
            UDT::close(socket);
            break;
        }
        if (addressReason.isEmpty() && int(m_connections.size()) < m_config.maxConnections) {
            const quint64 id = m_nextId++;
            m_connections[id].socket = socket;
            m_connections[id].address = address;
            ++m_perAddress[address];
            m_threads.start([this, id, socket, peer] { serveConnection(id, socket, peer); });
        } else if (m_refusing < kMaxRefusing) {
            ++m_refusing;
            const QString reason = addressReason.isEmpty() ? kTooManyConnections : addressReason;
            m_threads.start([this, socket, peer, reason] {
                refuseConnection(socket, peer, reason);
                std::lock_guard<std::mutex> done(m_mutex);
                --m_refusing;
                m_slotFreed.notify_all();
            });
        }
    }
    m_threads.joinAll();
    {
        // Also when accepting failed on its own, without a stop().
        std::lock_guard<std::mutex> lock(m_mutex);
        m_accepting = false;
        m_stopped.notify_all();
    }
    watchdog.join();
    sweeper.join();
    UDT::close(listener);
    printErr("vesk: stopped");
    return status;
}

void Server::stop() {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_stopping)
        return;
    m_stopping = true;
    m_stopped.notify_all();
    m_slotFreed.notify_all();
    if (m_listener >= 0)
        UDT::close(m_listener); // wakes the accept loop
    int paused = 0;
    for (auto& entry : m_connections) {
        // A running handler closes its own socket when paused, which also ends a blocked
        // transfer; its partial file stays for the client to resume.
        if (entry.second.handler) {
            entry.second.handler->pause();
            ++paused;
        } else {
            UDT::close(entry.second.socket);
        }
    }
    printErr(QString("vesk: stopping; %1 running task(s) paused").arg(paused));
}

bool Server::endIdleHolder(const QString& partial) {
    // A live transfer shows progress at every check; one whose client is gone shows none, once
    // what was already on its way has been written. The holder is watched until either is
    // clear, so a live one is refused within about a second.
    constexpr int kProgressSeen = 4;
    int progressSeen = 0;
    qint64 lastIdle = -1;
    QElapsedTimer waited;
    waited.start();
    while (waited.elapsed() < kIdleHolderMs * 3) {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            Connection* holder = nullptr;
            for (auto& entry : m_connections) {
                if (entry.second.handler && entry.second.partial == partial)
                    holder = &entry.second;
            }
            // Held by another server (not ours to end), or by a task here that has ended since
            // it was seen (by a stall, say), whose lock is going.
            if (!holder)
                return lastIdle >= 0;
            const qint64 idle = holder->watch->idleMs();
            if (idle < lastIdle && ++progressSeen >= kProgressSeen)
                return false;
            if (idle >= kIdleHolderMs) {
                holder->handler->pause();
                return true;
            }
            lastIdle = idle;
        }
        QThread::msleep(kStallCheckMs / 2);
    }
    return false;
}

QString Server::helloRefusal(const QString& protocol, const QString& version) const {
    if (protocol != m_protocol)
        return kUnsupportedProtocol;
    if (version != m_version)
        return kUnsupportedVersion;
    return QString();
}

void Server::refuseConnection(int socket, const QString& peer, const QString& reason) {
    QString protocol, version, error;
    // The client's hello is read first so that the refusal is the answer it waits for.
    const QDeadlineTimer deadline(m_config.helloTimeoutMs);
    if (readHello(socket, deadline, &protocol, &version, &error) &&
        answerHello(socket, reason, &error))
        printOut(QString("%1 - - 0 bytes 0.00 s refused: %2").arg(peer, reason));
    else
        printErr(QString("vesk: %1 refused (%2) without an answer: %3").arg(peer, reason, error));
    net::drainAndClose(socket);
}

void Server::serveConnection(quint64 id, int socket, const QString& peer) {
    // Capped before the hello, so that a client is never told "accepted" by a connection that
    // then goes away without a word.
    if (!net::limitSendRate(socket, m_config.maxRate)) {
        printErr(QString("vesk: %1: cannot limit the send rate").arg(peer));
        UDT::close(socket);
        finishConnection(id);
        return;
    }
    // The whole hello has one time limit, so a peer that trickles its bytes cannot hold the
    // connection's place for longer than a silent one.
    const QDeadlineTimer deadline(m_config.helloTimeoutMs);
    QString protocol, version, error;
    qint64 askedRate = 0;
    if (!readHello(socket, deadline, &protocol, &version, &error, &askedRate)) {
        printErr(QString("vesk: %1 sent no hello (%2)").arg(peer, error));
        // Closed at once, right after the peer's last packet, the peer would often not learn of
        // the close and would wait for UDT's keep-alive to give up, most of a minute.
        net::drainAndClose(socket);
        finishConnection(id);
        return;
    }
    QString refusal = helloRefusal(protocol, version);
    // A client may ask for less than the server's own cap, never for more.
    if (askedRate > 0 && !net::limitSendRate(socket, connectionRate(m_config.maxRate, askedRate)))
        printErr(QString("vesk: %1: cannot limit the send rate to the one asked for").arg(peer));
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (refusal.isEmpty() && m_stopping)
            refusal = kServerStopping;
    }
    if (!refusal.isEmpty()) {
        if (answerHello(socket, refusal, &error))
            printOut(QString("%1 - - 0 bytes 0.00 s refused: %2").arg(peer, refusal));
        net::drainAndClose(socket);
    } else {
        TaskPolicy policy;
        if (admitPeer(socket, peer, deadline, protocol, version, &policy))
            runTask(id, socket, peer, policy);
    }
    finishConnection(id);
}

void Server::configureHandler(VeskBase* handler, int socket, const QString& peer,
                              const TaskPolicy& policy) const {
    handler->setParam("endPoint", "server");
    handler->setParam("serverSocket", QString::number(socket));
    handler->setParam("mountPath", m_config.mount);
    // Only the applications this peer may reach: any other is as unknown as a missing one.
    handler->setParam("appPath", m_config.appTable(policy.apps));
    handler->setParam("fileMod", m_config.fileMode);
    handler->setParam("dirMod", m_config.dirMode);
    handler->setParam("logFile", m_config.logFile);
    handler->setListEntryLimit(m_config.maxListEntries);
    const int colon = peer.lastIndexOf(':');
    // An IPv6 peer is "[ADDRESS]:PORT"; the handler takes the bare address.
    handler->setParam("clientIp", peer.left(colon).remove('[').remove(']'));
    handler->setParam("clientPort", peer.mid(colon + 1));
}

void Server::runTask(quint64 id, int socket, const QString& peer, const TaskPolicy& policy) {
    PluginLoader::Handler handler = m_loader.create();
    configureHandler(handler.get(), socket, peer, policy);
    TaskLog log(handler.get());
    QElapsedTimer clock;
    clock.start();
    const VettingContext context{m_config.mount, m_config.appTable(policy.apps), policy,
                                 m_config.limits};
    AdmissionHooks hooks;
    hooks.warn = [&peer](const QString& warning) {
        printErr(QString("vesk: %1: warning: %2").arg(peer, warning));
    };
    hooks.endIdleHolder = [this](const QString& partial) { return endIdleHolder(partial); };
    hooks.confine = [this](const QString& dir, const QStringList& paths, QString* error) {
        return confinement::confineTask(dir, paths, m_config.logFile, error);
    };
    Admission admission = admitTask(socket, context, hooks);
    if (admission.kind != Admission::Kind::Run) {
        QString result = "failed: " + admission.reason;
        if (admission.kind == Admission::Kind::Refuse) {
            sendRefusalAck(socket, admission.refusal);
            result = "refused: " + admission.refusal;
            // Only for the summary line: the handler does not run.
            handler->setParams(admission.task.params);
        }
        printSummary(peer, handler.get(), 0, clock, result);
        handler.reset();
        net::drainAndClose(socket);
        return;
    }
    handler->setReceivedFrame(int(admission.number), admission.frame);
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_connections[id].handler = handler.get();
        m_connections[id].partial = admission.task.partial;
        m_connections[id].watch = std::make_shared<StallWatch>(
            socket, currentThreadId(), m_config.stallTimeout, m_config.minRate);
        // A stop that came between the hello and now found no handler to pause.
        if (m_stopping)
            handler->pause();
    }
    const bool ok = handler->process();
    bool stalled = false;
    bool slow = false;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_connections[id].handler = nullptr;
        m_connections[id].watch.reset();
        m_connections[id].partial.clear();
        stalled = m_connections[id].stalled;
        slow = m_connections[id].slow;
    }

    if (ok && handler->getParam("operator", "") == QLatin1String("upload"))
        keepVerifiedValue(handler->getParam("path", ""), handler->getParam("bVerify", "false"));
    ServedTask served;
    served.ok = ok;
    served.lastError = handler->getLastError();
    served.messages = handler->messageRecord();
    served.asked = admission.task.params;
    handler->getParams(served.params);
    served.stalled = stalled;
    served.slow = slow;
    served.listEntryLimit = m_config.maxListEntries;
    served.firstError = log.errors().value(0);
    const TaskOutcome outcome = servedOutcomeOf(served);
    // The client still waits for an answer: tell it why instead of just hanging up.
    if (outcome.failure == Failure::Unanswered)
        sendRefusalAck(socket, outcome.errorType);
    const qint64 bytes = std::max<qint64>(0, paramNumber(handler.get(), "transferEndSize") -
                                                 paramNumber(handler.get(), "transferBeginSize"));
    printSummary(peer, handler.get(), bytes, clock, resultText(outcome, served.params));
    handler.reset();
    // The partial file stays locked until the handler is done with it.
    admission.partialFile.reset();
    net::drainAndClose(socket);
}

QString Server::resultText(const TaskOutcome& outcome, const ParamMap& params) const {
    switch (outcome.kind) {
    case Outcome::Done:
    case Outcome::Identical:
    case Outcome::KeptExisting:
        return QStringLiteral("success");
    case Outcome::TooSlow:
        return QString("too slow: under %1 bytes/s over %2 s, paused")
            .arg(QString::number(m_config.minRate), QString::number(kMinRateWindowSeconds));
    case Outcome::Stalled:
        return QString("stalled: no progress for %1 s, paused")
            .arg(QString::number(m_config.stallTimeout));
    case Outcome::Interrupted:
        return QStringLiteral("paused");
    case Outcome::Cancelled:
        return QStringLiteral("cancelled");
    case Outcome::VerifyFailed:
    case Outcome::Failed:
        break;
    }
    if (outcome.failure == Failure::Unanswered)
        return "refused: " + outcome.errorType;
    return "failed: " + servedFailureReason(params.value("operator"), outcome);
}

void Server::printSummary(const QString& peer, VeskBase* handler, qint64 bytes,
                          const QElapsedTimer& clock, const QString& result) const {
    const QString op = handler->getParam("operator", "");
    const double seconds = double(clock.elapsed()) / 1000.0;
    printOut(QString("%1 %2 %3 %4 bytes %5 s %6")
                 .arg(peer, op.isEmpty() ? "-" : summaryField(op), summaryField(taskPath(handler)),
                      QString::number(bytes), QString::number(seconds, 'f', 2),
                      summaryField(result)));
}

QString Server::taskPath(VeskBase* handler) const {
    const QString path = handler->getParam("path", "");
    if (!path.isEmpty())
        return path;
    const QString op = handler->getParam("operator", "");
    const QString appKey = handler->getParam("appKey", "");
    QString base = m_config.appDirectory(appKey);
    if (base.isEmpty())
        base = appKey.isEmpty() ? QStringLiteral("-") : appKey + ':';
    base = VeskBase::pathJoin(base, handler->getParam("rootPath", ""));
    const QString fileName = handler->getParam("fileName", "");
    if (op == QLatin1String("upload"))
        return VeskBase::pathJoin(VeskBase::pathJoin(base, handler->getParam("destPath", "")),
                                  fileName);
    if (op == QLatin1String("download"))
        return VeskBase::pathJoin(VeskBase::pathJoin(base, handler->getParam("srcPath", "")),
                                  fileName);
    if (op == QLatin1String("list"))
        return VeskBase::pathJoin(base, handler->getParam("srcPath", ""));
    if (op == QLatin1String("createDir"))
        return VeskBase::pathJoin(base, handler->getParam("destPath", ""));
    return QStringLiteral("-");
}

void Server::watchForStalls() {
    std::unique_lock<std::mutex> lock(m_mutex);
    bool busy = false;
    while (!m_stopping && m_accepting) {
        m_stopped.wait_for(lock, std::chrono::milliseconds(kStallCheckMs));
        // Each connection's UDT buffers are megabytes; once the last one has ended, the heap
        // they leave behind goes back to the system instead of holding the peak for good.
        if (busy && m_connections.empty()) {
            lock.unlock();
            ::malloc_trim(0);
            lock.lock();
        }
        busy = !m_connections.empty();
        for (auto& entry : m_connections) {
            Connection& connection = entry.second;
            if (m_stopping || !connection.handler || connection.stalled || connection.slow)
                continue;
            connection.stalled = connection.watch->stalled();
            connection.slow = !connection.stalled && connection.watch->tooSlow();
            // pause() closes the task's socket, which ends a blocked receive or transfer.
            if (connection.stalled || connection.slow)
                connection.handler->pause();
        }
    }
}

void Server::removeStalePartials() {
    const qint64 ttl = m_config.partialTtl;
    if (ttl <= 0)
        return;
    // Often enough that a file is not kept much longer than its time to live, at most hourly.
    const auto period = std::chrono::seconds(std::max<qint64>(1, std::min<qint64>(ttl / 4, 3600)));
    std::unique_lock<std::mutex> lock(m_mutex);
    while (!m_stopping && m_accepting) {
        lock.unlock();
        int removed = 0;
        for (const AppEntry& app : m_config.apps)
            removed += removeStalePartialFiles(m_config.appDirectory(app.key), ttl);
        if (removed > 0)
            printErr(QString("vesk: removed %1 partial file(s) untouched for %2 s")
                         .arg(QString::number(removed), QString::number(ttl)));
        lock.lock();
        m_stopped.wait_for(lock, period, [this] { return m_stopping || !m_accepting; });
    }
}

void Server::finishConnection(quint64 id) {
    std::lock_guard<std::mutex> lock(m_mutex);
    const auto connection = m_connections.find(id);
    if (connection != m_connections.end()) {
        const auto count = m_perAddress.find(connection->second.address);
        if (count != m_perAddress.end() && --count->second <= 0)
            m_perAddress.erase(count);
        m_connections.erase(connection);
    }
    m_slotFreed.notify_all();
}

} // namespace host
} // namespace VESK
