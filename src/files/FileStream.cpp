#include "handler/VeskHandler2_0_0.h"

#include <QDateTime>
#include <QFile>
#include <QMutexLocker>

#include <ext/stdio_filebuf.h>

#include <cerrno>
#include <cstdio>
#include <unistd.h>

namespace VESK {

namespace {

// libstdc++ moves a request larger than the buffer straight between the file and the caller.
// Writing: this buffer batches the small per-packet writes that UDT's recvfile makes on links with
// a small MTU. Reading: UDT's sendfile reads one packet's payload at a time (about 64 KB on
// loopback), so a buffer smaller than that spares a copy of every byte there and still batches
// the reads of 1,456 bytes on an Ethernet path.
constexpr size_t kWriteBufferBytes = 1024 * 1024;
constexpr size_t kReadBufferBytes = 32 * 1024;

// UDT's sendfile/recvfile take a std::fstream&, and libstdc++ has no fstream constructor from a
// FILE*. This stream reads and writes through a stdio_filebuf over the FILE* instead of its own
// file buffer, and owns the FILE: closing the stream closes the duplicated descriptor.
class DescriptorStream : public std::fstream {
public:
    DescriptorStream(FILE* file, std::ios_base::openmode mode)
        : m_file(file)
        , m_buffer(file, mode, (mode & std::ios::out) ? kWriteBufferBytes : kReadBufferBytes) {
        std::basic_ios<char>::rdbuf(&m_buffer);
    }
    ~DescriptorStream() override { closeFile(); }

    bool isOpen() const { return m_buffer.is_open(); }

    // Flushes what was written, then closes the descriptor.
    void closeFile() {
        if (!m_file)
            return;
        m_buffer.close();
        std::fclose(m_file);
        m_file = nullptr;
    }

private:
    FILE* m_file;
    __gnu_cxx::stdio_filebuf<char> m_buffer;
};

} // namespace

bool VeskHandler2_0_0::createStream(QString& path, int mode) {
    QMutexLocker lock(&m_streamLock);
    delete m_file;
    m_file = new QFile(path);

    // Only bit 0 decides: set reads, clear appends. The truncate bit of mode 50 is not looked at,
    // so an old temporary file keeps its contents and new data lands after them.
    const bool reading = (mode & 1) != 0;
    const QIODevice::OpenMode qtMode =
        reading ? QIODevice::ReadOnly : (QIODevice::ReadWrite | QIODevice::Append);
    const char* stdioMode = reading ? "rb" : "ab+";
    const std::ios_base::openmode streamMode =
        reading ? (std::ios::in | std::ios::binary)
                : (std::ios::in | std::ios::out | std::ios::app | std::ios::binary);

    if (!m_file->open(qtMode)) {
        log("error", QString("%1: QFile open file %2 failed.error %3")
                         .arg("createStream", path, m_file->errorString()));
        delete m_file;
        m_file = nullptr;
        return false;
    }

    const int fd = ::dup(m_file->handle());
    delete m_file;
    m_file = nullptr;

    // fdopen with "a" also sets O_APPEND on the descriptor, so every write appends. A failed
    // duplicate goes to fdopen as well: the error number logged is the one fdopen leaves.
    FILE* file = ::fdopen(fd, stdioMode);
    if (!file) {
        const int error = errno;
        log("error", QString("%1: Fd open file %2 failed.error %3")
                         .arg("createStream", path, QString::number(error)));
        if (fd >= 0)
            ::close(fd);
        return false;
    }

    auto* stream = new DescriptorStream(file, streamMode);
    m_stream = stream;
    if (!stream->isOpen()) {
        const int error = errno;
        // Deleting the stream closes the FILE and with it the duplicated descriptor.
        stream->clear();
        delete stream;
        m_stream = nullptr;
        log("error", QString("%1: open file %2 failed.error %3")
                         .arg("createStream", path, QString::number(error)));
        return false;
    }

    setParam("beginTime", QString::number(QDateTime::currentDateTime().toMSecsSinceEpoch()));
    return true;
}

bool VeskHandler2_0_0::destroyStream() {
    QMutexLocker lock(&m_streamLock);
    if (m_stream) {
        if (auto* own = dynamic_cast<DescriptorStream*>(m_stream))
            own->closeFile();
        else
            m_stream->close();
        m_stream->clear();
        delete m_stream;
        m_stream = nullptr;
    }
    clearActive();
    return true;
}

std::fstream* VeskHandler2_0_0::getStream() {
    QMutexLocker lock(&m_streamLock);
    return m_stream;
}

void VeskHandler2_0_0::setStream(std::fstream* stream) {
    QMutexLocker lock(&m_streamLock);
    m_stream = stream;
}

} // namespace VESK
