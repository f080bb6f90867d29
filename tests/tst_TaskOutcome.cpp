// What a task amounts to, named from its structured signals alone (the record of its control
// messages, its parameters, getLastError() and the local disk), and the one sentence or summary
// reason each outcome gets. No server, no network: the signals are made up here.

#include "base/Protocol.h"
#include "host/ClientSession.h"
#include "host/ErrorText.h"
#include "host/TaskOutcome.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>

using namespace VESK;
using namespace VESK::host;
using Result = MessageEvent::Result;

Q_DECLARE_METATYPE(VESK::MessageEvent)
Q_DECLARE_METATYPE(VESK::host::Outcome)
Q_DECLARE_METATYPE(VESK::host::Failure)

namespace {

MessageEvent sent(int number, Result result = Result::Ok, bool refusal = false) {
    return {MessageEvent::Direction::Sent, number, result, refusal, 1};
}

MessageEvent received(int number, Result result = Result::Ok, bool refusal = false) {
    return {MessageEvent::Direction::Received, number, result, refusal, 1};
}

// The opening every client task that reached the server shares: its task, and an answer.
QVector<MessageEvent> accepted() {
    return {sent(protocol::kTaskParam), received(protocol::kTaskParamAck)};
}

// The server's side of the same.
QVector<MessageEvent> answered() {
    return {received(protocol::kTaskParam), sent(protocol::kTaskParamAck)};
}

bool touch(const QString& path) {
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write("x") == 1;
}

// A copy of "f.bin" between `dir` (this side) and /docs on the server.
struct Copy {
    explicit Copy(const QString& op, const QString& dir)
        : task(op, op) {
        task.localPath = dir + "/f.bin";
        result.params = {{"fileName", "f.bin"}, {"bVerify", "xxh3"}, {"transferEndSize", ""}};
        result.params.insert(op == "upload" ? "srcPath" : "destPath", dir);
        result.params.insert("tmpFilePath", dir + "/.f.bin.vesk-part");
        result.total = 100;
    }
    TaskOutcome outcome() const { return outcomeOf(task, result); }

    ClientTask task;
    TaskResult result;
};

ServedTask served(const QString& op, const QVector<MessageEvent>& messages) {
    ServedTask t;
    t.asked = {{"operator", op}, {"appKey", "appA"}};
    t.params = t.asked;
    t.params.insert("appPath", "appA:apps/a");
    t.params.insert("bVerify", "xxh3");
    t.params.insert("transferEndSize", "");
    t.messages = messages;
    return t;
}

} // namespace

class tst_TaskOutcome : public QObject {
    Q_OBJECT

private slots:
    // ---- Client: ends that are not failures ----

    void copyThatMovedItsDataIsDoneAndOneAnsweredWithoutDataIsIdentical() {
        QTemporaryDir dir;
        Copy upload("upload", dir.path());
        upload.result.ok = true;
        upload.result.messages = accepted() << received(protocol::kFileVerifyResult)
                                            << received(protocol::kTaskComplete);
        upload.result.params["transferEndSize"] = "100";
        QCOMPARE(upload.outcome().kind, Outcome::Done);

        upload.result.messages = accepted();
        upload.result.params["transferEndSize"] = "";
        QCOMPARE(upload.outcome().kind, Outcome::Identical);
        upload.task.ignoreExisting = true;
        QCOMPARE(upload.outcome().kind, Outcome::KeptExisting);

        // A destination taken as it is, before any message: nothing was compared.
        Copy download("download", dir.path());
        download.result.ok = true;
        QCOMPARE(download.outcome().kind, Outcome::Done);
        QVERIFY(succeeded(download.outcome().kind));
    }

    void listingAndDirectoryCreationSucceedWithoutData() {
        ClientTask mkdir("mkdir", "createDir");
        TaskResult r;
        r.ok = true;
        r.messages = accepted();
        QCOMPARE(outcomeOf(mkdir, r).kind, Outcome::Done);
    }

    void stopsAreNamedByTheWordTheHandlerKeptAndWhoStoppedIt_data() {
        QTest::addColumn<QString>("lastError");
        QTest::addColumn<bool>("interrupted");
        QTest::addColumn<bool>("stalled");
        QTest::addColumn<bool>("cancelledAfterPause");
        QTest::addColumn<Outcome>("kind");
        QTest::newRow("Ctrl-C") << "pause" << true << false << false << Outcome::Interrupted;
        QTest::newRow("second Ctrl-C") << "cancel" << true << false << false << Outcome::Cancelled;
        QTest::newRow("second Ctrl-C late")
            << "pause" << true << false << true << Outcome::Cancelled;
        QTest::newRow("stall") << "pause" << false << true << false << Outcome::Stalled;
    }
    void stopsAreNamedByTheWordTheHandlerKeptAndWhoStoppedIt() {
        QFETCH(QString, lastError);
        QFETCH(bool, interrupted);
        QFETCH(bool, stalled);
        QFETCH(bool, cancelledAfterPause);
        QFETCH(Outcome, kind);
        QTemporaryDir dir;
        Copy download("download", dir.path());
        download.result.messages = accepted();
        download.result.lastError = lastError;
        download.result.interrupted = interrupted;
        download.result.stalled = stalled;
        download.result.cancelledAfterPause = cancelledAfterPause;
        QCOMPARE(download.outcome().kind, kind);
        QVERIFY(!succeeded(kind));
    }

    void aRejectedVerifyResultIsAFailedVerificationOnEitherSide() {
        QTemporaryDir dir;
        Copy upload("upload", dir.path());
        upload.result.params["transferEndSize"] = "100";
        upload.result.messages = accepted()
                                 << received(protocol::kFileVerifyResult, Result::Ok, true);
        QCOMPARE(upload.outcome().kind, Outcome::VerifyFailed);
        Copy download("download", dir.path());
        download.result.params["transferEndSize"] = "100";
        download.result.messages = accepted()
                                   << sent(protocol::kFileVerifyResult, Result::Ok, true);
        QCOMPARE(download.outcome().kind, Outcome::VerifyFailed);
    }

    // ---- Client: where a failure happened ----

    void theConversationSaysWhereAClientTaskFailed_data() {
        QTest::addColumn<QString>("op");
        QTest::addColumn<QVector<MessageEvent>>("messages");
        QTest::addColumn<Failure>("failure");
        const auto ack = protocol::kTaskParamAck;
        QTest::newRow("task not sent")
            << "list" << QVector<MessageEvent>{sent(protocol::kTaskParam, Result::Failed)}
            << Failure::ConnectionBroke;
        QTest::newRow("no answer")
            << "download"
            << QVector<MessageEvent>{sent(protocol::kTaskParam), received(ack, Result::Failed)}
            << Failure::NoAnswer;
        QTest::newRow("another answer")
            << "createDir"
            << QVector<MessageEvent>{sent(protocol::kTaskParam), received(ack, Result::Unexpected)}
            << Failure::NoAnswer;
        QTest::newRow("refused") << "download"
                                 << QVector<MessageEvent>{sent(protocol::kTaskParam),
                                                          received(ack, Result::Ok, true)}
                                 << Failure::Refused;
        QTest::newRow("listing broke off")
            << "list"
            << (accepted() << received(protocol::kListContent)
                           << received(protocol::kListContent, Result::Failed))
            << Failure::ListingBrokeOff;
    }
    void theConversationSaysWhereAClientTaskFailed() {
        QFETCH(QString, op);
        QFETCH(QVector<MessageEvent>, messages);
        QFETCH(Failure, failure);
        ClientTask task(op, op);
        TaskResult r;
        r.messages = messages;
        r.lastError = failure == Failure::Refused ? "FileNotExist" : "";
        const TaskOutcome outcome = outcomeOf(task, r);
        QCOMPARE(outcome.kind, Outcome::Failed);
        QCOMPARE(outcome.failure, failure);
        QCOMPARE(outcome.errorType, r.lastError);
    }

    void uploadThatSentNothingNamesItsLocalFile() {
        QTemporaryDir dir;
        Copy upload("upload", dir.path());
        TaskOutcome outcome = upload.outcome();
        QCOMPARE(outcome.failure, Failure::LocalFileMissing);
        QCOMPARE(outcome.path, dir.path() + "/f.bin");
        // There, it could not be read for its verify value.
        QVERIFY(touch(dir.filePath("f.bin")));
        outcome = upload.outcome();
        QCOMPARE(outcome.failure, Failure::LocalUnreadable);
        QCOMPARE(outcome.path, upload.task.localPath);
    }

    void uploadAcceptedWithoutDataIsAnOffsetOrTheSourceThatWouldNotOpen() {
        QTemporaryDir dir;
        Copy upload("upload", dir.path());
        upload.result.messages = accepted();
        upload.result.beginOffset = 101;
        QCOMPARE(upload.outcome().failure, Failure::ImpossibleOffset);
        upload.result.beginOffset = -1;
        QCOMPARE(upload.outcome().failure, Failure::ImpossibleOffset);
        upload.result.beginOffset = 100;
        QCOMPARE(upload.outcome().failure, Failure::LocalOpen);
    }

    void uploadAfterItsDataBrokeOffOrWentUnconfirmed() {
        QTemporaryDir dir;
        Copy upload("upload", dir.path());
        upload.result.messages = accepted();
        upload.result.params["transferEndSize"] = "40";
        TaskOutcome outcome = upload.outcome();
        QCOMPARE(outcome.failure, Failure::BrokeOff);
        QCOMPARE(outcome.done, 40);
        QCOMPARE(outcome.size, 100);
        // Even all of it, when nothing followed the data.
        upload.result.params["transferEndSize"] = "100";
        QCOMPARE(upload.outcome().failure, Failure::BrokeOff);

        upload.result.messages = accepted()
                                 << received(protocol::kFileVerifyResult, Result::Failed);
        QCOMPARE(upload.outcome().failure, Failure::NotConfirmed);
        upload.result.messages = accepted() << received(protocol::kFileVerifyResult)
                                            << received(protocol::kTaskComplete, Result::Failed);
        QCOMPARE(upload.outcome().failure, Failure::NotConfirmed);
        upload.result.params["bVerify"] = "false";
        upload.result.messages = accepted() << received(protocol::kTaskComplete, Result::Failed);
        QCOMPARE(upload.outcome().failure, Failure::NotConfirmed);
    }

    void downloadThatCouldNotStartNamesWhatStoodInTheWay() {
        QTemporaryDir dir;
        // An existing destination that could not be read for the comparison.
        Copy download("download", dir.path());
        QVERIFY(touch(dir.filePath("f.bin")));
        QCOMPARE(download.outcome().failure, Failure::LocalUnreadable);

        download.result.messages = accepted();
        // The partial file the server rejected is still there: the size was never taken.
        download.result.offset = 50;
        download.result.total = 0;
        TaskOutcome outcome = download.outcome();
        QCOMPARE(outcome.failure, Failure::StalePartial);
        QCOMPARE(outcome.path, dir.path() + "/.f.bin.vesk-part");

        download.result.offset = 0;
        download.result.total = 100;
        QCOMPARE(download.outcome().failure, Failure::LocalOpen);
        download.result.params["destPath"] = dir.path() + "/missing";
        outcome = download.outcome();
        QCOMPARE(outcome.failure, Failure::LocalDirectory);
        QCOMPARE(outcome.path, dir.path() + "/missing");
    }

    void downloadWithAllItsDataFailsAtThePlacementOrTheClosingMessage() {
        QTemporaryDir dir;
        Copy download("download", dir.path());
        download.result.params["transferEndSize"] = "100";
        download.result.messages = accepted() << sent(protocol::kFileVerifyResult);
        TaskOutcome outcome = download.outcome();
        QCOMPARE(outcome.failure, Failure::LocalPlace);
        QCOMPARE(outcome.path, dir.path() + "/f.bin");
        // The old file still there: removing it was what failed.
        QVERIFY(touch(dir.filePath("f.bin")));
        QCOMPARE(download.outcome().failure, Failure::LocalReplace);

        download.result.messages = accepted() << sent(protocol::kFileVerifyResult)
                                              << sent(protocol::kTaskComplete, Result::Failed);
        QCOMPARE(download.outcome().failure, Failure::ConnectionBroke);
        download.result.messages = accepted() << sent(protocol::kFileVerifyResult, Result::Failed);
        QCOMPARE(download.outcome().failure, Failure::ConnectionBroke);

        // Without verification, the data's end tells a broken transfer from a placement.
        download.result.params["bVerify"] = "false";
        download.result.messages = accepted();
        QCOMPARE(download.outcome().failure, Failure::LocalReplace);
        download.result.params["transferEndSize"] = "0";
        outcome = download.outcome();
        QCOMPARE(outcome.failure, Failure::BrokeOff);
        QCOMPARE(outcome.done, 0);
    }

    void aFailureNoSignalNamesQuotesTheHandler() {
        ClientTask list("ls", "list");
        TaskResult r;
        r.errors = QStringList{"first", "listRequest: getParams failed."};
        const TaskOutcome outcome = outcomeOf(list, r);
        QCOMPARE(outcome.failure, Failure::Unknown);
        QCOMPARE(outcome.quoted, QString("listRequest: getParams failed."));
    }

    // ---- Client sentences ----

    void eachClientFailureHasItsSentence_data() {
        QTest::addColumn<QString>("op");
        QTest::addColumn<int>("failure");
        QTest::addColumn<QString>("sentence");
        const auto row = [](const char* name, const char* op, Failure f, const char* text) {
            QTest::newRow(name) << op << int(f) << text;
        };
        row("refused", "download", Failure::Refused, "no such file on the server: /docs/f.bin");
        row("missing", "upload", Failure::LocalFileMissing, "no such local file: /l/f.bin");
        row("open upload", "upload", Failure::LocalOpen, "cannot open the local file /l/f.bin");
        row("open download", "download", Failure::LocalOpen, "cannot write next to /l/f.bin");
        row("replace", "download", Failure::LocalReplace,
            "cannot replace the existing local file /l/f.bin");
        row("disk full", "download", Failure::LocalDiskFull,
            "the local disk is full: cannot write /l/f.bin (the part received stays beside it; "
            "free some space and run the same command again)");
        row("not confirmed", "upload", Failure::NotConfirmed,
            "the server could not store /docs/f.bin: it received the data but did not confirm "
            "it (its log says why, for example a full disk)");
        row("no answer", "list", Failure::NoAnswer,
            "the server ended the task without an answer (see the server's log)");
        row("listing", "list", Failure::ListingBrokeOff,
            "the listing broke off: the server ended the task (see the server's log)");
        row("unknown", "list", Failure::Unknown, "the task failed: said this");
    }
    void eachClientFailureHasItsSentence() {
        QFETCH(QString, op);
        QFETCH(int, failure);
        QFETCH(QString, sentence);
        VeskUrl url;
        url.appKey = "appA";
        url.path = "/docs/f.bin";
        TaskOutcome outcome;
        outcome.failure = Failure(failure);
        outcome.path = "/l/f.bin";
        outcome.errorType = "FileNotExist";
        outcome.quoted = "said\nthis";
        QCOMPARE(clientFailureSentence(op, url, outcome), sentence);
    }

    void verificationAndSilenceHaveSentencesToo() {
        VeskUrl url;
        TaskOutcome outcome;
        outcome.kind = Outcome::VerifyFailed;
        QVERIFY(clientFailureSentence("upload", url, outcome).startsWith("verification failed"));
        outcome = TaskOutcome();
        outcome.failure = Failure::Unknown;
        QCOMPARE(clientFailureSentence("upload", url, outcome),
                 QString("the task failed without an error message"));
    }

    // ---- Server ----

    void aHandlerThatGaveUpBeforeItsAnswerOwesTheRightRefusal_data() {
        QTest::addColumn<QString>("op");
        QTest::addColumn<QString>("extraKey");
        QTest::addColumn<QString>("appKey");
        QTest::addColumn<QString>("refusal");
        QTest::newRow("host-only key") << "list"
                                       << "mountPath"
                                       << "appA" << kBadTaskParam;
        QTest::newRow("unknown operator") << "frob"
                                          << ""
                                          << "appA" << kUnknownOperator;
        QTest::newRow("unknown application") << "upload"
                                             << ""
                                             << "appZ" << kUnknownApplication;
        QTest::newRow("listing") << "list"
                                 << ""
                                 << "appA" << kDirNotExist;
        QTest::newRow("directory") << "createDir"
                                   << ""
                                   << "appA" << kCreateDirFailed;
        QTest::newRow("upload") << "upload"
                                << ""
                                << "appA" << kServerFileError;
        QTest::newRow("download answers itself") << "download"
                                                 << ""
                                                 << "appA"
                                                 << "";
        QTest::newRow("return owes nothing") << "return"
                                             << ""
                                             << "appA"
                                             << "";
    }
    void aHandlerThatGaveUpBeforeItsAnswerOwesTheRightRefusal() {
        QFETCH(QString, op);
        QFETCH(QString, extraKey);
        QFETCH(QString, appKey);
        QFETCH(QString, refusal);
        ServedTask t = served(op, {received(protocol::kTaskParam)});
        t.asked["appKey"] = appKey;
        if (!extraKey.isEmpty())
            t.asked[extraKey] = "/elsewhere";
        // Also while the server stops: the refusal is still owed.
        t.lastError = "pause";
        const TaskOutcome outcome = servedOutcomeOf(t);
        QCOMPARE(outcome.failure == Failure::Unanswered, !refusal.isEmpty());
        QCOMPARE(outcome.errorType, refusal);
        // Once an answer was tried, nothing is owed any more.
        t.messages << sent(protocol::kTaskParamAck, Result::Failed);
        QVERIFY(servedOutcomeOf(t).failure != Failure::Unanswered);
    }

    void servedStopsAndFailuresGetTheirReasons_data() {
        QTest::addColumn<QString>("op");
        QTest::addColumn<QVector<MessageEvent>>("messages");
        QTest::addColumn<QString>("transferEndSize");
        QTest::addColumn<QString>("reason");
        QTest::newRow("not a task")
            << "list" << QVector<MessageEvent>{received(protocol::kTaskParam, Result::Unexpected)}
            << ""
            << "the first message was not a TaskParam";
        QTest::newRow("answer not sent")
            << "list"
            << QVector<MessageEvent>{received(protocol::kTaskParam),
                                     sent(protocol::kTaskParamAck, Result::Failed)}
            << ""
            << "the connection to the client broke";
        QTest::newRow("listing limit")
            << "list"
            << (answered() << sent(protocol::kListContent, Result::Ok)
                           << sent(protocol::kListContent, Result::OverLimit))
            << ""
            << "listing stopped: it has more than 5000 entries, the most this server lists";
        QTest::newRow("listing cut")
            << "list" << (answered() << sent(protocol::kListContent, Result::Failed)) << ""
            << "the listing broke off: the connection failed";
        QTest::newRow("missing file")
            << "download"
            << QVector<MessageEvent>{received(protocol::kTaskParam),
                                     sent(protocol::kTaskParamAck, Result::Ok, true)}
            << ""
            << "no such file: /srv/a/f.bin";
        QTest::newRow("upload broke off") << "upload" << answered() << "40"
                                          << "the transfer broke off at 40 of 100 bytes";
        QTest::newRow("upload not opened")
            << "upload" << answered() << ""
            << "cannot create or open the partial file /srv/a/.f.bin.vesk-part";
        QTest::newRow("upload not placed")
            << "upload" << (answered() << sent(protocol::kFileVerifyResult)) << "100"
            << "cannot put the received file in place at /srv/a/f.bin";
        QTest::newRow("upload rejected")
            << "upload" << (answered() << sent(protocol::kFileVerifyResult, Result::Ok, true))
            << "100"
            << "verification failed: the copy differs from its source";
        QTest::newRow("download unconfirmed")
            << "download" << (answered() << received(protocol::kFileVerifyResult, Result::Failed))
            << "100"
            << "the client did not confirm its copy";
        QTest::newRow("return") << "return" << QVector<MessageEvent>{received(protocol::kTaskParam)}
                                << ""
                                << "return";
    }
    void servedStopsAndFailuresGetTheirReasons() {
        QFETCH(QString, op);
        QFETCH(QVector<MessageEvent>, messages);
        QFETCH(QString, transferEndSize);
        QFETCH(QString, reason);
        ServedTask t = served(op, messages);
        t.lastError = op == "return" ? "return" : "";
        t.listEntryLimit = 5000;
        t.params["fileSize"] = "100";
        t.params["path"] = "/srv/a/f.bin";
        t.params["tmpFilePath"] = "/srv/a/.f.bin.vesk-part";
        t.params["transferEndSize"] = transferEndSize;
        const TaskOutcome outcome = servedOutcomeOf(t);
        QVERIFY(!succeeded(outcome.kind));
        QCOMPARE(servedFailureReason(op, outcome), reason);
    }

    void servedStopsFollowTheWatchThatStoppedThem() {
        ServedTask t = served("upload", answered());
        t.lastError = "pause";
        QCOMPARE(servedOutcomeOf(t).kind, Outcome::Interrupted);
        t.stalled = true;
        QCOMPARE(servedOutcomeOf(t).kind, Outcome::Stalled);
        t.slow = true;
        QCOMPARE(servedOutcomeOf(t).kind, Outcome::TooSlow);
        t.lastError = "cancel";
        QCOMPARE(servedOutcomeOf(t).kind, Outcome::Cancelled);
        t.ok = true;
        QCOMPARE(servedOutcomeOf(t).kind, Outcome::Done);
    }
};

QTEST_GUILESS_MAIN(tst_TaskOutcome)
#include "tst_TaskOutcome.moc"
