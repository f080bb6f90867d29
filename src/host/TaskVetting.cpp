#include "TaskVetting.h"

#include "ErrorText.h"
#include "base/Wire.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QFileInfo>
#include <QStorageInfo>
#include <QThread>

namespace VESK {
namespace host {

const char* const kReadOnly = "read-only";
const char* const kTransferInProgress = "another transfer of this file is in progress";
const char* const kPartialFileName =
    "names ending in .vesk-part are the server's partial files and cannot be used";
const char* const kTaskParamTooLarge = "the task's parameters are larger than 64 KiB";
const char* const kPathLeavesApplication = "the path leads outside the application's directory";

namespace {

// How long a task whose partial file was taken over has to end.
constexpr int kHolderEndMs = 5000;

const QStringList kOperations{"upload", "download", "list", "createDir"};
const QStringList kPathKeys{"rootPath", "destPath", "srcPath", "fileName"};

bool namesPartialFile(const ParamMap& params) {
    for (const QString& key : kPathKeys) {
        for (const QString& part : params.value(key).split('/', Qt::SkipEmptyParts)) {
            if (part.endsWith(QLatin1String(".vesk-part")))
                return true;
        }
    }
    return false;
}

// The closest directory at or above `path` that exists, for the free space it is on.
QString existingAncestor(QString path) {
    while (!path.isEmpty() && !QFileInfo(path).isDir()) {
        const QString up = QFileInfo(path).path();
        if (up == path)
            break;
        path = up;
    }
    return path;
}

// Why an upload of `fileSize` bytes into `partial` does not fit, or "".
QString sizeRefusal(qint64 fileSize, const QString& partial, bool resume,
                    const TaskLimits& limits) {
    if (limits.maxFileSize > 0 && fileSize > limits.maxFileSize)
        return QString("the file is larger than the server accepts (%1 bytes at most)")
            .arg(limits.maxFileSize);
    const QStorageInfo storage(existingAncestor(QFileInfo(partial).path()));
    if (!storage.isValid())
        return QString();
    const qint64 have = resume ? QFileInfo(partial).size() : 0;
    const qint64 needed = std::max<qint64>(0, fileSize - std::min(have, fileSize));
    const qint64 keep = storage.bytesTotal() / 100 * limits.minFreePercent;
    if (storage.bytesAvailable() - needed < keep)
        return QString("not enough free space on the server for %1 bytes").arg(fileSize);
    return QString();
}

} // namespace

bool isOperation(const QString& op) {
    return kOperations.contains(op);
}

bool claimsHostOnlyKey(const ParamMap& params) {
    for (const QString& key : VeskBase::hostOnlyKeys()) {
        if (params.contains(key))
            return true;
    }
    return false;
}

VettedTask vetTask(const ParamMap& params, const VettingContext& context) {
    VettedTask task;
    task.params = params;
    const QString op = params.value("operator");
    if (claimsHostOnlyKey(params) || !isOperation(op))
        return task;

    const QString appKey = params.value("appKey");
    if (!context.policy.mayReach(appKey)) {
        task.refusal = kUnknownApplication;
        return task;
    }
    if (!context.policy.user.isEmpty() && params.value("userName") != context.policy.user) {
        task.params.insert("userName", context.policy.user);
        task.rewritten = true;
    }
    if (namesPartialFile(params)) {
        task.refusal = kPartialFileName;
        return task;
    }
    const bool writes = op == QLatin1String("upload") || op == QLatin1String("createDir");
    if (writes && !context.policy.mayWrite(appKey)) {
        task.refusal = kReadOnly;
        return task;
    }
    const QString appPath = VeskBase::appDirFromTable(context.appTable, appKey);
    if (appPath.isEmpty())
        return task;
    // Joined exactly as the handler joins them, so the checks are about the files it will use.
    task.appDir = VeskBase::pathJoin(context.mount, appPath);
    const QString root = VeskBase::pathJoin(task.appDir, params.value("rootPath"));
    if (op == QLatin1String("download")) {
        task.paths << VeskBase::pathJoin(VeskBase::pathJoin(root, params.value("srcPath")),
                                         params.value("fileName"));
        return task;
    }
    if (op == QLatin1String("list")) {
        task.paths << VeskBase::pathJoin(root, params.value("srcPath"));
        return task;
    }
    if (op == QLatin1String("createDir")) {
        task.paths << VeskBase::pathJoin(root, params.value("destPath"));
        return task;
    }
    task.destination = VeskBase::pathJoin(VeskBase::pathJoin(root, params.value("destPath")),
                                          params.value("fileName"));
    task.partial = VeskBase::tmpFilePathFor(task.destination);
    task.paths << QFileInfo(task.destination).path() << task.destination << task.partial;
    const qint64 fileSize = params.value("fileSize", "-1").toLongLong();
    task.refusal =
        sizeRefusal(fileSize, task.partial, params.value("bReplace") != "true", context.limits);
    return task;
}

namespace {

// Takes the upload's partial file for this task and makes sure what it holds is from the same
// source; "" on success, else the refusal.
QString claimPartialFile(Admission& admission, const AdmissionHooks& hooks) {
    const auto warn = [&hooks](const QString& text) {
        if (hooks.warn)
            hooks.warn(text);
    };
    const VettedTask& task = admission.task;
    // The directory is created now rather than by the handler after its answer, so that there
    // is a partial file to lock; the handler applies the directory mode to it as before.
    const QString dir = QFileInfo(task.partial).path();
    if (!QDir().mkpath(dir) || !QFileInfo(dir).isDir()) {
        warn(QString("cannot create %1").arg(dir));
        return kServerFileError;
    }
    QString error;
    PartialFile::Outcome outcome =
        PartialFile::acquire(task.partial, admission.partialFile, &error);
    if (outcome == PartialFile::Outcome::Busy && hooks.endIdleHolder &&
        hooks.endIdleHolder(task.partial)) {
        // The holder is ending; its lock goes when its handler has returned.
        QDeadlineTimer released(kHolderEndMs);
        while (outcome == PartialFile::Outcome::Busy && !released.hasExpired()) {
            QThread::msleep(50);
            outcome = PartialFile::acquire(task.partial, admission.partialFile, &error);
        }
    }
    switch (outcome) {
    case PartialFile::Outcome::Busy:
        return kTransferInProgress;
    case PartialFile::Outcome::Failed:
        warn(error);
        return kServerFileError;
    case PartialFile::Outcome::Locked:
        break;
    }
    PartialFile& partial = *admission.partialFile;
    const ParamMap& params = task.params;
    const QString method = params.value("bVerify", "false");
    const QString identity = sourceIdentity(params.value("fileSize", "-1").toLongLong(),
                                            params.value("mtime", "-1").toLongLong(), method,
                                            method != "false" ? params.value("verifyValue") : "");
    const bool replace = params.value("bReplace") == QLatin1String("true");
    const qint64 held = partial.size();
    const QString recorded = partial.canRecordSource() ? partial.recordedSource() : QString();
    const bool otherSource = partial.canRecordSource() && !sameSource(recorded, identity);
    if (held > 0 && (replace || otherSource || held > params.value("fileSize").toLongLong())) {
        // A replace writes from 0 too; anything else would be appended to bytes of another
        // source and installed as one file.
        if (!replace)
            warn(QString("%1 holds %2 bytes of another source; this upload starts again at 0")
                     .arg(task.partial)
                     .arg(held));
        if (!partial.clear()) {
            warn(QString("cannot empty %1").arg(task.partial));
            return kServerFileError;
        }
    }
    // A part that stays is still the recorded source's: keep what was known of it.
    partial.recordSource(held > 0 && !otherSource && !replace ? mergedSource(recorded, identity)
                                                              : identity);
    return QString();
}

} // namespace

Admission admitTask(int socket, const VettingContext& context, const AdmissionHooks& hooks) {
    Admission admission;
    QString error;
    switch (wire::recvFrameWithin(socket, QDeadlineTimer(kTaskParamTimeoutMs), kMaxTaskParamBytes,
                                  admission.number, admission.frame, &error)) {
    case wire::Received::Frame:
        break;
    case wire::Received::TooLong:
        admission.kind = Admission::Kind::Refuse;
        admission.refusal = kTaskParamTooLarge;
        return admission;
    case wire::Received::TimedOut:
        admission.reason =
            QString("no whole TaskParam within %1 s").arg(kTaskParamTimeoutMs / 1000);
        return admission;
    case wire::Received::Failed:
        admission.reason = "no TaskParam: " + error;
        return admission;
    }
    admission.kind = Admission::Kind::Run;
    // Any other message is the handler's to turn down, as it always has.
    if (admission.number != kTaskParamMessage)
        return admission;
    admission.task =
        vetTask(VeskBase::unSerializeParam(QString::fromUtf8(admission.frame)), context);
    QString refusal = admission.task.refusal;
    // Confined before anything is created for the task, so that nothing is created elsewhere.
    QString why;
    if (refusal.isEmpty() && !admission.task.appDir.isEmpty() && hooks.confine &&
        !hooks.confine(admission.task.appDir, admission.task.paths, &why)) {
        if (hooks.warn)
            hooks.warn(why);
        refusal = kPathLeavesApplication;
    }
    if (refusal.isEmpty() && !admission.task.partial.isEmpty())
        refusal = claimPartialFile(admission, hooks);
    if (!refusal.isEmpty()) {
        admission.kind = Admission::Kind::Refuse;
        admission.refusal = refusal;
        admission.partialFile.reset();
        return admission;
    }
    if (admission.task.rewritten)
        admission.frame = VeskBase::serializeParam(admission.task.params).toUtf8();
    return admission;
}

} // namespace host
} // namespace VESK
