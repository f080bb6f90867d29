// vesk: the host program that loads the protocol plug-in and runs its tasks.

#include "PluginLoader.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QTextStream>

int main(int argc, char* argv[]) {
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName("vesk");
    QCoreApplication::setApplicationVersion("2.0.0");

    QCommandLineParser parser;
    parser.setApplicationDescription("vesk: file transfer over UDT.\n\n"
                                     "Commands:\n"
                                     "  key    load the plug-in and print its protocol key\n\n"
                                     "Example:\n"
                                     "  vesk key --plugins build/lib");
    parser.addHelpOption();
    parser.addVersionOption();
    parser.addOption({"plugins", "Directory that holds the plug-in.", "DIR"});
    parser.addPositionalArgument("command", "The command to run.");
    parser.process(app);

    QTextStream err(stderr);
    const QStringList args = parser.positionalArguments();
    if (args.isEmpty() || args.first() != "key") {
        err << "vesk: unknown or missing command; see 'vesk --help'\n";
        return 2;
    }

    VESK::PluginLoader loader(parser.value("plugins"));
    QString error;
    if (!loader.load(&error)) {
        err << "vesk: " << error << "\n";
        return 1;
    }
    auto handler = loader.create();
    QTextStream(stdout) << handler->getKey() << "\n";
    return 0;
}
