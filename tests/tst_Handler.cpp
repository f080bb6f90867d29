// The handler object, its entry points and registry, the task driver's outcomes, pause and cancel.

#include "HandlerInternals.h"
#include "Support.h"
#include "base/Wire.h"

#include <QFile>
#include <QTest>

#include <udt/udt.h>

using namespace vesktest;

namespace {

const QStringList kRegistry = {"offset",
                               "total",
                               "fileMod",
                               "dirMod",
                               "appPath",
                               "logFile",
                               "transtat-rec",
                               "endPoint",
                               "operator",
                               "clientSocket",
                               "serverSocket",
                               "fileName",
                               "srcPath",
                               "destPath",
                               "rootPath",
                               "userName",
                               "appKey",
                               "appVersion",
                               "bVerify",
                               "bReplace",
                               "fileSize",
                               "verifyValue",
                               "mountPath",
                               "tmpFilePath",
                               "return",
                               "respondStatus",
                               "beginTime",
                               "endTime",
                               "transferBeginSize",
                               "transferEndSize",
                               "clientIp",
                               "clientPort",
                               "path",
                               "mac",
                               "mtime"};

} // namespace

class tst_Handler : public QObject {
    Q_OBJECT

private slots:
    void freshHandlerAnswersKeyAndEmptyError() {
        Handler h = makeHandler();
        QCOMPARE(h->getKey(), QString("VESK-2.0.0"));
        QCOMPARE(h->getLastError(), QString());
    }

    void registryHoldsEveryKeyEmpty() {
        Handler h = makeHandler();
        QMap<QString, QString> all;
        QVERIFY(h->getParams(all));
        QCOMPARE(all.size(), kRegistry.size());
        for (const QString& key : kRegistry) {
            QVERIFY2(all.contains(key), qPrintable(key));
            QCOMPARE(h->getParam(key, "x"), QString());
        }
        QCOMPARE(h->getParam("-unknown-", "x"), QString("x"));
    }

    void metacastAnswersExactClassName() {
        Handler h = makeHandler();
        QCOMPARE(h->qt_metacast("VESK::VeskHandler2_0_0"), static_cast<void*>(h.get()));
        QCOMPARE(h->qt_metacast("VESK::VeskBase"), static_cast<void*>(h.get()));
        QCOMPARE(h->qt_metacast(nullptr), static_cast<void*>(nullptr));
        QCOMPARE(h->qt_metacast("Nope"), static_cast<void*>(nullptr));
        QCOMPARE(QString(h->metaObject()->className()), QString("VESK::VeskHandler2_0_0"));
        QCOMPARE(h->metaObject()->methodCount(), h->metaObject()->superClass()->methodCount());
    }

    void destroyIgnoresNull() {
        pluginDestroy(nullptr);
        VeskBase* h = pluginCreate();
        QVERIFY(h);
        pluginDestroy(h);
    }

    // ---- process() ----

    void emptyEndPointIsReportedWithoutEndTime() {
        Handler h = makeHandler();
        LogCapture logs(h.get());
        QVERIFY(!h->process());
        QCOMPARE(logs.messages(), QStringList{"process: not found endPoint []."});
        QCOMPARE(logs.entries().first().level, QString("error"));
        QCOMPARE(h->getParam("endTime", "x"), QString());
    }

    void capitalisedEndPointIsNotClient() {
        Handler h = makeHandler();
        LogCapture logs(h.get());
        h->setParam("endPoint", "Client");
        h->setParam("operator", "list");
        QVERIFY(!h->process());
        QVERIFY(logs.contains("error", "process: not found endPoint [Client]."));
        QCOMPARE(h->getParam("endTime", ""), QString());
    }

    void clientUnknownOperatorIsReportedAndEndTimeWritten() {
        for (const QString& op : QStringList{"move", "return", "Upload", ""}) {
            Handler h = makeHandler();
            LogCapture logs(h.get());
            h->setParam("endPoint", "client");
            h->setParam("operator", op);
            const qint64 before = QDateTime::currentMSecsSinceEpoch();
            QVERIFY(!h->process());
            QCOMPARE(logs.messages(),
                     QStringList{QString("request: not found operator [%1].").arg(op)});
            const QString endTime = h->getParam("endTime", "");
            QVERIFY(!endTime.startsWith('0'));
            QVERIFY(endTime.toLongLong() >= before);
            QVERIFY(endTime.toLongLong() <= QDateTime::currentMSecsSinceEpoch());
            QCOMPARE(h->getParam("respondStatus", "x"), QString());
        }
    }

    void stopBeforeProcessTurnsResultIntoFailure() {
        Handler h = makeHandler();
        h->setParam("endPoint", "client");
        h->setParam("clientSocket", "12");
        h->setParam("operator", "nothing");
        QVERIFY(h->pause());
        QVERIFY(!h->process());
        QCOMPARE(h->getLastError(), QString("pause"));
        QVERIFY(!h->getParam("endTime", "").isEmpty());
    }

    void cancelRemovesTemporaryFilePauseKeepsIt() {
        QTemporaryDir dir;
        const QString tmp = dir.path() + "/.f.vesk-part";
        for (const QString& word : QStringList{"pause", "cancel"}) {
            QVERIFY(writePatternFile(tmp, 100));
            Handler h = makeHandler();
            LogCapture logs(h.get());
            h->setParam("endPoint", "client");
            h->setParam("clientSocket", "12");
            h->setParam("tmpFilePath", tmp);
            QVERIFY(word == "pause" ? h->pause() : h->cancel());
            QVERIFY(!h->process());
            QCOMPARE(h->getLastError(), word);
            QCOMPARE(QFile::exists(tmp), word == "pause");
            QCOMPARE(logs.messages("error"), QStringList{"request: not found operator []."});
        }
    }

    void cancelWithoutTemporaryFileLogsNothing() {
        Handler h = makeHandler();
        h->setParam("endPoint", "client");
        h->setParam("operator", "nothing");
        h->setParam("clientSocket", "12");
        QVERIFY(h->cancel());
        LogCapture logs(h.get());
        QVERIFY(!h->process());
        QCOMPARE(logs.messages(), QStringList{"request: not found operator [nothing]."});
        QCOMPARE(h->getLastError(), QString("cancel"));
    }

    void cancelReportsTemporaryFileThatCannotBeRemoved() {
        QTemporaryDir dir;
        const QString tmp = dir.path() + "/missing/.f.vesk-part";
        Handler h = makeHandler();
        h->setParam("endPoint", "client");
        h->setParam("clientSocket", "12");
        h->setParam("tmpFilePath", tmp);
        QVERIFY(h->cancel());
        LogCapture logs(h.get());
        QVERIFY(!h->process());
        QVERIFY(logs.contains("error", "process: removeFile " + tmp + " failed."));
        QCOMPARE(h->getLastError(), QString("cancel"));
    }

    void failedGetParamsLogsOneDumpMessage() {
        VESK::VeskHandler2_0_0 handler;
        LogCapture logs(&handler);
        VESK::HandlerInternals in(handler);
        handler.clearParam();
        handler.setParam("operator", "list");
        handler.setParam("srcPath", QString::fromUtf8("/d ü"));
        VESK::ParamMap map;
        QVERIFY(!in.collectTaskParam("listRequest", {"operator", "srcPath", "rootPath"}, map));
        QVERIFY(map.isEmpty());
        QCOMPARE(logs.messages("error"),
                 (QStringList{"listRequest: getParams failed.",
                              QString::fromUtf8("listRequest: params ====\n"
                                                "operator:[list] srcPath:[/d ü] rootPath:[] ")}));
    }

    void completeKeySetIsCollectedWithoutLogging() {
        VESK::VeskHandler2_0_0 handler;
        LogCapture logs(&handler);
        VESK::HandlerInternals in(handler);
        handler.setParam("operator", "list");
        VESK::ParamMap map;
        QVERIFY(in.collectTaskParam("listRequest", {"operator", "mac"}, map));
        QCOMPARE(map, (VESK::ParamMap{{"operator", "list"}, {"mac", ""}}));
        QVERIFY(logs.entries().isEmpty());
    }

    // ---- pause() and cancel() ----

    void pauseOnServerClosesItsSocket() {
        UdtPair pair = connectedPair();
        Handler h = makeHandler();
        h->setParam("endPoint", "server");
        h->setParam("serverSocket", QString::number(pair.server.get()));
        QCOMPARE(socketState(pair.server.get()), int(CONNECTED));
        QVERIFY(h->pause());
        QVERIFY(socketState(pair.server.get()) != int(CONNECTED));
        auto& handler = static_cast<VESK::VeskHandler2_0_0&>(*h);
        QCOMPARE(VESK::HandlerInternals(handler).getStatus(), QString("pause"));
        pair.server.release();
    }

    void cancelOnClientClosesNothing() {
        UdtPair pair = connectedPair();
        Handler h = makeHandler();
        LogCapture logs(h.get());
        h->setParam("endPoint", "client");
        h->setParam("clientSocket", QString::number(pair.client.get()));
        QVERIFY(h->cancel());
        QCOMPARE(socketState(pair.client.get()), int(CONNECTED));
        auto& handler = static_cast<VESK::VeskHandler2_0_0&>(*h);
        QCOMPARE(VESK::HandlerInternals(handler).getStatus(), QString("cancel"));
        QVERIFY(logs.entries().isEmpty());
    }

    void stopWithoutEndPointReportsMissingSocket() {
        for (const QString& word : QStringList{"pause", "cancel"}) {
            Handler h = makeHandler();
            LogCapture logs(h.get());
            QVERIFY(!(word == "pause" ? h->pause() : h->cancel()));
            QCOMPARE(logs.messages("error"), QStringList{word + ": localSocket get failed."});
            auto& handler = static_cast<VESK::VeskHandler2_0_0&>(*h);
            QCOMPARE(VESK::HandlerInternals(handler).getStatus(), word);
        }
    }

    void nonNumericSocketConvertsToZero() {
        for (const QString& value : QStringList{"abc", ""}) {
            Handler h = makeHandler();
            LogCapture logs(h.get());
            h->setParam("endPoint", "server");
            h->setParam("serverSocket", value);
            QVERIFY(h->pause());
            QVERIFY(logs.entries().isEmpty());
        }
    }

    void laterStopWins() {
        Handler h = makeHandler();
        h->setParam("endPoint", "client");
        h->setParam("clientSocket", "7");
        auto& handler = static_cast<VESK::VeskHandler2_0_0&>(*h);
        VESK::HandlerInternals in(handler);
        QVERIFY(h->pause());
        QVERIFY(h->cancel());
        QCOMPARE(in.getStatus(), QString("cancel"));
        QVERIFY(h->pause());
        QCOMPARE(in.getStatus(), QString("pause"));
    }

    void stopClearsActivityFlag() {
        UdtPair pair = connectedPair();
        Handler h = makeHandler();
        h->setParam("endPoint", "server");
        h->setParam("serverSocket", QString::number(pair.server.get()));
        // A failed receive still counts as no activity; a sent message sets the flag.
        QVERIFY(VESK::wire::sendFrame(pair.client.get(), 5, "{\"operator\":\"return\"}"));
        QVERIFY(!h->process());
        QVERIFY(h->isActive());
        QVERIFY(h->cancel());
        QVERIFY(!h->isActive());
        pair.server.release();
    }
};

QTEST_GUILESS_MAIN(tst_Handler)
#include "tst_Handler.moc"
