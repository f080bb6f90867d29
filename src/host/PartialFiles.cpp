#include "PartialFiles.h"

#include <QDateTime>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QMap>
#include <QStringList>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace VESK {
namespace host {

namespace {

const char* const kSourceAttribute = "user.vesk.source";
const char* const kPartialSuffix = ".vesk-part";

QByteArray native(const QString& path) {
    return QFile::encodeName(path);
}

// True when `fd` is still the file at `path`: a lock taken on a file another task removed in
// the meantime protects nothing.
bool stillAt(int fd, const QString& path) {
    struct stat opened, named;
    if (::fstat(fd, &opened) != 0 || ::lstat(native(path).constData(), &named) != 0)
        return false;
    return opened.st_dev == named.st_dev && opened.st_ino == named.st_ino;
}

} // namespace

QString sourceIdentity(qint64 fileSize, qint64 mtime, const QString& method,
                       const QString& verifyValue) {
    QString identity = QString("size=%1 mtime=%2").arg(fileSize).arg(mtime);
    if (method != QLatin1String("false") && !method.isEmpty())
        identity += QString(" %1=%2").arg(method, verifyValue);
    return identity;
}

namespace {

// "size=1 mtime=2 xxh3=ab" as its facts.
QMap<QString, QString> sourceFacts(const QString& identity) {
    QMap<QString, QString> facts;
    for (const QString& fact : identity.split(' ', Qt::SkipEmptyParts)) {
        const int equals = fact.indexOf('=');
        if (equals > 0)
            facts.insert(fact.left(equals), fact.mid(equals + 1));
    }
    return facts;
}

QString sourceText(const QMap<QString, QString>& facts) {
    // Size and time first, as sourceIdentity writes them; then the verify values.
    QStringList parts{"size=" + facts.value("size"), "mtime=" + facts.value("mtime")};
    for (auto it = facts.constBegin(); it != facts.constEnd(); ++it) {
        if (it.key() != QLatin1String("size") && it.key() != QLatin1String("mtime"))
            parts << it.key() + '=' + it.value();
    }
    return parts.join(' ');
}

} // namespace

bool sameSource(const QString& recorded, const QString& identity) {
    const QMap<QString, QString> a = sourceFacts(recorded);
    const QMap<QString, QString> b = sourceFacts(identity);
    if (!a.contains("size") || a.value("size") != b.value("size") ||
        a.value("mtime") != b.value("mtime"))
        return false;
    for (auto it = a.constBegin(); it != a.constEnd(); ++it) {
        if (b.contains(it.key()) && b.value(it.key()) != it.value())
            return false;
    }
    return true;
}

QString mergedSource(const QString& recorded, const QString& identity) {
    QMap<QString, QString> facts = sourceFacts(recorded);
    const QMap<QString, QString> newer = sourceFacts(identity);
    for (auto it = newer.constBegin(); it != newer.constEnd(); ++it)
        facts.insert(it.key(), it.value());
    return sourceText(facts);
}

PartialFile::PartialFile(const QString& path, int fd, bool created)
    : m_path(path)
    , m_fd(fd)
    , m_created(created) {}

PartialFile::~PartialFile() {
    // A partial file this task created and never wrote (the data did not have to move, or the
    // task ended early) is not left behind; one that now holds the installed file was renamed.
    struct stat info;
    const bool here = stillAt(m_fd, m_path);
    if (m_created && ::fstat(m_fd, &info) == 0 && info.st_size == 0 && here)
        ::unlink(native(m_path).constData());
    // Installed (renamed to its destination): the file is the user's now, without our record.
    if (!here)
        ::fremovexattr(m_fd, kSourceAttribute);
    ::close(m_fd); // also releases the lock
}

PartialFile::Outcome PartialFile::acquire(const QString& path, std::unique_ptr<PartialFile>& out,
                                          QString* error) {
    const QByteArray name = native(path);
    for (int attempt = 0; attempt < 8; ++attempt) {
        bool created = false;
        int fd = ::open(name.constData(), O_RDWR | O_NOFOLLOW | O_CLOEXEC);
        if (fd < 0 && errno == ENOENT) {
            fd = ::open(name.constData(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
            created = fd >= 0;
            if (fd < 0 && errno == EEXIST)
                continue; // another task created it just now
        }
        if (fd < 0) {
            if (error)
                *error = QString("cannot open %1: %2")
                             .arg(path, QString::fromLocal8Bit(std::strerror(errno)));
            return Outcome::Failed;
        }
        struct stat info;
        if (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
            ::close(fd);
            if (error)
                *error = QString("%1 is not a regular file").arg(path);
            return Outcome::Failed;
        }
        if (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
            const int lockError = errno;
            ::close(fd);
            if (lockError == EWOULDBLOCK)
                return Outcome::Busy;
            if (error)
                *error = QString("cannot lock %1: %2")
                             .arg(path, QString::fromLocal8Bit(std::strerror(lockError)));
            return Outcome::Failed;
        }
        // The holder before us may have removed (or installed) the file between our open and
        // our lock: then the lock is on a file nobody else will open again; take the new one.
        if (!stillAt(fd, path)) {
            ::close(fd);
            continue;
        }
        out.reset(new PartialFile(path, fd, created));
        return Outcome::Locked;
    }
    if (error)
        *error = QString("%1 keeps changing").arg(path);
    return Outcome::Failed;
}

qint64 PartialFile::size() const {
    struct stat info;
    return ::fstat(m_fd, &info) == 0 ? qint64(info.st_size) : 0;
}

QString PartialFile::recordedSource() const {
    char value[1024];
    const ssize_t n = ::fgetxattr(m_fd, kSourceAttribute, value, sizeof value);
    return n > 0 ? QString::fromUtf8(value, int(n)) : QString();
}

bool PartialFile::canRecordSource() const {
    char value[1];
    return ::fgetxattr(m_fd, kSourceAttribute, value, 0) >= 0 || errno != ENOTSUP;
}

bool PartialFile::recordSource(const QString& identity) {
    const QByteArray value = identity.toUtf8();
    return ::fsetxattr(m_fd, kSourceAttribute, value.constData(), size_t(value.size()), 0) == 0;
}

bool PartialFile::clear() {
    return ::ftruncate(m_fd, 0) == 0;
}

int removeStalePartialFiles(const QString& dir, qint64 ttlSeconds) {
    if (ttlSeconds <= 0)
        return 0;
    const qint64 oldest = QDateTime::currentSecsSinceEpoch() - ttlSeconds;
    int removed = 0;
    QDirIterator it(dir, {QString(".*") + kPartialSuffix},
                    QDir::Files | QDir::Hidden | QDir::System, QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QString path = it.next();
        // Taken the way a transfer takes it, so a file in use is never removed, and a transfer
        // that comes after the removal finds the file gone and starts a new one.
        const int fd = ::open(native(path).constData(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
        if (fd < 0)
            continue;
        struct stat info;
        if (::flock(fd, LOCK_EX | LOCK_NB) == 0 && ::fstat(fd, &info) == 0 &&
            S_ISREG(info.st_mode) && qint64(info.st_mtim.tv_sec) < oldest && stillAt(fd, path) &&
            ::unlink(native(path).constData()) == 0)
            ++removed;
        ::close(fd);
    }
    return removed;
}

} // namespace host
} // namespace VESK
