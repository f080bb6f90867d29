#include "ErrorText.h"

#include "HostHello.h"
#include "TaskVetting.h"

#include <QFileInfo>
#include <QRegularExpression>
#include <QStorageInfo>

namespace VESK {
namespace host {

const char* const kUnknownApplication = "UnknownApplication";
const char* const kDirNotExist = "DirNotExist";
const char* const kCreateDirFailed = "CreateDirFailed";
const char* const kServerFileError = "ServerFileError";
const char* const kUnknownOperator = "UnknownOperator";
const char* const kBadTaskParam = "BadTaskParam";

namespace {

// The handler's own failure lines, without its function name: "uploadRequest: file /x not
// exist." matches "file (.*) not exist\\.".
QRegularExpressionMatch matchLine(const QStringList& errors, const QString& pattern) {
    const QRegularExpression re("^\\w+: " + pattern + "$",
                                QRegularExpression::DotMatchesEverythingOption);
    // The last matching line is the one closest to the end of the task.
    for (auto it = errors.crbegin(); it != errors.crend(); ++it) {
        QRegularExpressionMatch match = re.match(*it);
        if (match.hasMatch())
            return match;
    }
    return QRegularExpressionMatch();
}

bool hasLine(const QStringList& errors, const QString& pattern) {
    return matchLine(errors, pattern).hasMatch();
}

QString remoteName(const VeskUrl& url) {
    return url.path.isEmpty() ? QStringLiteral("/") : url.path;
}

// Less free space than this beside a download that broke off: the disk filled up.
constexpr qint64 kNearlyFullBytes = 1024 * 1024;

bool localDiskFull(const QString& path) {
    const QStorageInfo storage(QFileInfo(path).absolutePath());
    return storage.isValid() && storage.bytesAvailable() < kNearlyFullBytes;
}

QString localProblem(const ClientFailure& f) {
    const QStringList& e = f.errors;
    QRegularExpressionMatch m;
    if (f.op == QLatin1String("download") && hasLine(e, "recvfile .* failed\\..*") &&
        localDiskFull(f.localPath))
        return QString("the local disk is full: cannot write %1 (the part received stays beside "
                       "it; free some space and run the same command again)")
            .arg(f.localPath);
    if ((m = matchLine(e, "file (.*) not exist\\.")).hasMatch())
        return QString("no such local file: %1").arg(m.captured(1));
    if (hasLine(e, "calc FileVerifyValue failed\\."))
        return QString("cannot read %1 to compute its verify value").arg(f.localPath);
    if ((m = matchLine(e, "mkdir (.*) failed\\.")).hasMatch())
        return QString("cannot create the local directory %1").arg(m.captured(1));
    if (hasLine(e, "createStream .* failed\\.") || hasLine(e, "getStream .* failed\\."))
        return f.op == QLatin1String("upload")
                   ? QString("cannot open the local file %1").arg(f.localPath)
                   : QString("cannot write next to %1").arg(f.localPath);
    if ((m = matchLine(e, "remove tmp file (.*) failed\\.")).hasMatch())
        return QString("cannot remove the stale partial file %1").arg(m.captured(1));
    if ((m = matchLine(e, "removeFile (.*) failed\\.")).hasMatch())
        return QString("cannot replace the existing local file %1").arg(m.captured(1));
    if ((m = matchLine(e, "rename .* to (.*) failed\\.")).hasMatch())
        return QString("cannot move the downloaded file into place at %1").arg(m.captured(1));
    return QString();
}

QString conversationProblem(const ClientFailure& f) {
    const QStringList& e = f.errors;
    if (hasLine(e, "FileVerifyResult error\\.") || hasLine(e, "FileVerify failed\\."))
        return QString("verification failed: the copy differs from the original and its partial "
                       "data was removed; run the same command again");
    if (hasLine(e, "get offset\\[.*\\] fileSize\\[.*\\] failed\\."))
        return QString("the server offered an impossible resume offset; run the command again "
                       "with --replace");
    if (hasLine(e, "(sendfile|recvfile) .* failed\\..*"))
        // The client cannot tell a network failure from a server that gave up (a full disk
        // ends the transfer the same way), so it promises a resume only for the first.
        return QString("the transfer broke off: the connection failed or the server ended it "
                       "(its log says why, for example a full disk). The part already moved "
                       "stays; once the cause is gone the same command resumes from it");
    if (hasLine(e, "recv TaskParamAck failed\\."))
        return QString("the server ended the task without an answer (see the server's log)");
    if (hasLine(e, "recv ListContent failed\\."))
        return QString("the listing broke off: the server ended the task (see the server's log)");
    if (f.op == QLatin1String("upload") && hasLine(e, "recv (FileVerifyResult|8) failed\\."))
        // All data was sent; the server ended the task instead of confirming it.
        return QString("the server could not store %1: it received the data but did not "
                       "confirm it (its log says why, for example a full disk)")
            .arg(remoteName(f.url));
    if (hasLine(e, "recv (FileVerifyResult|8) failed\\."))
        return QString("the connection broke before the server confirmed %1; run the same "
                       "command again")
            .arg(remoteName(f.url));
    if (hasLine(e, "send .* failed\\."))
        return QString("the connection to the server broke; run the same command again");
    return QString();
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

QString clientFailureSentence(const ClientFailure& f) {
    if (hasLine(f.errors, "TaskParam Nak\\."))
        return refusalSentence(f.lastError, f.url, f.op);
    QString sentence = localProblem(f);
    if (sentence.isEmpty())
        sentence = conversationProblem(f);
    if (!sentence.isEmpty())
        return sentence;
    if (!f.errors.isEmpty())
        return QString("the task failed: %1").arg(f.errors.last().simplified());
    return QString("the task failed without an error message");
}

QString preAckRefusal(const QStringList& errors) {
    // The first failure decides: every line below ends its operation before the handler has
    // answered, and each of these operations answers only on its way to success.
    if (errors.isEmpty())
        return QString();
    const QString& first = errors.first();
    static const struct {
        const char* pattern;
        const char* errorType;
    } rules[] = {
        {"^(upload|download|list|createDir)Respond: get path of app \\[.*\\] failed\\.$",
         kUnknownApplication},
        {"^listRespond: dir .* is not exist\\.$", kDirNotExist},
        {"^createDirRespond: (mkdir|chmodRecursively) .* failed\\.$", kCreateDirFailed},
        {"^uploadRespond: (setParam tmpFilePath|remove tmp file) .* failed\\.$", kServerFileError},
        {"^respond: not found operator \\[.*\\]\\.$", kUnknownOperator},
        {"^respond: TaskParam setParams failed\\.$", kBadTaskParam},
    };
    for (const auto& rule : rules) {
        const QRegularExpression re(QString::fromLatin1(rule.pattern),
                                    QRegularExpression::DotMatchesEverythingOption);
        if (re.match(first).hasMatch())
            return QString::fromLatin1(rule.errorType);
    }
    return QString();
}

} // namespace host
} // namespace VESK
