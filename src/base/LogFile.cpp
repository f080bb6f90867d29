#include "LogFile.h"

#include <QFile>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <map>
#include <mutex>

namespace VESK {
namespace logfile {

namespace {

struct OpenFile {
    int fd = -1;
    dev_t device = 0;
    ino_t inode = 0;
};

// Every open log file, by path. Records are written under the same lock, so a descriptor is
// never closed while another thread writes to it.
std::mutex& registryMutex() {
    static std::mutex mutex;
    return mutex;
}

std::map<QByteArray, OpenFile>& registry() {
    // Never destroyed: handlers may still log while the process exits.
    static auto* files = new std::map<QByteArray, OpenFile>;
    return *files;
}

bool sameFile(const struct stat& st, const OpenFile& file) {
    return st.st_dev == file.device && st.st_ino == file.inode;
}

// The descriptor for `path`, opened or reopened as needed; -1 when there is none. Called with
// the registry locked.
int descriptorFor(const QByteArray& path) {
    auto& files = registry();
    auto it = files.find(path);
    struct stat st {};
    if (it != files.end() && ::stat(path.constData(), &st) == 0 && sameFile(st, it->second))
        return it->second.fd;
    const int fd = ::open(path.constData(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0666);
    if (fd < 0)
        return it != files.end() ? it->second.fd : -1;
    if (::fstat(fd, &st) != 0) {
        ::close(fd);
        return it != files.end() ? it->second.fd : -1;
    }
    if (it != files.end())
        ::close(it->second.fd);
    files[path] = OpenFile{fd, st.st_dev, st.st_ino};
    return fd;
}

} // namespace

bool keepOpen(const QString& path) {
    if (path.isEmpty())
        return false;
    std::lock_guard<std::mutex> lock(registryMutex());
    return descriptorFor(QFile::encodeName(path)) >= 0;
}

bool append(const QString& path, const QByteArray& bytes) {
    std::lock_guard<std::mutex> lock(registryMutex());
    const int fd = descriptorFor(QFile::encodeName(path));
    if (fd < 0)
        return false;
    qint64 done = 0;
    while (done < bytes.size()) {
        const ssize_t n = ::write(fd, bytes.constData() + done, size_t(bytes.size() - done));
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        done += n;
    }
    return true;
}

QString recordText(const QString& message) {
    QString text;
    text.reserve(message.size());
    for (const QChar c : message) {
        const ushort code = c.unicode();
        if (code == '\n')
            text += QLatin1String("\n  ");
        else if (code == '\t' || (code >= 0x20 && code < 0x7f) || code > 0x9f)
            text += c;
        else
            text += QStringLiteral("\\x%1").arg(code, 2, 16, QChar('0'));
    }
    return text;
}

} // namespace logfile
} // namespace VESK
