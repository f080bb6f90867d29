#include "TaskOutcome.h"

#include "ClientSession.h"
#include "ErrorText.h"
#include "TaskVetting.h"
#include "base/Protocol.h"

#include <QFile>
#include <QFileInfo>

#include <sys/statvfs.h>

namespace VESK {
namespace host {

namespace {

using Direction = MessageEvent::Direction;
using Result = MessageEvent::Result;

// Less free space than this beside a file whose data broke off: the disk filled up.
constexpr qint64 kNearlyFullBytes = 1024 * 1024;

// The conversation of one task as the base recorded it; each question is about the last event
// of one message in one direction.
class Conversation {
public:
    explicit Conversation(const QVector<MessageEvent>& events)
        : m_events(events) {}

    bool tried(Direction direction, int number) const { return find(direction, number); }
    bool went(Direction direction, int number) const {
        const MessageEvent* event = find(direction, number);
        return event && event->result == Result::Ok;
    }
    bool failed(Direction direction, int number) const {
        return tried(direction, number) && !went(direction, number);
    }
    bool saidNo(Direction direction, int number) const {
        return went(direction, number) && find(direction, number)->refusal;
    }
    bool endedWith(Direction direction, int number, Result result) const {
        const MessageEvent* event = find(direction, number);
        return event && event->result == result;
    }

private:
    const MessageEvent* find(Direction direction, int number) const {
        for (auto it = m_events.crbegin(); it != m_events.crend(); ++it) {
            if (it->direction == direction && it->number == number)
                return &*it;
        }
        return nullptr;
    }

    const QVector<MessageEvent> m_events;
};

TaskOutcome failed(Failure failure, const QString& path = QString()) {
    TaskOutcome outcome;
    outcome.failure = failure;
    outcome.path = path;
    return outcome;
}

TaskOutcome ended(Outcome kind) {
    TaskOutcome outcome;
    outcome.kind = kind;
    return outcome;
}

TaskOutcome unknown(const QString& quoted) {
    TaskOutcome outcome = failed(Failure::Unknown);
    outcome.quoted = quoted;
    return outcome;
}

bool isCopy(const QString& op) {
    return op == QLatin1String("upload") || op == QLatin1String("download");
}

bool stopWord(const QString& lastError, const char* word) {
    return lastError == QLatin1String(word);
}

// Asked of the directory itself (QStorageInfo would read the mount table first, which a server
// thread confined to its application's directory may not).
bool diskNearlyFull(const QString& path) {
    struct statvfs fs {};
    const QByteArray dir = QFile::encodeName(QFileInfo(path).absolutePath());
    return ::statvfs(dir.constData(), &fs) == 0 &&
           qint64(fs.f_bavail) * qint64(fs.f_frsize) < kNearlyFullBytes;
}

// The bulk step records where it ended, whether it failed or not.
bool dataStepRan(const ParamMap& handlerParams) {
    return !handlerParams.value("transferEndSize").isEmpty();
}

// One copy's data step, seen from the side that names the outcome; `params` are its handler's.
struct Copy {
    Copy(bool receiving, const ParamMap& params, qint64 fileSize)
        : receives(receiving)
        // The handler's own rule: only the exact word turns verification off.
        , verifying(params.value("bVerify") != QLatin1String("false"))
        , ran(dataStepRan(params))
        , reached(params.value("transferEndSize").toLongLong())
        , size(fileSize) {}

    // The receiving side sends the verify result and the closing message, the other receives.
    Direction closing() const { return receives ? Direction::Sent : Direction::Received; }

    bool receives;
    bool verifying;
    bool ran;
    qint64 reached;
    qint64 size;
};

// Whether the side that received the data rejected it in its verify result.
bool copyRejected(const Conversation& talk, const Copy& copy) {
    return talk.saidNo(copy.closing(), protocol::kFileVerifyResult);
}

// Where a copy whose acknowledgement accepted it stopped, in terms both sides share.
enum class CopyStep { BeforeData, DataBrokeOff, Placement, ClosingNotSent, ClosingNotReceived };

CopyStep closingFailed(const Copy& copy) {
    return copy.receives ? CopyStep::ClosingNotSent : CopyStep::ClosingNotReceived;
}

CopyStep failedStep(const Conversation& talk, const Copy& copy) {
    if (!copy.ran)
        return CopyStep::BeforeData;
    const Direction closing = copy.closing();
    const int first = copy.verifying ? protocol::kFileVerifyResult : protocol::kTaskComplete;
    if (!talk.tried(closing, first)) {
        // Nothing followed the data: it stopped part-way, unless the receiving side had all of
        // it and, with no verify result to send first, failed to put the file in place.
        const bool whole = copy.reached >= copy.size;
        return copy.receives && !copy.verifying && whole ? CopyStep::Placement
                                                         : CopyStep::DataBrokeOff;
    }
    if (copy.verifying && talk.failed(closing, protocol::kFileVerifyResult))
        return closingFailed(copy);
    // Verified, and then the receiving side could not put the file in place.
    if (!talk.tried(closing, protocol::kTaskComplete))
        return CopyStep::Placement;
    return closingFailed(copy);
}

TaskOutcome brokeOff(const Copy& copy, const QString& receivedPath) {
    if (copy.receives && diskNearlyFull(receivedPath))
        return failed(Failure::LocalDiskFull, receivedPath);
    TaskOutcome outcome = failed(Failure::BrokeOff);
    outcome.done = copy.reached;
    outcome.size = copy.size;
    return outcome;
}

// ---- Client -----------------------------------------------------------------------------------

QString handlerPath(const ParamMap& params, const char* dirKey) {
    return VeskBase::pathJoin(params.value(QLatin1String(dirKey)), params.value("fileName"));
}

TaskOutcome clientUnknown(const TaskResult& r) {
    return unknown(r.errors.isEmpty() ? QString() : r.errors.last());
}

// Nothing was sent: the handler stopped at the local file it checks first.
TaskOutcome clientLocalFailure(const ClientTask& task, const TaskResult& r) {
    const bool verifying = r.params.value("bVerify") != QLatin1String("false");
    if (task.op == QLatin1String("upload")) {
        const QString source = handlerPath(r.params, "srcPath");
        if (!QFileInfo::exists(source))
            return failed(Failure::LocalFileMissing, source);
        if (verifying)
            return failed(Failure::LocalUnreadable, task.localPath);
    }
    if (task.op == QLatin1String("download") && verifying &&
        QFileInfo::exists(handlerPath(r.params, "destPath")))
        return failed(Failure::LocalUnreadable, task.localPath);
    return clientUnknown(r);
}

TaskOutcome uploadBeforeData(const ClientTask& task, const TaskResult& r) {
    // The server's offer is where the data would have started; the source's size its bound.
    if (r.beginOffset < 0 || r.beginOffset > r.total)
        return failed(Failure::ImpossibleOffset);
    return failed(Failure::LocalOpen, task.localPath);
}

TaskOutcome downloadBeforeData(const ClientTask& task, const TaskResult& r) {
    // The file's size is taken from the answer only once a rejected partial file is gone.
    if (r.offset > r.total)
        return failed(Failure::StalePartial, r.params.value("tmpFilePath"));
    const QString directory = QFileInfo(handlerPath(r.params, "destPath")).path();
    if (!QFileInfo(directory).isDir())
        return failed(Failure::LocalDirectory, directory);
    return failed(Failure::LocalOpen, task.localPath);
}

// A download's client receives the data; the size is what its counter was given.
Copy clientCopy(const ClientTask& task, const TaskResult& r) {
    return Copy(task.op == QLatin1String("download"), r.params, r.total);
}

TaskOutcome clientCopyFailure(const ClientTask& task, const TaskResult& r,
                              const Conversation& talk) {
    const bool upload = task.op == QLatin1String("upload");
    const Copy copy = clientCopy(task, r);
    switch (failedStep(talk, copy)) {
    case CopyStep::BeforeData:
        return upload ? uploadBeforeData(task, r) : downloadBeforeData(task, r);
    case CopyStep::DataBrokeOff:
        return brokeOff(copy, task.localPath);
    case CopyStep::Placement: {
        // The old file goes first; while it is still there, removing it was what failed.
        const QString destination = handlerPath(r.params, "destPath");
        return failed(QFileInfo::exists(destination) ? Failure::LocalReplace : Failure::LocalPlace,
                      destination);
    }
    case CopyStep::ClosingNotSent:
        return failed(Failure::ConnectionBroke);
    case CopyStep::ClosingNotReceived:
        return failed(Failure::NotConfirmed);
    }
    return clientUnknown(r);
}

// A client task that failed without being stopped.
TaskOutcome clientFailure(const ClientTask& task, const TaskResult& r, const Conversation& talk) {
    if (!talk.tried(Direction::Sent, protocol::kTaskParam))
        return clientLocalFailure(task, r);
    if (talk.failed(Direction::Sent, protocol::kTaskParam))
        return failed(Failure::ConnectionBroke);
    if (!talk.went(Direction::Received, protocol::kTaskParamAck))
        return failed(Failure::NoAnswer);
    if (talk.saidNo(Direction::Received, protocol::kTaskParamAck)) {
        TaskOutcome outcome = failed(Failure::Refused);
        outcome.errorType = r.lastError; // the handler keeps the refusal's errorType
        return outcome;
    }
    if (task.op == QLatin1String("list") &&
        talk.failed(Direction::Received, protocol::kListContent))
        return failed(Failure::ListingBrokeOff);
    if (isCopy(task.op))
        return clientCopyFailure(task, r, talk);
    return clientUnknown(r);
}

// ---- Server -----------------------------------------------------------------------------------

// The answer a handler owes when it gave up before its acknowledgement: the first of its own
// checks that fails for this task, made again from the task and the host's tables. "" when none
// is owed.
QString owedRefusal(const ServedTask& t) {
    if (claimsHostOnlyKey(t.asked))
        return kBadTaskParam;
    const QString op = t.asked.value("operator");
    // The handler's way of ending a connection without a task: no answer is expected.
    if (op == QLatin1String("return"))
        return QString();
    if (!isOperation(op))
        return kUnknownOperator;
    if (VeskBase::appDirFromTable(t.params.value("appPath"), t.asked.value("appKey")).isEmpty())
        return kUnknownApplication;
    // What each operation checks before it answers, besides the application.
    if (op == QLatin1String("list"))
        return kDirNotExist;
    if (op == QLatin1String("createDir"))
        return kCreateDirFailed;
    if (op == QLatin1String("upload"))
        return kServerFileError;
    // A download always answers, a missing file with a refusal of its own.
    return QString();
}

TaskOutcome servedUnknown(const ServedTask& t) {
    return unknown(t.firstError.isEmpty() ? t.lastError : t.firstError);
}

// An upload's server receives the data; the size is the one the task carries.
Copy servedCopy(const ServedTask& t) {
    return Copy(t.params.value("operator") == QLatin1String("upload"), t.params,
                t.params.value("fileSize").toLongLong());
}

TaskOutcome servedCopyFailure(const ServedTask& t, const Conversation& talk) {
    const Copy copy = servedCopy(t);
    const bool upload = copy.receives;
    const QString path = t.params.value("path");
    switch (failedStep(talk, copy)) {
    case CopyStep::BeforeData:
        return failed(Failure::LocalOpen, upload ? t.params.value("tmpFilePath") : path);
    case CopyStep::DataBrokeOff:
        return brokeOff(copy, path);
    case CopyStep::Placement:
        return failed(Failure::LocalPlace, path);
    case CopyStep::ClosingNotSent:
        return failed(Failure::ConnectionBroke);
    case CopyStep::ClosingNotReceived:
        return failed(Failure::NotConfirmed);
    }
    return servedUnknown(t);
}

// A served task that failed after its handler answered.
TaskOutcome servedFailure(const ServedTask& t, const Conversation& talk) {
    const QString op = t.params.value("operator");
    if (talk.failed(Direction::Sent, protocol::kTaskParamAck))
        return failed(Failure::ConnectionBroke);
    // The one refusal a handler sends itself: the file to download is not there.
    if (talk.saidNo(Direction::Sent, protocol::kTaskParamAck))
        return op == QLatin1String("download")
                   ? failed(Failure::LocalFileMissing, t.params.value("path"))
                   : failed(Failure::Refused);
    if (op == QLatin1String("list")) {
        if (talk.endedWith(Direction::Sent, protocol::kListContent, Result::OverLimit)) {
            TaskOutcome outcome = failed(Failure::ListingLimit);
            outcome.size = t.listEntryLimit;
            return outcome;
        }
        if (talk.failed(Direction::Sent, protocol::kListContent))
            return failed(Failure::ListingBrokeOff);
    }
    if (isCopy(op))
        return servedCopyFailure(t, talk);
    return servedUnknown(t);
}

} // namespace

TaskOutcome outcomeOf(const ClientTask& task, const TaskResult& r) {
    const Conversation talk(r.messages);
    const bool copy = isCopy(task.op);
    if (r.ok) {
        // A copy the server answered without any data: the destination was already in place.
        if (!copy || !talk.went(Direction::Received, protocol::kTaskParamAck) ||
            dataStepRan(r.params))
            return ended(Outcome::Done);
        return ended(task.ignoreExisting ? Outcome::KeptExisting : Outcome::Identical);
    }
    const bool pause = stopWord(r.lastError, "pause");
    const bool cancel = stopWord(r.lastError, "cancel");
    if (r.stalled && !r.interrupted && pause)
        return ended(Outcome::Stalled);
    if (r.interrupted && (pause || cancel))
        return ended(cancel || r.cancelledAfterPause ? Outcome::Cancelled : Outcome::Interrupted);
    if (copy && copyRejected(talk, clientCopy(task, r)))
        return ended(Outcome::VerifyFailed);
    return clientFailure(task, r, talk);
}

TaskOutcome servedOutcomeOf(const ServedTask& t) {
    if (t.ok)
        return ended(Outcome::Done);
    const Conversation talk(t.messages);
    if (talk.went(Direction::Received, protocol::kTaskParam) &&
        !talk.tried(Direction::Sent, protocol::kTaskParamAck)) {
        // The client still waits for an answer; it is told why instead of being hung up on.
        TaskOutcome outcome = failed(Failure::Unanswered);
        outcome.errorType = owedRefusal(t);
        if (!outcome.errorType.isEmpty())
            return outcome;
    }
    if (stopWord(t.lastError, "pause"))
        return ended(t.slow      ? Outcome::TooSlow
                     : t.stalled ? Outcome::Stalled
                                 : Outcome::Interrupted);
    if (stopWord(t.lastError, "cancel"))
        return ended(Outcome::Cancelled);
    if (!talk.went(Direction::Received, protocol::kTaskParam))
        return failed(Failure::NoTask);
    if (!talk.tried(Direction::Sent, protocol::kTaskParamAck))
        return servedUnknown(t);
    if (isCopy(t.params.value("operator")) && copyRejected(talk, servedCopy(t)))
        return ended(Outcome::VerifyFailed);
    return servedFailure(t, talk);
}

} // namespace host
} // namespace VESK
