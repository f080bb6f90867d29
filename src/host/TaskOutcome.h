#pragma once

// What became of one task, named once from structured signals: the task's parameters (what was
// asked, and what the handler left in its own), getLastError(), the record of the control
// messages the base sent and received, and what this host sees on its own disk. Everything that
// reports a task (the sentences, the exit status, the summary of many tasks, the retry after a
// failed verification, the server's summary line and the refusal it still owes a client) reads
// the same answer from here. The handler's log is never interpreted.

#include "base/VeskBase.h"

#include <QVector>

namespace VESK {
namespace host {

struct ClientTask;
struct TaskResult;

enum class Outcome {
    Done,         // the task did what it was asked (a copy: the data was sent and verified)
    Identical,    // a copy whose destination was already identical: nothing was sent
    KeptExisting, // a copy whose existing destination was kept by name (--ignore-existing)
    Interrupted,  // stopped by Ctrl-C or SIGTERM (the server: paused); a partial file stays
    Cancelled,    // stopped by a second Ctrl-C; a download's partial file is gone
    Stalled,      // stopped because the other side made no progress for the stall timeout
    TooSlow,      // the server: paused because the task moved less than the minimum rate
    VerifyFailed, // the copy did not match its source and was removed
    Failed,       // anything else; `failure` says where it stopped
};

// Where a failed task stopped. "Local" is the side that names the outcome: the client's disk
// for a client task, the server's for a task it served.
enum class Failure {
    None,
    Refused,          // the acknowledgement refused the task (errorType)
    Unanswered,       // server: the handler gave up before it answered; errorType is owed
    NoTask,           // server: the first message was not a task
    LocalFileMissing, // the file to send is not there (path)
    LocalUnreadable,  // the local file could not be read for its verify value (path)
    LocalDirectory,   // the local directory for the file could not be created (path)
    LocalOpen,        // the local file could not be opened for the transfer (path)
    StalePartial,     // a partial file the other side rejected could not be removed (path)
    LocalReplace,     // the existing destination could not be removed for the new copy (path)
    LocalPlace,       // the received file could not be put in place (path)
    LocalDiskFull,    // receiving broke off with the local disk full (path)
    ImpossibleOffset, // the server offered to resume outside the file
    BrokeOff,         // the data stopped part-way (done of size bytes)
    NoAnswer,         // client: the server ended the task without acknowledging it
    ListingLimit,     // server: the listing had more entries than allowed (size: the limit)
    ListingBrokeOff,  // the listing's chunks stopped coming, or could not be sent
    NotConfirmed,     // all data moved but the other side never confirmed the copy
    ConnectionBroke,  // a message could not be sent
    Unknown,          // none of the above
};

struct TaskOutcome {
    Outcome kind = Outcome::Failed;
    Failure failure = Failure::None;
    QString path;      // the file or directory the failure is about
    QString errorType; // Refused and Unanswered: the refusal's reason
    qint64 done = 0;   // BrokeOff: bytes the transfer reached; ListingLimit: unused
    qint64 size = 0;   // BrokeOff: the file's size; ListingLimit: the limit
    // Unknown only: the handler's own words, shown as they are, never looked into.
    QString quoted;
};

// Names the outcome of a client task that ran.
TaskOutcome outcomeOf(const ClientTask& task, const TaskResult& result);

// What the server host knows of one task once its handler returned.
struct ServedTask {
    bool ok = false;
    QString lastError;
    QVector<MessageEvent> messages;
    ParamMap asked;  // the TaskParam as the peer sent it (empty when it sent something else)
    ParamMap params; // the handler's parameters after the task
    bool stalled = false;
    bool slow = false;
    qint64 listEntryLimit = 0;
    QString firstError; // quoted for Failure::Unknown only
};

// Names the outcome of a task the server ran.
TaskOutcome servedOutcomeOf(const ServedTask& task);

// Whether the outcome leaves the destination as the user wanted it.
inline bool succeeded(Outcome outcome) {
    return outcome == Outcome::Done || outcome == Outcome::Identical ||
           outcome == Outcome::KeptExisting;
}

} // namespace host
} // namespace VESK
