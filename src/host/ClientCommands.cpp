#include "ClientCommands.h"

#include "Batch.h"
#include "ClientConfig.h"
#include "ClientSession.h"
#include "CommandLine.h"
#include "Console.h"
#include "ErrorText.h"
#include "TaskOutcome.h"
#include "Transfer.h"

#include <QDir>
#include <QFileInfo>
#include <QTemporaryDir>

#include <algorithm>
#include <functional>
#include <limits>
#include <memory>

#include <unistd.h>

namespace VESK {
namespace host {

namespace {

const QStringList kVerifyMethods{"fileattr", "md5", "sha1", "sha256", "xxh3"};

// ---- Options shared by the client commands ----------------------------------------------------

const QCommandLineOption kRoot("root", "Root directory inside the application's directory.", "R");
const QCommandLineOption kVerify("verify",
                                 "Verify the copy, and compare an existing destination, with "
                                 "METHOD: fileattr (size and modification time), md5, sha1, "
                                 "sha256 or xxh3 (default: xxh3).",
                                 "METHOD", "xxh3");
const QCommandLineOption kNoVerify("no-verify",
                                   "Do not read the files to verify the copy: compare sizes and "
                                   "modification times only (the same as --verify fileattr).");
const QCommandLineOption kIgnoreExisting(
    "ignore-existing",
    "Keep an existing destination file without comparing it (an upload is then not verified).");
const QCommandLineOption kReplace("replace",
                                  "Start over from the beginning instead of resuming a partial "
                                  "transfer.");
const QCommandLineOption kQuiet = quietOption();
const QCommandLineOption kDryRun = dryRunOption();
const QCommandLineOption kStallTimeout(
    "stall-timeout",
    "Stop when the server sent and received nothing (and no local file was read or written) "
    "for SECONDS; a transfer's partial file stays for a resume (default 120, 0: no limit).",
    "SECONDS", QString::number(kDefaultStallTimeoutSeconds));
const QCommandLineOption kMaxRate("max-rate",
                                  "Send at most RATE bytes per second, with K, M or G for "
                                  "powers of 1024 (such as 20M; default 0: as fast as the link "
                                  "allows).",
                                  "RATE", "0");
const QCommandLineOption kAskRate("max-rate",
                                  "Ask the server to send at most RATE bytes per second, with K, "
                                  "M or G for powers of 1024 (such as 20M); a server with a lower "
                                  "cap of its own keeps it (default 0: as fast as the server "
                                  "sends).",
                                  "RATE", "0");
const QCommandLineOption kSecretFile("secret-file",
                                     "Authenticate with the secret on the first line of FILE "
                                     "(default: $VESK_SECRET_FILE, then ~/.config/vesk/secret); "
                                     "the user is the URL's USER@, else the login name.",
                                     "FILE");
const QCommandLineOption kRecursive(QStringList{"r", "recursive"},
                                    "Copy directories with everything in them, empty "
                                    "directories included.");
constexpr int kMaxParallel = 8;
// How long a task that follows a probe of the server waits for the probe's place to be free.
constexpr int kWaitAfterProbeMs = 5000;
const QCommandLineOption kParallel(QStringList{"j", "parallel"},
                                   "Copy up to N files at once, one connection each (default 4, "
                                   "at most 8).",
                                   "N", "4");
// -v: the protocol log on stderr, and with several files a line for each.
const QCommandLineOption kVerbose(QStringList{"v", "verbose"},
                                  "Show the protocol log on stderr; with several files, also say "
                                  "what happened to each.");
const QCommandLineOption kJson("json", "One JSON object per line: {\"path\":...,\"type\":...}.");

// Reads the URL (positional argument `urlIndex`) and the options every client command has;
// -1 to go on, else the exit status.
int readCommon(const QCommandLineParser& parser, int urlIndex, ClientTask& task) {
    QString error;
    if (!parseUrl(parser.positionalArguments().at(urlIndex), task.url, &error))
        return usageError(task.command, error);
    QString aliasSecret;
    error = applyServerAlias(task.url, &aliasSecret);
    if (!error.isEmpty()) {
        printErr("vesk: " + error);
        return kExitFailed;
    }
    const QString secretFile = parser.isSet(kSecretFile) ? parser.value(kSecretFile) : aliasSecret;
    error = findCredentials(task.url, secretFile, &task.credentials);
    if (!error.isEmpty()) {
        printErr("vesk: " + error);
        return kExitFailed;
    }
    task.params.insert("rootPath", parser.value(kRoot));
    task.plugins = parser.value("plugins");
    task.quiet = parser.isSet(kQuiet);
    if (parser.isSet(kVerbose))
        showProtocolLog();
    bool ok = false;
    task.stallTimeout = parser.value(kStallTimeout).toInt(&ok);
    if (!ok || task.stallTimeout < 0)
        return usageError(task.command, "--stall-timeout takes a number of seconds (0: no limit)");
    if (!useCongestionOption(parser.value("congestion")))
        return usageError(task.command, kCongestionUsage);
    return -1;
}

// Reads --verify, --no-verify, --ignore-existing and --replace (upload and download); -1 to go
// on, else the exit status. Transfer.h explains how they map onto the handler's switches.
int readTransferOptions(const QCommandLineParser& parser, ClientTask& task) {
    TransferChoice choice;
    choice.method = parser.isSet(kNoVerify) ? QStringLiteral("fileattr") : parser.value(kVerify);
    if (!kVerifyMethods.contains(choice.method))
        return usageError(task.command, QString("unknown verify method '%1' (one of %2)")
                                            .arg(choice.method, kVerifyMethods.join(", ")));
    if (parser.isSet(kNoVerify) && parser.isSet(kVerify))
        return usageError(task.command, "--verify and --no-verify exclude each other");
    choice.replace = parser.isSet(kReplace);
    choice.ignoreExisting = parser.isSet(kIgnoreExisting);
    if (choice.replace && choice.ignoreExisting)
        return usageError(task.command, "--replace and --ignore-existing exclude each other");
    // Only an upload needs the handler to keep by name; a download client checks that itself.
    if (choice.ignoreExisting && task.op == QLatin1String("upload"))
        choice.method = QStringLiteral("false");
    task.params.insert("bVerify", choice.method);
    task.params.insert("bReplace", choice.replace ? "true" : "false");
    task.ignoreExisting = choice.ignoreExisting;
    task.counters = true;
    return -1;
}

QString interruptedText(const ClientTask& task, const QString& stop) {
    const bool cancelled = stop == QLatin1String("cancel");
    if (task.op == QLatin1String("upload"))
        return cancelled ? QString("cancelled; the part already sent stays on the server, and "
                                   "the same command resumes from it")
                         : QString("interrupted; the part already sent stays on the server: "
                                   "run the same command again to resume");
    if (task.op == QLatin1String("download"))
        return cancelled ? QString("cancelled; the partial file was removed")
                         : QString("interrupted; the partial file stays beside %1: run the same "
                                   "command again to resume")
                               .arg(task.localPath);
    return cancelled ? QString("cancelled") : QString("interrupted");
}

QString stalledText(const ClientTask& task) {
    const QString what =
        QString("the server %1 made no progress for %2 s (--stall-timeout); stopped")
            .arg(hostPortText(task.url.host, task.url.port), QString::number(task.stallTimeout));
    if (task.op == QLatin1String("upload"))
        return what + ". What was already sent stays on the server: run the same command again "
                      "to resume";
    if (task.op == QLatin1String("download"))
        return what + QString(". What was already received stays beside %1: run the same "
                              "command again to resume")
                          .arg(task.localPath);
    return what + ". Try again later";
}

QString rateText(const TaskResult& r) {
    const double rate = r.seconds > 0.0 ? double(r.moved) / r.seconds : 0.0;
    QString text = QString("%1 in %2 s (%3/s)")
                       .arg(formatBytes(r.moved), QString::number(r.seconds, 'f', 1),
                            formatBytes(qint64(rate)));
    if (r.beginOffset > 0)
        text += QString(", resumed at %1").arg(formatBytes(r.beginOffset));
    return text;
}

// The server answers a download of a directory as if it were a file and then gives up before
// the first byte; the transfer breaks off. A listing of that path tells the two apart.
bool isDirectoryOnServer(const ClientTask& download, const TaskResult& failed,
                         const TaskOutcome& outcome) {
    const bool brokeOff =
        outcome.failure == Failure::BrokeOff || outcome.failure == Failure::LocalDiskFull;
    if (!brokeOff || failed.moved > 0)
        return false;
    ClientTask probe(download.command, "list");
    probe.url = download.url;
    probe.plugins = download.plugins;
    probe.quiet = true;
    probe.silent = true;
    probe.stallTimeout = download.stallTimeout;
    probe.params.insert("rootPath", download.params.value("rootPath"));
    probe.params.insert("srcPath", download.url.path);
    TaskResult listed;
    return runTask(probe, listed) < 0 && listed.ok;
}

// Runs the task and reports it: a message on success (unless --quiet), one sentence on failure.
// `prepare`, when given, runs before each attempt (-1 to go on, else the exit status). A copy
// that fails its final verification has lost its partial file, so it is run once more from 0.
int runAndReport(const ClientTask& task,
                 const std::function<QString(Outcome, const TaskResult&)>& done,
                 const std::function<int()>& prepare = nullptr) {
    TaskResult r;
    TaskOutcome outcome;
    for (int attempt = 1;; ++attempt) {
        if (prepare) {
            if (const int status = prepare(); status >= 0)
                return status;
        }
        r = TaskResult();
        const int early = runTask(task, r);
        if (early >= 0)
            return early;
        outcome = outcomeOf(task, r);
        if (outcome.kind != Outcome::VerifyFailed)
            break;
        if (attempt == 2) {
            printErr(QString("vesk: verification failed again: the copy of %1 differs from its "
                             "source; it was removed (is the source being changed while it is "
                             "copied?)")
                         .arg(task.op == QLatin1String("upload") ? task.url.toString()
                                                                 : task.localPath));
            return kExitFailed;
        }
        printErr("vesk: the copy did not match its source (it changed since the partial "
                 "transfer?); starting again from the beginning");
    }
    switch (outcome.kind) {
    case Outcome::Stalled:
        printErr("vesk: " + stalledText(task));
        return kExitFailed;
    case Outcome::Interrupted:
    case Outcome::Cancelled:
        // A cancel that came after the task had already stopped was too late to clean up.
        if (r.cancelledAfterPause && task.op == QLatin1String("download"))
            QFile::remove(VeskBase::tmpFilePathFor(task.localPath));
        printErr("vesk: " +
                 interruptedText(task, outcome.kind == Outcome::Cancelled ? "cancel" : "pause"));
        return kExitInterrupted;
    case Outcome::Done:
    case Outcome::Identical:
    case Outcome::KeptExisting: {
        const QString text = done ? done(outcome.kind, r) : QString();
        if (!task.quiet && !text.isEmpty())
            printErr("vesk: " + text);
        return kExitOk;
    }
    case Outcome::TooSlow:
    case Outcome::VerifyFailed:
    case Outcome::Failed:
        break;
    }
    if (task.op == QLatin1String("download") && isDirectoryOnServer(task, r, outcome)) {
        printErr(QString("vesk: %1 is a directory on the server; download -r copies a "
                         "directory tree")
                     .arg(task.url.path));
        return kExitFailed;
    }
    printErr("vesk: " + clientFailureSentence(task.op, task.url, outcome));
    return kExitFailed;
}

const char* const kUrlForm = "vesk://[USER@]HOST:PORT/APPKEY/PATH";

// -n: says on stdout what the command would do and changes nothing. What the other side holds
// (an identical copy is left alone) only a task could tell, so that stays open, and stderr says
// so.
int reportDryRun(const ClientTask& task, const QStringList& plan, const QString& unknown) {
    for (const QString& line : plan)
        printOut(line);
    if (!task.quiet)
        printErr(QString("vesk: dry run: nothing was changed; %1 is not known").arg(unknown));
    return kExitOk;
}

// The plan of a dry run over many files: directories to create, then the copies.
QStringList dryRunPlan(const ClientTask& task, const QList<CopyItem>& items) {
    const bool upload = task.op == QLatin1String("upload");
    QStringList plan;
    for (const CopyItem& item : items) {
        VeskUrl remote = task.url;
        remote.path = item.remote;
        if (item.directory)
            plan << "would create " + (upload ? remote.toString() : item.local) + "/";
        else if (upload)
            plan << QString("would upload %1 (%2) to %3")
                        .arg(item.local, formatBytes(item.size), remote.toString());
        else
            plan << QString("would download %1 to %2").arg(remote.toString(), item.local);
    }
    return plan;
}

// Copies `items` over parallel connections, or with -n only says what it would copy.
int copyAll(const ClientTask& task, const QList<CopyItem>& items, const BatchOptions& batch) {
    if (task.dryRun)
        return reportDryRun(task, dryRunPlan(task, items),
                            task.op == QLatin1String("upload")
                                ? "which of these the server already holds identical"
                                : "which of these are already identical here");
    return runBatch(task, items, batch);
}

// Reads -j and -v (upload and download); -1 to go on, else the exit status.
int readBatchOptions(const QCommandLineParser& parser, const ClientTask& task,
                     BatchOptions* batch) {
    bool ok = false;
    batch->parallel = parser.value(kParallel).toInt(&ok);
    if (!ok || batch->parallel < 1 || batch->parallel > kMaxParallel)
        return usageError(task.command,
                          QString("--parallel takes a number from 1 to %1").arg(kMaxParallel));
    batch->verbose = parser.isSet(kVerbose);
    return -1;
}

// Uploads one file to the server path `place`. A copy under another name is read through a
// link of that name, since a file keeps its name on the way.
int uploadOne(ClientTask task, const QFileInfo& local, const QString& place) {
    const QString name = place.mid(place.lastIndexOf('/') + 1);
    task.localPath = local.absoluteFilePath();
    task.params.insert("fileName", name);
    task.params.insert("srcPath", local.absolutePath());
    task.params.insert("destPath", place.left(place.lastIndexOf('/')));
    QTemporaryDir renamed(QDir::temp().filePath("vesk-upload-XXXXXX"));
    if (name != local.fileName()) {
        if (!renamed.isValid() || !QFile::link(local.absoluteFilePath(), renamed.filePath(name))) {
            printErr(
                QString("vesk: cannot prepare %1 under the name %2").arg(local.filePath(), name));
            return kExitFailed;
        }
        task.params.insert("srcPath", renamed.path());
    }
    VeskUrl target = task.url;
    target.path = place;
    if (task.dryRun)
        return reportDryRun(
            task,
            {QString("would upload %1 (%2) to %3")
                 .arg(task.localPath, formatBytes(local.size()), target.toString())},
            "whether the server already holds an identical copy (which would be left alone)");
    return runAndReport(task, [&](Outcome outcome, const TaskResult& r) {
        if (outcome == Outcome::KeptExisting)
            return QString("%1 already exists on the server; kept (--ignore-existing)")
                .arg(target.toString());
        if (outcome == Outcome::Identical)
            return QString("%1 is already identical on the server; nothing sent")
                .arg(target.toString());
        return QString("uploaded %1 to %2: %3")
            .arg(local.fileName(), target.toString(), rateText(r));
    });
}

// Downloads the file of task.url into the local directory `localDir`, under its own name;
// `shown` is the path the sentences name.
int downloadInto(ClientTask task, const QString& localDir, const QString& shown) {
    task.localPath = QDir(localDir).filePath(task.url.fileName());
    task.params.insert("fileName", task.url.fileName());
    task.params.insert("srcPath", task.url.directory());
    task.params.insert("destPath", localDir);

    if (task.ignoreExisting && QFileInfo::exists(task.localPath)) {
        if (!task.quiet)
            printErr(QString("vesk: %1 already exists; kept (--ignore-existing)").arg(shown));
        return kExitOk;
    }
    // Each attempt holds the lock on the partial file; a failed verification removed the old
    // one, so a second attempt locks the file it starts anew.
    std::unique_ptr<PartialFileLock> lock;
    const QString partial = VeskBase::tmpFilePathFor(task.localPath);
    const bool replace = task.params.value("bReplace") == QLatin1String("true");
    auto prepare = [&]() -> int {
        const QString refused = lockPartialFile(lock, localDir, partial, replace, shown);
        if (refused.isEmpty())
            return -1;
        printErr("vesk: " + refused);
        return kExitFailed;
    };
    return runAndReport(
        task,
        [&](Outcome outcome, const TaskResult& r) {
            keepVerifiedValue(task.localPath, task.params.value("bVerify"));
            if (outcome != Outcome::Done)
                return QString("%1 is already identical to the server's copy; nothing received")
                    .arg(shown);
            return QString("downloaded %1 to %2: %3").arg(task.url.toString(), shown, rateText(r));
        },
        prepare);
}

// Downloads the file of task.url to the local path `place`. A copy under another name is
// received in a hidden directory beside it (which also keeps its partial file for a resume)
// and renamed once complete; an existing file of that name is linked in first, so that an
// identical one is still recognised.
int downloadOne(const ClientTask& task, const QString& place) {
    if (task.dryRun) {
        QString plan = QString("would download %1 to %2").arg(task.url.toString(), place);
        const QFileInfo partialFile(VeskBase::tmpFilePathFor(place));
        if (QFileInfo::exists(place))
            plan += " (it exists: it would be compared with the server's copy and replaced only "
                    "if it differs)";
        else if (partialFile.exists() && partialFile.size() > 0 &&
                 task.params.value("bReplace") != QLatin1String("true"))
            plan += QString(" (resuming after the %1 already received)")
                        .arg(formatBytes(partialFile.size()));
        return reportDryRun(task, {plan}, "whether the server holds this file");
    }
    const QFileInfo info(place);
    const QString localDir = info.absolutePath();
    if (info.fileName() == task.url.fileName())
        return downloadInto(task, localDir, place);
    const QString staging = QDir(localDir).filePath('.' + info.fileName() + ".vesk-dir");
    const QString staged = QDir(staging).filePath(task.url.fileName());
    if (!QDir().mkpath(staging)) {
        printErr(QString("vesk: cannot create the directory %1").arg(staging));
        return kExitFailed;
    }
    if (info.isFile() && !QFileInfo::exists(staged))
        ::link(QFile::encodeName(place).constData(), QFile::encodeName(staged).constData());
    const int status = downloadInto(task, staging, place);
    if (status == kExitOk && QFileInfo::exists(staged) &&
        ::rename(QFile::encodeName(staged).constData(), QFile::encodeName(place).constData()) !=
            0) {
        printErr(QString("vesk: cannot rename %1 to %2").arg(staged, place));
        return kExitFailed;
    }
    // A rename onto the very file it links to (an identical copy) leaves both names.
    if (status == kExitOk)
        QFile::remove(staged);
    // What stays is a partial file for the next run; an unused link goes.
    if (status != kExitOk && info.isFile() && QFileInfo(staged).isFile())
        QFile::remove(staged);
    QDir().rmdir(staging);
    return status;
}

} // namespace

int runUpload(const QStringList& args) {
    QCommandLineParser parser;
    parser.addOptions({kRecursive, kParallel, kVerbose, kRoot, kVerify, kNoVerify, kIgnoreExisting,
                       kReplace, kQuiet, kDryRun, kStallTimeout, kMaxRate, kSecretFile,
                       congestionOption(), pluginsOption()});
    parser.addPositionalArgument("LOCAL", "The files (and with -r directories) to upload.",
                                 "LOCAL...");
    parser.addPositionalArgument("URL", QString("Where they go: %1.").arg(kUrlForm));
    const CommandHelp help{
        "upload", "LOCAL... URL",
        "Uploads files, and with -r directory trees, to an application on a vesk server. A URL "
        "that is a directory there, or ends in \"/\", receives the sources under their own "
        "names; with one source, any other URL is the new name of the copy. A directory "
        "written with a trailing \"/\" stands for its contents. A file already there is "
        "replaced when it differs and left alone when it is identical; every copy is verified "
        "(xxh3 by default). Several files go over --parallel connections at once. An "
        "interrupted upload (Ctrl-C) resumes when the same command runs again; a second Ctrl-C "
        "cancels.",
        "  vesk upload ./report.pdf vesk://127.0.0.1:9000/appA/docs/\n"
        "  vesk upload -r -j 8 ./photos vesk://127.0.0.1:9000/appA/backup/"};
    const int parsed = parseCommand(parser, args, help, 2, std::numeric_limits<int>::max());
    if (parsed >= 0)
        return parsed;

    const QStringList positional = parser.positionalArguments();
    const QString targetText = positional.last();
    const QStringList sources = positional.mid(0, positional.size() - 1);
    ClientTask task("upload", "upload");
    if (const int status = readCommon(parser, positional.size() - 1, task); status >= 0)
        return status;
    task.dryRun = parser.isSet(kDryRun);
    if (const int status = readTransferOptions(parser, task); status >= 0)
        return status;
    if (!parseRate(parser.value(kMaxRate), &task.maxRate))
        return usageError(task.command, "--max-rate takes bytes per second, such as 500K or 20M");
    BatchOptions batch;
    if (const int status = readBatchOptions(parser, task, &batch); status >= 0)
        return status;
    const bool recursive = parser.isSet(kRecursive);
    for (const QString& source : sources) {
        const QFileInfo local(source);
        if (!local.exists()) {
            printErr(QString("vesk: no such local file: %1").arg(local.filePath()));
            return kExitFailed;
        }
        if (local.isDir() && !recursive) {
            printErr(QString("vesk: %1 is a directory; -r uploads directory trees")
                         .arg(local.filePath()));
            return kExitFailed;
        }
        if (!local.isFile() && !local.isDir()) {
            printErr(QString("vesk: not a regular file: %1").arg(local.filePath()));
            return kExitFailed;
        }
    }

    // What the URL names decides where the sources land (see CopyPlan.h).
    const QString remote = task.url.path;
    bool targetIsDirectory = remote.isEmpty() || targetText.endsWith('/');
    if (!targetIsDirectory) {
        RemoteKind kind = RemoteKind::Missing;
        if (const int status = probeRemote(task, remote, &kind); status >= 0)
            return status;
        if (kind == RemoteKind::File && sources.size() > 1) {
            printErr(QString("vesk: %1 is a file on the server, not a directory for %2 sources")
                         .arg(task.url.toString())
                         .arg(sources.size()));
            return kExitFailed;
        }
        targetIsDirectory = kind == RemoteKind::Directory;
        // The probe's connection may hold its place on the server a moment longer.
        task.waitForPlaceMs = kWaitAfterProbeMs;
    }

    if (sources.size() == 1 && QFileInfo(sources.first()).isFile()) {
        const QFileInfo local(sources.first());
        const QString place = placeFor(remote, targetIsDirectory, 1, local.fileName(), false);
        return uploadOne(task, local, place);
    }

    QList<CopyItem> items;
    for (const QString& source : sources) {
        const QFileInfo local(source);
        const bool contentsOnly = local.isDir() && source.endsWith('/');
        const QString place =
            placeFor(remote, targetIsDirectory, sources.size(), local.fileName(), contentsOnly);
        if (local.isFile()) {
            items.append({local.absoluteFilePath(), place, false, local.size()});
            continue;
        }
        if (!place.isEmpty())
            items.append({local.absoluteFilePath(), place, true, -1});
        addLocalTree(local.absoluteFilePath(), place, items);
    }
    std::stable_sort(items.begin(), items.end(), [](const CopyItem& a, const CopyItem& b) {
        return a.directory > b.directory;
    });
    return copyAll(task, items, batch);
}

int runDownload(const QStringList& args) {
    QCommandLineParser parser;
    parser.addOptions({kRecursive, kParallel, kVerbose, kRoot, kVerify, kNoVerify, kIgnoreExisting,
                       kReplace, kQuiet, kDryRun, kStallTimeout, kAskRate, kSecretFile,
                       congestionOption(), pluginsOption()});
    parser.addPositionalArgument("URL",
                                 QString("The files (and with -r directories) on the "
                                         "server: %1.")
                                     .arg(kUrlForm),
                                 "URL...");
    parser.addPositionalArgument("LOCAL", "Where they go (default: the current directory).",
                                 "[LOCAL]");
    const CommandHelp help{
        "download", "URL... [LOCAL]",
        "Downloads files, and with -r directory trees, of an application from a vesk server. A "
        "LOCAL that is a directory, or ends in \"/\", receives the sources under their own "
        "names; with one source, any other LOCAL is the new name of the copy. A URL ending in "
        "\"/\" stands for the directory's contents. An existing local file is replaced when it "
        "differs from the server's copy and left alone when it is identical; every copy is "
        "verified (xxh3 by default). Several files come over --parallel connections at once. An "
        "interrupted download (Ctrl-C) resumes when the same command runs again; a second "
        "Ctrl-C cancels and removes the partial file.",
        "  vesk download vesk://127.0.0.1:9000/appA/docs/report.pdf ~/Downloads\n"
        "  vesk download -r vesk://127.0.0.1:9000/appA/photos ./photos-copy"};
    const int parsed = parseCommand(parser, args, help, 1, std::numeric_limits<int>::max());
    if (parsed >= 0)
        return parsed;

    QStringList sources = parser.positionalArguments();
    QString targetText = QStringLiteral(".");
    bool targetGiven = false;
    if (sources.size() > 1 && !sources.last().startsWith(QLatin1String("vesk://"))) {
        targetText = sources.takeLast();
        targetGiven = true;
    }
    ClientTask task("download", "download");
    if (const int status = readCommon(parser, 0, task); status >= 0)
        return status;
    task.dryRun = parser.isSet(kDryRun);
    if (!parseRate(parser.value(kAskRate), &task.askedRate))
        return usageError(task.command, "--max-rate takes bytes per second, such as 500K or 20M");
    if (const int status = readTransferOptions(parser, task); status >= 0)
        return status;
    BatchOptions batch;
    if (const int status = readBatchOptions(parser, task, &batch); status >= 0)
        return status;
    QList<VeskUrl> urls;
    for (const QString& source : sources) {
        VeskUrl url;
        QString error;
        if (!parseUrl(source, url, &error))
            return usageError(task.command, error);
        if (url.host != task.url.host || url.port != task.url.port || url.user != task.url.user ||
            url.appKey != task.url.appKey)
            return usageError(task.command, "all URLs must name the same server, user and "
                                            "application");
        urls.append(url);
    }
    const QFileInfo target(targetText);
    const bool targetIsDirectory = !targetGiven || target.isDir() || targetText.endsWith('/');
    if (sources.size() > 1 && target.exists() && !target.isDir()) {
        printErr(QString("vesk: %1 is a file, not a directory for %2 sources")
                     .arg(targetText)
                     .arg(sources.size()));
        return kExitFailed;
    }
    const QString targetPath = target.absoluteFilePath();

    // One file, the common case, without asking the server what it is first.
    if (sources.size() == 1 && !parser.isSet(kRecursive)) {
        if (task.url.path.isEmpty())
            return usageError(task.command, QString("%1 names no file").arg(task.url.toString()));
        return downloadOne(task,
                           placeFor(targetPath, targetIsDirectory, 1, task.url.fileName(), false));
    }

    // The probes follow each other, each may find the last one's place still taken.
    task.waitForPlaceMs = kWaitAfterProbeMs;
    QList<CopyItem> items;
    for (int i = 0; i < urls.size(); ++i) {
        const VeskUrl& url = urls.at(i);
        RemoteKind kind = RemoteKind::Missing;
        if (const int status = probeRemote(task, url.path, &kind); status >= 0)
            return status;
        if (kind == RemoteKind::Missing) {
            printErr(
                QString("vesk: no such file or directory on the server: %1").arg(url.toString()));
            return kExitFailed;
        }
        const bool contentsOnly = kind == RemoteKind::Directory && sources.at(i).endsWith('/');
        const QString place =
            placeFor(targetPath, targetIsDirectory, urls.size(), url.fileName(), contentsOnly);
        if (kind == RemoteKind::File) {
            if (urls.size() == 1) {
                task.url = url;
                return downloadOne(task, place);
            }
            items.append({place, url.path, false, -1});
            continue;
        }
        if (!parser.isSet(kRecursive)) {
            printErr(QString("vesk: %1 is a directory on the server; -r downloads directory trees")
                         .arg(url.path));
            return kExitFailed;
        }
        QMap<QString, QString> entries;
        TaskResult listed;
        if (const int status = listRemote(task, url.path, &entries, &listed); status >= 0)
            return status;
        if (!listed.ok) {
            const ClientTask listing(task.command, "list");
            printErr("vesk: " + clientFailureSentence("list", url, outcomeOf(listing, listed)));
            return kExitFailed;
        }
        items.append({place, url.path, true, -1});
        for (auto it = entries.constBegin(); it != entries.constEnd(); ++it)
            items.append(
                {place + it.key(), url.path + it.key(), it.value() == QLatin1String("dir"), -1});
    }
    std::stable_sort(items.begin(), items.end(), [](const CopyItem& a, const CopyItem& b) {
        return a.directory > b.directory;
    });
    return copyAll(task, items, batch);
}

int runList(const QStringList& args) {
    QCommandLineParser parser;
    parser.addOptions({kRoot, kJson, kQuiet, kVerbose, kStallTimeout, kSecretFile,
                       congestionOption(), pluginsOption()});
    parser.addPositionalArgument("URL", QString("The directory to list: %1.").arg(kUrlForm));
    const CommandHelp help{
        args.value(0, "ls"), "URL",
        "Lists a directory of an application on a vesk server, recursively: one entry per line, "
        "its path below the listed directory, directories ending in \"/\". Lines appear as the "
        "server sends them.",
        "  vesk ls vesk://127.0.0.1:9000/appA/docs\n"
        "  vesk ls --json vesk://127.0.0.1:9000/appA"};
    const int parsed = parseCommand(parser, args, help, 1, 1);
    if (parsed >= 0)
        return parsed;

    ClientTask task(help.name, "list");
    if (const int status = readCommon(parser, 0, task); status >= 0)
        return status;
    task.json = parser.isSet(kJson);
    task.params.insert("srcPath", task.url.path);
    return runAndReport(task, nullptr);
}

int runMkdir(const QStringList& args) {
    QCommandLineParser parser;
    parser.addOptions({kRoot, kQuiet, kVerbose, kDryRun, kStallTimeout, kSecretFile,
                       congestionOption(), pluginsOption()});
    parser.addPositionalArgument("URL", QString("The directory to create: %1.").arg(kUrlForm));
    const CommandHelp help{"mkdir", "URL",
                           "Creates a directory (and its missing parents) in an application's "
                           "directory on a vesk server. An existing directory is fine.",
                           "  vesk mkdir vesk://127.0.0.1:9000/appA/docs/2024"};
    const int parsed = parseCommand(parser, args, help, 1, 1);
    if (parsed >= 0)
        return parsed;

    ClientTask task("mkdir", "createDir");
    if (const int status = readCommon(parser, 0, task); status >= 0)
        return status;
    task.params.insert("destPath", task.url.path);
    if (parser.isSet(kDryRun))
        return reportDryRun(task, {"would create " + task.url.toString()},
                            "whether the directory exists already");
    return runAndReport(
        task, [&](Outcome, const TaskResult&) { return "created " + task.url.toString(); });
}

} // namespace host
} // namespace VESK
