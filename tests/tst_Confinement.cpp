// Confinement of a server thread to an application's directory: with Landlock the kernel refuses
// what leaves the directory, for that thread only; without it the task's paths are checked.

#include "HandlerInternals.h"
#include "Support.h"
#include "base/Verify.h"
#include "host/Confinement.h"

#include <QCryptographicHash>
#include <QDateTime>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QTest>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <condition_variable>
#include <ctime>
#include <functional>
#include <map>
#include <mutex>
#include <thread>

using namespace vesktest;
using namespace VESK::host;

namespace {

QByteArray native(const QString& path) {
    return QFile::encodeName(path);
}

bool canOpen(const QString& path, int flags) {
    const int fd = ::open(native(path).constData(), flags | O_CLOEXEC, 0644);
    if (fd < 0)
        return false;
    ::close(fd);
    return true;
}

bool writeText(const QString& path, const QByteArray& text) {
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(text) == text.size();
}

qint64 mtimeOf(const QString& path) {
    struct stat st {};
    return ::stat(native(path).constData(), &st) == 0 ? qint64(st.st_mtim.tv_sec) : -1;
}

int modeOf(const QString& path) {
    struct stat st {};
    return ::stat(native(path).constData(), &st) == 0 ? int(st.st_mode & 07777) : -1;
}

// What one thread managed to do, recorded there and asserted on the test's own thread (Qt
// Test's checks are not made for other threads).
using Outcomes = std::map<QString, bool>;

// Runs `work` on a thread of its own, confined to `dir` first; the confinement's error, if any,
// goes to `error`.
Outcomes runConfined(const QString& dir, const QStringList& keepOpen, QString* error,
                     const std::function<void(Outcomes&)>& work) {
    Outcomes outcomes;
    std::thread thread([&] {
        if (confinement::confineThreadTo(dir, keepOpen, error))
            work(outcomes);
    });
    thread.join();
    return outcomes;
}

// An application's directory beside a directory that must stay out of its reach, with links
// from the inside to the outside.
struct Tree {
    QTemporaryDir temp;
    QString app;     // the application's directory
    QString outside; // beside it
    QString secret;  // a file outside

    Tree() {
        app = temp.path() + "/app";
        outside = temp.path() + "/outside";
        secret = outside + "/secret.txt";
        QDir().mkpath(app + "/sub");
        QDir().mkpath(outside + "/dir");
        writeText(secret, "outside");
        writeText(app + "/inside.txt", "inside");
        ::chmod(native(secret).constData(), 0600);
        // Links inside that lead out: to the outside directory, to one of its files, and to a
        // name there that does not exist yet.
        QFile::link(outside, app + "/out");
        QFile::link(secret, app + "/secret-link");
        QFile::link(outside + "/planted.txt", app + "/dangling");
        // And a link that stays inside.
        QFile::link(app + "/sub", app + "/sub-link");
    }
};

} // namespace

class TestConfinement : public QObject {
    Q_OBJECT

private slots:
    void init() {
        if (confinement::landlockAbi() == 0 &&
            QString(QTest::currentTestFunction()).startsWith("landlock"))
            QSKIP("this kernel has no Landlock (too old, or not in its lsm= list)");
    }

    void startupNoticeSaysWhatTheServerDoes() {
        const QString notice = confinement::startupNotice();
        if (confinement::landlockAbi() > 0)
            QVERIFY2(
                notice.contains(QString("with Landlock ABI %1").arg(confinement::landlockAbi())),
                qPrintable(notice));
        else
            QVERIFY2(notice.contains("Landlock is not available"), qPrintable(notice));
    }

    // First of the confined tests: the libraries a task uses start up lazily, possibly inside
    // the confined thread (OpenSSL reads its configuration on first use), and must work there.
    void landlockLeavesVerifyValuesWorking() {
        Tree tree;
        QVERIFY(tree.temp.isValid());
        const QString file = tree.app + "/inside.txt";
        std::map<QString, QString> values;
        QString error;
        runConfined(tree.app, {}, &error, [&](Outcomes&) {
            for (const QString method : {"fileattr", "md5", "sha1", "sha256", "xxh3"})
                values[method] = VESK::verify::fileValue(file, method);
            values["outside"] = VESK::verify::fileValue(tree.secret, "md5");
        });
        QVERIFY2(error.isEmpty(), qPrintable(error));
        QCOMPARE(values["fileattr"], QString("6"));
        QCOMPARE(values["md5"],
                 QString(QCryptographicHash::hash("inside", QCryptographicHash::Md5).toHex()));
        QCOMPARE(values["sha256"],
                 QString(QCryptographicHash::hash("inside", QCryptographicHash::Sha256).toHex()));
        QCOMPARE(values["sha1"].size(), 40);
        QCOMPARE(values["xxh3"].size(), 32);
        QCOMPARE(values["outside"], QString());
    }

    // Log records carry the local time; its zone is read from outside on first use.
    void landlockLeavesTheLocalTimeZone() {
        const QString zone = "/usr/share/zoneinfo/Asia/Tokyo";
        if (!QFileInfo::exists(zone))
            QSKIP("no time zone data on this machine");
        Tree tree;
        QVERIFY(tree.temp.isValid());
        const QByteArray saved = qgetenv("TZ");
        qputenv("TZ", (":" + zone).toUtf8());
        int offset = -1;
        QString error;
        runConfined(tree.app, {}, &error,
                    [&](Outcomes&) { offset = QDateTime::currentDateTime().offsetFromUtc(); });
        if (saved.isNull())
            qunsetenv("TZ");
        else
            qputenv("TZ", saved);
        ::tzset();
        QVERIFY2(error.isEmpty(), qPrintable(error));
        QCOMPARE(offset, 9 * 3600);
    }

    void landlockRefusesEverythingOutsideTheDirectory() {
        Tree tree;
        QVERIFY(tree.temp.isValid());
        const QString movedIn = tree.app + "/moved-in.txt";
        const int dirMode = modeOf(tree.outside + "/dir");
        QString error;
        const Outcomes out = runConfined(tree.app, {}, &error, [&](Outcomes& o) {
            for (const QString& path :
                 {tree.secret, tree.app + "/out/secret.txt", tree.app + "/secret-link"}) {
                o["read " + path] = canOpen(path, O_RDONLY);
                o["write " + path] = canOpen(path, O_WRONLY);
                o["truncate " + path] = ::truncate(native(path).constData(), 0) == 0;
                o["chmod " + path] = VESK::VeskBase::chmod(path, 0666);
            }
            o["list outside"] = !QDir(tree.outside).entryList(QDir::Files).isEmpty();
            o["list through link"] = !QDir(tree.app + "/out").entryList(QDir::Files).isEmpty();
            o["create outside"] = canOpen(tree.outside + "/new.txt", O_WRONLY | O_CREAT);
            o["create through link"] = canOpen(tree.app + "/out/new.txt", O_WRONLY | O_CREAT);
            o["create through dangling link"] = canOpen(tree.app + "/dangling", O_WRONLY | O_CREAT);
            o["mkdir through link"] = QDir().mkdir(tree.app + "/out/newdir");
            o["chmod dir through link"] = VESK::VeskBase::chmod(tree.app + "/out/dir", 0777);
            o["remove outside"] = ::unlink(native(tree.app + "/out/secret.txt").constData()) == 0;
            o["rename out of the directory"] =
                ::rename(native(tree.app + "/inside.txt").constData(),
                         native(tree.app + "/out/stolen.txt").constData()) == 0;
            o["rename into the directory"] =
                ::rename(native(tree.secret).constData(), native(movedIn).constData()) == 0;
            o["link into the directory"] =
                ::link(native(tree.secret).constData(), native(movedIn).constData()) == 0;
        });
        QVERIFY2(error.isEmpty(), qPrintable(error));
        QVERIFY(!out.empty());
        for (const auto& entry : out)
            QVERIFY2(!entry.second, qPrintable("allowed: " + entry.first));
        // Nothing outside changed.
        QCOMPARE(readAll(tree.secret), QByteArray("outside"));
        QCOMPARE(modeOf(tree.secret), 0600);
        QCOMPARE(modeOf(tree.outside + "/dir"), dirMode);
        QVERIFY(!QFileInfo::exists(tree.outside + "/new.txt"));
        QVERIFY(!QFileInfo::exists(tree.outside + "/planted.txt"));
        QVERIFY(!QFileInfo::exists(tree.outside + "/newdir"));
        QVERIFY(!QFileInfo::exists(tree.outside + "/stolen.txt"));
        QVERIFY(!QFileInfo::exists(movedIn));
    }

    void landlockAllowsEverythingInsideTheDirectory() {
        Tree tree;
        QVERIFY(tree.temp.isValid());
        const QString file = tree.app + "/sub/new.txt";
        QString error;
        const Outcomes out = runConfined(tree.app, {}, &error, [&](Outcomes& o) {
            o["read"] = canOpen(tree.app + "/inside.txt", O_RDONLY);
            o["create"] = writeText(file, "new");
            o["create through an inside link"] = writeText(tree.app + "/sub-link/linked.txt", "x");
            o["append"] = canOpen(file, O_WRONLY | O_APPEND);
            o["truncate"] = ::truncate(native(tree.app + "/inside.txt").constData(), 2) == 0;
            o["chmod file"] = VESK::VeskBase::chmod(file, 0640);
            o["chmod dirs"] = VESK::VeskBase::chmodRecursively(tree.app, tree.app + "/sub", 0750);
            const timespec times[2] = {{0, UTIME_OMIT}, {1000000000, 0}};
            o["utime"] = ::utimensat(AT_FDCWD, native(file).constData(), times, 0) == 0;
            o["mkdir"] = QDir().mkpath(tree.app + "/made/deeper");
            o["rename across directories"] =
                ::rename(native(file).constData(),
                         native(tree.app + "/made/new.txt").constData()) == 0;
            o["list"] =
                QDir(tree.app).entryList(QDir::AllEntries | QDir::NoDotAndDotDot).size() > 3;
            o["remove"] = QFile::remove(tree.app + "/sub-link/linked.txt");
            o["remove dir"] = QDir().rmdir(tree.app + "/made/deeper");
        });
        QVERIFY2(error.isEmpty(), qPrintable(error));
        QCOMPARE(int(out.size()), 13);
        for (const auto& entry : out)
            QVERIFY2(entry.second, qPrintable("refused: " + entry.first));
        QCOMPARE(readAll(tree.app + "/made/new.txt"), QByteArray("new"));
        QCOMPARE(modeOf(tree.app + "/made/new.txt"), 0640);
        QCOMPARE(mtimeOf(tree.app + "/made/new.txt"), qint64(1000000000));
        QCOMPARE(modeOf(tree.app + "/sub"), 0750);
        QCOMPARE(readAll(tree.app + "/inside.txt"), QByteArray("in"));
    }

    void landlockLeavesOtherThreadsAlone() {
        Tree tree;
        QVERIFY(tree.temp.isValid());
        // The confined thread waits, still alive, while this thread and a new one use the
        // outside freely.
        std::mutex mutex;
        std::condition_variable changed;
        bool confined = false, done = false, confinedRead = true;
        QString error;
        std::thread thread([&] {
            const bool ok = confinement::confineThreadTo(tree.app, {}, &error);
            std::unique_lock<std::mutex> lock(mutex);
            confinedRead = canOpen(tree.secret, O_RDONLY);
            confined = ok;
            changed.notify_all();
            changed.wait(lock, [&] { return done; });
        });
        {
            std::unique_lock<std::mutex> lock(mutex);
            changed.wait(lock, [&] { return confined || !error.isEmpty(); });
        }
        QVERIFY2(error.isEmpty(), qPrintable(error));
        QVERIFY(!confinedRead);
        const bool mainReads = canOpen(tree.secret, O_RDONLY);
        const bool mainWrites = writeText(tree.outside + "/by-main.txt", "main");
        bool otherWrites = false;
        std::thread other([&] { otherWrites = writeText(tree.outside + "/by-other.txt", "x"); });
        other.join();
        {
            std::lock_guard<std::mutex> lock(mutex);
            done = true;
            changed.notify_all();
        }
        thread.join();
        QVERIFY(mainReads);
        QVERIFY(mainWrites);
        QVERIFY(otherWrites);
        QCOMPARE(readAll(tree.outside + "/by-main.txt"), QByteArray("main"));
    }

    void landlockKeepsTheLogFileWritable() {
        Tree tree;
        QVERIFY(tree.temp.isValid());
        // The log lies outside the application's directory, as a server's does.
        const QString logFile = tree.temp.path() + "/vesk.log";
        Handler handler = makeHandler();
        handler->setParam("logFile", logFile);
        auto* h = static_cast<VESK::VeskHandler2_0_0*>(handler.get());
        QString error;
        const Outcomes out = runConfined(tree.app, {logFile}, &error, [&](Outcomes& o) {
            // The handler's own open of a file through a link out fails, and says so in the log.
            QString path = tree.app + "/out/secret.txt";
            o["handler opens outside"] = VESK::HandlerInternals(*h).createStream(path, 1);
            o["log file opened by name"] = canOpen(logFile, O_WRONLY | O_APPEND);
        });
        QVERIFY2(error.isEmpty(), qPrintable(error));
        QCOMPARE(out.at("handler opens outside"), false);
        QCOMPARE(out.at("log file opened by name"), false);
        const QString text = QString::fromUtf8(readAll(logFile));
        QVERIFY2(text.contains("[error] createStream: QFile open file " + tree.app +
                               "/out/secret.txt failed"),
                 qPrintable(text));
    }

    void landlockNeedsAnExistingDirectory() {
        QTemporaryDir temp;
        QString error;
        bool ok = true;
        std::thread thread(
            [&] { ok = confinement::confineThreadTo(temp.path() + "/missing", {}, &error); });
        thread.join();
        QVERIFY(!ok);
        QVERIFY2(error.contains("missing"), qPrintable(error));
    }

    void pathCheckRefusesLinkEscapes_data() {
        QTest::addColumn<QString>("path");
        QTest::addColumn<bool>("inside");
        QTest::newRow("a file") << "/inside.txt" << true;
        QTest::newRow("the directory itself") << "" << true;
        QTest::newRow("a new file") << "/sub/new.txt" << true;
        QTest::newRow("new directories") << "/sub/x/y/z.txt" << true;
        QTest::newRow("through an inside link") << "/sub-link/new.txt" << true;
        QTest::newRow("a link out") << "/secret-link" << false;
        QTest::newRow("through a link out") << "/out/secret.txt" << false;
        QTest::newRow("new file through a link out") << "/out/new.txt" << false;
        QTest::newRow("new dirs through a link out") << "/out/a/b/c.txt" << false;
        QTest::newRow("a dangling link") << "/dangling" << false;
        QTest::newRow("below a file") << "/inside.txt/x" << false;
        QTest::newRow("dot dot") << "/sub/../../outside/secret.txt" << false;
    }

    void pathCheckRefusesLinkEscapes() {
        QFETCH(QString, path);
        QFETCH(bool, inside);
        Tree tree;
        QVERIFY(tree.temp.isValid());
        QString offending;
        const QString full = tree.app + path;
        QCOMPARE(
            confinement::pathsStayInside(tree.app, {tree.app + "/inside.txt", full}, &offending),
            inside);
        QCOMPARE(offending, inside ? QString() : full);
    }

    void pathCheckFollowsALinkedApplicationDirectory() {
        Tree tree;
        QVERIFY(tree.temp.isValid());
        // The application's directory itself reached through a link: what counts is where it is.
        const QString linked = tree.temp.path() + "/app-link";
        QVERIFY(QFile::link(tree.app, linked));
        QString offending;
        QVERIFY(confinement::pathsStayInside(
            linked, {tree.app + "/inside.txt", linked + "/sub/new.txt"}, &offending));
        QVERIFY(!confinement::pathsStayInside(linked, {linked + "/out/x"}, &offending));
    }

    void confineTaskRefusesBeforeItConfines() {
        Tree tree;
        QVERIFY(tree.temp.isValid());
        QString error;
        bool refused = false, confinedAfterRefusal = false, allowed = false, readAfter = true;
        std::thread thread([&] {
            refused = !confinement::confineTask(tree.app, {tree.app + "/out/x"}, QString(), &error);
            // A refused task leaves its thread as it was.
            confinedAfterRefusal = !canOpen(tree.secret, O_RDONLY);
            QString second;
            allowed = confinement::confineTask(tree.app, {tree.app + "/sub/y"}, QString(), &second);
            readAfter = canOpen(tree.secret, O_RDONLY);
        });
        thread.join();
        QVERIFY(refused);
        QVERIFY2(error.contains(tree.app + "/out/x"), qPrintable(error));
        QVERIFY(!confinedAfterRefusal);
        QVERIFY(allowed);
        // Confined now where the kernel can do it.
        QCOMPARE(readAfter, confinement::landlockAbi() == 0);
    }
};

QTEST_GUILESS_MAIN(TestConfinement)
#include "tst_Confinement.moc"
