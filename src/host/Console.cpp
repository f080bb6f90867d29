#include "Console.h"

#include <QByteArray>
#include <QString>

#include <cstdio>
#include <mutex>
#include <sys/ioctl.h>
#include <unistd.h>

namespace VESK {
namespace host {

namespace {

// One lock for both streams: a progress line on stderr never splits a line of another thread.
std::mutex& outputLock() {
    static std::mutex lock;
    return lock;
}

void writeTo(FILE* stream, const QByteArray& bytes) {
    std::lock_guard<std::mutex> lock(outputLock());
    std::fwrite(bytes.constData(), 1, size_t(bytes.size()), stream);
    std::fflush(stream);
}

} // namespace

void printOut(const QString& line) {
    writeTo(stdout, (line + '\n').toUtf8());
}

void printErr(const QString& line) {
    writeTo(stderr, (line + '\n').toUtf8());
}

void writeOut(const QString& text) {
    writeTo(stdout, text.toUtf8());
}

void writeErr(const QString& text) {
    writeTo(stderr, text.toUtf8());
}

QString escapedName(const QString& name) {
    static const QString kControls = QStringLiteral("\a\b\t\n\v\f\r");
    static const QString kLetters = QStringLiteral("abtnvfr");
    QString text;
    text.reserve(name.size());
    for (const QChar c : name) {
        const ushort code = c.unicode();
        const int letter = kControls.indexOf(c);
        if (code == '\\') {
            text += QLatin1String("\\\\");
        } else if (letter >= 0) {
            text += '\\';
            text += kLetters[letter];
        } else if (code < 0x20 || (code >= 0x7f && code <= 0x9f)) {
            // Byte by byte in octal, as the name's UTF-8 holds it.
            for (const char byte : QString(c).toUtf8())
                text += QStringLiteral("\\%1").arg(uint(uchar(byte)), 3, 8, QChar('0'));
        } else {
            text += c;
        }
    }
    return text;
}

bool stderrIsTerminal() {
    return ::isatty(STDERR_FILENO) == 1;
}

int terminalWidth() {
    winsize size{};
    if (::ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0)
        return size.ws_col;
    return 80;
}

QString formatBytes(qint64 bytes) {
    static const char* const units[] = {"KiB", "MiB", "GiB", "TiB"};
    if (bytes < 1024)
        return QString("%1 B").arg(bytes);
    double value = double(bytes);
    int unit = -1;
    while (value >= 1024.0 && unit < 3) {
        value /= 1024.0;
        ++unit;
    }
    return QString("%1 %2").arg(value, 0, 'f', 1).arg(QLatin1String(units[unit]));
}

QString formatDuration(qint64 seconds) {
    if (seconds < 0)
        seconds = 0;
    const qint64 hours = seconds / 3600;
    const qint64 minutes = (seconds / 60) % 60;
    const qint64 secs = seconds % 60;
    if (hours > 0)
        return QString("%1:%2:%3")
            .arg(hours)
            .arg(minutes, 2, 10, QChar('0'))
            .arg(secs, 2, 10, QChar('0'));
    return QString("%1:%2").arg(minutes).arg(secs, 2, 10, QChar('0'));
}

} // namespace host
} // namespace VESK
