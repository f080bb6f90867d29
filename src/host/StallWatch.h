#pragma once

// Notices a task that has stopped making progress: a peer that keeps its connection open but
// sends nothing would otherwise hold a server thread (or a client) forever, because UDT's
// keep-alive keeps such a connection alive and the transfer calls wait without a time limit.

#include <QElapsedTimer>

#include <sys/types.h>

#include <deque>
#include <utility>

namespace VESK {
namespace host {

// The option's default, in seconds; 0 switches the watch off.
constexpr int kDefaultStallTimeoutSeconds = 120;
// A task must move at least this many bytes a second (file data read or written by the thread
// that runs it), measured over every window of this many seconds.
constexpr qint64 kDefaultMinRate = 1024;
constexpr int kMinRateWindowSeconds = 60;

class StallWatch {
public:
    // Watches `socket` and the thread `worker` that runs the task's process(). Progress is data
    // on the connection (UDT's counters of data packets, retransmissions left out) or file I/O
    // of the worker thread (reading a file to compute its verify value sends nothing for a
    // while). `timeoutSeconds` 0 never reports a stall.
    StallWatch(int socket, pid_t worker, int timeoutSeconds, qint64 minRate = 0);

    // True once nothing progressed for the whole timeout; call it regularly.
    bool stalled();
    int timeoutSeconds() const { return m_timeoutSeconds; }
    // Milliseconds since stalled() last saw progress.
    qint64 idleMs() const;
    // True once the worker read and wrote fewer than `minRate` bytes a second over the last
    // kMinRateWindowSeconds (never with `minRate` 0); call it regularly.
    bool tooSlow();

private:
    qint64 progressCount() const;

    int m_socket;
    pid_t m_worker;
    int m_timeoutSeconds;
    qint64 m_lastCount = -1;
    QElapsedTimer m_sinceProgress;
    qint64 m_minRate;
    QElapsedTimer m_sinceStart;
    std::deque<std::pair<qint64, qint64>> m_samples; // (ms since start, bytes), oldest first
};

// The kernel's id of the calling thread, for StallWatch.
pid_t currentThreadId();

} // namespace host
} // namespace VESK
