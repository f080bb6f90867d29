#pragma once

// Fixtures shared by the tests: handlers loaded from the built plug-in, a connected UDT pair on
// 127.0.0.1 set up by the host's own socket helper, a runner for a client and a server task on
// two threads, a log capture, progress counters and a temporary mount tree.

#include "base/Net.h"
#include "base/VeskBase.h"

#include <QList>
#include <QMutex>
#include <QPair>
#include <QStringList>
#include <QTemporaryDir>

#include <memory>

namespace vesktest {

using VESK::VeskBase;

// ---- Handlers from the plug-in ----------------------------------------------------------------

struct HandlerDeleter {
    void operator()(VeskBase* handler) const;
};
using Handler = std::unique_ptr<VeskBase, HandlerDeleter>;

// A new handler from the plug-in's create(); destroy() releases it.
Handler makeHandler();
// The plug-in's entry points, for tests of create/destroy themselves.
VeskBase* pluginCreate();
void pluginDestroy(VeskBase* handler);

// ---- Sockets ----------------------------------------------------------------------------------

// A connected pair of UDT stream sockets on 127.0.0.1 with an ephemeral port.
struct UdtPair {
    VESK::net::Socket client;
    VESK::net::Socket server;
    quint16 port = 0;
};
// Fails the calling test (QVERIFY) when the pair cannot be set up.
UdtPair connectedPair();

// Sets a receive timeout so a test that expects silence does not wait forever.
void setReceiveTimeout(int socket, int ms);

// Caps what `socket` sends, in bytes per second. Tests that stop a transfer in the middle use
// it so that a busy machine, which may leave the test's thread waiting for a while, cannot let
// the transfer run to its end before the stop.
void limitSendRate(int socket, qint64 bytesPerSecond);

// UDT's view of a socket (UDTSTATUS: CONNECTED = 5, BROKEN = 6, CLOSED = 8, NONEXIST = 9).
int socketState(int socket);

// ---- Running tasks ----------------------------------------------------------------------------

struct TaskResults {
    bool client = false;
    bool server = false;
    bool timedOut = false;
};

// Runs server->process() and client->process() on two threads and waits for both. After
// `timeoutMs` both sockets are closed to unblock them and timedOut is set.
TaskResults runTask(VeskBase* client, VeskBase* server, int timeoutMs = 60000);

// As runTask, but closes the server's socket once the server's process() has returned, the way
// the host ends a connection. A client still waiting for a reply the server never sends (every
// server-side failure) then fails at once instead of waiting for the timeout.
TaskResults runTaskClosingServer(VeskBase* client, VeskBase* server,
                                 VESK::net::Socket& serverSocket, int timeoutMs = 60000);

// Runs one handler's process() on a thread of its own; wait() returns its result.
class AsyncTask {
public:
    explicit AsyncTask(VeskBase* handler);
    ~AsyncTask();
    // Waits at most `timeoutMs`; false in `finished` when it had not ended by then.
    bool wait(int timeoutMs = 60000, bool* finished = nullptr);

private:
    struct State;
    std::shared_ptr<State> m_state;
};

// ---- Configuration ----------------------------------------------------------------------------

// Sets "endPoint" = "client", "operator" and "clientSocket".
void configureClient(VeskBase* handler, int socket, const QString& op);
// Sets "endPoint" = "server", "serverSocket", "mountPath" and "appPath".
void configureServer(VeskBase* handler, int socket, const QString& mountPath,
                     const QString& appPath);

// The host's two progress counters; install() passes their addresses to a client handler.
struct Counters {
    qint64 total = 0;
    qint64 offset = 0;
    void install(VeskBase* handler);
};

// A temporary mount with two applications: "appA" in <mount>/apps/a, "appB" in <mount>/apps/b.
class MountTree {
public:
    MountTree();
    bool isValid() const { return m_dir.isValid(); }
    QString root() const;  // the temporary directory, parent of the mount
    QString mount() const; // "mountPath"
    QString appTable() const { return "appA:/apps/a%appB:/apps/b"; }
    QString appDir(const QString& key) const; // absolute directory of "appA" or "appB"
    // A scratch directory beside the mount, for the client's local files.
    QString local() const;

private:
    QTemporaryDir m_dir;
};

// ---- Logs -------------------------------------------------------------------------------------

struct LogEntry {
    QString level;
    QString message;
};

// Records every sigLog of one handler, from whatever thread it is emitted.
class LogCapture {
public:
    explicit LogCapture(VeskBase* handler);
    QList<LogEntry> entries() const;
    QStringList messages(const QString& level = QString()) const;
    bool contains(const QString& level, const QString& message) const;
    // Index of the first entry with that level and message, or -1.
    int indexOf(const QString& level, const QString& message) const;

private:
    struct State {
        mutable QMutex mutex;
        QList<LogEntry> entries;
    };
    std::shared_ptr<State> m_state;
};

// ---- Files ------------------------------------------------------------------------------------

// Writes `size` bytes of a repeatable pseudo-random pattern (seeded by `seed`).
bool writePatternFile(const QString& path, qint64 size, quint32 seed = 1);
QByteArray readAll(const QString& path);
// Open descriptors of this process (entries of /proc/self/fd).
int openDescriptorCount();
// A figure in KiB from /proc/PID/status, such as "VmRSS" or "VmHWM" (0: this process), or -1.
qint64 processStatusKiB(const QString& field, qint64 pid = 0);

} // namespace vesktest
