// The server host's checks of a task before its handler runs: rights, reserved names, claimed
// sizes, where an upload lands; the lock and the source identity of partial files; reading a
// TaskParam within a time and size limit; a frame handed to the handler through the base.

#include "Support.h"

#include "base/Wire.h"
#include "host/ErrorText.h"
#include "host/PartialFiles.h"
#include "host/TaskVetting.h"

#include <QCoreApplication>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>
#include <QtEndian>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>

#include <thread>

using namespace vesktest;
using namespace VESK;
using namespace VESK::host;

namespace {

ParamMap uploadTask(const QString& fileName = "f.bin") {
    return {{"operator", "upload"}, {"appKey", "appA"},     {"rootPath", ""},
            {"destPath", "d"},      {"fileName", fileName}, {"userName", "peer"},
            {"bVerify", "false"},   {"bReplace", "false"},  {"fileSize", "16"},
            {"mtime", "-1"},        {"mac", "00"},          {"appVersion", "2.0.0"}};
}

VettingContext contextFor(const MountTree& tree) {
    VettingContext context;
    context.mount = tree.mount();
    context.appTable = tree.appTable();
    context.policy.apps = QStringList{"appA", "appB"};
    context.policy.writableApps = QStringList{"appA", "appB"};
    return context;
}

bool setMtime(const QString& path, qint64 mtime) {
    const timespec times[2] = {{time_t(mtime), 0}, {time_t(mtime), 0}};
    return ::utimensat(AT_FDCWD, QFile::encodeName(path).constData(), times, 0) == 0;
}

QByteArray headerBytes(quint32 number, quint32 length) {
    QByteArray bytes(wire::kHeaderBytes, Qt::Uninitialized);
    qToBigEndian<quint32>(number, bytes.data());
    qToBigEndian<quint32>(length, bytes.data() + 4);
    return bytes;
}

} // namespace

class TaskVettingTest : public QObject {
    Q_OBJECT

private slots:
    void forbiddenApplicationAnswersAsUnknown() {
        MountTree tree;
        VettingContext context = contextFor(tree);
        context.policy.apps = QStringList{"appB"};
        for (const QString op : {"upload", "download", "list", "createDir"}) {
            ParamMap task = uploadTask();
            task["operator"] = op;
            QCOMPARE(vetTask(task, context).refusal, QString(kUnknownApplication));
            task["appKey"] = "appB";
            QCOMPARE(vetTask(task, context).refusal, QString());
        }
    }

    void readOnlyApplicationRefusesWrites() {
        MountTree tree;
        VettingContext context = contextFor(tree);
        context.policy.writableApps = QStringList{"appB"};
        ParamMap task = uploadTask();
        QCOMPARE(vetTask(task, context).refusal, QString(kReadOnly));
        task["operator"] = "createDir";
        QCOMPARE(vetTask(task, context).refusal, QString(kReadOnly));
        task["operator"] = "download";
        QCOMPARE(vetTask(task, context).refusal, QString());
        task["operator"] = "list";
        QCOMPARE(vetTask(task, context).refusal, QString());
    }

    void partialFileNamesAreRefusedInEveryPathKey() {
        MountTree tree;
        const VettingContext context = contextFor(tree);
        for (const QString op : {"upload", "download", "list", "createDir"}) {
            for (const QString key : {"rootPath", "destPath", "srcPath", "fileName"}) {
                for (const QString value :
                     {".report.bin.vesk-part", "a/.x.vesk-part/b", "x.vesk-part/"}) {
                    ParamMap task = uploadTask();
                    task["operator"] = op;
                    task[key] = value;
                    QCOMPARE(vetTask(task, context).refusal, QString(kPartialFileName));
                }
            }
        }
        ParamMap task = uploadTask("report.vesk-part.txt");
        QCOMPARE(vetTask(task, context).refusal, QString());
    }

    void userNameIsReplacedByTheAuthenticatedUser() {
        MountTree tree;
        VettingContext context = contextFor(tree);
        VettedTask anonymous = vetTask(uploadTask(), context);
        QCOMPARE(anonymous.params.value("userName"), QString("peer"));
        QVERIFY(!anonymous.rewritten);
        context.policy.user = "alice";
        VettedTask named = vetTask(uploadTask(), context);
        QCOMPARE(named.params.value("userName"), QString("alice"));
        QVERIFY(named.rewritten);
    }

    void tasksTheHandlerRefusesPassUnchanged() {
        MountTree tree;
        VettingContext context = contextFor(tree);
        context.policy.apps.clear();
        ParamMap task = uploadTask(".x.vesk-part");
        task["mountPath"] = "/elsewhere";
        QCOMPARE(vetTask(task, context).refusal, QString());
        QCOMPARE(vetTask({{"operator", "move"}}, context).refusal, QString());
        QCOMPARE(vetTask({{"operator", "return"}}, context).refusal, QString());
    }

    void uploadPathsAreTheHandlers() {
        MountTree tree;
        ParamMap task = uploadTask("f.bin");
        task["rootPath"] = "../../r";
        task["destPath"] = "/x/../y";
        const VettedTask vetted = vetTask(task, contextFor(tree));
        const QString dest = tree.appDir("appA") + "/r/y/f.bin";
        QCOMPARE(vetted.appDir, tree.appDir("appA"));
        QCOMPARE(vetted.destination, dest);
        QCOMPARE(vetted.partial, tree.appDir("appA") + "/r/y/.f.bin.vesk-part");
        QCOMPARE(vetted.paths, (QStringList{tree.appDir("appA") + "/r/y", dest, vetted.partial}));
        task["operator"] = "download";
        task["srcPath"] = "../s";
        QCOMPARE(vetTask(task, contextFor(tree)).paths,
                 QStringList{tree.appDir("appA") + "/r/s/f.bin"});
        task["operator"] = "list";
        QCOMPARE(vetTask(task, contextFor(tree)).paths, QStringList{tree.appDir("appA") + "/r/s"});
        task["operator"] = "createDir";
        QCOMPARE(vetTask(task, contextFor(tree)).paths, QStringList{tree.appDir("appA") + "/r/y"});
    }

    void aTaskThatCannotBeConfinedIsRefusedBeforeAnythingIsCreated() {
        MountTree tree;
        UdtPair pair = connectedPair();
        QStringList seen;
        AdmissionHooks hooks;
        hooks.confine = [&](const QString& dir, const QStringList& paths, QString* error) {
            seen << dir << paths;
            *error = "a path leaves";
            return false;
        };
        wire::sendFrame(pair.client.get(), kTaskParamMessage,
                        VeskBase::serializeParam(uploadTask()).toUtf8());
        const Admission a = admitTask(pair.server.get(), contextFor(tree), hooks);
        QCOMPARE(a.refusal, QString(kPathLeavesApplication));
        QCOMPARE(seen.value(0), tree.appDir("appA"));
        QVERIFY(!QFileInfo::exists(tree.appDir("appA") + "/d"));
    }

    void claimedSizesMustFit() {
        MountTree tree;
        VettingContext context = contextFor(tree);
        ParamMap task = uploadTask();
        task["fileSize"] = QString::number(qint64(1) << 62);
        QVERIFY(vetTask(task, context).refusal.contains("not enough free space"));
        context.limits.maxFileSize = 1000;
        task["fileSize"] = "1001";
        QVERIFY(vetTask(task, context).refusal.contains("1000 bytes at most"));
        task["fileSize"] = "1000";
        QCOMPARE(vetTask(task, context).refusal, QString());
        // Nothing may be left free: even a file that fits is refused.
        context.limits.minFreePercent = 100;
        QVERIFY(vetTask(task, context).refusal.contains("not enough free space"));
    }

    void partialFileLockIsExclusive() {
        QTemporaryDir dir;
        const QString path = dir.filePath(".f.bin.vesk-part");
        std::unique_ptr<PartialFile> first, second;
        QCOMPARE(PartialFile::acquire(path, first), PartialFile::Outcome::Locked);
        QCOMPARE(PartialFile::acquire(path, second), PartialFile::Outcome::Busy);
        QVERIFY(!second);
        QVERIFY(QFile::exists(path));
        first.reset();
        // Created and never written: not left behind.
        QVERIFY(!QFile::exists(path));
        QCOMPARE(PartialFile::acquire(path, second), PartialFile::Outcome::Locked);
    }

    void partialFileIsNeverALink() {
        QTemporaryDir dir;
        QFile target(dir.filePath("target"));
        QVERIFY(target.open(QIODevice::WriteOnly));
        target.write("outside");
        target.close();
        const QString path = dir.filePath(".f.bin.vesk-part");
        QVERIFY(QFile::link(target.fileName(), path));
        std::unique_ptr<PartialFile> partial;
        QCOMPARE(PartialFile::acquire(path, partial), PartialFile::Outcome::Failed);
        QCOMPARE(readAll(target.fileName()), QByteArray("outside"));
    }

    void partialFileRecordsItsSource() {
        QTemporaryDir dir;
        const QString path = dir.filePath(".f.bin.vesk-part");
        QVERIFY(writePatternFile(path, 100));
        std::unique_ptr<PartialFile> partial;
        QCOMPARE(PartialFile::acquire(path, partial), PartialFile::Outcome::Locked);
        if (!partial->canRecordSource())
            QSKIP("the temporary directory's file system keeps no extended attributes");
        QCOMPARE(partial->recordedSource(), QString());
        const QString identity = sourceIdentity(100, 5, "md5", "abc");
        QCOMPARE(identity, QString("size=100 mtime=5 md5=abc"));
        QCOMPARE(sourceIdentity(100, 5, "false", "abc"), QString("size=100 mtime=5"));
        QVERIFY(partial->recordSource(identity));
        QCOMPARE(partial->recordedSource(), identity);
        QCOMPARE(partial->size(), qint64(100));
        QVERIFY(partial->clear());
        QCOMPARE(partial->size(), qint64(0));
        partial.reset();
        // It existed before: kept, even empty.
        QVERIFY(QFile::exists(path));
    }

    void aResumeWithOrWithoutVerificationIsTheSameSource() {
        const QString plain = sourceIdentity(100, 5, "false", "");
        const QString withXxh3 = sourceIdentity(100, 5, "xxh3", "ab");
        QVERIFY(sameSource(plain, withXxh3));
        QVERIFY(sameSource(withXxh3, plain));
        QVERIFY(sameSource(withXxh3, sourceIdentity(100, 5, "md5", "cd")));
        QVERIFY(!sameSource(withXxh3, sourceIdentity(100, 5, "xxh3", "ef")));
        QVERIFY(!sameSource(plain, sourceIdentity(100, 6, "false", "")));
        QVERIFY(!sameSource(plain, sourceIdentity(101, 5, "xxh3", "ab")));
        // No record at all: nothing says the part is this source's.
        QVERIFY(!sameSource(QString(), plain));
        // What stays known after a verified resume of an unverified part, and the other way.
        QCOMPARE(mergedSource(plain, withXxh3), withXxh3);
        QCOMPARE(mergedSource(withXxh3, plain), withXxh3);
        QCOMPARE(mergedSource(withXxh3, sourceIdentity(100, 5, "md5", "cd")),
                 QString("size=100 mtime=5 md5=cd xxh3=ab"));
    }

    void anInstalledFileKeepsNoSourceRecord() {
        QTemporaryDir dir;
        const QString path = dir.filePath(".f.bin.vesk-part");
        const QString installed = dir.filePath("f.bin");
        std::unique_ptr<PartialFile> partial;
        QCOMPARE(PartialFile::acquire(path, partial), PartialFile::Outcome::Locked);
        if (!partial->canRecordSource())
            QSKIP("the temporary directory's file system keeps no extended attributes");
        QVERIFY(partial->recordSource(sourceIdentity(3, 1, "false", "")));
        QFile file(path);
        QVERIFY(file.open(QIODevice::Append));
        file.write("abc");
        file.close();
        QVERIFY(QFile::rename(path, installed));
        partial.reset();
        char value[64];
        QCOMPARE(::getxattr(QFile::encodeName(installed).constData(), "user.vesk.source", value,
                            sizeof value),
                 ssize_t(-1));
        QCOMPARE(readAll(installed), QByteArray("abc"));
    }

    void admissionRestartsAResumeFromAnotherSource() {
        MountTree tree;
        const VettingContext context = contextFor(tree);
        const QString partialPath = tree.appDir("appA") + "/d/.f.bin.vesk-part";
        QVERIFY(QDir().mkpath(tree.appDir("appA") + "/d"));
        UdtPair pair = connectedPair();
        auto admit = [&](const ParamMap& task, QStringList* warnings) {
            wire::sendFrame(pair.client.get(), kTaskParamMessage,
                            VeskBase::serializeParam(task).toUtf8());
            AdmissionHooks hooks;
            hooks.warn = [warnings](const QString& w) { warnings->append(w); };
            return admitTask(pair.server.get(), context, hooks);
        };
        QStringList warnings;
        ParamMap first = uploadTask();
        first["fileSize"] = "1000";
        first["mtime"] = "111";
        {
            Admission a = admit(first, &warnings);
            QCOMPARE(int(a.kind), int(Admission::Kind::Run));
            QVERIFY(a.partialFile);
            if (!a.partialFile->canRecordSource())
                QSKIP("the temporary directory's file system keeps no extended attributes");
            // The handler writes some of it, then the task ends (say, killed).
            QFile partial(partialPath);
            QVERIFY(partial.open(QIODevice::Append));
            partial.write(QByteArray(400, 'a'));
        }
        QCOMPARE(QFileInfo(partialPath).size(), qint64(400));
        // The same source resumes.
        {
            Admission a = admit(first, &warnings);
            QCOMPARE(int(a.kind), int(Admission::Kind::Run));
            QCOMPARE(QFileInfo(partialPath).size(), qint64(400));
            QVERIFY(warnings.isEmpty());
            // Held: a second upload of the same file is refused at once.
            Admission b = admit(first, &warnings);
            QCOMPARE(int(b.kind), int(Admission::Kind::Refuse));
            QCOMPARE(b.refusal, QString(kTransferInProgress));
            QCOMPARE(QFileInfo(partialPath).size(), qint64(400));
        }
        // Another file of the same name starts at 0, with a warning.
        ParamMap other = first;
        other["mtime"] = "222";
        Admission a = admit(other, &warnings);
        QCOMPARE(int(a.kind), int(Admission::Kind::Run));
        QCOMPARE(QFileInfo(partialPath).size(), qint64(0));
        QCOMPARE(warnings.size(), 1);
        QVERIFY(warnings.first().contains("another source"));
    }

    void anIdleHolderCanBeMadeToLetGo() {
        MountTree tree;
        const VettingContext context = contextFor(tree);
        QVERIFY(QDir().mkpath(tree.appDir("appA") + "/d"));
        std::unique_ptr<PartialFile> holder;
        QCOMPARE(PartialFile::acquire(tree.appDir("appA") + "/d/.f.bin.vesk-part", holder),
                 PartialFile::Outcome::Locked);
        UdtPair pair = connectedPair();
        const QByteArray frame = VeskBase::serializeParam(uploadTask()).toUtf8();
        QStringList asked;
        AdmissionHooks hooks;
        // A holder that keeps receiving is not ended: refused.
        hooks.endIdleHolder = [&](const QString& partial) {
            asked << partial;
            return false;
        };
        wire::sendFrame(pair.client.get(), kTaskParamMessage, frame);
        Admission a = admitTask(pair.server.get(), context, hooks);
        QCOMPARE(a.refusal, QString(kTransferInProgress));
        QCOMPARE(asked, QStringList{tree.appDir("appA") + "/d/.f.bin.vesk-part"});
        // An idle one is ended, and its lock goes a moment later.
        hooks.endIdleHolder = [&](const QString&) {
            std::thread([&] {
                QThread::msleep(200);
                holder.reset();
            }).detach();
            return true;
        };
        wire::sendFrame(pair.client.get(), kTaskParamMessage, frame);
        a = admitTask(pair.server.get(), context, hooks);
        QCOMPARE(int(a.kind), int(Admission::Kind::Run));
        QVERIFY(a.partialFile);
    }

    void admissionHandsTheFrameOnWithTheUser() {
        MountTree tree;
        VettingContext context = contextFor(tree);
        UdtPair pair = connectedPair();
        ParamMap task = uploadTask();
        task["operator"] = "list";
        const QByteArray sent = VeskBase::serializeParam(task).toUtf8();
        wire::sendFrame(pair.client.get(), kTaskParamMessage, sent);
        Admission a = admitTask(pair.server.get(), context, AdmissionHooks());
        QCOMPARE(int(a.kind), int(Admission::Kind::Run));
        QCOMPARE(a.frame, sent);
        context.policy.user = "alice";
        wire::sendFrame(pair.client.get(), kTaskParamMessage, sent);
        a = admitTask(pair.server.get(), context, AdmissionHooks());
        QCOMPARE(VeskBase::unSerializeParam(QString::fromUtf8(a.frame)).value("userName"),
                 QString("alice"));
    }

    void handlerReceivesTheFrameTheHostRead() {
        MountTree tree;
        UdtPair pair = connectedPair();
        Handler server = makeHandler();
        configureServer(server.get(), pair.server.get(), tree.mount(), tree.appTable());
        ParamMap task{{"operator", "createDir"}, {"appKey", "appA"},    {"rootPath", ""},
                      {"destPath", "made"},      {"userName", "alice"}, {"appVersion", "2.0.0"}};
        server->setReceivedFrame(int(kTaskParamMessage), VeskBase::serializeParam(task).toUtf8());
        AsyncTask running(server.get());
        // The handler answers without anything having been sent on the socket.
        setReceiveTimeout(pair.client.get(), 10000);
        quint32 number = 0;
        QByteArray body;
        QVERIFY(wire::recvFrame(pair.client.get(), number, body));
        QCOMPARE(number, quint32(6));
        QCOMPARE(VeskBase::unSerializeParam(QString::fromUtf8(body)).value("ackRespond"),
                 QString("true"));
        QVERIFY(running.wait());
        QVERIFY(QFileInfo(tree.appDir("appA") + "/made").isDir());
        QCOMPARE(server->getParam("userName", ""), QString("alice"));
    }

    void taskParamIsBoundedInSizeAndTime() {
        UdtPair pair = connectedPair();
        quint32 number = 0;
        QByteArray body;
        // Refused on its header: none of the 16 MiB is read or held.
        wire::sendAll(pair.client.get(), headerBytes(5, 16u * 1024 * 1024).constData(), 8);
        QCOMPARE(int(wire::recvFrameWithin(pair.server.get(), QDeadlineTimer(5000),
                                           kMaxTaskParamBytes, number, body)),
                 int(wire::Received::TooLong));
        QVERIFY(body.isEmpty());

        // A byte every 100 ms still arriving: the limit is on the whole frame.
        UdtPair slow = connectedPair();
        const QByteArray frame = wire::encodeFrame(5, QByteArray(200, 'x'));
        std::atomic<bool> done{false};
        std::thread trickle([&] {
            for (int i = 0; i < frame.size() && !done; ++i) {
                wire::sendAll(slow.client.get(), frame.constData() + i, 1);
                QThread::msleep(100);
            }
        });
        QElapsedTimer clock;
        clock.start();
        QCOMPARE(int(wire::recvFrameWithin(slow.server.get(), QDeadlineTimer(1500),
                                           kMaxTaskParamBytes, number, body)),
                 int(wire::Received::TimedOut));
        QVERIFY(clock.elapsed() < 15000);
        done = true;
        trickle.join();

        wire::sendFrame(pair.client.get(), 5, "{}");
        UdtPair whole = connectedPair();
        wire::sendFrame(whole.client.get(), 5, "{\"a\":\"b\"}");
        QCOMPARE(int(wire::recvFrameWithin(whole.server.get(), QDeadlineTimer(5000),
                                           kMaxTaskParamBytes, number, body)),
                 int(wire::Received::Frame));
        QCOMPARE(body, QByteArray("{\"a\":\"b\"}"));
    }

    void stalePartialFilesAreRemoved() {
        QTemporaryDir dir;
        QVERIFY(QDir().mkpath(dir.filePath("a/b")));
        const QString old = dir.filePath("a/b/.old.bin.vesk-part");
        const QString held = dir.filePath("a/.held.bin.vesk-part");
        const QString fresh = dir.filePath(".fresh.bin.vesk-part");
        const QString plain = dir.filePath("a/old.bin");
        for (const QString& path : {old, held, fresh, plain})
            QVERIFY(writePatternFile(path, 10));
        const qint64 weekAgo = QDateTime::currentSecsSinceEpoch() - 8 * 24 * 3600;
        for (const QString& path : {old, held, plain})
            QVERIFY(setMtime(path, weekAgo));
        std::unique_ptr<PartialFile> holder;
        QCOMPARE(PartialFile::acquire(held, holder), PartialFile::Outcome::Locked);
        QCOMPARE(removeStalePartialFiles(dir.path(), 7 * 24 * 3600), 1);
        QVERIFY(!QFile::exists(old));
        QVERIFY(QFile::exists(held));
        QVERIFY(QFile::exists(fresh));
        QVERIFY(QFile::exists(plain));
        QCOMPARE(removeStalePartialFiles(dir.path(), 0), 0);
        holder.reset();
        QCOMPARE(removeStalePartialFiles(dir.path(), 7 * 24 * 3600), 1);
        QVERIFY(!QFile::exists(held));
    }
};

QTEST_GUILESS_MAIN(TaskVettingTest)
#include "tst_TaskVetting.moc"
