#pragma once

// The client commands: upload, download, ls and mkdir against a vesk server. Each takes its
// arguments without the program name (args[0] is the command) and returns the exit status.

#include <QStringList>

namespace VESK {
namespace host {

int runUpload(const QStringList& args);
int runDownload(const QStringList& args);
int runList(const QStringList& args);
int runMkdir(const QStringList& args);

} // namespace host
} // namespace VESK
