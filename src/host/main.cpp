// vesk: the host program that loads the protocol plug-in and runs its tasks, as a server
// (vesk serve) or as a client (vesk upload, download, ls, mkdir).

#include "ClientCommands.h"
#include "CommandLine.h"
#include "Console.h"
#include "PluginLoader.h"
#include "ServeCommand.h"
#include "SignalHandling.h"

#include <QCoreApplication>
#include <QLoggingCategory>

#include <cstdio>
#include <cstdlib>

namespace {

using namespace VESK::host;

const char* const kOverview =
    "Usage: vesk COMMAND [options] [arguments]\n"
    "\n"
    "vesk moves files over UDT. URLs have the form vesk://[USER@]HOST:PORT/APPKEY/PATH.\n"
    "\n"
    "Commands:\n"
    "  serve      serve applications' directories to clients\n"
    "  upload     upload a file into a directory on a server\n"
    "  download   download a file from a server\n"
    "  ls         list a directory on a server, recursively (also: list)\n"
    "  mkdir      create a directory on a server\n"
    "  key        load the plug-in and print its protocol key\n"
    "  help       describe a command (vesk help COMMAND)\n"
    "\n"
    "'vesk COMMAND --help' or 'vesk help COMMAND' describes a command, with an example.\n"
    "Servers can be named by aliases in ~/.config/vesk/config (see 'man vesk'). Exit status:\n"
    "0 success, 1 a failed task, 2 bad usage, 130 interrupted.\n"
    "\n"
    "Example:\n"
    "  vesk serve --listen 127.0.0.1:9000 --mount /tmp/m --app appA=a &\n"
    "  vesk upload ./notes.txt vesk://127.0.0.1:9000/appA/docs";

int runKey(const QStringList& args) {
    QCommandLineParser parser;
    parser.addOption(pluginsOption());
    const CommandHelp help{"key", "", "Loads the plug-in and prints its protocol key.",
                           "  vesk key --plugins build/lib"};
    const int parsed = parseCommand(parser, args, help, 0, 0);
    if (parsed >= 0)
        return parsed;
    VESK::PluginLoader loader(parser.value("plugins"));
    QString error;
    if (!loader.load(&error)) {
        printErr("vesk: " + error);
        return kExitFailed;
    }
    printOut(loader.create()->getKey());
    return kExitOk;
}

// The protocol log goes to stderr through Qt's logging; QT_LOGGING_RULES still overrides this.
void setLogDefaults(const QString& command) {
    if (command == QLatin1String("serve")) {
        // Failures and warnings, with a time stamp; --log FILE keeps the whole record.
        qSetMessagePattern("%{time yyyy-MM-ddThh:mm:ss.zzz} [%{type}] %{message}");
        QLoggingCategory::setFilterRules("vesk.protocol.info=false\nvesk.protocol.debug=false");
    } else {
        // A client explains a failure in one sentence of its own.
        QLoggingCategory::setFilterRules("vesk.protocol=false");
    }
}

int runCommand(const QStringList& args) {
    const QString command = args.value(0);
    // "vesk help COMMAND" is "vesk COMMAND --help".
    if (command == QLatin1String("help") && args.size() == 2)
        return runCommand({args.at(1), QStringLiteral("--help")});
    if (command == QLatin1String("--help") || command == QLatin1String("-h") ||
        command == QLatin1String("help")) {
        printOut(kOverview);
        return kExitOk;
    }
    if (command == QLatin1String("--version")) {
        printOut("vesk " + QCoreApplication::applicationVersion());
        return kExitOk;
    }
    setLogDefaults(command);
    if (command == QLatin1String("serve"))
        return runServe(args);
    if (command == QLatin1String("upload"))
        return runUpload(args);
    if (command == QLatin1String("download"))
        return runDownload(args);
    if (command == QLatin1String("ls") || command == QLatin1String("list"))
        return runList(args);
    if (command == QLatin1String("mkdir"))
        return runMkdir(args);
    if (command == QLatin1String("key"))
        return runKey(args);
    printErr(command.isEmpty()
                 ? QString("vesk: no command given; see 'vesk --help'")
                 : QString("vesk: unknown command '%1'; see 'vesk --help'").arg(command));
    return kExitUsage;
}

} // namespace

int main(int argc, char* argv[]) {
    // Before any thread exists, so that every thread inherits the blocked signals and only the
    // watcher takes them.
    blockInterrupts();
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName("vesk");
    QCoreApplication::setApplicationVersion("2.0.0");
    startInterruptWatcher();

    const int status = runCommand(app.arguments().mid(1));
    // Every socket is drained and closed and every file written by now. Leaving without the
    // static teardown spares UDT's shutdown (about 100 ms, a large part of a short command) and
    // its collector thread's race with the destruction of UDT's globals.
    std::fflush(nullptr);
    std::_Exit(status);
}
