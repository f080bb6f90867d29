#include "ClientCommands.h"

#include "ClientConfig.h"
#include "ClientCredentials.h"
#include "CommandLine.h"
#include "Console.h"
#include "ErrorText.h"
#include "HostHello.h"
#include "MachineId.h"
#include "PluginLoader.h"
#include "Progress.h"
#include "SignalHandling.h"
#include "StallWatch.h"
#include "TaskLog.h"
#include "Transfer.h"
#include "Url.h"
#include "base/Net.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>

#include <udt/udt.h>

#include <atomic>
#include <condition_variable>
#include <csignal>
#include <functional>
#include <mutex>
#include <thread>

namespace VESK {
namespace host {

namespace {

const char* const kAppVersion = "2.0.0";
const QStringList kVerifyMethods{"fileattr", "md5", "sha1", "sha256", "xxh3"};
// How often the progress line is redrawn and interrupts are looked at.
constexpr int kPollMs = 100;
// How long after a first Ctrl-C the process stays, so that a second one can still cancel.
constexpr int kSecondInterruptMs = 2000;

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
const QCommandLineOption kVerbose = verboseOption();
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
const QCommandLineOption kJson("json", "One JSON object per line: {\"path\":...,\"type\":...}.");

// One task as the user asked for it, before anything is connected.
struct ClientTask {
    ClientTask(const QString& commandName, const QString& operation)
        : command(commandName)
        , op(operation) {}

    QString command; // the command's name, for messages
    QString op;      // the handler's "operator"
    VeskUrl url;
    ClientCredentials credentials;
    ParamMap params; // the operation's own parameters
    QString localPath;
    QString plugins;
    bool quiet = false;
    int stallTimeout = kDefaultStallTimeoutSeconds;
    qint64 maxRate = 0;    // bytes per second this side sends at most; 0: no cap
    qint64 askedRate = 0;  // bytes per second the server is asked to send at most; 0: no cap
    bool counters = false; // upload and download report progress through the two counters
    bool json = false;
    bool ignoreExisting = false;
    bool silent = false; // a listing whose entries are not printed
};

struct TaskResult {
    bool ok = false;
    bool interrupted = false;
    bool stalled = false;
    QString lastError;
    QStringList errors;
    QStringList infos;
    qint64 beginOffset = 0;
    qint64 total = 0;
    qint64 moved = 0;
    double seconds = 0.0;
    // A second Ctrl-C came after the task had already stopped at the first.
    bool cancelledAfterPause = false;
};

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

void printChunk(const QMap<QString, QString>& chunk, bool json) {
    QString text;
    for (auto it = chunk.constBegin(); it != chunk.constEnd(); ++it) {
        if (json)
            text += QString::fromUtf8(
                        QJsonDocument(QJsonObject{{"path", it.key()}, {"type", it.value()}})
                            .toJson(QJsonDocument::Compact)) +
                    '\n';
        else
            text += escapedName(it.key()) + (it.value() == QLatin1String("dir") ? "/" : "") + '\n';
    }
    if (!text.isEmpty())
        writeOut(text);
}

void configure(VeskBase* handler, const ClientTask& task, int socket, qint64* total,
               qint64* offset) {
    handler->setParam("endPoint", "client");
    handler->setParam("operator", task.op);
    handler->setParam("clientSocket", QString::number(socket));
    handler->setParam("appKey", task.url.appKey);
    handler->setParam("userName", task.credentials.user);
    handler->setParam("appVersion", kAppVersion);
    handler->setParam("mac", machineIdentity());
    for (auto it = task.params.constBegin(); it != task.params.constEnd(); ++it)
        handler->setParam(it.key(), it.value());
    if (task.counters) {
        handler->setParam("total", QString::number(reinterpret_cast<quintptr>(total)));
        handler->setParam("offset", QString::number(reinterpret_cast<quintptr>(offset)));
    }
}

// Connects, greets the server and returns the socket; on failure prints why and returns an
// invalid socket.
net::Socket openConnection(const ClientTask& task, VeskBase* handler) {
    QString error;
    net::Socket socket(net::connectTo(task.url.host, task.url.port, &error));
    if (!socket.valid()) {
        printErr("vesk: " + error);
        return socket;
    }
    if (!net::limitSendRate(socket.get(), task.maxRate)) {
        printErr(QString("vesk: cannot limit the send rate: %1")
                     .arg(QString::fromLocal8Bit(UDT::getlasterror().getErrorMessage())));
        return net::Socket();
    }
    QString protocol, version, errorType;
    splitProtocolKey(handler->getKey(), &protocol, &version);
    switch (clientHello(socket.get(), protocol, version, task.credentials, &errorType, &error,
                        task.askedRate)) {
    case HelloResult::Accepted:
        return socket;
    case HelloResult::SecretNeeded:
        printErr("vesk: the server requires authentication; give --secret-file");
        break;
    case HelloResult::ServerUnproven:
        printErr(
            QString("vesk: %1 is not the server that shares %2's secret: %3; nothing was sent")
                .arg(hostPortText(task.url.host, task.url.port), task.credentials.user, error));
        break;
    case HelloResult::Refused:
        printErr("vesk: " + refusalSentence(errorType, task.url, task.op));
        break;
    case HelloResult::Failed:
        printErr(QString("vesk: %1 did not answer as a vesk server (%2)")
                     .arg(hostPortText(task.url.host, task.url.port), error));
        break;
    }
    return net::Socket();
}

// Runs process() on a worker thread while this thread draws progress. Ctrl-C pauses the
// handler and closes the socket, so a transfer blocked in UDT returns at once; a second Ctrl-C
// turns the pause into a cancel. The task usually stops well before a person can press Ctrl-C
// again, so after a first Ctrl-C the process stays for kSecondInterruptMs to give the second
// one its chance (result.cancelledAfterPause). A task that makes no progress for the stall
// timeout is stopped the way the first Ctrl-C stops it.
bool processWithProgress(VeskBase* handler, int socket, const ClientTask& task, const qint64* total,
                         const qint64* offset, TaskResult& result) {
    std::atomic<int> interrupts{0};
    std::atomic<int> firstSignal{0};
    setInterruptReaction([handler, socket, &interrupts, &firstSignal](int signal, int count) {
        if (count == 1)
            firstSignal.store(signal);
        interrupts.store(count);
        if (count == 1) {
            handler->pause();
            // The handler leaves a client's socket open; the host owns it and closes it.
            UDT::close(socket);
        } else {
            handler->cancel();
        }
    });

    std::mutex mutex;
    std::condition_variable finished;
    bool done = false;
    bool ok = false;
    std::atomic<pid_t> workerId{0};
    std::thread worker([&] {
        workerId.store(currentThreadId());
        const bool processed = handler->process();
        std::lock_guard<std::mutex> lock(mutex);
        ok = processed;
        done = true;
        finished.notify_all();
    });

    ProgressBar progress(total, offset, task.counters && !task.quiet && stderrIsTerminal());
    // An upload's bar counts what the server acknowledged, not what was handed to UDT.
    if (task.op == QLatin1String("upload"))
        progress.setUnacknowledged([socket] { return unacknowledgedBytes(socket); });
    progress.setVerifying(task.params.value("bVerify") != QLatin1String("false") &&
                          task.params.value("bVerify") != QLatin1String("fileattr"));
    bool drawing = true;
    QElapsedTimer sinceInterrupt;
    // Says once that the task is stopping; the task may also have ended before this saw it.
    auto noticeInterrupt = [&] {
        if (interrupts.load() == 0 || sinceInterrupt.isValid())
            return;
        sinceInterrupt.start();
        if (drawing)
            progress.finish();
        drawing = false;
        printErr("vesk: interrupted; stopping (Ctrl-C again cancels)");
    };
    std::unique_ptr<StallWatch> watch;
    for (;;) {
        {
            std::unique_lock<std::mutex> lock(mutex);
            if (finished.wait_for(lock, std::chrono::milliseconds(kPollMs), [&] { return done; }))
                break;
        }
        if (!watch && workerId.load() != 0)
            watch = std::make_unique<StallWatch>(socket, workerId.load(), task.stallTimeout);
        if (watch && !result.stalled && interrupts.load() == 0 && watch->stalled()) {
            result.stalled = true;
            handler->pause();
            UDT::close(socket);
        }
        noticeInterrupt();
        if (drawing)
            progress.update();
    }
    worker.join();
    noticeInterrupt();
    if (!ok && interrupts.load() == 1 && firstSignal.load() == SIGINT &&
        handler->getLastError() == QLatin1String("pause")) {
        while (interrupts.load() == 1 && sinceInterrupt.elapsed() < kSecondInterruptMs)
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        result.cancelledAfterPause = interrupts.load() > 1;
    }
    // The old reaction is not running once this returns: it captured locals of this frame.
    setInterruptReaction(nullptr);
    if (drawing)
        progress.finish();
    result.interrupted = interrupts.load() > 0;
    return ok;
}

// Connects and runs the task. Returns -1 when the task ran (its outcome is in `result`), else
// the exit status of a failure before it could start.
int runTask(const ClientTask& task, TaskResult& result) {
    PluginLoader loader(task.plugins);
    QString error;
    if (!loader.load(&error)) {
        printErr("vesk: " + error);
        return kExitFailed;
    }
    PluginLoader::Handler handler = loader.create();
    // Drained and closed when this returns, once the task is over.
    net::Socket socket = openConnection(task, handler.get());
    if (!socket.valid())
        return kExitFailed;

    qint64 total = 0;
    qint64 offset = 0;
    configure(handler.get(), task, socket.get(), &total, &offset);
    TaskLog log(handler.get());
    if (task.op == QLatin1String("list") && !task.silent) {
        const bool json = task.json;
        QObject::connect(handler.get(), &VeskBase::sigList,
                         [json](QMap<QString, QString> chunk) { printChunk(chunk, json); });
    }

    QElapsedTimer clock;
    clock.start();
    result.ok = processWithProgress(handler.get(), socket.get(), task, &total, &offset, result);
    result.seconds = double(clock.elapsed()) / 1000.0;
    result.lastError = handler->getLastError();
    result.errors = log.errors();
    result.infos = log.messages("info");
    result.beginOffset = handler->getParam("transferBeginSize", "").toLongLong();
    result.total = total;
    // What this run moved, from where the server's offer let it start.
    result.moved = std::max<qint64>(0, offset - result.beginOffset);
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

bool wasSecondPass(const TaskResult& r) {
    for (const QString& line : r.infos) {
        if (line.endsWith(QLatin1String(" second pass.")))
            return true;
    }
    return false;
}

// The server answers a download of a directory as if it were a file and then gives up before
// the first byte; the transfer breaks off. A listing of that path tells the two apart.
bool isDirectoryOnServer(const ClientTask& download, const TaskResult& failed) {
    static const QRegularExpression brokeOff("^downloadRequest: recvfile .* failed\\.");
    if (failed.errors.filter(brokeOff).isEmpty())
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
int runAndReport(const ClientTask& task, const std::function<QString(const TaskResult&)>& done,
                 const std::function<int()>& prepare = nullptr) {
    TaskResult r;
    for (int attempt = 1;; ++attempt) {
        if (prepare) {
            if (const int status = prepare(); status >= 0)
                return status;
        }
        r = TaskResult();
        const int early = runTask(task, r);
        if (early >= 0)
            return early;
        if (r.ok || r.interrupted || r.stalled || !verificationFailed(r.errors))
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
    if (!r.ok && r.stalled && !r.interrupted && r.lastError == QLatin1String("pause")) {
        printErr("vesk: " + stalledText(task));
        return kExitFailed;
    }
    if (!r.ok && r.interrupted &&
        (r.lastError == QLatin1String("pause") || r.lastError == QLatin1String("cancel"))) {
        QString stop = r.lastError;
        if (r.cancelledAfterPause) {
            stop = QStringLiteral("cancel");
            // The task had already stopped, so its cancel came too late to clean up.
            if (task.op == QLatin1String("download"))
                QFile::remove(VeskBase::tmpFilePathFor(task.localPath));
        }
        printErr("vesk: " + interruptedText(task, stop));
        return kExitInterrupted;
    }
    if (r.ok) {
        const QString text = done ? done(r) : QString();
        if (!task.quiet && !text.isEmpty())
            printErr("vesk: " + text);
        return kExitOk;
    }
    if (task.op == QLatin1String("download") && r.moved == 0 && isDirectoryOnServer(task, r)) {
        printErr(QString("vesk: %1 is a directory on the server; vesk downloads one file at a "
                         "time (vesk ls lists the directory)")
                     .arg(task.url.path));
        return kExitFailed;
    }
    printErr("vesk: " +
             clientFailureSentence({task.op, task.url, task.localPath, r.lastError, r.errors}));
    return kExitFailed;
}

const char* const kUrlForm = "vesk://[USER@]HOST:PORT/APPKEY/PATH";

// -n: says what the command would do, as far as it is known without contacting the server (only
// a task could tell what the server holds), on stdout, and what was left unknown on stderr.
int reportDryRun(const ClientTask& task, const QString& plan, const QString& unknown) {
    printOut(plan);
    if (!task.quiet)
        printErr("vesk: dry run: nothing was changed; the server was not contacted, so " + unknown +
                 " is not known");
    return kExitOk;
}

} // namespace

int runUpload(const QStringList& args) {
    QCommandLineParser parser;
    parser.addOptions({kRoot, kVerify, kNoVerify, kIgnoreExisting, kReplace, kQuiet, kVerbose,
                       kDryRun, kStallTimeout, kMaxRate, kSecretFile, congestionOption(),
                       pluginsOption()});
    parser.addPositionalArgument("LOCAL_FILE", "The file to upload.");
    parser.addPositionalArgument("URL_OF_DIR", QString("Where it goes: %1.").arg(kUrlForm));
    const CommandHelp help{
        "upload", "LOCAL_FILE URL_OF_DIR",
        "Uploads LOCAL_FILE into a directory of an application on a vesk server. A file already "
        "there is replaced when it differs and left alone when it is identical; every copy is "
        "verified (xxh3 by default). An interrupted upload (Ctrl-C) resumes when the same "
        "command runs again; a second Ctrl-C cancels.",
        "  vesk upload ./report.pdf vesk://127.0.0.1:9000/appA/docs"};
    const int parsed = parseCommand(parser, args, help, 2, 2);
    if (parsed >= 0)
        return parsed;

    ClientTask task("upload", "upload");
    if (const int status = readCommon(parser, 1, task); status >= 0)
        return status;
    if (const int status = readTransferOptions(parser, task); status >= 0)
        return status;
    if (!parseRate(parser.value(kMaxRate), &task.maxRate))
        return usageError(task.command, "--max-rate takes bytes per second, such as 500K or 20M");
    const QFileInfo local(parser.positionalArguments().at(0));
    task.localPath = local.absoluteFilePath();
    if (!local.exists()) {
        printErr(QString("vesk: no such local file: %1").arg(local.filePath()));
        return kExitFailed;
    }
    if (!local.isFile()) {
        printErr(QString("vesk: not a regular file: %1").arg(local.filePath()));
        return kExitFailed;
    }
    task.params.insert("fileName", local.fileName());
    task.params.insert("srcPath", local.absolutePath());
    task.params.insert("destPath", task.url.path);

    const QString target = task.url.toString() + '/' + local.fileName();
    if (parser.isSet(kDryRun))
        return reportDryRun(
            task,
            QString("would upload %1 (%2) to %3")
                .arg(task.localPath, formatBytes(local.size()), target),
            "whether the server already holds an identical copy (which would be left alone)");
    return runAndReport(task, [&](const TaskResult& r) {
        if (wasSecondPass(r) && task.ignoreExisting)
            return QString("%1 already exists on the server; kept (--ignore-existing)").arg(target);
        if (wasSecondPass(r))
            return QString("%1 is already identical on the server; nothing sent").arg(target);
        return QString("uploaded %1 to %2: %3").arg(local.fileName(), target, rateText(r));
    });
}

int runDownload(const QStringList& args) {
    QCommandLineParser parser;
    parser.addOptions({kRoot, kVerify, kNoVerify, kIgnoreExisting, kReplace, kQuiet, kVerbose,
                       kDryRun, kStallTimeout, kAskRate, kSecretFile, congestionOption(),
                       pluginsOption()});
    parser.addPositionalArgument("URL_OF_FILE",
                                 QString("The file on the server: %1.").arg(kUrlForm));
    parser.addPositionalArgument("LOCAL_DIR", "Where it goes (default: the current directory).",
                                 "[LOCAL_DIR]");
    const CommandHelp help{
        "download", "URL_OF_FILE [LOCAL_DIR]",
        "Downloads one file of an application from a vesk server. An interrupted download "
        "(Ctrl-C) resumes when the same command runs again; a second Ctrl-C cancels and removes "
        "the partial file. An existing local file is replaced when it differs from the server's "
        "copy and left alone when it is identical; every copy is verified (xxh3 by default).",
        "  vesk download vesk://127.0.0.1:9000/appA/docs/report.pdf ~/Downloads"};
    const int parsed = parseCommand(parser, args, help, 1, 2);
    if (parsed >= 0)
        return parsed;

    ClientTask task("download", "download");
    if (const int status = readCommon(parser, 0, task); status >= 0)
        return status;
    if (const int status = readTransferOptions(parser, task); status >= 0)
        return status;
    if (!parseRate(parser.value(kAskRate), &task.askedRate))
        return usageError(task.command, "--max-rate takes bytes per second, such as 500K or 20M");
    if (task.url.path.isEmpty())
        return usageError(task.command, QString("%1 names no file").arg(task.url.toString()));
    const QString localDir =
        QFileInfo(parser.positionalArguments().value(1, QDir::currentPath())).absoluteFilePath();
    task.localPath = QDir(localDir).filePath(task.url.fileName());
    task.params.insert("fileName", task.url.fileName());
    task.params.insert("srcPath", task.url.directory());
    task.params.insert("destPath", localDir);

    if (task.ignoreExisting && QFileInfo::exists(task.localPath)) {
        if (!task.quiet)
            printErr(
                QString("vesk: %1 already exists; kept (--ignore-existing)").arg(task.localPath));
        return kExitOk;
    }
    if (parser.isSet(kDryRun)) {
        QString plan = QString("would download %1 to %2").arg(task.url.toString(), task.localPath);
        const QFileInfo partialFile(VeskBase::tmpFilePathFor(task.localPath));
        if (QFileInfo::exists(task.localPath))
            plan += " (it exists: it would be compared with the server's copy and replaced only "
                    "if it differs)";
        else if (partialFile.exists() && partialFile.size() > 0 && !parser.isSet(kReplace))
            plan += QString(" (resuming after the %1 already received)")
                        .arg(formatBytes(partialFile.size()));
        return reportDryRun(task, plan, "whether the server holds this file");
    }
    // Each attempt holds the lock on the partial file; a failed verification removed the old
    // one, so a second attempt locks the file it starts anew.
    std::unique_ptr<PartialFileLock> lock;
    const QString partial = VeskBase::tmpFilePathFor(task.localPath);
    const bool replace = parser.isSet(kReplace);
    auto prepare = [&]() -> int {
        lock.reset();
        // The handler would create the directory too; the lock needs it first.
        QDir().mkpath(localDir);
        lock = std::make_unique<PartialFileLock>(partial);
        if (lock->state() == PartialFileLock::State::Busy) {
            printErr(QString("vesk: another transfer of this file is in progress: %1")
                         .arg(task.localPath));
            return kExitFailed;
        }
        if (lock->state() == PartialFileLock::State::Failed) {
            printErr(
                QString("vesk: cannot create the partial file %1: %2").arg(partial, lock->error()));
            return kExitFailed;
        }
        // With --replace the handler starts at offset 0 but appends to the partial file it
        // finds; the partial file is the client's own, so it is emptied and the download
        // starts clean.
        if (replace && !lock->truncate()) {
            printErr(QString("vesk: cannot empty the partial file %1").arg(partial));
            return kExitFailed;
        }
        return -1;
    };
    return runAndReport(
        task,
        [&](const TaskResult& r) {
            keepVerifiedValue(task.localPath, task.params.value("bVerify"));
            if (wasSecondPass(r))
                return QString("%1 is already identical to the server's copy; nothing received")
                    .arg(task.localPath);
            return QString("downloaded %1 to %2: %3")
                .arg(task.url.toString(), task.localPath, rateText(r));
        },
        prepare);
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
        return reportDryRun(task, "would create " + task.url.toString(),
                            "whether the directory exists already");
    return runAndReport(task, [&](const TaskResult&) { return "created " + task.url.toString(); });
}

} // namespace host
} // namespace VESK
