#include "ErrorText.h"

#include "HostHello.h"
#include "TaskVetting.h"

namespace VESK {
namespace host {

const char* const kUnknownApplication = "UnknownApplication";
const char* const kDirNotExist = "DirNotExist";
const char* const kCreateDirFailed = "CreateDirFailed";
const char* const kServerFileError = "ServerFileError";
const char* const kUnknownOperator = "UnknownOperator";
const char* const kBadTaskParam = "BadTaskParam";

namespace {

QString remoteName(const VeskUrl& url) {
    return url.path.isEmpty() ? QStringLiteral("/") : url.path;
}

// What the handler said last, for a failure no signal names.
QString quotedFailure(const TaskOutcome& o) {
    const QString said = o.quoted.simplified();
    return said.isEmpty() ? QString("the task failed without an error message")
                          : QString("the task failed: %1").arg(said);
}

// A failure on the client's own disk, or "".
QString localProblem(const QString& op, const TaskOutcome& o) {
    switch (o.failure) {
    case Failure::LocalDiskFull:
        return QString("the local disk is full: cannot write %1 (the part received stays beside "
                       "it; free some space and run the same command again)")
            .arg(o.path);
    case Failure::LocalFileMissing:
        return QString("no such local file: %1").arg(o.path);
    case Failure::LocalUnreadable:
        return QString("cannot read %1 to compute its verify value").arg(o.path);
    case Failure::LocalDirectory:
        return QString("cannot create the local directory %1").arg(o.path);
    case Failure::LocalOpen:
        return op == QLatin1String("upload") ? QString("cannot open the local file %1").arg(o.path)
                                             : QString("cannot write next to %1").arg(o.path);
    case Failure::StalePartial:
        return QString("cannot remove the stale partial file %1").arg(o.path);
    case Failure::LocalReplace:
        return QString("cannot replace the existing local file %1").arg(o.path);
    case Failure::LocalPlace:
        return QString("cannot move the downloaded file into place at %1").arg(o.path);
    default:
        return QString();
    }
}

// A failure of the conversation with the server, or "".
QString conversationProblem(const VeskUrl& url, const TaskOutcome& o) {
    switch (o.failure) {
    case Failure::ImpossibleOffset:
        return QString("the server offered an impossible resume offset; run the command again "
                       "with --replace");
    case Failure::BrokeOff:
        // The client cannot tell a network failure from a server that gave up (a full disk
        // ends the transfer the same way), so it promises a resume only for the first.
        return QString("the transfer broke off: the connection failed or the server ended it "
                       "(its log says why, for example a full disk). The part already moved "
                       "stays; once the cause is gone the same command resumes from it");
    case Failure::NoAnswer:
        return QString("the server ended the task without an answer (see the server's log)");
    case Failure::ListingBrokeOff:
        return QString("the listing broke off: the server ended the task (see the server's log)");
    case Failure::NotConfirmed:
        // All data was sent; the server ended the task instead of confirming it.
        return QString("the server could not store %1: it received the data but did not "
                       "confirm it (its log says why, for example a full disk)")
            .arg(remoteName(url));
    case Failure::ConnectionBroke:
        return QString("the connection to the server broke; run the same command again");
    default:
        return QString();
    }
}

} // namespace

QString refusalSentence(const QString& errorType, const VeskUrl& url, const QString& op) {
    if (errorType == QLatin1String("FileNotExist"))
        return QString("no such file on the server: %1").arg(remoteName(url));
    if (errorType == QLatin1String(kDirNotExist))
        return QString("no such directory on the server: %1").arg(remoteName(url));
    if (errorType == QLatin1String(kUnknownApplication))
        return QString("server refused: unknown application '%1'").arg(url.appKey);
    if (errorType == QLatin1String(kCreateDirFailed))
        return QString("the server could not create %1 (see the server's log)")
            .arg(remoteName(url));
    if (errorType == QLatin1String(kServerFileError))
        return QString("the server could not prepare %1 (see the server's log)")
            .arg(remoteName(url));
    if (errorType == QLatin1String(kReadOnly))
        return QString("server refused: application '%1' is read-only for this user")
            .arg(url.appKey);
    if (errorType == QLatin1String(kUnknownOperator))
        return QString("server refused: it does not know the operation '%1'").arg(op);
    if (errorType == QLatin1String(kBadTaskParam))
        return QString("server refused the task's parameters");
    if (errorType == QLatin1String(kTooManyConnections))
        return QString("server refused: it is serving as many connections as it allows; try "
                       "again later");
    if (errorType == QLatin1String(kTooManyFromAddress))
        return QString("server refused: this address already has as many connections as it "
                       "allows; try again later");
    if (errorType == QLatin1String(kTooManyFailures))
        return QString("server refused: too many failed authentications from this address; "
                       "try again in a minute");
    if (errorType == QLatin1String(kAuthenticationFailed))
        return QString("authentication failed: check the user name in the URL and the secret");
    if (errorType == QLatin1String(kUnsupportedProtocol) ||
        errorType == QLatin1String(kUnsupportedVersion))
        return QString("server refused: it does not speak this client's protocol version");
    if (errorType == QLatin1String(kServerStopping))
        return QString("server refused: it is shutting down; try again later");
    if (errorType.isEmpty())
        return QString("server refused the task without giving a reason");
    return QString("server refused: %1").arg(errorType);
}

QString clientFailureSentence(const QString& op, const VeskUrl& url, const TaskOutcome& o) {
    if (o.kind == Outcome::VerifyFailed)
        return QString("verification failed: the copy differs from the original and its partial "
                       "data was removed; run the same command again");
    if (o.failure == Failure::Refused)
        return refusalSentence(o.errorType, url, op);
    QString sentence = localProblem(op, o);
    if (sentence.isEmpty())
        sentence = conversationProblem(url, o);
    return sentence.isEmpty() ? quotedFailure(o) : sentence;
}

QString servedFailureReason(const QString& op, const TaskOutcome& o) {
    if (o.kind == Outcome::VerifyFailed)
        return QString("verification failed: the copy differs from its source");
    switch (o.failure) {
    case Failure::NoTask:
        return QString("the first message was not a TaskParam");
    case Failure::ConnectionBroke:
        return QString("the connection to the client broke");
    case Failure::LocalFileMissing:
        return QString("no such file: %1").arg(o.path);
    case Failure::Refused:
        return QString("the task was refused");
    case Failure::ListingLimit:
        return VeskBase::listingStoppedText(o.size);
    case Failure::ListingBrokeOff:
        return QString("the listing broke off: the connection failed");
    case Failure::LocalOpen:
        return op == QLatin1String("upload")
                   ? QString("cannot create or open the partial file %1").arg(o.path)
                   : QString("cannot open %1").arg(o.path);
    case Failure::LocalDiskFull:
        return QString("the disk is full: cannot write %1").arg(o.path);
    case Failure::BrokeOff:
        return QString("the transfer broke off at %1 of %2 bytes")
            .arg(QString::number(o.done), QString::number(o.size));
    case Failure::LocalPlace:
        return QString("cannot put the received file in place at %1").arg(o.path);
    case Failure::NotConfirmed:
        return QString("the client did not confirm its copy");
    default:
        return o.quoted.simplified();
    }
}

} // namespace host
} // namespace VESK
