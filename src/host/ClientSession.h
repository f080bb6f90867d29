#pragma once

// One client task against a server, the way the server side runs one in Server: load the
// plug-in, connect, greet, configure a handler and run it on a worker thread while this thread
// draws progress, watches for a stall and reacts to Ctrl-C. What the user asked for comes in a
// ClientTask; what happened comes back in a TaskResult (TaskOutcome.h names it).

#include "ClientCredentials.h"
#include "StallWatch.h"
#include "Url.h"
#include "base/VeskBase.h"

#include <QMap>
#include <QString>
#include <QStringList>

#include <atomic>
#include <functional>

namespace VESK {
namespace host {

// One task as the user asked for it, before anything is connected.
struct ClientTask {
    ClientTask(const QString& commandName, const QString& operation)
        : command(commandName)
        , op(operation) {}

    QString command; // the command's name, for messages
    QString op;      // the handler's "operator"
    VeskUrl url;
    ClientCredentials credentials;
    ParamMap params; // the operation's own parameters
    QString localPath;
    QString plugins;
    bool quiet = false;
    int stallTimeout = kDefaultStallTimeoutSeconds;
    qint64 maxRate = 0;    // bytes per second this side sends at most; 0: no cap
    qint64 askedRate = 0;  // bytes per second the server is asked to send at most; 0: no cap
    bool counters = false; // upload and download report progress through the two counters
    bool json = false;
    bool ignoreExisting = false;
    bool dryRun = false; // -n: say what would be done, do nothing
    bool silent = false; // a listing whose entries are not printed

    // Set when the task runs as one of several (see Batch.h): the interrupts are counted there
    // and the session only follows the count (1: pause, 2: cancel), drawing no bar of its own.
    const std::atomic<int>* sharedInterrupts = nullptr;
    // Called on the worker thread with each chunk of a listing (else the entries are printed);
    // false cancels the rest of the listing.
    std::function<bool(const QMap<QString, QString>&)> onList;
    // How long a refusal for want of a free place on the server is met by trying again.
    int waitForPlaceMs = 0;
    // Called every poll with the two counters (total, offset) while the task runs.
    std::function<void(qint64 total, qint64 offset)> onCounters;
};

// What the session saw of a task; outcomeOf (TaskOutcome.h) names what it amounts to.
struct TaskResult {
    bool ok = false;
    bool interrupted = false;
    bool stalled = false;
    QString lastError;
    QVector<MessageEvent> messages; // the control messages the handler sent and received
    ParamMap params;                // the handler's parameters once it returned
    QStringList errors;             // its error log, only ever quoted to the user
    qint64 beginOffset = 0;
    qint64 total = 0;
    qint64 offset = 0; // the progress counter where the task left it
    qint64 moved = 0;
    double seconds = 0.0;
    // A second Ctrl-C came after the task had already stopped at the first.
    bool cancelledAfterPause = false;
};

// The text the client announces itself with in the hello and the task.
extern const char* const kClientAppVersion;

// Connects and runs the task. Returns -1 when the task ran (its outcome is in `result`), else
// the exit status of a failure before it could start (already printed).
int runTask(const ClientTask& task, TaskResult& result);

// Prints a listing chunk: one escaped path a line, directories ending in "/", or JSON objects.
void printChunk(const QMap<QString, QString>& chunk, bool json);

} // namespace host
} // namespace VESK
