#pragma once

// The protocol log file: one descriptor per file, opened once and kept for the life of the
// process, so that a thread the server has confined to an application's directory still logs.

#include <QByteArray>
#include <QString>

namespace VESK {
namespace logfile {

// Opens `path` for appending (creating it) unless it is open already; false when it cannot be
// opened. A server calls it before it restricts what a thread may open.
bool keepOpen(const QString& path);

// Appends `bytes` to the file at `path` in one write. When the file at `path` was replaced (by a
// log rotation) it is reopened; where that is not allowed any more, the records go on to the
// descriptor already open.
bool append(const QString& path, const QByteArray& bytes);

// `message` as it appears in a record: every line after the first starts with two spaces and
// other control characters (all but the tab) are written as "\xHH", so that no text in a message
// can start a record of its own or drive the terminal of whoever reads the file.
QString recordText(const QString& message);

} // namespace logfile
} // namespace VESK
