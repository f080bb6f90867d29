#include "ServeCommand.h"

#include "Access.h"
#include "Auth.h"
#include "ClientCredentials.h"
#include "CommandLine.h"
#include "Console.h"
#include "PluginLoader.h"
#include "Server.h"
#include "SignalHandling.h"
#include "Url.h"
#include "base/LogFile.h"

#include <QDir>
#include <QFileInfo>
#include <QRegularExpression>
#include <QSettings>

#include <algorithm>

namespace VESK {
namespace host {

namespace {

// Settings a config file may hold besides its [apps] group; each is also a command-line option.
const QStringList kSettings{
    "listen",        "mount",           "file-mode",     "dir-mode",         "log",
    "plugins",       "max-connections", "max-rate",      "stall-timeout",    "secrets",
    "anonymous",     "max-per-address", "hello-timeout", "max-list-entries", "min-rate",
    "max-file-size", "min-free",        "partial-ttl",   "congestion",       "owner-only"};
// Settings that name a file or directory: relative ones are taken from the config file's place.
const QStringList kPathSettings{"mount", "log", "plugins", "secrets"};

struct RawOptions {
    QMap<QString, QString> values;         // setting -> text
    QList<QPair<QString, QString>> apps;   // KEY, DIR as written
    QList<QPair<QString, QString>> access; // APP, USER:RIGHT,... as written
};

QString settingText(const QVariant& value) {
    // An unquoted value with commas reads back as a list; it was one text to the user.
    return value.type() == QVariant::StringList ? value.toStringList().join(',') : value.toString();
}

// Reads an INI file into `raw`; "" on success, else the problem.
QString readConfigFile(const QString& path, RawOptions& raw) {
    if (!QFileInfo(path).isFile() || !QFileInfo(path).isReadable())
        return QString("cannot read the config file %1").arg(path);
    QSettings settings(path, QSettings::IniFormat);
    if (settings.status() != QSettings::NoError)
        return QString("%1 is not a valid INI file").arg(path);
    const QDir base = QFileInfo(path).absoluteDir();
    for (const QString& key : settings.childKeys()) {
        if (!kSettings.contains(key))
            return QString("unknown setting '%1' in %2").arg(key, path);
        QString text = settingText(settings.value(key));
        if (kPathSettings.contains(key) && !text.isEmpty())
            text = base.absoluteFilePath(text);
        raw.values[key] = text;
    }
    for (const QString& group : settings.childGroups()) {
        if (group != QLatin1String("apps") && group != QLatin1String("access"))
            return QString("unknown section [%1] in %2").arg(group, path);
    }
    settings.beginGroup("apps");
    for (const QString& key : settings.childKeys())
        raw.apps.append({key, settingText(settings.value(key))});
    settings.endGroup();
    settings.beginGroup("access");
    for (const QString& key : settings.childKeys())
        raw.access.append({key, settingText(settings.value(key))});
    settings.endGroup();
    return QString();
}

// An --app directory, made relative to the mount: the handler joins it under the mount with a
// join that never leaves it, so an absolute directory elsewhere could never be reached.
QString appDirUnderMount(const QString& mount, const QString& dir, QString* error) {
    if (dir.isEmpty() || dir.contains(':') || dir.contains('%')) {
        *error = QString("the application directory '%1' must be non-empty and contain neither "
                         "':' nor '%'")
                     .arg(dir);
        return QString();
    }
    QString relative = dir;
    if (QDir::isAbsolutePath(dir)) {
        relative = QDir(mount).relativeFilePath(QDir::cleanPath(dir));
        // The mount may be reached through a link; compare where both really are, too.
        const QString realMount = QFileInfo(mount).canonicalFilePath();
        const QString realDir = QFileInfo(dir).canonicalFilePath();
        if (relative.startsWith(QLatin1String("..")) && !realDir.isEmpty())
            relative = QDir(realMount).relativeFilePath(realDir);
    }
    relative = QDir::cleanPath(relative);
    if (relative == QLatin1String("..") || relative.startsWith(QLatin1String("../")) ||
        QDir::isAbsolutePath(relative)) {
        *error = QString("the application directory '%1' is not inside the mount %2 (a relative "
                         "directory is taken from the mount)")
                     .arg(dir, mount);
        return QString();
    }
    return relative;
}

bool isOctalMode(const QString& text) {
    static const QRegularExpression octal("^[0-7]{1,4}$");
    return text.isEmpty() || octal.match(text).hasMatch();
}

bool isLoopbackHost(const QString& host) {
    return host.startsWith(QLatin1String("127.")) || host == QLatin1String("localhost") ||
           host == QLatin1String("::1");
}

// A yes-or-no setting: "true" or "false" (absent: false). False on anything else.
bool readSwitch(const RawOptions& raw, const QString& key, bool* on) {
    const QString text = raw.values.value(key, "false");
    *on = text == QLatin1String("true");
    return *on || text == QLatin1String("false");
}

// Admits only the user running the server, who proves the per-user secret a client finds by
// itself (made now when missing), to every application. "" on success, else the problem.
QString admitOwnerOnly(ServeConfig& config) {
    const QString path = defaultSecretFile();
    QByteArray secret;
    const QString problem = ownSecret(path, &secret, &config.ownerSecretCreated);
    if (!problem.isEmpty())
        return problem;
    const QString user = localUserName();
    config.authenticate = true;
    config.secrets.insert(user, secret);
    for (const AppEntry& app : config.apps)
        config.access[app.key].insert(user, true);
    config.ownerSecretFile = path;
    return QString();
}

// Who may connect: the users of a secrets file with their access lines; anyone (on loopback
// unless asked for); or else only the user running the server. "" on success, else the problem.
QString buildAccess(const RawOptions& raw, ServeConfig& config) {
    const QString secrets = raw.values.value("secrets");
    config.authenticate = !secrets.isEmpty();
    if (config.authenticate) {
        const QString problem =
            readSecretsFile(QFileInfo(secrets).absoluteFilePath(), &config.secrets);
        if (!problem.isEmpty())
            return problem;
    }
    for (const auto& line : raw.access) {
        if (config.appDirectory(line.first).isEmpty())
            return QString("access for '%1', which is no application (give it with --app)")
                .arg(line.first);
        const QString problem = addAccessLine(line.first, line.second, config.access);
        if (!problem.isEmpty())
            return problem;
    }
    if (!config.authenticate && !config.access.isEmpty())
        return QString("--access needs --secrets: without it every peer is anonymous");
    bool anonymous = false;
    bool ownerOnly = false;
    if (!readSwitch(raw, "anonymous", &anonymous))
        return QString("anonymous takes true or false");
    if (!readSwitch(raw, "owner-only", &ownerOnly))
        return QString("owner-only takes true or false");
    if (int(config.authenticate) + int(anonymous) + int(ownerOnly) > 1)
        return QString("--secrets, --anonymous and --owner-only exclude each other");
    // An address others can reach is never open to all unless that is asked for.
    if (ownerOnly || (!config.authenticate && !anonymous && !isLoopbackHost(config.host)))
        return admitOwnerOnly(config);
    return QString();
}

// Checks the merged options and fills `config`; "" on success, else the problem.
QString buildConfig(const RawOptions& raw, ServeConfig& config) {
    QString error;
    if (!parseHostPort(raw.values.value("listen", "127.0.0.1:9000"), config.host, config.port, true,
                       &error))
        return "--listen: " + error;

    const QString mount = raw.values.value("mount");
    if (mount.isEmpty())
        return QString("--mount DIR is required");
    if (!QFileInfo(mount).isDir())
        return QString("the mount directory %1 does not exist").arg(mount);
    config.mount = QDir::cleanPath(QFileInfo(mount).absoluteFilePath());

    for (const auto& app : raw.apps) {
        if (app.first.isEmpty() || app.first.contains(':') || app.first.contains('%'))
            return QString("the application key '%1' must be non-empty and contain neither ':' "
                           "nor '%'")
                .arg(app.first);
        const QString dir = appDirUnderMount(config.mount, app.second, &error);
        if (dir.isEmpty())
            return error;
        // A later definition of the same key (the command line after the file) wins.
        config.apps.erase(std::remove_if(config.apps.begin(), config.apps.end(),
                                         [&](const AppEntry& e) { return e.key == app.first; }),
                          config.apps.end());
        config.apps.append({app.first, dir});
    }
    if (config.apps.isEmpty())
        return QString("give at least one --app KEY=DIR");

    config.fileMode = raw.values.value("file-mode");
    config.dirMode = raw.values.value("dir-mode");
    if (!isOctalMode(config.fileMode) || !isOctalMode(config.dirMode))
        return QString("--file-mode and --dir-mode take octal modes such as 644 and 755");

    bool ok = true;
    config.maxConnections = raw.values.value("max-connections", "64").toInt(&ok);
    if (!ok || config.maxConnections < 1)
        return QString("--max-connections takes a number of at least 1");

    config.stallTimeout =
        raw.values.value("stall-timeout", QString::number(kDefaultStallTimeoutSeconds)).toInt(&ok);
    if (!ok || config.stallTimeout < 0)
        return QString("--stall-timeout takes a number of seconds (0: no limit)");

    config.maxPerAddress = raw.values.value("max-per-address", "8").toInt(&ok);
    if (!ok || config.maxPerAddress < 1)
        return QString("--max-per-address takes a number of at least 1");
    const int helloTimeout = raw.values.value("hello-timeout", "10").toInt(&ok);
    if (!ok || helloTimeout < 1 || helloTimeout > 3600)
        return QString("--hello-timeout takes a number of seconds from 1 to 3600");
    config.helloTimeoutMs = helloTimeout * 1000;

    if (const QString problem = buildAccess(raw, config); !problem.isEmpty())
        return problem;

    if (!parseRate(raw.values.value("max-rate", "0"), &config.maxRate))
        return QString("--max-rate takes bytes per second, such as 500K or 20M");

    config.maxListEntries =
        raw.values.value("max-list-entries", QString::number(kDefaultMaxListEntries))
            .toLongLong(&ok);
    if (!ok || config.maxListEntries < 1)
        return QString("--max-list-entries takes a number of at least 1");
    if (!parseRate(raw.values.value("min-rate", "1K"), &config.minRate))
        return QString("--min-rate takes bytes per second, such as 1K (0: no minimum)");
    if (!parseRate(raw.values.value("max-file-size", "0"), &config.limits.maxFileSize))
        return QString("--max-file-size takes a size in bytes, such as 500M or 4G (0: no limit)");
    config.limits.minFreePercent = raw.values.value("min-free", "1").toInt(&ok);
    if (!ok || config.limits.minFreePercent < 0 || config.limits.minFreePercent > 100)
        return QString("--min-free takes a percentage from 0 to 100");
    if (!parseDuration(raw.values.value("partial-ttl", "7d"), &config.partialTtl))
        return QString("--partial-ttl takes a duration such as 7d, 12h, 30m or 90 (seconds; 0: "
                       "never)");
    if (!net::parseCongestion(raw.values.value("congestion", "vesk"), &config.congestion))
        return QString(kCongestionUsage);

    config.logFile = raw.values.value("log");
    if (!config.logFile.isEmpty()) {
        config.logFile = QFileInfo(config.logFile).absoluteFilePath();
        // Opened here and kept: every task's log goes through this one descriptor.
        if (!logfile::keepOpen(config.logFile))
            return QString("cannot write the log file %1").arg(config.logFile);
    }
    config.plugins = raw.values.value("plugins");
    return QString();
}

// Creates the applications' directories so that a fresh mount works at once.
bool createAppDirectories(const ServeConfig& config) {
    for (const AppEntry& app : config.apps) {
        const QString dir = config.appDirectory(app.key);
        if (!QDir().mkpath(dir)) {
            printErr(QString("vesk: cannot create the directory %1 of application '%2'")
                         .arg(dir, app.key));
            return false;
        }
    }
    return true;
}

} // namespace

int runServe(const QStringList& args) {
    QCommandLineParser parser;
    parser.addOptions({
        {"listen",
         "Address and port to listen on, an IPv6 address in brackets ([::1]:9000); port 0 "
         "picks a free one (default 127.0.0.1:9000).",
         "HOST:PORT"},
        {"mount", "The directory every application's files live under.", "DIR"},
        {"app",
         "An application: its key and its directory, relative to the mount (an absolute "
         "directory must lie inside the mount). Repeat for more applications.",
         "KEY=DIR"},
        {"file-mode", "Octal mode of received files (default: as created).", "MODE"},
        {"dir-mode", "Octal mode of created directories (default: as created).", "MODE"},
        {"log", "Append the protocol log to FILE.", "FILE"},
        {"max-connections",
         "Connections served at once; one more is refused at the hello (default 64).", "N"},
        {"max-rate",
         "Send at most RATE bytes per second on each connection (what downloads receive), "
         "with K, M or G for powers of 1024 (default 0: as fast as the link allows).",
         "RATE"},
        {"stall-timeout",
         "Pause a task that moved no data and read or wrote no file for SECONDS; its partial "
         "file stays for a resume (default 120, 0: no limit).",
         "SECONDS"},
        {"secrets",
         "Authenticate users with the secrets in FILE (lines USER:SECRET; readable by its owner "
         "only). Without it the server is anonymous on loopback and admits only its own user "
         "elsewhere (see --owner-only).",
         "FILE"},
        {"access",
         "Who may use an application when authenticating: rw reads and writes, ro only "
         "downloads and lists. Repeat for more applications; one without a line is open to "
         "nobody.",
         "APP=USER:rw[,USER:ro...]"},
        {"anonymous",
         "Serve without authentication on an address other than loopback: anyone who reaches "
         "it may read and write every application."},
        {"owner-only",
         "Admit only the user running the server, proving the secret in ~/.config/vesk/secret "
         "(made when missing; a client of that user finds it there). The default on an address "
         "other than loopback without --secrets or --anonymous."},
        {"max-per-address",
         "Connections from one address at once; one more is refused at the hello (default 8).",
         "N"},
        {"hello-timeout",
         "Time a peer has for its whole hello, authentication included (default 10).", "SECONDS"},
        {"max-list-entries",
         "Stop a listing with a failure after N entries, so that links looping back cannot "
         "exhaust the server (default 1000000).",
         "N"},
        {"min-rate",
         "Pause a task that moved fewer than BYTES a second over any 60 s (its partial file "
         "stays), with K, M or G for powers of 1024 (default 1K, 0: no minimum).",
         "BYTES"},
        {"max-file-size",
         "Refuse an upload of a file larger than SIZE bytes, with K, M or G (default 0: no "
         "limit).",
         "SIZE"},
        {"min-free",
         "Refuse an upload that would leave less than PERCENT of its file system free (default "
         "1).",
         "PERCENT"},
        {"partial-ttl",
         "Remove partial files of unfinished uploads untouched for DURATION: seconds, or with "
         "m, h or d (default 7d, 0: keep them).",
         "DURATION"},
        congestionOption(),
        {"config",
         "Read options from an INI file (keys as the long options, applications in an [apps] "
         "group, access lines in an [access] group); the command line wins.",
         "FILE"},
        pluginsOption(),
    });
    const CommandHelp help{
        "serve", "",
        "Serves the applications' directories under a mount to vesk clients over UDT. One "
        "summary line per task goes to stdout. SIGINT or SIGTERM stops it: running transfers "
        "are paused (their partial files stay, so clients can resume) and it exits with 0.",
        "  vesk serve --listen 0.0.0.0:9000 --mount /srv/vesk --app appA=apps/a "
        "--secrets /etc/vesk/secrets --access appA=alice:rw,bob:ro\n"
        "  vesk serve --mount /tmp/share --app appA=apps/a      (anonymous, on 127.0.0.1)"};
    const int parsed = parseCommand(parser, args, help, 0, 0);
    if (parsed >= 0)
        return parsed;

    RawOptions raw;
    if (parser.isSet("config")) {
        const QString error = readConfigFile(parser.value("config"), raw);
        if (!error.isEmpty())
            return usageError("serve", error);
    }
    for (const QString& key : kSettings) {
        if (key == QLatin1String("anonymous") || key == QLatin1String("owner-only")) {
            if (parser.isSet(key))
                raw.values[key] = QStringLiteral("true");
        } else if (parser.isSet(key)) {
            raw.values[key] = parser.value(key);
        }
    }
    for (const QString& line : parser.values("access")) {
        const int equals = line.indexOf('=');
        if (equals <= 0)
            return usageError(
                "serve", QString("--access takes APP=USER:rw[,USER:ro...], not '%1'").arg(line));
        raw.access.append({line.left(equals), line.mid(equals + 1)});
    }
    for (const QString& app : parser.values("app")) {
        const int equals = app.indexOf('=');
        if (equals < 0)
            return usageError("serve", QString("--app takes KEY=DIR, not '%1'").arg(app));
        raw.apps.append({app.left(equals), app.mid(equals + 1)});
    }
    ServeConfig config;
    const QString error = buildConfig(raw, config);
    if (!error.isEmpty())
        return usageError("serve", error);
    if (!createAppDirectories(config))
        return kExitFailed;

    PluginLoader loader(config.plugins);
    QString loadError;
    if (!loader.load(&loadError)) {
        printErr("vesk: " + loadError);
        return kExitFailed;
    }
    if (!config.ownerSecretFile.isEmpty())
        printErr(QString("vesk: only %1 may connect, proving the secret in %2%3; a client of %1 "
                         "elsewhere needs a copy of that file as its ~/.config/vesk/secret "
                         "(--secrets FILE admits other users)")
                     .arg(localUserName(), config.ownerSecretFile,
                          config.ownerSecretCreated ? QString(" (made now)") : QString()));
    else if (!config.authenticate && !isLoopbackHost(config.host))
        printErr(QString("vesk: warning: serving anonymously on %1: anyone who reaches it may "
                         "read and write every application")
                     .arg(config.host));
    Server server(config, loader);
    setInterruptReaction([&server](int, int) { server.stop(); });
    const int status = server.run();
    setInterruptReaction(nullptr);
    return status;
}

} // namespace host
} // namespace VESK
