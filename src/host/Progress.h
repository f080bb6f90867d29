#pragma once

// The progress line of an upload or a download: bytes, percent, rate and time left, read from
// the two counters the handler advances on its worker thread.

#include <QElapsedTimer>
#include <QString>

#include <functional>

namespace VESK {
namespace host {

class ProgressBar {
public:
    // `total` and `offset` are the host's counters; nothing is drawn unless `visible`.
    ProgressBar(const qint64* total, const qint64* offset, bool visible);

    // Bytes of the offset counter the receiver has not acknowledged yet; the bar shows the
    // counter less these, so that it follows what arrived rather than what was handed over.
    void setUnacknowledged(std::function<qint64()> unacknowledged);
    // Whether the other side verifies the copy once all of it arrived ("verifying" then, else
    // "finishing").
    void setVerifying(bool verifying) { m_verifying = verifying; }

    // Redraws the line from the counters' current values.
    void update();
    // Draws the last state and ends the line; later output starts on a fresh line.
    void finish();

private:
    // Bytes moved and seconds passed since the counters were first seen moving.
    qint64 bytesMoved() const;
    double seconds() const;

    static qint64 read(const qint64* counter);
    // The offset counter less what is not acknowledged yet.
    qint64 delivered() const;
    QString line(qint64 total, qint64 offset) const;

    const qint64* m_total;
    const qint64* m_offset;
    bool m_visible;
    bool m_verifying = false;
    std::function<qint64()> m_unacknowledged;
    bool m_drawn = false;
    // The first offset seen: a resumed transfer's rate counts only what this run moved.
    qint64 m_startOffset = -1;
    qint64 m_lastOffset = 0;
    // Seconds until the last byte arrived; the rate stops there, since what follows is the
    // verification and the final messages.
    double m_doneAfter = -1.0;
    QElapsedTimer m_clock;
};

} // namespace host
} // namespace VESK
