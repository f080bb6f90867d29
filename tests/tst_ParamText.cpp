// What the server makes of a peer's parameter text that no vesk client would send: repeated
// names, deep nesting, escapes. None of it may cost the server memory that stays allocated.

#include "Support.h"
#include "base/VeskBase.h"

#include <QtTest>

using VESK::VeskBase;
using ParamMap = QMap<QString, QString>;

namespace {

// An object that names "a" `count` times, each time with an object holding a large string.
QString repeatedObjectMembers(int count, int stringBytes) {
    const QString member = QStringLiteral("\"a\":{\"x\":\"%1\"}").arg(QString(stringBytes, 'x'));
    QStringList members;
    for (int i = 0; i < count; ++i)
        members << member;
    return "{" + members.join(',') + ",\"a\":\"last\"}";
}

} // namespace

class tst_ParamText : public QObject {
    Q_OBJECT

private slots:
    void repeatedNameGivesAnEmptyMap_data() {
        QTest::addColumn<QString>("text");
        QTest::newRow("strings") << "{\"a\":\"1\",\"a\":\"2\"}";
        QTest::newRow("object then string") << "{\"ro\":{\"\":\"\"},\"ro\":\"\"}";
        QTest::newRow("array then string") << "{\"a\":[\"x\"],\"a\":\"\"}";
        QTest::newRow("escaped the second time") << "{\"a\":{},\"\\u0061\":\"\"}";
        QTest::newRow("one-letter escape") << "{\"\\n\":{},\"\n\":\"\"}";
        QTest::newRow("nested object") << "{\"k\":\"v\",\"n\":{\"b\":{},\"b\":\"\"}}";
        QTest::newRow("object in an array") << "{\"k\":\"v\",\"n\":[{\"b\":[],\"b\":1}]}";
    }

    void repeatedNameGivesAnEmptyMap() {
        QFETCH(QString, text);
        QCOMPARE(VeskBase::unSerializeParam(text), ParamMap());
    }

    void repeatedNameAfterANulCharacterGivesAnEmptyMap() {
        // A NUL inside a string value must not end the scan before Qt's reader ends its parse.
        const QString text =
            QString("{\"\":\"") + QChar(0) + "\",\"mac\":{\"\":\"\"},\"mac\":\"\"}";
        QCOMPARE(VeskBase::unSerializeParam(text), ParamMap());
    }

    void sameNameInDifferentObjectsIsFine() {
        QCOMPARE(VeskBase::unSerializeParam(
                     "{\"a\":{\"a\":\"1\"},\"b\":[{\"a\":\"\"},{\"a\":\"\"}],\"c\":\"a\"}"),
                 (ParamMap{{"c", "a"}}));
        QCOMPARE(VeskBase::unSerializeParam("{\"a\":\"x\",\"b\":\"a\",\"c\":\"\\\"a\\\"\"}"),
                 (ParamMap{{"a", "x"}, {"b", "a"}, {"c", "\"a\""}}));
    }

    void nestingUpToQtsLimitIsRead() {
        const int depth = 1023; // plus the outer object
        const QString text =
            "{\"deep\":" + QString(depth, '[') + QString(depth, ']') + ",\"k\":\"v\"}";
        QCOMPARE(VeskBase::unSerializeParam(text), (ParamMap{{"k", "v"}}));
        const QString deeper =
            "{\"deep\":" + QString(depth + 1, '[') + QString(depth + 1, ']') + ",\"k\":\"v\"}";
        QCOMPARE(VeskBase::unSerializeParam(deeper), ParamMap());
    }

    void veryDeepNestingIsRefusedQuickly() {
        const QString text = QString(4 * 1024 * 1024, '[');
        QElapsedTimer timer;
        timer.start();
        QCOMPARE(VeskBase::unSerializeParam(text), ParamMap());
        QVERIFY(timer.elapsed() < 5000);
    }

    void repeatedNamesDoNotKeepMemory() {
#ifdef __SANITIZE_ADDRESS__
        QSKIP("AddressSanitizer keeps freed memory in quarantine; its leak check covers this");
#endif
        // Qt's reader, given these texts, loses the replaced values; 40 rounds of about 1 MiB
        // each would keep tens of MiB.
        const QString text = repeatedObjectMembers(10, 100 * 1000);
        VeskBase::unSerializeParam(text);
        const qint64 before = vesktest::processStatusKiB("VmRSS");
        QVERIFY(before > 0);
        for (int i = 0; i < 40; ++i)
            VeskBase::unSerializeParam(text);
        const qint64 grown = vesktest::processStatusKiB("VmRSS") - before;
        QVERIFY2(grown < 16 * 1024, qPrintable(QString("resident memory grew %1 KiB").arg(grown)));
    }

    void wellFormedParametersAreReadAsBefore() {
        const ParamMap map{{"operator", "upload"},
                           {"fileName", QString::fromUtf8("r\xc3\xa9sum\xc3\xa9 \"1\".pdf")},
                           {"destPath", "a\\b/{c}[d]"},
                           {"mtime", "-1"}};
        QCOMPARE(VeskBase::unSerializeParam(VeskBase::serializeParam(map)), map);
    }
};

QTEST_GUILESS_MAIN(tst_ParamText)
#include "tst_ParamText.moc"
