#include "Confinement.h"

#include "base/LogFile.h"
#include "base/Verify.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <linux/landlock.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <fcntl.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <ctime>

// Access rights newer than the headers of some build machines; their values are fixed by the
// kernel's ABI.
#ifndef LANDLOCK_ACCESS_FS_REFER
#define LANDLOCK_ACCESS_FS_REFER (1ULL << 13)
#endif
#ifndef LANDLOCK_ACCESS_FS_TRUNCATE
#define LANDLOCK_ACCESS_FS_TRUNCATE (1ULL << 14)
#endif
#ifndef LANDLOCK_ACCESS_FS_IOCTL_DEV
#define LANDLOCK_ACCESS_FS_IOCTL_DEV (1ULL << 15)
#endif

namespace VESK {
namespace host {
namespace confinement {

namespace {

// The first part of struct landlock_ruleset_attr: the kernel accepts a shorter structure from
// an older program, and network rights and scopes are not restricted here.
struct RulesetAttr {
    quint64 handled_access_fs;
};

// Every file-system right the kernel's ABI `abi` knows, as far as this program knows them.
quint64 fileSystemRights(int abi) {
    quint64 rights =
        LANDLOCK_ACCESS_FS_EXECUTE | LANDLOCK_ACCESS_FS_WRITE_FILE | LANDLOCK_ACCESS_FS_READ_FILE |
        LANDLOCK_ACCESS_FS_READ_DIR | LANDLOCK_ACCESS_FS_REMOVE_DIR |
        LANDLOCK_ACCESS_FS_REMOVE_FILE | LANDLOCK_ACCESS_FS_MAKE_CHAR |
        LANDLOCK_ACCESS_FS_MAKE_DIR | LANDLOCK_ACCESS_FS_MAKE_REG | LANDLOCK_ACCESS_FS_MAKE_SOCK |
        LANDLOCK_ACCESS_FS_MAKE_FIFO | LANDLOCK_ACCESS_FS_MAKE_BLOCK | LANDLOCK_ACCESS_FS_MAKE_SYM;
    if (abi >= 2)
        rights |= LANDLOCK_ACCESS_FS_REFER; // renames and links between directories
    if (abi >= 3)
        rights |= LANDLOCK_ACCESS_FS_TRUNCATE;
    if (abi >= 5)
        rights |= LANDLOCK_ACCESS_FS_IOCTL_DEV;
    return rights;
}

QString systemError(const QString& what, int error) {
    return QString("%1: %2").arg(what, QString::fromLocal8Bit(std::strerror(error)));
}

// A descriptor closed when it goes out of scope.
struct Descriptor {
    int fd = -1;
    ~Descriptor() {
        if (fd >= 0)
            ::close(fd);
    }
};

// realpath(3) of `path`, or "" when it cannot be resolved.
QString resolved(const QByteArray& path) {
    char buffer[PATH_MAX];
    if (!::realpath(path.constData(), buffer))
        return QString();
    return QFile::decodeName(buffer);
}

bool isBelowOrEqual(const QString& path, const QString& top) {
    return path == top || path.startsWith(top == QLatin1String("/") ? top : top + '/');
}

// True when `path` resolves inside `realDir` (see pathsStayInside()).
bool staysInside(const QString& realDir, const QString& path) {
    // ".." after a link climbs from where the link leads, not from where it stands: a path that
    // has one is not taken apart by name at all (the handler's own paths never have one).
    if (path.split('/').contains(QStringLiteral("..")))
        return false;
    QString prefix = QDir::cleanPath(QDir(QDir::currentPath()).absoluteFilePath(path));
    bool complete = true;
    for (;;) {
        const QByteArray native = QFile::encodeName(prefix);
        struct stat st {};
        if (::lstat(native.constData(), &st) == 0) {
            // It exists, possibly as a link: followed to its end, which must exist and be inside.
            const QString real = resolved(native);
            if (real.isEmpty() || !isBelowOrEqual(real, realDir))
                return false;
            // What is still to be created goes into a directory that is inside.
            return complete || QFileInfo(real).isDir();
        }
        if (errno != ENOENT)
            return false; // not searchable, or not a directory: not known to stay inside
        const int slash = prefix.lastIndexOf('/');
        if (slash <= 0)
            return false;
        complete = false;
        prefix = prefix.left(slash);
    }
}

} // namespace

int landlockAbi() {
    static const int abi = [] {
        const long version =
            ::syscall(SYS_landlock_create_ruleset, nullptr, 0, LANDLOCK_CREATE_RULESET_VERSION);
        return version > 0 ? int(version) : 0;
    }();
    return abi;
}

QString startupNotice() {
    const int abi = landlockAbi();
    if (abi > 0)
        return QString("vesk: confining each task to its application's directory with Landlock "
                       "ABI %1")
            .arg(abi);
    return QString("vesk: Landlock is not available on this kernel; each task's paths are checked "
                   "against its application's directory before it runs instead (see README, "
                   "Security)");
}

bool confineThreadTo(const QString& dir, const QStringList& keepOpen, QString* error) {
    const int abi = landlockAbi();
    if (abi <= 0) {
        *error = QStringLiteral("Landlock is not available on this kernel");
        return false;
    }
    for (const QString& path : keepOpen) {
        if (!path.isEmpty() && !logfile::keepOpen(path)) {
            *error = systemError(QString("cannot open %1").arg(path), errno);
            return false;
        }
    }
    // What a task may still use that would otherwise be read from outside on its first use:
    // the local time zone (log records) and the digests' configuration (verify values).
    ::tzset();
    verify::prepare();
    Descriptor top;
    top.fd = ::open(QFile::encodeName(dir).constData(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (top.fd < 0) {
        *error = systemError(QString("cannot open the directory %1").arg(dir), errno);
        return false;
    }
    const quint64 rights = fileSystemRights(abi);
    const RulesetAttr attr{rights};
    Descriptor ruleset;
    ruleset.fd = int(::syscall(SYS_landlock_create_ruleset, &attr, sizeof attr, 0));
    if (ruleset.fd < 0) {
        *error = systemError("cannot create a Landlock ruleset", errno);
        return false;
    }
    landlock_path_beneath_attr beneath{};
    beneath.allowed_access = rights;
    beneath.parent_fd = top.fd;
    if (::syscall(SYS_landlock_add_rule, ruleset.fd, LANDLOCK_RULE_PATH_BENEATH, &beneath, 0) !=
        0) {
        *error = systemError(QString("cannot allow %1 in a Landlock ruleset").arg(dir), errno);
        return false;
    }
    // Both calls act on the calling thread only.
    if (::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) {
        *error = systemError("cannot set no-new-privileges", errno);
        return false;
    }
    if (::syscall(SYS_landlock_restrict_self, ruleset.fd, 0) != 0) {
        *error = systemError(QString("cannot confine the thread to %1").arg(dir), errno);
        return false;
    }
    return true;
}

bool pathsStayInside(const QString& dir, const QStringList& paths, QString* offending) {
    const QString realDir = resolved(QFile::encodeName(dir));
    for (const QString& path : paths) {
        if (realDir.isEmpty() || !staysInside(realDir, path)) {
            *offending = path;
            return false;
        }
    }
    return true;
}

bool confineTask(const QString& dir, const QStringList& paths, const QString& logFile,
                 QString* error) {
    QString offending;
    if (!pathsStayInside(dir, paths, &offending)) {
        *error = QString("the path %1 leads outside the application's directory").arg(offending);
        return false;
    }
    if (landlockAbi() <= 0)
        return true;
    return confineThreadTo(dir, {logFile}, error);
}

} // namespace confinement
} // namespace host
} // namespace VESK
