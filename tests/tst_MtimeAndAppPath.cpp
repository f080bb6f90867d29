// Application directories from the "appPath" table, and stamping a file's modification time.

#include "HandlerInternals.h"
#include "Support.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QTest>

#include <fcntl.h>
#include <sys/stat.h>

#include <memory>

using namespace vesktest;

namespace {

// A handler built directly (not through the plug-in) so its private helpers can be reached.
struct Direct {
    std::unique_ptr<VESK::VeskHandler2_0_0> handler{new VESK::VeskHandler2_0_0};
    VESK::HandlerInternals in{*handler};
    LogCapture logs{handler.get()};
};

QString appPathOf(const QString& table, const QString& key) {
    Direct d;
    d.handler->setParam("appPath", table);
    return d.in.getAppPath(key);
}

bool statOf(const QString& path, struct stat& info) {
    return ::stat(path.toUtf8().constData(), &info) == 0;
}

// Sets both times of `path` to known values so a later change (or its absence) shows.
bool setTimes(const QString& path, qint64 atime, qint64 mtime) {
    const timespec times[2] = {{time_t(atime), 0}, {time_t(mtime), 0}};
    return ::utimensat(AT_FDCWD, QFile::encodeName(path).constData(), times, 0) == 0;
}

// The captured log as "level|message" lines, so order and levels are compared in one go.
QStringList tagged(const LogCapture& logs) {
    QStringList out;
    for (const LogEntry& e : logs.entries())
        out << e.level + "|" + e.message;
    return out;
}

QString finishedLine(const QString& function, const QString& path, qint64 mtime) {
    return function + ": set [" + path + "] mtime [" + QString::number(mtime) + "] finished!";
}

} // namespace

class tst_MtimeAndAppPath : public QObject {
    Q_OBJECT

private slots:
    // ---- getAppPath ----

    void tableGivesDirectoryOfKnownKeyAndEmptyForUnknown() {
        QCOMPARE(appPathOf("a:x%b:y", "b"), QString("y"));
        QCOMPARE(appPathOf("a:x%b:y", "a"), QString("x"));
        QCOMPARE(appPathOf("a:x%b:y", "c"), QString());
    }

    void entryWithColonInDirectoryIsSkipped() {
        QCOMPARE(appPathOf("a:C:/data", "a"), QString());
        // The skipped entry does not disturb the others.
        QCOMPARE(appPathOf("a:C:/data%b:/srv/b", "b"), QString("/srv/b"));
    }

    void laterEntryReplacesEarlierOfSameKey() { QCOMPARE(appPathOf("a:x%a:z", "a"), QString("z")); }

    void emptyEntriesAreDropped() { QCOMPARE(appPathOf("%%a:x%", "a"), QString("x")); }

    void doubleColonCountsAsTwoParts() { QCOMPARE(appPathOf("key::dir", "key"), QString("dir")); }

    void entryWithoutDirectoryIsSkipped() {
        QCOMPARE(appPathOf("a%b:y", "a"), QString());
        QCOMPARE(appPathOf("a:%b:y", "a"), QString());
        QCOMPARE(appPathOf("a:%b:y", "b"), QString("y"));
    }

    void emptyTableGivesEmptyPath() {
        QCOMPARE(appPathOf("", "a"), QString());
        QCOMPARE(appPathOf("", ""), QString());
        // The parameter absent altogether reads as an empty table.
        Direct d;
        d.handler->clearParam();
        QCOMPARE(d.in.getAppPath("a"), QString());
    }

    void keysAreCaseSensitiveAndNotTrimmed() {
        QCOMPARE(appPathOf("App:/x% b:/y", "app"), QString());
        QCOMPARE(appPathOf("App:/x% b:/y", "App"), QString("/x"));
        QCOMPARE(appPathOf("App:/x% b:/y", "b"), QString());
        QCOMPARE(appPathOf("App:/x% b:/y", " b"), QString("/y"));
        QCOMPARE(appPathOf("a: /x ", "a"), QString(" /x "));
    }

    void tableIsReadAnewAtEveryCall() {
        Direct d;
        d.handler->setParam("appPath", "a:/one");
        QCOMPARE(d.in.getAppPath("a"), QString("/one"));
        d.handler->setParam("appPath", "a:/two");
        QCOMPARE(d.in.getAppPath("a"), QString("/two"));
        QVERIFY(d.logs.entries().isEmpty());
    }

    // ---- UpdateMtime ----

    void minusOneLogsNothingAndChangesNothing() {
        QTemporaryDir dir;
        QString path = dir.path() + "/f";
        QVERIFY(writePatternFile(path, 10));
        QVERIFY(setTimes(path, 1000000000, 1100000000));
        Direct d;
        d.in.UpdateMtime(path, "uploadRespond", -1);
        struct stat info;
        QVERIFY(statOf(path, info));
        QCOMPARE(qint64(info.st_mtim.tv_sec), qint64(1100000000));
        QCOMPARE(qint64(info.st_atim.tv_sec), qint64(1000000000));
        // Not even a missing file is reported.
        QString missing = dir.path() + "/missing";
        d.in.UpdateMtime(missing, "uploadRespond", -1);
        QVERIFY(d.logs.entries().isEmpty());
    }

    void missingFileLogsStatErrorThenFinished_data() {
        QTest::addColumn<QString>("name");
        QTest::newRow("plain") << QString("missing");
        // A path is one argument of the text, never a place for further substitution.
        QTest::newRow("percent signs") << QString("%1 %2 missing");
    }

    void missingFileLogsStatErrorThenFinished() {
        QFETCH(QString, name);
        QTemporaryDir dir;
        QString path = dir.path() + "/" + name;
        Direct d;
        d.in.UpdateMtime(path, "uploadRespond", 1234567890);
        QCOMPARE(tagged(d.logs),
                 (QStringList{"error|uploadRespond: get stat of  " + path + " failed.",
                              "debug|" + finishedLine("uploadRespond", path, 1234567890)}));
        QVERIFY(!QFile::exists(path));
    }

    void refusedStampLogsSetErrorThenFinished() {
        // The kernel refuses new times on a process directory even for root; the status query
        // succeeds, so only the second step fails.
        QString path = "/proc/" + QString::number(QCoreApplication::applicationPid());
        struct stat info;
        QVERIFY(statOf(path, info));
        if (::utimensat(AT_FDCWD, QFile::encodeName(path).constData(), nullptr, 0) == 0)
            QSKIP("this kernel lets the times of a process directory be set");
        Direct d;
        d.in.UpdateMtime(path, "uploadRespond", 1234567890);
        QCOMPARE(tagged(d.logs),
                 (QStringList{"error|uploadRespond: set new mtime of " + path + " failed.",
                              "debug|" + finishedLine("uploadRespond", path, 1234567890)}));
    }

    void fileTakesMtimeAndKeepsAccessTime_data() {
        QTest::addColumn<QString>("name");
        QTest::addColumn<qint64>("mtime");
        QTest::newRow("plain") << QString("f") << qint64(1234567890);
        QTest::newRow("utf8 path")
            << QString::fromUtf8("répertoire-ü/файл 名.txt") << qint64(1500000000);
        // Only -1 means "no time": the epoch itself and other negative times are set.
        QTest::newRow("zero") << QString("f") << qint64(0);
        QTest::newRow("minus two") << QString("f") << qint64(-2);
    }

    void fileTakesMtimeAndKeepsAccessTime() {
        QFETCH(QString, name);
        QFETCH(qint64, mtime);
        QTemporaryDir dir;
        QString path = dir.path() + "/" + name;
        QVERIFY(QDir().mkpath(QFileInfo(path).path()));
        QVERIFY(writePatternFile(path, 100));
        const QByteArray before = readAll(path);
        QVERIFY(setTimes(path, 1000000000, 1100000000));
        Direct d;
        d.in.UpdateMtime(path, "uploadRespond", mtime);
        struct stat info;
        QVERIFY(statOf(path, info));
        QCOMPARE(qint64(info.st_mtim.tv_sec), mtime);
        QCOMPARE(qint64(info.st_mtim.tv_nsec), qint64(0));
        QCOMPARE(qint64(info.st_atim.tv_sec), qint64(1000000000));
        QCOMPARE(readAll(path), before);
        QCOMPARE(tagged(d.logs),
                 QStringList{"debug|" + finishedLine("uploadRespond", path, mtime)});
    }
};

QTEST_GUILESS_MAIN(tst_MtimeAndAppPath)
#include "tst_MtimeAndAppPath.moc"
