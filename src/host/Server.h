#pragma once

// The server side of vesk: a UDT listener, one thread per connection (bounded), the host hello,
// then one handler from the plug-in per connection, and a summary line per task.

#include "Access.h"
#include "Auth.h"
#include "PluginLoader.h"
#include "StallWatch.h"
#include "TaskOutcome.h"
#include "TaskPolicy.h"
#include "TaskVetting.h"
#include "base/Congestion.h"

#include <QDeadlineTimer>
#include <QElapsedTimer>
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

// Entries of one listing, at most: far more than a real tree holds, far less than what two links
// looping back to their own directory produce.
constexpr qint64 kDefaultMaxListEntries = 1000000;

struct AppEntry {
    QString key;
    QString dir; // relative to the mount
};

// Partial files nobody resumed for a week are removed.
constexpr qint64 kDefaultPartialTtlSeconds = 7 * 24 * 3600;

struct ServeConfig {
    QString host = QStringLiteral("127.0.0.1");
    quint16 port = 9000;
    QString mount; // absolute
    QList<AppEntry> apps;
    QString fileMode; // octal text, "" keeps the mode files are created with
    QString dirMode;
    QString logFile;
    int maxConnections = 64;
    int maxPerAddress = 8;             // connections from one address at once
    int helloTimeoutMs = 10000;        // the whole host hello, authentication included
    bool authenticate = false;         // users prove a secret in the hello (--secrets)
    QMap<QString, QByteArray> secrets; // user -> secret
    AccessRules access;                // who may use which application when authenticating
    QString ownerSecretFile;           // admitting only its own user: the secret's file
    bool ownerSecretCreated = false;   // ... which this start made
    int stallTimeout = kDefaultStallTimeoutSeconds; // seconds without progress; 0: no limit
    qint64 maxRate = 0;               // bytes per second each connection sends at most; 0: no cap
    qint64 minRate = kDefaultMinRate; // bytes per second a task moves at least; 0: no minimum
    TaskLimits limits;
    qint64 partialTtl = kDefaultPartialTtlSeconds;  // partial files older are removed; 0: never
    qint64 maxListEntries = kDefaultMaxListEntries; // a longer listing fails
    net::Congestion congestion = net::Congestion::Vesk;
    QString plugins;

    // "KEY:DIR%KEY:DIR", the handler's "appPath".
    QString appTable() const;
    // The same table with only the applications in `keys`.
    QString appTable(const QStringList& keys) const;
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
        QString address;                   // the peer's address, without its port
        VeskBase* handler = nullptr;       // set while process() runs
        std::shared_ptr<StallWatch> watch; // likewise
        bool stalled = false;              // the watch paused the task
        bool slow = false;                 // ... because it moved too little
        QString partial;                   // the partial file an upload holds
    };

    void serveConnection(quint64 id, int socket, const QString& peer);
    void refuseConnection(int socket, const QString& peer, const QString& reason);
    // After the hello: authenticates the peer when the server asks for it, answers, and
    // gives what the peer may do. False when the connection ends here.
    bool admitPeer(int socket, const QString& peer, const QDeadlineTimer& deadline,
                   const QString& protocol, const QString& version, TaskPolicy* policy);
    // Why a new connection from `address` is refused before its hello, or "".
    QString addressRefusal(const QString& address);
    void runTask(quint64 id, int socket, const QString& peer, const TaskPolicy& policy);
    void configureHandler(VeskBase* handler, int socket, const QString& peer,
                          const TaskPolicy& policy) const;
    // Pauses the task that holds `partial` when it has received nothing for a while; waits a
    // little to see. True when it was paused.
    bool endIdleHolder(const QString& partial);
    QString helloRefusal(const QString& protocol, const QString& version) const;
    QString taskPath(VeskBase* handler) const;
    // The RESULT of a task's summary line; `params` are its handler's.
    QString resultText(const TaskOutcome& outcome, const ParamMap& params) const;
    // The one line per task on stdout.
    void printSummary(const QString& peer, VeskBase* handler, qint64 bytes,
                      const QElapsedTimer& clock, const QString& result) const;
    void finishConnection(quint64 id);
    // Runs on a thread of its own until the server stops: pauses each task that made no
    // progress for the stall timeout, so its partial file stays for a resume.
    void watchForStalls();
    // Runs on a thread of its own until the server stops: removes partial files untouched for
    // longer than their time to live, at start and then regularly.
    void removeStalePartials();

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
    std::map<QString, int> m_perAddress; // served connections per peer address
    FailureLimiter m_failures;           // failed authentications per address
    ThreadSet m_threads;
    std::condition_variable m_stopped;   // wakes watchForStalls() at once on stop()
    std::condition_variable m_slotFreed; // a connection or a refusal ended, or stop()
};

} // namespace host
} // namespace VESK
