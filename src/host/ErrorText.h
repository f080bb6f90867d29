#pragma once

// Turning the outcome of a task (TaskOutcome.h) or a refusal's errorType into one sentence a
// user can act on, and the server's side of the same: the reason on its summary line.

#include "TaskOutcome.h"
#include "Url.h"

namespace VESK {
namespace host {

// Refusal reasons the server host sends in a TaskParamAck of its own, for a handler that gave up
// before it answered (Failure::Unanswered).
extern const char* const kUnknownApplication;
extern const char* const kDirNotExist;
extern const char* const kCreateDirFailed;
extern const char* const kServerFileError;
extern const char* const kUnknownOperator;
extern const char* const kBadTaskParam;

// One sentence for a client task `op` on `url` whose outcome is a failure.
QString clientFailureSentence(const QString& op, const VeskUrl& url, const TaskOutcome& outcome);

// One sentence for a refusal, at the host hello or in the task's acknowledgement.
QString refusalSentence(const QString& errorType, const VeskUrl& url, const QString& op);

// The reason the server's summary line gives for a task `op` whose outcome is a failure.
QString servedFailureReason(const QString& op, const TaskOutcome& outcome);

} // namespace host
} // namespace VESK
