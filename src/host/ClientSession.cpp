#include "ClientSession.h"

#include "Console.h"
#include "ErrorText.h"
#include "HostHello.h"
#include "MachineId.h"
#include "PluginLoader.h"
#include "Progress.h"
#include "SignalHandling.h"
#include "TaskLog.h"
#include "Transfer.h"
#include "base/Net.h"

#include <QElapsedTimer>
#include <QJsonDocument>
#include <QJsonObject>

#include <udt/udt.h>

#include <algorithm>
#include <condition_variable>
#include <csignal>
#include <mutex>
#include <thread>

namespace VESK {
namespace host {

const char* const kClientAppVersion = "2.0.0";

namespace {

// How often the progress line is redrawn and interrupts are looked at.
constexpr int kPollMs = 100;
// How long after a first Ctrl-C the process stays, so that a second one can still cancel.
constexpr int kSecondInterruptMs = 2000;
// How long a download that moved nothing waits for the server to close first.
constexpr int kPeerCloseWaitMs = 2000;

void configure(VeskBase* handler, const ClientTask& task, int socket, qint64* total,
               qint64* offset) {
    handler->setParam("endPoint", "client");
    handler->setParam("operator", task.op);
    handler->setParam("clientSocket", QString::number(socket));
    handler->setParam("appKey", task.url.appKey);
    handler->setParam("userName", task.credentials.user);
    handler->setParam("appVersion", kClientAppVersion);
    handler->setParam("mac", machineIdentity());
    for (auto it = task.params.constBegin(); it != task.params.constEnd(); ++it)
        handler->setParam(it.key(), it.value());
    if (task.counters) {
        handler->setParam("total", QString::number(reinterpret_cast<quintptr>(total)));
        handler->setParam("offset", QString::number(reinterpret_cast<quintptr>(offset)));
    }
}

// Says why the hello did not let the task through, unless it is a refusal for want of a free
// place that the task may wait out: that is left to the caller (`busy`).
void reportHello(HelloResult outcome, const QString& errorType, const QString& error,
                 const ClientTask& task, QString* busy) {
    switch (outcome) {
    case HelloResult::Accepted:
        break;
    case HelloResult::SecretNeeded:
        printErr("vesk: the server requires authentication; give --secret-file");
        break;
    case HelloResult::ServerUnproven:
        printErr(
            QString("vesk: %1 is not the server that shares %2's secret: %3; nothing was sent")
                .arg(hostPortText(task.url.host, task.url.port), task.credentials.user, error));
        break;
    case HelloResult::Refused:
        if (task.waitForPlaceMs > 0 && (errorType == QLatin1String(kTooManyFromAddress) ||
                                        errorType == QLatin1String(kTooManyConnections))) {
            *busy = errorType;
            break;
        }
        printErr("vesk: " + refusalSentence(errorType, task.url, task.op));
        break;
    case HelloResult::Failed:
        printErr(QString("vesk: %1 did not answer as a vesk server (%2)")
                     .arg(hostPortText(task.url.host, task.url.port), error));
        break;
    }
}

// The server's answer to a hello whose task went out behind it without waiting (see
// mayPipelineTask), read by whichever comes first: the handler's first receive, or the session
// once a handler that never received returns.
struct PendingAnswer {
    bool pending = false;
    HelloResult outcome = HelloResult::Accepted;
    QString errorType;
    QString error;

    bool read(int socket) {
        if (!pending)
            return outcome == HelloResult::Accepted;
        pending = false;
        outcome = readHelloAnswer(socket, &errorType, &error);
        return outcome == HelloResult::Accepted;
    }
};

// Connects and greets the server. Returns the socket, else an invalid one after saying why (a
// refusal for want of a free place goes to `busy` instead, see reportHello). A client that may
// send its task before the answer, when `pipeline` allows it, only sends the hello (`answer`).
net::Socket tryConnection(const ClientTask& task, VeskBase* handler, bool pipeline,
                          PendingAnswer* answer, QString* busy) {
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
    HelloResult outcome = HelloResult::Accepted;
    if (pipeline && mayPipelineTask(task.credentials)) {
        answer->pending = true;
        if (!sendHello(socket.get(), protocol, version, task.askedRate, &error))
            outcome = HelloResult::Failed;
    } else {
        outcome = clientHello(socket.get(), protocol, version, task.credentials, &errorType, &error,
                              task.askedRate);
    }
    if (outcome == HelloResult::Accepted)
        return socket;
    reportHello(outcome, errorType, error, task, busy);
    return net::Socket();
}

// Runs process() on a worker thread while this thread draws progress. Ctrl-C pauses the
// handler and closes the socket, so a transfer blocked in UDT returns at once; a second Ctrl-C
// turns the pause into a cancel. The task usually stops well before a person can press Ctrl-C
// again, so after a first Ctrl-C the process stays for kSecondInterruptMs to give the second
// one its chance (result.cancelledAfterPause). A task that makes no progress for the stall
// timeout is stopped the way the first Ctrl-C stops it. A task that is one of several follows
// the interrupts counted for all of them instead (task.sharedInterrupts) and says nothing.
bool processWithProgress(VeskBase* handler, int socket, const ClientTask& task, const qint64* total,
                         const qint64* offset, TaskResult& result) {
    std::atomic<int> interrupts{0};
    std::atomic<int> firstSignal{0};
    const bool shared = task.sharedInterrupts != nullptr;
    // How far this task has followed the shared count: 1 paused, 2 cancelled.
    int followed = 0;
    auto followShared = [&] {
        const int count = task.sharedInterrupts->load();
        if (count >= 1 && followed < 1) {
            handler->pause();
            UDT::close(socket);
        }
        if (count >= 2 && followed < 2)
            handler->cancel();
        followed = std::max(followed, std::min(count, 2));
        interrupts.store(count);
    };
    if (!shared)
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

    ProgressBar progress(total, offset,
                         !shared && task.counters && !task.quiet && stderrIsTerminal());
    // An upload's bar counts what the server acknowledged, not what was handed to UDT.
    if (task.op == QLatin1String("upload"))
        progress.setUnacknowledged([socket] { return unacknowledgedBytes(socket); });
    progress.setVerifying(task.params.value("bVerify") != QLatin1String("false") &&
                          task.params.value("bVerify") != QLatin1String("fileattr"));
    bool drawing = true;
    QElapsedTimer sinceInterrupt;
    // Says once that the task is stopping; the task may also have ended before this saw it.
    auto noticeInterrupt = [&] {
        if (shared)
            followShared();
        if (shared || interrupts.load() == 0 || sinceInterrupt.isValid())
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
        if (task.onCounters)
            task.onCounters(*total, *offset);
    }
    worker.join();
    noticeInterrupt();
    if (!shared && !ok && interrupts.load() == 1 && firstSignal.load() == SIGINT &&
        handler->getLastError() == QLatin1String("pause")) {
        while (interrupts.load() == 1 && sinceInterrupt.elapsed() < kSecondInterruptMs)
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        result.cancelledAfterPause = interrupts.load() > 1;
    }
    // The old reaction is not running once this returns: it captured locals of this frame.
    if (!shared)
        setInterruptReaction(nullptr);
    if (drawing)
        progress.finish();
    result.interrupted = interrupts.load() > 0;
    return ok;
}

} // namespace

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

namespace {

// Whether the handler tried to send anything; a send that failed counts (a server that refused
// the connection may have closed it already).
bool triedToSend(const QVector<MessageEvent>& record) {
    return std::any_of(record.begin(), record.end(), [](const MessageEvent& event) {
        return event.direction == MessageEvent::Direction::Sent;
    });
}

// One attempt at the task: connect, greet, run the handler (see tryConnection for `pipeline`).
// Returns -1 when the task ran, else the exit status of a failure before it could (already
// printed, except a refusal for want of a place, which goes to `busy`).
int attemptTask(PluginLoader& loader, const ClientTask& task, bool pipeline, TaskResult& result,
                QString* busy) {
    // Outlives the handler, whose first receive may read it.
    PendingAnswer answer;
    PluginLoader::Handler handler = loader.create();
    // Drained and closed when this returns, once the task is over.
    net::Socket socket = tryConnection(task, handler.get(), pipeline, &answer, busy);
    if (!socket.valid())
        return kExitFailed;

    qint64 total = 0;
    qint64 offset = 0;
    configure(handler.get(), task, socket.get(), &total, &offset);
    const int socketId = socket.get();
    handler->setBeforeFirstRecv([&answer, socketId] { return answer.read(socketId); });
    TaskLog log(handler.get());
    if (task.op == QLatin1String("list") && task.onList) {
        const auto onList = task.onList;
        VeskBase* const listing = handler.get();
        QObject::connect(handler.get(), &VeskBase::sigList,
                         [onList, listing](QMap<QString, QString> chunk) {
                             if (!onList(chunk))
                                 listing->cancel();
                         });
    } else if (task.op == QLatin1String("list") && !task.silent) {
        const bool json = task.json;
        QObject::connect(handler.get(), &VeskBase::sigList,
                         [json](QMap<QString, QString> chunk) { printChunk(chunk, json); });
    }

    QElapsedTimer clock;
    clock.start();
    result.ok = processWithProgress(handler.get(), socket.get(), task, &total, &offset, result);
    result.seconds = double(clock.elapsed()) / 1000.0;
    // The answer to the hello, when the handler did not read it: a handler that failed before
    // it tried to send anything failed on its own; otherwise a refusal (the server closes the
    // connection without reading the task) says what became of the task. A stopped task is
    // what it is.
    const bool stopped = result.interrupted || result.stalled;
    if (!stopped && (result.ok || triedToSend(handler->messageRecord())))
        answer.read(socket.get());
    if (answer.outcome != HelloResult::Accepted && !stopped) {
        reportHello(answer.outcome, answer.errorType, answer.error, task, busy);
        return kExitFailed;
    }
    // A download with nothing left to move (its partial file was already whole) can end here
    // before the server has made its empty send, which then fails on the closed connection:
    // the server would record a failure for a complete copy. The server closes right after.
    const qint64 beginOffset = handler->getParam("transferBeginSize", "").toLongLong();
    if (result.ok && task.op == QLatin1String("download") && beginOffset >= total)
        net::waitForPeerClose(socket.get(), kPeerCloseWaitMs);
    result.lastError = handler->getLastError();
    result.messages = handler->messageRecord();
    handler->getParams(result.params);
    result.errors = log.errors();
    result.beginOffset = beginOffset;
    result.total = total;
    result.offset = offset;
    // What this run moved, from where the server's offer let it start.
    result.moved = std::max<qint64>(0, offset - result.beginOffset);
    return -1;
}

} // namespace

int runTask(const ClientTask& task, TaskResult& result) {
    PluginLoader loader(task.plugins);
    QString error;
    if (!loader.load(&error)) {
        printErr("vesk: " + error);
        return kExitFailed;
    }
    QElapsedTimer waiting;
    waiting.start();
    for (int attempt = 1;; ++attempt) {
        QString busy;
        result = TaskResult();
        // After a refusal for want of a place the task waits for the answer before it goes
        // out: a full server is likely still full, and a task may do work before it is sent
        // (the verify value of a file to upload).
        const int status = attemptTask(loader, task, attempt == 1, result, &busy);
        // Connections this process just closed may still hold their places on the server for
        // a moment; a task that may wait for a place tries again shortly.
        if (busy.isEmpty())
            return status;
        if (waiting.elapsed() >= task.waitForPlaceMs ||
            (task.sharedInterrupts && task.sharedInterrupts->load() > 0)) {
            printErr("vesk: " + refusalSentence(busy, task.url, task.op));
            return kExitFailed;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(std::min(20 * attempt, 500)));
    }
}

} // namespace host
} // namespace VESK
