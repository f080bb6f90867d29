#include "Progress.h"

#include "Console.h"

#include <algorithm>

namespace VESK {
namespace host {

ProgressBar::ProgressBar(const qint64* total, const qint64* offset, bool visible)
    : m_total(total)
    , m_offset(offset)
    , m_visible(visible) {
    m_clock.start();
}

qint64 ProgressBar::read(const qint64* counter) {
    // The handler writes the counters on its own thread without telling anyone; a relaxed
    // atomic load reads a whole value without tearing.
    return __atomic_load_n(counter, __ATOMIC_RELAXED);
}

void ProgressBar::setUnacknowledged(std::function<qint64()> unacknowledged) {
    m_unacknowledged = std::move(unacknowledged);
}

qint64 ProgressBar::delivered() const {
    const qint64 offset = read(m_offset);
    if (!m_unacknowledged || offset <= 0)
        return offset;
    // Never below where this run started: a resumed transfer's first bytes were there before.
    return std::max<qint64>(std::max<qint64>(m_startOffset, 0), offset - m_unacknowledged());
}

void ProgressBar::update() {
    const qint64 total = read(m_total);
    const qint64 offset = delivered();
    // The counters stay 0 until the handler has heard the server's offer.
    if (total <= 0 && offset <= 0)
        return;
    if (m_startOffset < 0) {
        m_startOffset = offset;
        m_clock.restart();
    }
    m_lastOffset = offset;
    if (m_doneAfter < 0.0 && total > 0 && offset >= total)
        m_doneAfter = seconds();
    if (!m_visible)
        return;
    writeErr('\r' + line(total, offset));
    m_drawn = true;
}

void ProgressBar::finish() {
    update();
    if (m_drawn)
        writeErr(QStringLiteral("\n"));
    m_drawn = false;
}

qint64 ProgressBar::bytesMoved() const {
    return m_startOffset < 0 ? 0 : std::max<qint64>(0, m_lastOffset - m_startOffset);
}

double ProgressBar::seconds() const {
    return m_doneAfter >= 0.0 ? m_doneAfter : double(m_clock.elapsed()) / 1000.0;
}

QString ProgressBar::line(qint64 total, qint64 offset) const {
    const double elapsed = seconds();
    const double rate = elapsed > 0.2 ? double(bytesMoved()) / elapsed : 0.0;
    const int percent = total > 0 ? int(std::min<qint64>(100, offset * 100 / total)) : 100;
    QString left = QStringLiteral("--:-- left");
    if (m_doneAfter >= 0.0)
        left = m_verifying ? QStringLiteral("verifying") : QStringLiteral("finishing");
    else if (rate > 0.0)
        left = formatDuration(qint64(double(std::max<qint64>(0, total - offset)) / rate + 0.5)) +
               " left";

    // Fixed widths keep the bar from changing length as the numbers grow.
    const QString text = QString(" %1 / %2 %3/s %4")
                             .arg(formatBytes(offset), 10)
                             .arg(formatBytes(total), -10)
                             .arg(formatBytes(qint64(rate)), 11)
                             .arg(left, 11);
    const QString head = QString("%1% ").arg(percent, 3);
    // The bar takes what the terminal leaves; at least 10 cells so it stays a bar.
    const int cells = std::max(10, terminalWidth() - 1 - int(head.size() + text.size()) - 2);
    const int filled = total > 0 ? int(qint64(cells) * std::min(offset, total) / total) : cells;
    const QString bar = '[' + QString(filled, '#') + QString(cells - filled, '.') + ']';
    return (head + bar + text).left(std::max(1, terminalWidth() - 1));
}

} // namespace host
} // namespace VESK
