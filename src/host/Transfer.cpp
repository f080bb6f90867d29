#include "Transfer.h"

#include "base/Verify.h"

#include <QDir>
#include <QFile>

#include <udt/udt.h>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace VESK {
namespace host {

namespace {

// UDT's packets carry the MSS less the IP and UDP headers (28 bytes) and its own (16 bytes).
constexpr int kPacketOverhead = 28 + 16;

} // namespace

void keepVerifiedValue(const QString& path, const QString& method) {
    if (!path.isEmpty() && !method.isEmpty() && method != QLatin1String("false"))
        verify::adoptKeptValue(path, method);
}

qint64 unacknowledgedBytes(int socket) {
    int packets = 0;
    int len = sizeof packets;
    int mss = 0;
    int mssLen = sizeof mss;
    if (UDT::getsockopt(socket, 0, UDT_SNDDATA, &packets, &len) == UDT::ERROR ||
        UDT::getsockopt(socket, 0, UDT_MSS, &mss, &mssLen) == UDT::ERROR || packets <= 0 ||
        mss <= kPacketOverhead)
        return 0;
    return qint64(packets) * (mss - kPacketOverhead);
}

PartialFileLock::PartialFileLock(const QString& partialPath)
    : m_path(partialPath) {
    const QByteArray native = QFile::encodeName(partialPath);
    m_fd = ::open(native.constData(), O_RDWR | O_CLOEXEC);
    if (m_fd < 0 && errno == ENOENT) {
        m_fd = ::open(native.constData(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
        m_created = m_fd >= 0;
    }
    if (m_fd < 0) {
        m_error = QString::fromLocal8Bit(std::strerror(errno));
        return;
    }
    if (::flock(m_fd, LOCK_EX | LOCK_NB) != 0) {
        const int error = errno;
        ::close(m_fd);
        m_fd = -1;
        // Created by us a moment ago and locked by another: the other holder now uses it.
        m_created = false;
        if (error == EWOULDBLOCK) {
            m_state = State::Busy;
            return;
        }
        m_error = QString::fromLocal8Bit(std::strerror(error));
        return;
    }
    m_state = State::Held;
}

PartialFileLock::~PartialFileLock() {
    if (m_fd < 0)
        return;
    // Still the same, empty file at that path: nothing was received into it.
    struct stat held {};
    struct stat named {};
    if (m_created && ::fstat(m_fd, &held) == 0 && held.st_size == 0 &&
        ::stat(QFile::encodeName(m_path).constData(), &named) == 0 && named.st_ino == held.st_ino &&
        named.st_dev == held.st_dev)
        ::unlink(QFile::encodeName(m_path).constData());
    ::close(m_fd);
}

bool PartialFileLock::truncate() {
    return m_fd >= 0 && ::ftruncate(m_fd, 0) == 0;
}

QString lockPartialFile(std::unique_ptr<PartialFileLock>& lock, const QString& localDir,
                        const QString& partial, bool replace, const QString& shown) {
    lock.reset();
    QDir().mkpath(localDir);
    lock = std::make_unique<PartialFileLock>(partial);
    if (lock->state() == PartialFileLock::State::Busy)
        return QString("another transfer of this file is in progress: %1").arg(shown);
    if (lock->state() == PartialFileLock::State::Failed)
        return QString("cannot create the partial file %1: %2").arg(partial, lock->error());
    if (replace && !lock->truncate())
        return QString("cannot empty the partial file %1").arg(partial);
    return QString();
}

} // namespace host
} // namespace VESK
