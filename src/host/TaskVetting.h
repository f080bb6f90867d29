#pragma once

// The server host's check of a task before its handler runs. The host reads the client's
// TaskParam itself (bounded in time and size), enforces what the connection may do and what a
// task may claim, takes the lock on an upload's partial file, and then hands the very frame
// (with the authenticated user put in) to the handler through the base's recv.

#include "PartialFiles.h"
#include "TaskPolicy.h"
#include "base/Protocol.h"
#include "base/VeskBase.h"

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <functional>
#include <memory>

namespace VESK {
namespace host {

// The whole TaskParam must arrive within this time, and be at most this long.
constexpr int kTaskParamTimeoutMs = 10000;
constexpr quint32 kMaxTaskParamBytes = 64 * 1024;
// The message number of a task's parameters.
constexpr quint32 kTaskParamMessage = protocol::kTaskParam;

// Refusal reasons of the checks, sent as the acknowledgement's errorType.
extern const char* const kReadOnly;
extern const char* const kTransferInProgress;
extern const char* const kPartialFileName;
extern const char* const kTaskParamTooLarge;
extern const char* const kPathLeavesApplication;

// What a task may claim, from the server's options.
struct TaskLimits {
    qint64 maxFileSize = 0; // bytes an upload may have; 0: no limit
    int minFreePercent = 1; // of its file system, left free after an upload
};

// Everything the checks need to know about the server and the connection.
struct VettingContext {
    QString mount;    // absolute
    QString appTable; // the handler's "appPath"
    TaskPolicy policy;
    TaskLimits limits;
};

struct VettedTask {
    QString refusal;        // the errorType to refuse with; "" when the handler may run the task
    ParamMap params;        // the task, as the handler will see it
    bool rewritten = false; // params differ from what the peer sent (the user was put in)
    QString appDir;         // the directory of the task's application, when it names one
    QString destination;    // an upload's destination file, and where it is received first
    QString partial;
    QStringList paths; // what the operation will touch, joined as the handler joins them
};

// Whether `op` names one of the operations a handler performs.
bool isOperation(const QString& op);
// Whether a peer's task sets a key only the host may set (the handler refuses such a task).
bool claimsHostOnlyKey(const ParamMap& params);

// The checks that need no lock: the connection's rights, reserved names, an upload's size
// against the limits and the free space. Tasks the handler refuses by itself (an unknown
// operator, a key only the host may set, an application the server does not have) pass
// unchanged, so that they are answered exactly as before.
VettedTask vetTask(const ParamMap& params, const VettingContext& context);

// The result of reading and checking one task on a connection.
struct Admission {
    enum class Kind {
        Run,    // hand `frame` to the handler
        Refuse, // answer with `refusal` in the acknowledgement, do not run the handler
        Drop,   // no usable TaskParam came; close the connection (`reason` says why)
    };
    Kind kind = Kind::Drop;
    QString refusal;
    QString reason;
    quint32 number = 0;
    QByteArray frame;
    VettedTask task;
    // An upload's partial file, locked until this goes: keep it until the task has ended.
    std::unique_ptr<PartialFile> partialFile;
};

// What the server does besides the checks: `warn` hears of a resume from another source;
// `endIdleHolder` is asked when another task holds an upload's partial file, and returns true
// when it made that holder let go because it no longer receives anything (its client died, say),
// so that the same command run again after a crash resumes instead of being refused.
struct AdmissionHooks {
    std::function<void(const QString&)> warn;
    std::function<bool(const QString& partial)> endIdleHolder;
    // Keeps the thread that will run the task inside the application's directory `dir`; false,
    // with the reason in `error`, when a path leaves it or the thread could not be confined.
    std::function<bool(const QString& dir, const QStringList& paths, QString* error)> confine;
};

// Reads the TaskParam from `socket` and decides.
Admission admitTask(int socket, const VettingContext& context, const AdmissionHooks& hooks);

} // namespace host
} // namespace VESK
