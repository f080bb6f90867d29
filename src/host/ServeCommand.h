#pragma once

// vesk serve: options (command line and INI file), checks, then the server itself.

#include <QStringList>

namespace VESK {
namespace host {

// `args` without the program name (args[0] is "serve"); returns the exit status.
int runServe(const QStringList& args);

} // namespace host
} // namespace VESK
