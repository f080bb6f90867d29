#pragma once

// Parsing one command's arguments with the conventions every vesk command shares: --help with
// an example, bad usage reported in one line and exit status 2.

#include <QCommandLineParser>
#include <QStringList>

namespace VESK {
namespace host {

struct CommandHelp {
    QString name;        // "upload"
    QString arguments;   // "LOCAL_FILE URL_OF_DIR"
    QString description; // what the command does, a few lines
    QString example;     // one or more example lines
};

// Adds --help, parses `args` (args[0] is the command name) and checks the number of positional
// arguments. Returns -1 to go on, or the exit status after printing the help (0) or a usage
// error (2).
int parseCommand(QCommandLineParser& parser, const QStringList& args, const CommandHelp& help,
                 int minPositional, int maxPositional);

// Prints "vesk COMMAND: MESSAGE; see 'vesk COMMAND --help'" and returns 2.
int usageError(const QString& command, const QString& message);

// Reads a rate in bytes per second: a number with an optional K, M or G (powers of 1024), such
// as "500K" or "1.5G"; 0 means no limit. False for anything else.
bool parseRate(const QString& text, qint64* bytesPerSecond);
// A duration: a whole number of seconds, or of minutes, hours or days with m, h or d ("7d").
bool parseDuration(const QString& text, qint64* seconds);

// The option every command that loads the plug-in takes.
QCommandLineOption pluginsOption();

// --congestion, which every command that connects takes (default "vesk").
QCommandLineOption congestionOption();
// Makes the control named by `text` ("vesk" or "udt") that of this process's connections; false
// for another name.
bool useCongestionOption(const QString& text);
// The usage error for a bad --congestion value.
extern const char* const kCongestionUsage;
// -q/--quiet, -v/--verbose and -n/--dry-run, the same for every client command that has them.
QCommandLineOption quietOption();
QCommandLineOption verboseOption();
QCommandLineOption dryRunOption();
// What -v turns on: the protocol log (information, warnings and errors) on stderr, with times.
void showProtocolLog();

} // namespace host
} // namespace VESK
