// The client's parts that need no server: reading URLs and option values, where each source of
// a copy lands, which files a tree holds, and the lines a copy of many files shows.

#include "host/Batch.h"
#include "host/CommandLine.h"
#include "host/CopyPlan.h"
#include "host/Url.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>

using namespace VESK;
using namespace VESK::host;

namespace {

bool touch(const QString& path, const QByteArray& data = "x") {
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(data) == data.size();
}

} // namespace

class tst_ClientParts : public QObject {
    Q_OBJECT

private slots:
    void urlsAreReadIntoTheirParts() {
        VeskUrl url;
        QString error;
        QVERIFY(parseUrl("vesk://alice@files.example:9100/appA/docs/./a.txt", url, &error));
        QCOMPARE(url.user, QString("alice"));
        QCOMPARE(url.host, QString("files.example"));
        QCOMPARE(url.port, quint16(9100));
        QCOMPARE(url.appKey, QString("appA"));
        QCOMPARE(url.path, QString("/docs/a.txt"));
        QCOMPARE(url.fileName(), QString("a.txt"));
        QCOMPARE(url.directory(), QString("/docs"));

        QVERIFY(parseUrl("vesk://127.0.0.1/appB/", url, &error));
        QCOMPARE(url.port, kDefaultPort);
        QCOMPARE(url.path, QString());
    }

    void badUrlsAreRefusedWithAReason_data() {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QString>("reason");
        QTest::newRow("scheme") << "http://h:1/a"
                                << "is not a vesk URL";
        QTest::newRow("no application") << "vesk://h:1/"
                                        << "names no application";
        QTest::newRow("dot-dot") << "vesk://h:1/a/../b"
                                 << "'..' is not allowed";
        QTest::newRow("port") << "vesk://h:70000/a"
                              << "is not a valid port";
        QTest::newRow("empty user") << "vesk://@h:1/a"
                                    << "empty user";
    }
    void badUrlsAreRefusedWithAReason() {
        QFETCH(QString, text);
        QFETCH(QString, reason);
        VeskUrl url;
        QString error;
        QVERIFY(!parseUrl(text, url, &error));
        QVERIFY2(error.contains(reason), qPrintable(error));
    }

    void ratesAndDurationsAreRead() {
        qint64 value = -1;
        QVERIFY(parseRate("20M", &value));
        QCOMPARE(value, 20ll << 20);
        QVERIFY(parseRate("1.5k", &value));
        QCOMPARE(value, 1536ll);
        QVERIFY(parseRate("0", &value));
        QCOMPARE(value, 0ll);
        QVERIFY(!parseRate("5MB/s", &value));
        QVERIFY(!parseRate("0.5", &value));
        QVERIFY(parseDuration("7d", &value));
        QCOMPARE(value, 7ll * 86400);
        QVERIFY(!parseDuration("1w", &value));
    }

    void targetNamesFollowScp_data() {
        QTest::addColumn<QString>("target");
        QTest::addColumn<bool>("isDirectory");
        QTest::addColumn<int>("sources");
        QTest::addColumn<bool>("contentsOnly");
        QTest::addColumn<QString>("place");
        QTest::newRow("into a directory") << "/docs" << true << 1 << false << "/docs/a.txt";
        QTest::newRow("new name") << "/docs/report.txt" << false << 1 << false
                                  << "/docs/report.txt";
        QTest::newRow("several into a new directory")
            << "/new" << false << 2 << false << "/new/a.txt";
        QTest::newRow("the application's directory") << "" << true << 1 << false << "/a.txt";
        QTest::newRow("trailing slash")
            << "/home/u/in/" << true << 1 << false << "/home/u/in/a.txt";
        QTest::newRow("contents of a directory") << "/docs" << true << 1 << true << "/docs";
        QTest::newRow("contents into a new one") << "/fresh" << false << 3 << true << "/fresh";
    }
    void targetNamesFollowScp() {
        QFETCH(QString, target);
        QFETCH(bool, isDirectory);
        QFETCH(int, sources);
        QFETCH(bool, contentsOnly);
        QFETCH(QString, place);
        QCOMPARE(placeFor(target, isDirectory, sources, "a.txt", contentsOnly), place);
    }

    void aTreeListsDirectoriesFirstEmptyOnesIncludedPartialFilesLeftOut() {
        QTemporaryDir dir;
        QVERIFY(dir.isValid());
        QVERIFY(QDir().mkpath(dir.filePath("t/sub/deeper")));
        QVERIFY(QDir().mkpath(dir.filePath("t/empty")));
        QVERIFY(touch(dir.filePath("t/top.txt"), "1234"));
        QVERIFY(touch(dir.filePath("t/sub/deeper/.hidden")));
        QVERIFY(touch(dir.filePath("t/sub/.half.bin.vesk-part")));
        QList<CopyItem> items;
        addLocalTree(dir.filePath("t"), "/up", items);

        QStringList directories, files;
        bool fileSeen = false;
        for (const CopyItem& item : items) {
            if (item.directory) {
                QVERIFY2(!fileSeen, "a directory after a file");
                directories << item.remote;
            } else {
                fileSeen = true;
                files << item.remote;
                QCOMPARE(item.size, QFileInfo(item.local).size());
            }
        }
        directories.sort();
        files.sort();
        QCOMPARE(directories, (QStringList{"/up/empty", "/up/sub", "/up/sub/deeper"}));
        QCOMPARE(files, (QStringList{"/up/sub/deeper/.hidden", "/up/top.txt"}));
        QVERIFY(isPartialFileName(".half.bin.vesk-part"));
        QVERIFY(!isPartialFileName("half.bin.vesk-part.txt"));
    }

    void progressLineCountsFilesBytesRateAndTimeLeft() {
        QCOMPARE(batchProgressLine(250, 1000, 1 << 20, 4 << 20, 2.0),
                 QString("250/1000 files  1.0 MiB / 4.0 MiB  512.0 KiB/s  0:06 left"));
        // Sizes unknown beforehand (a download): the time left comes from the files.
        QCOMPARE(batchProgressLine(10, 40, 2048, -1, 5.0),
                 QString("10/40 files  2.0 KiB  409 B/s  0:15 left"));
        QCOMPARE(batchProgressLine(0, 3, 0, 30, 0.0),
                 QString("0/3 files  0 B / 30 B  0 B/s  --:-- left"));
    }

    void summaryNamesEveryKindOfEnd() {
        BatchCounts counts;
        counts.copied = 2;
        counts.identical = 1;
        counts.failed = 1;
        counts.moved = 8192;
        counts.seconds = 2.0;
        QCOMPARE(batchSummary(counts), QString("4 files: 2 copied, 1 already identical, 1 failed; "
                                               "8.0 KiB in 2.0 s (4.0 KiB/s)"));
        counts = BatchCounts();
        counts.copied = 1;
        counts.notRun = 2;
        counts.failedDirectories = 1;
        QCOMPARE(batchSummary(counts),
                 QString("3 files: 1 copied, 0 already identical, 0 failed, 2 not done, 1 "
                         "directory not created; 0 B in 0.0 s (0 B/s)"));
    }
};

QTEST_GUILESS_MAIN(tst_ClientParts)
#include "tst_ClientParts.moc"
