#include "Batch.h"

#include "Console.h"
#include "ErrorText.h"
#include "SignalHandling.h"
#include "TaskOutcome.h"
#include "Transfer.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFileInfo>

#include <atomic>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace VESK {
namespace host {

namespace {

// How often the line is redrawn and the workers' messages are printed.
constexpr int kPollMs = 100;
// How long a task waits for a free place on the server: the connections of the tasks before it
// leave the server's count a moment after they closed.
constexpr int kWaitForPlaceMs = 30000;

struct ItemResult {
    Outcome outcome = Outcome::Failed;
    QString sentence; // why it failed
    qint64 moved = 0;
    qint64 size = 0; // the file's size as the task learnt it
};

QString parentOf(const QString& remote) {
    return remote.left(std::max(0, int(remote.lastIndexOf('/'))));
}

QString nameOf(const QString& remote) {
    return remote.mid(remote.lastIndexOf('/') + 1);
}

ItemResult failure(const QString& sentence) {
    ItemResult r;
    r.sentence = sentence;
    return r;
}

// Runs one task, once more from the beginning when the copy did not match its source.
ItemResult runOnce(const ClientTask& task, const std::function<QString()>& prepare = nullptr) {
    ItemResult item;
    for (int attempt = 1; attempt <= 2; ++attempt) {
        if (prepare) {
            const QString refused = prepare();
            if (!refused.isEmpty())
                return failure(refused);
        }
        TaskResult r;
        if (runTask(task, r) >= 0)
            return failure("could not start (see above)");
        const TaskOutcome outcome = outcomeOf(task, r);
        item.outcome = outcome.kind;
        item.moved += r.moved;
        item.size = r.total;
        if (item.outcome == Outcome::VerifyFailed && attempt == 1)
            continue;
        if (item.outcome == Outcome::Stalled)
            item.sentence = QString("the server made no progress for %1 s (--stall-timeout)")
                                .arg(task.stallTimeout);
        else if (item.outcome == Outcome::VerifyFailed)
            item.sentence = "the copy differs from its source; it was removed";
        else if (item.outcome == Outcome::Failed)
            item.sentence = clientFailureSentence(task.op, task.url, outcome);
        break;
    }
    return item;
}

ItemResult runUploadItem(const ClientTask& base, const CopyItem& item, ClientTask& task) {
    task.url.path = item.remote;
    task.localPath = item.local;
    if (item.directory) {
        task.op = QStringLiteral("createDir");
        task.counters = false;
        task.params =
            ParamMap{{"rootPath", base.params.value("rootPath")}, {"destPath", item.remote}};
        return runOnce(task);
    }
    const QFileInfo local(item.local);
    task.params.insert("fileName", local.fileName());
    task.params.insert("srcPath", local.absolutePath());
    task.params.insert("destPath", parentOf(item.remote));
    return runOnce(task);
}

ItemResult runDownloadItem(const CopyItem& item, ClientTask& task) {
    if (item.directory) {
        if (!QDir().mkpath(item.local))
            return failure("cannot create the local directory");
        ItemResult done;
        done.outcome = Outcome::Done;
        return done;
    }
    task.url.path = item.remote;
    task.localPath = item.local;
    const QString localDir = QFileInfo(item.local).absolutePath();
    task.params.insert("fileName", nameOf(item.remote));
    task.params.insert("srcPath", parentOf(item.remote));
    task.params.insert("destPath", localDir);
    if (task.ignoreExisting && QFileInfo::exists(item.local)) {
        ItemResult kept;
        kept.outcome = Outcome::KeptExisting;
        return kept;
    }
    std::unique_ptr<PartialFileLock> lock;
    const QString partial = VeskBase::tmpFilePathFor(item.local);
    const bool replace = task.params.value("bReplace") == QLatin1String("true");
    ItemResult result = runOnce(
        task, [&] { return lockPartialFile(lock, localDir, partial, replace, item.local); });
    if (result.outcome == Outcome::Done || result.outcome == Outcome::Identical)
        keepVerifiedValue(item.local, task.params.value("bVerify"));
    return result;
}

} // namespace

QString batchProgressLine(int filesDone, int files, qint64 bytesDone, qint64 bytes,
                          double seconds) {
    const double rate = seconds > 0.2 ? double(bytesDone) / seconds : 0.0;
    QString left = QStringLiteral("--:-- left");
    if (bytes >= 0 && rate > 0.0)
        left = formatDuration(qint64(double(std::max<qint64>(0, bytes - bytesDone)) / rate + 0.5)) +
               " left";
    else if (bytes < 0 && filesDone > 0 && seconds > 0.2)
        left = formatDuration(qint64(seconds * (files - filesDone) / filesDone + 0.5)) + " left";
    const QString amount = bytes >= 0
                               ? QString("%1 / %2").arg(formatBytes(bytesDone), formatBytes(bytes))
                               : formatBytes(bytesDone);
    return QString("%1/%2 files  %3  %4/s  %5")
        .arg(filesDone)
        .arg(files)
        .arg(amount, formatBytes(qint64(rate)), left);
}

QString batchSummary(const BatchCounts& c) {
    const int files = c.copied + c.identical + c.failed + c.notRun;
    QString text = QString("%1 %2: %3 copied, %4 already identical, %5 failed")
                       .arg(files)
                       .arg(files == 1 ? "file" : "files")
                       .arg(c.copied)
                       .arg(c.identical)
                       .arg(c.failed);
    if (c.notRun > 0)
        text += QString(", %1 not done").arg(c.notRun);
    if (c.failedDirectories > 0)
        text += QString(", %1 %2 not created")
                    .arg(c.failedDirectories)
                    .arg(c.failedDirectories == 1 ? "directory" : "directories");
    const double rate = c.seconds > 0.0 ? double(c.moved) / c.seconds : 0.0;
    return text + QString("; %1 in %2 s (%3/s)")
                      .arg(formatBytes(c.moved), QString::number(c.seconds, 'f', 1),
                           formatBytes(qint64(rate)));
}

int runBatch(const ClientTask& base, const QList<CopyItem>& items, const BatchOptions& options) {
    const bool upload = base.op == QLatin1String("upload");
    std::atomic<int> interrupts{0};
    setInterruptReaction([&interrupts](int, int count) { interrupts.store(count); });

    int files = 0;
    qint64 knownBytes = 0;
    for (const CopyItem& item : items) {
        if (item.directory)
            continue;
        ++files;
        knownBytes = item.size >= 0 && knownBytes >= 0 ? knownBytes + item.size : -1;
    }

    // Directories go first, all of them before any file, so that each file's directory exists.
    int firstFile = 0;
    while (firstFile < items.size() && items.at(firstFile).directory)
        ++firstFile;

    std::mutex mutex; // guards the fields below
    QStringList messages;
    BatchCounts counts;
    int filesDone = 0;
    qint64 bytesDone = 0;
    std::atomic<int> next{0};
    const int workers = std::max(1, std::min(options.parallel, int(items.size())));
    std::vector<std::atomic<qint64>> moving(static_cast<size_t>(workers));
    for (auto& slot : moving)
        slot.store(0);

    auto work = [&](int slot, int end) {
        for (;;) {
            if (interrupts.load() > 0)
                return;
            const int index = next.fetch_add(1);
            if (index >= end)
                return;
            const CopyItem& item = items.at(index);
            ClientTask task = base;
            task.quiet = true;
            task.sharedInterrupts = &interrupts;
            task.waitForPlaceMs = kWaitForPlaceMs;
            task.onCounters = [&moving, slot](qint64, qint64 offset) {
                moving[size_t(slot)].store(offset);
            };
            const ItemResult r =
                upload ? runUploadItem(base, item, task) : runDownloadItem(item, task);
            moving[size_t(slot)].store(0);
            const QString name = upload ? item.remote : item.local;
            std::lock_guard<std::mutex> lock(mutex);
            counts.moved += r.moved;
            if (!item.directory) {
                ++filesDone;
                bytesDone += item.size >= 0 ? item.size : r.size;
            }
            switch (r.outcome) {
            case Outcome::Done:
                if (!item.directory)
                    ++counts.copied;
                if (options.verbose)
                    messages << QString("%1 %2").arg(item.directory ? "created"
                                                     : upload       ? "uploaded"
                                                                    : "downloaded",
                                                     escapedName(name));
                break;
            case Outcome::Identical:
            case Outcome::KeptExisting:
                ++counts.identical;
                if (options.verbose)
                    messages << QString("%1 %2").arg(r.outcome == Outcome::Identical
                                                         ? "already identical:"
                                                         : "kept (--ignore-existing):",
                                                     escapedName(name));
                break;
            case Outcome::Interrupted:
            case Outcome::Cancelled:
                ++counts.notRun;
                break;
            default:
                ++(item.directory ? counts.failedDirectories : counts.failed);
                messages << QString("failed %1: %2").arg(escapedName(name), r.sentence);
                break;
            }
        }
    };

    QElapsedTimer clock;
    clock.start();
    const bool drawing = !base.quiet && stderrIsTerminal();
    bool drawn = false;
    auto flush = [&](bool finalLine) {
        QStringList lines;
        QString line;
        {
            std::lock_guard<std::mutex> lock(mutex);
            lines.swap(messages);
            qint64 inFlight = 0;
            for (const auto& slot : moving)
                inFlight += slot.load();
            line = batchProgressLine(filesDone, files, bytesDone + inFlight, knownBytes,
                                     double(clock.elapsed()) / 1000.0);
        }
        if (drawn && (!lines.isEmpty() || finalLine))
            writeErr("\r" + QString(terminalWidth() - 1, ' ') + "\r");
        for (const QString& text : lines)
            printErr("vesk: " + text);
        if (drawing) {
            writeErr("\r" + line.left(terminalWidth() - 1) + (finalLine ? "\n" : ""));
            drawn = !finalLine;
        }
    };

    // Two rounds: the directories, then the files.
    for (const auto& [begin, end] :
         {std::pair<int, int>{0, firstFile}, std::pair<int, int>{firstFile, int(items.size())}}) {
        next.store(begin);
        std::atomic<int> running{0};
        std::vector<std::thread> threads;
        const int count = std::max(0, std::min(workers, end - begin));
        running.store(count);
        for (int slot = 0; slot < count; ++slot)
            threads.emplace_back([&, slot, stop = end] {
                work(slot, stop);
                running.fetch_sub(1);
            });
        while (running.load() > 0) {
            std::this_thread::sleep_for(std::chrono::milliseconds(kPollMs));
            flush(false);
        }
        for (std::thread& thread : threads)
            thread.join();
    }
    setInterruptReaction(nullptr);
    // Files never started after an interrupt.
    counts.notRun += std::max(0, files - filesDone);
    counts.seconds = double(clock.elapsed()) / 1000.0;
    flush(true);

    if (interrupts.load() > 0) {
        printErr("vesk: interrupted; " + batchSummary(counts) +
                 ". Run the same command again to go on: what is identical is skipped, partial "
                 "files resume");
        return kExitInterrupted;
    }
    if (!base.quiet || counts.failed + counts.failedDirectories > 0)
        printErr("vesk: " + batchSummary(counts));
    return counts.failed + counts.failedDirectories > 0 ? kExitFailed : kExitOk;
}

} // namespace host
} // namespace VESK
