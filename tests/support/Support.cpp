#include "Support.h"

#include <QDir>
#include <QFile>
#include <QLibrary>
#include <QMutexLocker>
#include <QTest>

#include <udt/udt.h>

#include <condition_variable>
#include <future>
#include <mutex>
#include <random>
#include <thread>

namespace vesktest {

// ---- Handlers from the plug-in ----------------------------------------------------------------

namespace {

using CreateFn = VeskBase* (*)();
using DestroyFn = void (*)(VeskBase*);

struct Plugin {
    CreateFn create = nullptr;
    DestroyFn destroy = nullptr;

    static Plugin& instance() {
        static Plugin plugin = load();
        return plugin;
    }

    static Plugin load() {
        // Loaded once and never unloaded: handlers may outlive any one test.
        static QLibrary library(QStringLiteral(VESK_PLUGIN_PATH));
        Plugin p;
        if (!library.load())
            qFatal("cannot load the plug-in %s: %s", VESK_PLUGIN_PATH,
                   qPrintable(library.errorString()));
        p.create = reinterpret_cast<CreateFn>(library.resolve("create"));
        p.destroy = reinterpret_cast<DestroyFn>(library.resolve("destroy"));
        if (!p.create || !p.destroy)
            qFatal("the plug-in %s lacks create/destroy", VESK_PLUGIN_PATH);
        return p;
    }
};

} // namespace

void HandlerDeleter::operator()(VeskBase* handler) const {
    Plugin::instance().destroy(handler);
}

Handler makeHandler() {
    return Handler(Plugin::instance().create());
}

VeskBase* pluginCreate() {
    return Plugin::instance().create();
}

void pluginDestroy(VeskBase* handler) {
    Plugin::instance().destroy(handler);
}

// ---- Sockets ----------------------------------------------------------------------------------

UdtPair connectedPair() {
    UdtPair pair;
    QString error;
    VESK::net::Socket listener(VESK::net::listenOn("127.0.0.1", 0, &pair.port, &error));
    if (!listener.valid()) {
        QTest::qFail(qPrintable("listen: " + error), __FILE__, __LINE__);
        return pair;
    }
    QString acceptError;
    auto accepting = std::async(std::launch::async, [&] {
        return VESK::net::acceptOn(listener.get(), nullptr, &acceptError);
    });
    pair.client.reset(VESK::net::connectTo("127.0.0.1", pair.port, &error));
    // The listener is closed without draining (it never carries data); closing it also ends
    // the accept when the connect failed.
    if (!pair.client.valid())
        UDT::close(listener.release());
    pair.server.reset(accepting.get());
    if (listener.valid())
        UDT::close(listener.release());
    if (!pair.client.valid() || !pair.server.valid())
        QTest::qFail(qPrintable("connect: " + error + " accept: " + acceptError), __FILE__,
                     __LINE__);
    return pair;
}

void setReceiveTimeout(int socket, int ms) {
    VESK::net::setReceiveTimeout(socket, ms);
}

void limitSendRate(int socket, qint64 bytesPerSecond) {
    if (!VESK::net::limitSendRate(socket, bytesPerSecond))
        QTest::qFail("cannot limit the send rate", __FILE__, __LINE__);
}

int socketState(int socket) {
    return int(UDT::getsockstate(socket));
}

// ---- Running tasks ----------------------------------------------------------------------------

struct AsyncTask::State {
    std::mutex mutex;
    std::condition_variable done;
    bool finished = false;
    bool result = false;
    std::thread thread;
};

AsyncTask::AsyncTask(VeskBase* handler)
    : m_state(std::make_shared<State>()) {
    auto state = m_state;
    state->thread = std::thread([state, handler] {
        const bool result = handler->process();
        std::lock_guard<std::mutex> lock(state->mutex);
        state->result = result;
        state->finished = true;
        state->done.notify_all();
    });
}

AsyncTask::~AsyncTask() {
    if (m_state->thread.joinable())
        m_state->thread.join();
}

bool AsyncTask::wait(int timeoutMs, bool* finished) {
    std::unique_lock<std::mutex> lock(m_state->mutex);
    m_state->done.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                           [this] { return m_state->finished; });
    if (finished)
        *finished = m_state->finished;
    return m_state->result;
}

namespace {

// Waits for both tasks; with `serverSocket`, closes it once the server's process() has returned.
TaskResults runBoth(VeskBase* client, VeskBase* server, VESK::net::Socket* serverSocket,
                    int timeoutMs) {
    TaskResults results;
    AsyncTask serverTask(server);
    AsyncTask clientTask(client);
    bool serverDone = false;
    bool clientDone = false;
    if (serverSocket) {
        results.server = serverTask.wait(timeoutMs, &serverDone);
        // Drained first, so a reply the server did send still reaches the client.
        if (serverDone)
            serverSocket->reset();
        results.client = clientTask.wait(serverDone ? timeoutMs : 1000, &clientDone);
    } else {
        results.client = clientTask.wait(timeoutMs, &clientDone);
        results.server = serverTask.wait(clientDone ? timeoutMs : 1000, &serverDone);
    }
    if (!clientDone || !serverDone) {
        // Unblock whatever still waits in UDT; the sockets belong to the test's pair, which
        // closes them again harmlessly.
        results.timedOut = true;
        UDT::close(client->getParam("clientSocket", "-1").toInt());
        UDT::close(server->getParam("serverSocket", "-1").toInt());
        results.client = clientTask.wait(timeoutMs);
        results.server = serverTask.wait(timeoutMs);
    }
    return results;
}

} // namespace

TaskResults runTask(VeskBase* client, VeskBase* server, int timeoutMs) {
    return runBoth(client, server, nullptr, timeoutMs);
}

TaskResults runTaskClosingServer(VeskBase* client, VeskBase* server,
                                 VESK::net::Socket& serverSocket, int timeoutMs) {
    return runBoth(client, server, &serverSocket, timeoutMs);
}

// ---- Configuration ----------------------------------------------------------------------------

void configureClient(VeskBase* handler, int socket, const QString& op) {
    handler->setParam("endPoint", "client");
    handler->setParam("operator", op);
    handler->setParam("clientSocket", QString::number(socket));
}

void configureServer(VeskBase* handler, int socket, const QString& mountPath,
                     const QString& appPath) {
    handler->setParam("endPoint", "server");
    handler->setParam("serverSocket", QString::number(socket));
    handler->setParam("mountPath", mountPath);
    handler->setParam("appPath", appPath);
}

void Counters::install(VeskBase* handler) {
    handler->setParam("total", QString::number(reinterpret_cast<quintptr>(&total)));
    handler->setParam("offset", QString::number(reinterpret_cast<quintptr>(&offset)));
}

MountTree::MountTree() {
    QDir(m_dir.path()).mkpath("mount/apps/a");
    QDir(m_dir.path()).mkpath("mount/apps/b");
    QDir(m_dir.path()).mkpath("local");
}

QString MountTree::root() const {
    return m_dir.path();
}

QString MountTree::mount() const {
    return m_dir.path() + "/mount";
}

QString MountTree::appDir(const QString& key) const {
    return mount() + (key == "appA" ? "/apps/a" : "/apps/b");
}

QString MountTree::local() const {
    return m_dir.path() + "/local";
}

// ---- Logs -------------------------------------------------------------------------------------

LogCapture::LogCapture(VeskBase* handler)
    : m_state(std::make_shared<State>()) {
    auto state = m_state;
    // A functor without a context object runs in the emitting thread, under the base's log lock.
    QObject::connect(handler, &VeskBase::sigLog, [state](QString level, QString message) {
        QMutexLocker lock(&state->mutex);
        state->entries.append({level, message});
    });
}

QList<LogEntry> LogCapture::entries() const {
    QMutexLocker lock(&m_state->mutex);
    return m_state->entries;
}

QStringList LogCapture::messages(const QString& level) const {
    QStringList out;
    for (const LogEntry& e : entries()) {
        if (level.isEmpty() || e.level == level)
            out << e.message;
    }
    return out;
}

bool LogCapture::contains(const QString& level, const QString& message) const {
    return indexOf(level, message) >= 0;
}

int LogCapture::indexOf(const QString& level, const QString& message) const {
    const QList<LogEntry> all = entries();
    for (int i = 0; i < all.size(); ++i) {
        if (all[i].level == level && all[i].message == message)
            return i;
    }
    return -1;
}

// ---- Files ------------------------------------------------------------------------------------

bool writePatternFile(const QString& path, qint64 size, quint32 seed) {
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        return false;
    std::mt19937_64 rng(seed);
    QByteArray block(1 << 20, Qt::Uninitialized);
    while (size > 0) {
        auto* words = reinterpret_cast<quint64*>(block.data());
        for (int i = 0; i < block.size() / 8; ++i)
            words[i] = rng();
        const qint64 n = std::min<qint64>(size, block.size());
        if (file.write(block.constData(), n) != n)
            return false;
        size -= n;
    }
    return true;
}

QByteArray readAll(const QString& path) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return QByteArray();
    return file.readAll();
}

int openDescriptorCount() {
    return int(QDir("/proc/self/fd")
                   .entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::System)
                   .size());
}

qint64 processStatusKiB(const QString& field, qint64 pid) {
    QFile status(pid > 0 ? QString("/proc/%1/status").arg(pid) : QString("/proc/self/status"));
    if (!status.open(QIODevice::ReadOnly))
        return -1;
    const QByteArray prefix = field.toLatin1() + ':';
    for (const QByteArray& line : status.readAll().split('\n')) {
        if (line.startsWith(prefix))
            return line.mid(prefix.size()).trimmed().split(' ').value(0).toLongLong();
    }
    return -1;
}

} // namespace vesktest
