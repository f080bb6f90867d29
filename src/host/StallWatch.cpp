#include "StallWatch.h"

#include <QFile>

#include <udt/udt.h>

#include <unistd.h>

namespace VESK {
namespace host {

namespace {

// Bytes the thread has read and written through system calls (/proc/self/task/TID/io); 0 when
// the kernel does not tell.
qint64 threadIoBytes(pid_t thread) {
    QFile io(QString("/proc/self/task/%1/io").arg(thread));
    if (thread <= 0 || !io.open(QIODevice::ReadOnly))
        return 0;
    qint64 bytes = 0;
    for (const QByteArray& line : io.readAll().split('\n')) {
        if (line.startsWith("rchar:") || line.startsWith("wchar:"))
            bytes += line.mid(6).trimmed().toLongLong();
    }
    return bytes;
}

} // namespace

pid_t currentThreadId() {
    return ::gettid();
}

StallWatch::StallWatch(int socket, pid_t worker, int timeoutSeconds, qint64 minRate)
    : m_socket(socket)
    , m_worker(worker)
    , m_timeoutSeconds(timeoutSeconds)
    , m_minRate(minRate) {
    m_sinceProgress.start();
    m_sinceStart.start();
}

bool StallWatch::tooSlow() {
    if (m_minRate <= 0)
        return false;
    const qint64 windowMs = qint64(kMinRateWindowSeconds) * 1000;
    const qint64 now = m_sinceStart.elapsed();
    const qint64 bytes = threadIoBytes(m_worker);
    m_samples.emplace_back(now, bytes);
    // The oldest sample kept is the last one at least a window old.
    while (m_samples.size() > 1 && m_samples[1].first <= now - windowMs)
        m_samples.pop_front();
    const auto& start = m_samples.front();
    if (now - start.first < windowMs)
        return false;
    return bytes - start.second < m_minRate * kMinRateWindowSeconds;
}

qint64 StallWatch::progressCount() const {
    qint64 count = threadIoBytes(m_worker);
    UDT::TRACEINFO perf;
    // Keep-alives and acknowledgements are not counted, so an idle connection does not move.
    if (UDT::perfmon(m_socket, &perf, false) != UDT::ERROR)
        count += perf.pktRecvTotal + perf.pktSentTotal - perf.pktRetransTotal;
    return count;
}

bool StallWatch::stalled() {
    const qint64 count = progressCount();
    if (count != m_lastCount) {
        m_lastCount = count;
        m_sinceProgress.restart();
        return false;
    }
    return m_timeoutSeconds > 0 && m_sinceProgress.elapsed() >= qint64(m_timeoutSeconds) * 1000;
}

qint64 StallWatch::idleMs() const {
    return m_sinceProgress.elapsed();
}

} // namespace host
} // namespace VESK
