#pragma once

// Turning what a handler reports (getLastError(), its error log, a refusal's errorType) into
// one sentence a user can act on, and the server's side of the same: which refusal to send when
// a handler gave up before it answered the client at all.

#include "Url.h"

#include <QStringList>

namespace VESK {
namespace host {

// Refusal reasons the server host sends in a TaskParamAck of its own (see preAckRefusal).
extern const char* const kUnknownApplication;
extern const char* const kDirNotExist;
extern const char* const kCreateDirFailed;
extern const char* const kServerFileError;
extern const char* const kUnknownOperator;
extern const char* const kBadTaskParam;

struct ClientFailure {
    QString op;         // "upload", "download", "list" or "createDir"
    VeskUrl url;        // what the user named on the server
    QString localPath;  // the local file (upload) or the destination file (download)
    QString lastError;  // the handler's getLastError()
    QStringList errors; // the handler's error log, oldest first
};

// One sentence for a failed client task.
QString clientFailureSentence(const ClientFailure& failure);

// One sentence for a refusal, at the host hello or in the task's acknowledgement.
QString refusalSentence(const QString& errorType, const VeskUrl& url, const QString& op);

// When a server handler failed before it sent its TaskParamAck, the client is still waiting for
// one. Returns the errorType to refuse with, or "" when the handler did answer (or the client
// is no longer listening). `errors` is the handler's error log of the task.
QString preAckRefusal(const QStringList& errors);

} // namespace host
} // namespace VESK
