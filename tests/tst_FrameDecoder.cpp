// The pure frame encoder and decoder that the socket reader and the fuzz target share.

#include "base/Wire.h"

#include <QtTest>

using namespace VESK::wire;

namespace {

// A header alone, announcing `length` bytes of message 5.
QByteArray headerAnnouncing(quint32 length) {
    QByteArray header(kHeaderBytes, Qt::Uninitialized);
    qToBigEndian<quint32>(5, header.data());
    qToBigEndian<quint32>(length, header.data() + 4);
    return header;
}

} // namespace

class tst_FrameDecoder : public QObject {
    Q_OBJECT

private slots:
    void encodedFrameIsHeaderThenBody() {
        QCOMPARE(encodeFrame(0x01020304, "ab"), QByteArray("\x01\x02\x03\x04\x00\x00\x00\x02"
                                                           "ab",
                                                           10));
    }

    void completeFrameIsTakenFromTheFront() {
        const QByteArray stream = encodeFrame(5, "{}") + encodeFrame(6, "xyz");
        quint32 number = 0;
        QByteArray body;
        int consumed = -1;
        QCOMPARE(decodeFrame(stream, number, body, consumed), Decoded::Complete);
        QCOMPARE(number, 5u);
        QCOMPARE(body, QByteArray("{}"));
        QCOMPARE(consumed, 10);
        QCOMPARE(decodeFrame(stream.mid(consumed), number, body, consumed), Decoded::Complete);
        QCOMPARE(number, 6u);
        QCOMPARE(body, QByteArray("xyz"));
        QCOMPARE(consumed, 11);
    }

    void emptyBodyIsAFrame() {
        quint32 number = 0;
        QByteArray body = "stale";
        int consumed = -1;
        QCOMPARE(decodeFrame(encodeFrame(9, QByteArray()), number, body, consumed),
                 Decoded::Complete);
        QCOMPARE(number, 9u);
        QVERIFY(body.isEmpty());
        QCOMPARE(consumed, kHeaderBytes);
    }

    void truncatedInputNeedsMore_data() {
        QTest::addColumn<QByteArray>("input");
        const QByteArray frame = encodeFrame(5, "{\"operator\":\"list\"}");
        QTest::newRow("nothing") << QByteArray();
        QTest::newRow("half a header") << frame.left(4);
        QTest::newRow("header only") << frame.left(kHeaderBytes);
        QTest::newRow("one byte short") << frame.left(frame.size() - 1);
    }

    void truncatedInputNeedsMore() {
        QFETCH(QByteArray, input);
        quint32 number = 77;
        QByteArray body = "untouched";
        int consumed = -1;
        QCOMPARE(decodeFrame(input, number, body, consumed), Decoded::Incomplete);
        QCOMPARE(number, 77u);
        QCOMPARE(body, QByteArray("untouched"));
        QCOMPARE(consumed, -1);
    }

    void lengthOverTheLimitIsInvalidWithoutItsBody_data() {
        QTest::addColumn<quint32>("length");
        QTest::newRow("one over") << kMaxBodyBytes + 1;
        QTest::newRow("2^32-1") << quint32(0xffffffffu);
    }

    void lengthOverTheLimitIsInvalidWithoutItsBody() {
        QFETCH(quint32, length);
        const QByteArray header = headerAnnouncing(length);
        quint32 number = 0;
        QByteArray body;
        int consumed = -1;
        QString error;
        QCOMPARE(decodeFrame(header, number, body, consumed, &error), Decoded::Invalid);
        QCOMPARE(
            error,
            QString("message 5 announces %1 bytes, more than the limit of 16777216").arg(length));
        FrameHeader decoded;
        QVERIFY(!decodeHeader(header.constData(), decoded));
        QCOMPARE(decoded.length, length);
    }

    void lengthAtTheLimitWaitsForItsBody() {
        quint32 number = 0;
        QByteArray body;
        int consumed = -1;
        QCOMPARE(decodeFrame(headerAnnouncing(kMaxBodyBytes), number, body, consumed),
                 Decoded::Incomplete);
    }
};

QTEST_GUILESS_MAIN(tst_FrameDecoder)
#include "tst_FrameDecoder.moc"
