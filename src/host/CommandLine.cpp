#include "CommandLine.h"

#include <QMap>

#include "Console.h"
#include "base/Net.h"

#include <QLoggingCategory>
#include <QRegularExpression>

namespace VESK {
namespace host {

namespace {

QString helpText(const QCommandLineParser& parser, const CommandHelp& help) {
    // Qt's usage line names only the program; the command goes after it.
    QString text = parser.helpText();
    const int lineEnd = text.indexOf('\n');
    text.replace(0, lineEnd, QString("Usage: vesk %1 [options] %2").arg(help.name, help.arguments));
    return text + "\nExample:\n" + help.example + "\n";
}

} // namespace

int usageError(const QString& command, const QString& message) {
    printErr(QString("vesk %1: %2; see 'vesk %1 --help'").arg(command, message));
    return kExitUsage;
}

bool parseRate(const QString& text, qint64* bytesPerSecond) {
    static const QRegularExpression form(QStringLiteral("^(\\d+(?:\\.\\d+)?)([KMG]?)$"),
                                         QRegularExpression::CaseInsensitiveOption);
    const QRegularExpressionMatch match = form.match(text.trimmed());
    if (!match.hasMatch())
        return false;
    const QString unit = match.captured(2).toUpper();
    const int power = unit.isEmpty() ? 0 : QStringLiteral("KMG").indexOf(unit) + 1;
    const double value = match.captured(1).toDouble() * double(1ll << (10 * power));
    // Below one byte a second the cap would round to 0, which means no cap at all.
    if ((value > 0 && value < 1) || value >= 9e18)
        return false;
    *bytesPerSecond = qint64(value);
    return true;
}

bool parseDuration(const QString& text, qint64* seconds) {
    static const QRegularExpression form(QStringLiteral("^(\\d{1,12})([smhd]?)$"),
                                         QRegularExpression::CaseInsensitiveOption);
    const QRegularExpressionMatch match = form.match(text.trimmed());
    if (!match.hasMatch())
        return false;
    static const QMap<QString, qint64> units{
        {"", 1}, {"s", 1}, {"m", 60}, {"h", 3600}, {"d", 86400}};
    *seconds = match.captured(1).toLongLong() * units.value(match.captured(2).toLower());
    return true;
}

QCommandLineOption pluginsOption() {
    return {"plugins",
            "Directory that holds the plug-in (default: $VESK_PLUGIN_PATH, then the "
            "directory installed beside vesk).",
            "DIR"};
}

QCommandLineOption congestionOption() {
    return {"congestion",
            "Congestion control: vesk (measures the path's rate and round trip, and does not "
            "slow down for a random lost packet) or udt (UDT's own, which does). Default vesk.",
            "NAME", "vesk"};
}

const char* const kCongestionUsage = "--congestion takes vesk or udt";

bool useCongestionOption(const QString& text) {
    net::Congestion congestion = net::Congestion::Vesk;
    if (!net::parseCongestion(text, &congestion))
        return false;
    net::setCongestion(congestion);
    return true;
}

QCommandLineOption quietOption() {
    return {QStringList{"q", "quiet"}, "No progress line and no message on success."};
}

QCommandLineOption verboseOption() {
    return {QStringList{"v", "verbose"}, "Show the protocol log on stderr."};
}

QCommandLineOption dryRunOption() {
    return {QStringList{"n", "dry-run"},
            "Print what would be done and change nothing; the server is not contacted."};
}

void showProtocolLog() {
    qSetMessagePattern("%{time yyyy-MM-ddThh:mm:ss.zzz} [%{type}] %{message}");
    QLoggingCategory::setFilterRules("vesk.protocol=true\nvesk.protocol.debug=false");
}

int parseCommand(QCommandLineParser& parser, const QStringList& args, const CommandHelp& help,
                 int minPositional, int maxPositional) {
    parser.setApplicationDescription(help.description);
    const QCommandLineOption helpOption(QStringList{"h", "help"}, "Show this help.");
    parser.addOption(helpOption);
    if (!parser.parse(args))
        return usageError(help.name, parser.errorText().remove(QRegularExpression("\\.$")));
    if (parser.isSet(helpOption)) {
        printOut(helpText(parser, help).trimmed());
        return kExitOk;
    }
    const int count = parser.positionalArguments().size();
    if (count < minPositional)
        return usageError(help.name, QString("expected %1").arg(help.arguments));
    if (count > maxPositional)
        return usageError(help.name, QString("unexpected argument '%1'")
                                         .arg(parser.positionalArguments().value(maxPositional)));
    return -1;
}

} // namespace host
} // namespace VESK
