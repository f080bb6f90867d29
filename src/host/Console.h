#pragma once

// Output of the vesk program: whole lines on stdout and stderr, safe to write from any thread,
// and the exit statuses every command shares.

#include <QString>

namespace VESK {
namespace host {

enum ExitCode { kExitOk = 0, kExitFailed = 1, kExitUsage = 2, kExitInterrupted = 130 };

// Writes `line` and a line feed, flushed at once so that scripts and tests see it immediately.
void printOut(const QString& line);
void printErr(const QString& line);
// Writes `text` to stdout as it stands (a listing writes one chunk of lines at a time).
void writeOut(const QString& text);
// Writes `text` to stderr as it stands (the progress bar redraws one line with "\r").
void writeErr(const QString& text);

// `name` with its control characters written as `ls -b` writes them ("\n", "\t", "\033",
// "\302\233"), and a backslash as "\\", so that a name cannot move to another line or drive the
// terminal it is shown on.
QString escapedName(const QString& name);

bool stderrIsTerminal();
// Columns of the terminal on stderr, or 80 when unknown.
int terminalWidth();

// "1.5 MiB", "320 B": sizes for people.
QString formatBytes(qint64 bytes);
// "0:07", "1:02:03".
QString formatDuration(qint64 seconds);

} // namespace host
} // namespace VESK
