#pragma once

// The server side of vesk: a UDT listener, one thread per connection (bounded), the host hello,
// then one handler from the plug-in per connection, and a summary line per task.

#include "PluginLoader.h"
#include "StallWatch.h"
#include "base/Congestion.h"

#include <QList>
#include <QString>

#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace VESK {
namespace host {

struct AppEntry {
    QString key;
    QString dir; // relative to the mount
};

struct ServeConfig {
    QString host = QStringLiteral("127.0.0.1");
    quint16 port = 9000;
    QString mount; // absolute
    QList<AppEntry> apps;
    QString fileMode; // octal text, "" keeps the mode files are created with
    QString dirMode;
    QString logFile;
    int maxConnections = 64;
    int stallTimeout = kDefaultStallTimeoutSeconds; // seconds without progress; 0: no limit
    qint64 maxRate = 0; // bytes per second each connection sends at most; 0: no cap
    net::Congestion congestion = net::Congestion::Vesk;
    QString plugins;

    // "KEY:DIR%KEY:DIR", the handler's "appPath".
    QString appTable() const;
    // The application's directory on disk, or "" for an unknown key.
    QString appDirectory(const QString& key) const;
};

// Threads that end on their own and are joined later: finished ones while the server runs,
// the rest when it stops.
class ThreadSet {
public:
    ~ThreadSet() { joinAll(); }
    void start(std::function<void()> work);
    void reapFinished();
    void joinAll();

private:
    std::mutex m_mutex;
    quint64 m_nextId = 0;
    std::map<quint64, std::thread> m_threads;
    std::vector<quint64> m_finished;
};

class Server {
public:
    Server(const ServeConfig& config, const PluginLoader& loader);

    // Listens, prints the bound address, serves until stop(); returns the exit status.
    int run();
    // Stops accepting and pauses every running task (partial files stay for resuming); run()
    // then waits for the connections and returns. Safe from any thread, more than once.
    void stop();

private:
    struct Connection {
        int socket = -1;
        VeskBase* handler = nullptr;       // set while process() runs
        std::shared_ptr<StallWatch> watch; // likewise
        bool stalled = false;              // the watch paused the task
    };

    void serveConnection(quint64 id, int socket, const QString& peer);
    void refuseConnection(int socket, const QString& peer, const QString& reason);
    void runTask(quint64 id, int socket, const QString& peer);
    void configureHandler(VeskBase* handler, int socket, const QString& peer) const;
    QString helloRefusal(const QString& protocol, const QString& version) const;
    QString taskPath(VeskBase* handler) const;
    void finishConnection(quint64 id);
    // Runs on a thread of its own until the server stops: pauses each task that made no
    // progress for the stall timeout, so its partial file stays for a resume.
    void watchForStalls();

    const ServeConfig m_config;
    const PluginLoader& m_loader;
    QString m_protocol;
    QString m_version;

    std::mutex m_mutex; // guards everything below
    bool m_stopping = false;
    bool m_accepting = true; // false once run()'s connections have all ended
    int m_listener = -1;
    quint64 m_nextId = 0;
    std::map<quint64, Connection> m_connections;
    int m_refusing = 0;
    ThreadSet m_threads;
    std::condition_variable m_stopped;   // wakes watchForStalls() at once on stop()
    std::condition_variable m_slotFreed; // a connection or a refusal ended, or stop()
};

} // namespace host
} // namespace VESK
