// vesk's congestion control, fed synthetic acknowledgements, losses and round trips: what it
// estimates, and how it reacts to an isolated loss, to heavy loss and to a growing round trip.

#include "base/Congestion.h"

#include <QTest>

#include <deque>
#include <vector>

using VESK::net::RateModel;
using Phase = RateModel::Phase;

namespace {

constexpr qint64 kStepUs = 10'000; // acknowledgements arrive every 10 ms

// Drives a model as a link would: every step `perStep` packets leave and as many are
// acknowledged, with the given round trip (the newest acknowledged packet left one round trip
// before its acknowledgement).
struct Link {
    RateModel model;
    qint64 now = 0;

    explicit Link(int cruisePhase = 0)
        : model(0, cruisePhase) {}

    void step(qint64 perStep, qint64 rttUs, qint64 lost = 0) {
        now += kStepUs;
        model.onSent(perStep);
        if (lost > 0)
            model.onLoss(now, lost);
        model.onAck(now, perStep, rttUs, now - rttUs);
    }
    void run(qint64 steps, qint64 perStep, qint64 rttUs) {
        for (qint64 i = 0; i < steps; ++i)
            step(perStep, rttUs);
    }
};

// A model whose round trip `rttUs` is known from the peers' first message, at `*now`.
RateModel afterFirstMessage(qint64 rttUs, qint64* now) {
    RateModel model(0);
    *now = rttUs;
    model.onSent(1);
    model.onAck(*now, 1, rttUs, 0);
    return model;
}

} // namespace

class tst_Congestion : public QObject {
    Q_OBJECT

private slots:
    void namesParse() {
        VESK::net::Congestion c = VESK::net::Congestion::Udt;
        QVERIFY(VESK::net::parseCongestion("vesk", &c));
        QCOMPARE(c, VESK::net::Congestion::Vesk);
        QVERIFY(VESK::net::parseCongestion("udt", &c));
        QCOMPARE(c, VESK::net::Congestion::Udt);
        QVERIFY(!VESK::net::parseCongestion("bbr", &c));
        QVERIFY(!VESK::net::parseCongestion("", &c));
        QCOMPARE(VESK::net::congestionName(VESK::net::Congestion::Udt), QString("udt"));
        QCOMPARE(VESK::net::congestionName(VESK::net::Congestion::Vesk), QString("vesk"));
    }

    // Before any measurement the window, not the pace, limits the first round.
    void startsWithASmallWindow() {
        RateModel model;
        QCOMPARE(model.phase(), Phase::Startup);
        QCOMPARE(model.bottleneckRate(), 0.0);
        QCOMPARE(model.windowPackets(), double(RateModel::kInitialWindowPackets));
    }

    // 500 packets every 10 ms is 50,000 packets a second.
    void estimatesTheDeliveryRate() {
        Link link;
        link.run(100, 500, 20'000);
        QVERIFY2(qAbs(link.model.bottleneckRate() - 50'000) < 2'500,
                 qPrintable(QString::number(link.model.bottleneckRate())));
        QCOMPARE(link.model.minRtt(), qint64(20'000));
        // The pace follows the estimate, scaled by the phase's gain.
        const double expectedPeriod = 1e6 / (link.model.pacingGain() * link.model.bottleneckRate());
        QCOMPARE(link.model.sendPeriodUs(), expectedPeriod);
        // About two round trips (plus the acknowledgement period) of data may be in flight, and
        // what arrives while a lost resend waits for the timeout (60 ms here) and its trip.
        const double rate = link.model.bottleneckRate();
        const double expected =
            (link.model.phase() == Phase::Cruise ? 2.0 : RateModel::kStartupGain) * rate * 0.030 +
            rate * (0.020 + 0.060);
        QVERIFY2(qAbs(link.model.windowPackets() - expected) < 1.0,
                 qPrintable(QString("%1 vs %2").arg(link.model.windowPackets()).arg(expected)));
    }

    // Delivery that keeps growing keeps startup going; once it stops growing the model drains
    // and then cruises at the measured rate.
    void startupEndsWhenTheRateStopsGrowing() {
        Link link;
        qint64 perStep = 10;
        for (int i = 0; i < 12; ++i) {
            link.run(3, perStep, 50'000);
            perStep *= 2;
        }
        QCOMPARE(link.model.phase(), Phase::Startup);
        link.run(30, perStep, 50'000);
        QVERIFY(link.model.phase() != Phase::Startup);
        link.run(30, perStep, 50'000);
        QCOMPARE(link.model.phase(), Phase::Cruise);
    }

    // The shortest round trip wins; an old minimum expires through a short probe with a small
    // window, after which the current round trip counts.
    void minimumRoundTripFilter() {
        Link link;
        link.run(20, 100, 30'000);
        link.run(1, 100, 20'000);
        link.run(20, 100, 40'000);
        QCOMPARE(link.model.minRtt(), qint64(20'000));

        bool probed = false;
        for (int i = 0; i < 1200 && !probed; ++i) {
            link.step(100, 40'000);
            probed = link.model.phase() == Phase::ProbeRtt;
        }
        QVERIFY(probed);
        QCOMPARE(link.model.windowPackets(), double(RateModel::kProbeRttWindowPackets));
        link.run(30, 100, 40'000);
        QCOMPARE(link.model.phase(), Phase::Cruise);
        QCOMPARE(link.model.minRtt(), qint64(40'000));
    }

    // One lost packet in a thousand changes nothing: the same link without losses gives the
    // same pace and window at every step.
    void isolatedLossIsNotCongestion() {
        Link lossy(3), clean(3);
        for (int i = 0; i < 400; ++i) {
            const qint64 lost = i % 2 == 0 ? 1 : 0;
            lossy.step(500, 100'000, lost);
            clean.step(500, 100'000);
            QCOMPARE(lossy.model.sendPeriodUs(), clean.model.sendPeriodUs());
            QCOMPARE(lossy.model.windowPackets(), clean.model.windowPackets());
        }
        QCOMPARE(lossy.model.phase(), Phase::Cruise);
    }

    // A round that loses a third of its packets is congestion: the rate estimate drops.
    void heavyLossBacksOff() {
        Link link(2);
        link.run(100, 500, 20'000);
        const double before = link.model.bottleneckRate();
        link.step(500, 20'000, 170);
        QVERIFY2(link.model.bottleneckRate() <= 0.71 * before,
                 qPrintable(QString("%1 -> %2").arg(before).arg(link.model.bottleneckRate())));
    }

    // A round trip well above the minimum means a queue builds: the steady rounds pace below the
    // measured rate until it falls again (the probe round stays).
    void growingRoundTripBacksOff() {
        Link link(2);
        link.run(100, 500, 20'000);
        QCOMPARE(link.model.phase(), Phase::Cruise);
        bool drained = false;
        for (int i = 0; i < 10; ++i) {
            link.step(500, 60'000);
            QVERIFY2(link.model.pacingGain() != 1.0,
                     qPrintable(QString::number(link.model.pacingGain())));
            drained = drained || link.model.pacingGain() < 1.0;
        }
        QVERIFY(drained);
        bool fullPace = false;
        for (int i = 0; i < 20 && !fullPace; ++i) {
            link.step(500, 20'000);
            fullPace = link.model.pacingGain() == 1.0;
        }
        QVERIFY(fullPace);
    }

    // Cruise probes above the estimate once per cycle and drains below it right after.
    void cruiseProbesAndDrains() {
        Link link(5);
        link.run(100, 500, 20'000);
        QCOMPARE(link.model.phase(), Phase::Cruise);
        double highest = 0.0, lowest = 10.0;
        for (int i = 0; i < 40; ++i) {
            link.step(500, 20'000);
            highest = std::max(highest, link.model.pacingGain());
            lowest = std::min(lowest, link.model.pacingGain());
        }
        QCOMPARE(highest, 1.25);
        QCOMPARE(lowest, 0.75);
    }

    // A single timeout is a lost resend; a second one in a row halves the rate and starts over.
    // The timeout itself follows the round trip and backs off while they repeat.
    void repeatedTimeoutsHalveTheRate() {
        Link link;
        link.run(100, 500, 20'000);
        const double before = link.model.bottleneckRate();
        const qint64 timeout = link.model.retransmitTimeoutUs(20'000);
        QCOMPARE(timeout, qint64(60'000));
        link.model.onSent(100); // unacknowledged from here on
        link.model.onTimeout(link.now);
        QCOMPARE(link.model.bottleneckRate(), before);
        QCOMPARE(link.model.retransmitTimeoutUs(20'000), 2 * timeout);
        link.step(500, 20'000); // progress in between: the next one is a single one again
        QCOMPARE(link.model.retransmitTimeoutUs(20'000), timeout);
        link.model.onTimeout(link.now);
        QCOMPARE(link.model.bottleneckRate(), before);
        link.model.onTimeout(link.now);
        QCOMPARE(link.model.bottleneckRate(), before / 2);
        QCOMPARE(link.model.phase(), Phase::Startup);
        QCOMPARE(link.model.retransmitTimeoutUs(20'000), 4 * timeout);
        QCOMPARE(RateModel().retransmitTimeoutUs(20'000), RateModel::kUnmeasuredTimeoutUs);
    }

    // UDT also reports a timeout when it heard nothing while data waits to be sent; with nothing
    // in flight the rate stays. However many timeouts come, the pace keeps a minimal window per
    // round trip, so it cannot fall below the timeout and draw ever more of them.
    void timeoutsCannotStarveTheConnection() {
        Link link;
        link.run(100, 500, 20'000);
        const double before = link.model.bottleneckRate();
        for (int i = 0; i < 5; ++i)
            link.model.onTimeout(link.now);
        QCOMPARE(link.model.bottleneckRate(), before);

        link.model.onSent(100);
        for (int i = 0; i < 50; ++i)
            link.model.onTimeout(link.now);
        const double floor = RateModel::kMinWindowPackets * 1e6 / (20'000 + 10'000);
        QCOMPARE(link.model.bottleneckRate(), floor);
        QVERIFY(link.model.sendPeriodUs() <= 1e6 / (link.model.pacingGain() * floor) + 1e-9);
    }

    // A round trip that stays high (a busy receiver, another flow's queue) does not wear the
    // estimate down: the probe rounds still run above it and refresh it.
    void persistentlyHighRoundTripKeepsTheEstimate() {
        Link link(1);
        link.run(100, 500, 20'000);
        const double before = link.model.bottleneckRate();
        double probeGain = 0.0;
        for (int i = 0; i < 300; ++i) {
            // The link delivers what the model paces, at most 500 packets a step.
            const qint64 paced = qint64(1e4 / link.model.sendPeriodUs());
            link.step(std::min<qint64>(paced, 500), 60'000);
            probeGain = std::max(probeGain, link.model.pacingGain());
        }
        QCOMPARE(probeGain, 1.25);
        const double settled = link.model.bottleneckRate();
        QVERIFY2(settled >= 0.8 * before, qPrintable(QString("%1 -> %2").arg(before).arg(settled)));
        for (int i = 0; i < 300; ++i) {
            const qint64 paced = qint64(1e4 / link.model.sendPeriodUs());
            link.step(std::min<qint64>(paced, 500), 60'000);
        }
        QVERIFY2(link.model.bottleneckRate() >= 0.98 * settled,
                 qPrintable(QString("%1 -> %2").arg(settled).arg(link.model.bottleneckRate())));
    }

    // A connection's first Startup grows its window by twice what each acknowledgement covers,
    // and its pace and its bound keep up: over a path that carries anything, each round sends
    // about three times what the round before sent.
    void firstStartupTriplesEachRound() {
        qint64 now = 0;
        const qint64 rtt = 100'000;
        RateModel model = afterFirstMessage(rtt, &now);
        QCOMPARE(model.windowPackets(),
                 RateModel::kInitialWindowPackets + RateModel::kFirstStartupGrowth);
        // Every 10 ms the model sends what its window and pace allow; each packet is
        // acknowledged one round trip after it left.
        std::deque<std::pair<qint64, qint64>> inFlight; // (sent at, packets)
        qint64 flight = 0;
        double pacingCredit = 0.0;
        std::vector<qint64> sentPerRound;
        for (int step = 0; step < 60; ++step) {
            now += kStepUs;
            qint64 acked = 0;
            while (!inFlight.empty() && inFlight.front().first + rtt <= now) {
                acked += inFlight.front().second;
                inFlight.pop_front();
            }
            if (acked > 0) {
                flight -= acked;
                model.onAck(now, acked, rtt, now - rtt);
            }
            pacingCredit += double(kStepUs) / model.sendPeriodUs();
            const qint64 send = std::max<qint64>(
                0, std::min(qint64(pacingCredit), qint64(model.windowPackets()) - flight));
            pacingCredit -= double(send);
            model.onSent(send);
            inFlight.push_back({now, send});
            flight += send;
            if (step % 10 == 0)
                sentPerRound.push_back(0);
            sentPerRound.back() += send;
        }
        QCOMPARE(model.phase(), Phase::Startup);
        for (size_t round = 1; round < sentPerRound.size(); ++round)
            QVERIFY2(
                sentPerRound[round] >= 2.7 * double(sentPerRound[round - 1]),
                qPrintable(
                    QString("%1 after %2").arg(sentPerRound[round]).arg(sentPerRound[round - 1])));
    }

    // A connection to a peer whose path earlier connections measured jumps, once its own round
    // trip confirms the path, to half the window the remembered rate needs, paced at no more
    // than that rate until those packets are delivered.
    void resumedStartupJumpsToHalfTheRememberedWindow() {
        const qint64 rtt = 100'000;
        const double rate = 80'000; // packets a second
        RateModel model(0);
        model.resume(rate, rtt);
        QCOMPARE(model.windowPackets(), double(RateModel::kInitialWindowPackets));
        qint64 now = rtt;
        model.onSent(1);
        model.onAck(now, 1, rtt + 300, 0);
        // Half the packets the rate puts on the path in the measured round trip (and UDT's
        // acknowledgement period).
        const double half = 0.5 * rate * (rtt + 300 + 10'000) / 1e6;
        QVERIFY2(model.windowPackets() >= half && model.windowPackets() < half + 10,
                 qPrintable(QString::number(model.windowPackets())));
        QVERIFY2(model.sendPeriodUs() >= 1e6 / rate - 0.01,
                 qPrintable(QString::number(model.sendPeriodUs())));
        // The jump's packets delivered without heavy loss: the pace is Startup's own again.
        const qint64 jump = qint64(half);
        model.onSent(jump);
        now += rtt;
        model.onAck(now, jump, rtt, now - rtt);
        QVERIFY2(model.sendPeriodUs() < 0.5 * 1e6 / rate,
                 qPrintable(QString::number(model.sendPeriodUs())));
        QCOMPARE(model.phase(), Phase::Startup);
        QVERIFY(!model.resumeFailed());
    }

    // A round trip more than twice or less than half the remembered one (give or take the
    // acknowledgement timer's 10 ms) is another path: the connection starts as a first one
    // would.
    void resumeIgnoresAnotherPath_data() {
        QTest::addColumn<qint64>("measuredUs");
        QTest::newRow("longer") << qint64(220'000);
        QTest::newRow("shorter") << qint64(40'000);
    }
    void resumeIgnoresAnotherPath() {
        QFETCH(qint64, measuredUs);
        RateModel model(0);
        model.resume(80'000, 100'000);
        model.onSent(1);
        model.onAck(measuredUs, 1, measuredUs, 0);
        QCOMPARE(model.windowPackets(),
                 RateModel::kInitialWindowPackets + RateModel::kFirstStartupGrowth);
    }

    // A jump that loses a large share of its packets found the path changed: the connection
    // backs off as from an overshooting Startup, and says so.
    void resumedJumpWithHeavyLossStartsOver() {
        const qint64 rtt = 100'000;
        RateModel model(0);
        model.resume(80'000, rtt);
        qint64 now = rtt;
        model.onSent(1);
        model.onAck(now, 1, rtt, 0);
        const qint64 jump = qint64(model.windowPackets());
        QVERIFY(jump > 4000);
        model.onSent(jump);
        now += rtt;
        model.onLoss(now, jump / 2);
        model.onAck(now, jump / 2, rtt, now - rtt);
        QVERIFY(model.resumeFailed());
        QVERIFY(model.phase() != Phase::Startup);
        QVERIFY2(model.sendPeriodUs() > 2 * 1e6 / 80'000,
                 qPrintable(QString::number(model.sendPeriodUs())));
    }

    // Once Startup has ended, a remembered rate changes nothing.
    void resumeAfterStartupIsIgnored() {
        Link link;
        link.run(200, 300, 50'000);
        QVERIFY(link.model.phase() != Phase::Startup);
        const double window = link.model.windowPackets();
        link.model.resume(10 * link.model.bottleneckRate(), 50'000);
        link.step(300, 50'000);
        QVERIFY2(link.model.windowPackets() <= 1.01 * window,
                 qPrintable(QString("%1 after %2").arg(link.model.windowPackets()).arg(window)));
    }

    // The estimate bounds Startup's window. In the first Startup, readings of the round under
    // way, a quarter of a round trip each, lift that bound before the round ends, by no more than
    // a round that tripled would; they stay out of the estimate itself.
    void firstStartupReadsTheRateWithinARound() {
        qint64 now = 0;
        const qint64 rtt = 200'000;
        RateModel model = afterFirstMessage(rtt, &now);
        // A first round delivers 2,500 packets a second.
        model.onSent(500);
        now += rtt;
        model.onAck(now, 500, rtt, now - rtt);
        QVERIFY(qAbs(model.bottleneckRate() - 2'500) < 100);
        // The next round delivers 6,000 a second for 100 ms.
        model.onSent(6'000);
        for (int step = 0; step < 10; ++step) {
            now += kStepUs;
            model.onAck(now, 60, rtt, now - rtt);
        }
        QVERIFY2(model.bottleneckRate() < 3'000,
                 qPrintable(QString::number(model.bottleneckRate())));
        // The bound at 6,000 a second is about 6,750 packets, at 2,500 about 2,800.
        QVERIFY2(model.windowPackets() > 5'500, qPrintable(QString::number(model.windowPackets())));
        // A burst that reads 30,000 a second counts as three times the estimate, 7,500: a
        // bound of about 8,400 packets, not 34,000.
        for (int step = 0; step < 5; ++step) {
            now += kStepUs;
            model.onAck(now, 300, rtt, now - rtt);
        }
        QVERIFY2(model.windowPackets() < 9'000, qPrintable(QString::number(model.windowPackets())));
    }

    // Acknowledgements that arrive bunched after a stall cover packets that left over a longer
    // time: the sample spans that time, so it reads the rate the data was sent at.
    void bunchedAcknowledgementsDoNotInflateTheRate() {
        const auto estimateAfterBunch = [](bool sendTimesKnown) {
            Link link(2);
            link.run(100, 500, 20'000); // 50,000 packets a second
            // 100 ms of data leaves, and its acknowledgements all come in 30 ms.
            link.model.onSent(5'000);
            const qint64 sentEnd = link.now + 100'000;
            for (int i = 0; i < 3; ++i) {
                link.now += 10'000;
                link.model.onAck(link.now, i == 2 ? 5'000 : 0, 20'000,
                                 sendTimesKnown ? sentEnd - 20'000 : 0);
            }
            return link.model.bottleneckRate();
        };
        const double bounded = estimateAfterBunch(true);
        QVERIFY2(bounded < 55'000, qPrintable(QString::number(bounded)));
        // Without the send times the same acknowledgements read as four times the rate.
        const double unbounded = estimateAfterBunch(false);
        QVERIFY2(unbounded > 150'000, qPrintable(QString::number(unbounded)));
    }

    // The first rate sample starts with the first delivery, and the few messages the peers
    // exchange before a transfer do not end Startup: the transfer still starts in it.
    void messagesBeforeATransferDoNotEndStartup() {
        RateModel model(0);
        qint64 now = 0;
        for (int i = 0; i < 6; ++i) {
            model.onSent(2);
            now += 200'000;
            model.onAck(now, 2, 50'000, now - 50'000);
        }
        QCOMPARE(model.phase(), Phase::Startup);
        QVERIFY(model.windowPackets() >= RateModel::kInitialWindowPackets);
        // Then the transfer: 500 packets every 10 ms are measured as such.
        Link link;
        link.model = model;
        link.now = now;
        link.run(20, 500, 50'000);
        QVERIFY2(qAbs(link.model.bottleneckRate() - 50'000) < 5'000,
                 qPrintable(QString::number(link.model.bottleneckRate())));
    }

    // A path that can carry more than Cruise's estimate (another flow ended) is found at
    // Startup's pace: the estimate doubles within a few probing cycles, not tens of them.
    void cruiseGoesBackToStartupWhenThePathGrows() {
        Link link(0);
        link.run(100, 500, 20'000);
        QCOMPARE(link.model.phase(), Phase::Cruise);
        bool restarted = false;
        for (int i = 0; i < 120; ++i) {
            // The link now carries 2,000 packets a step, and delivers what the model paces.
            const qint64 paced = qint64(1e4 / link.model.sendPeriodUs());
            link.step(std::min<qint64>(paced, 2'000), 20'000);
            restarted = restarted || link.model.phase() == Phase::Startup;
        }
        QVERIFY(restarted);
        QVERIFY2(link.model.bottleneckRate() > 150'000,
                 qPrintable(QString::number(link.model.bottleneckRate())));
    }

    // A round that stalled on a full window sends little while the peer still reports the
    // random losses of the round before: measured against what is in flight they are few.
    void lossesDuringAStallAreNotHeavyLoss() {
        Link link(2);
        link.run(100, 500, 20'000);
        const double before = link.model.bottleneckRate();
        link.model.onSent(1'000); // in flight behind a hole
        link.now += 10'000;
        link.model.onSent(20);
        link.model.onLoss(link.now, 10);
        link.model.onAck(link.now, 20, 20'000, link.now - 20'000);
        QCOMPARE(link.model.bottleneckRate(), before);
    }

    // In a round with losses a long trip says nothing of a queue: the acknowledgement waited
    // for a resend. The pace follows the probing cycle as on a clean path.
    void longTripsInLossyRoundsAreNoQueue() {
        Link lossy(2), clean(2);
        lossy.run(100, 500, 20'000);
        clean.run(100, 500, 20'000);
        QCOMPARE(lossy.model.phase(), Phase::Cruise);
        for (int i = 0; i < 20; ++i) {
            lossy.step(500, 60'000, 2);
            clean.step(500, 20'000);
            QCOMPARE(lossy.model.pacingGain(), clean.model.pacingGain());
        }
    }

    // Losses beside a queue that stays after our probe has drained (another flow keeps it
    // filled) are that queue overflowing: the rate backs off as a TCP flow would, and stays
    // capped until such losses have been gone for a few probing cycles.
    void lossesBesideAForeignQueueBackOff() {
        Link link(2);
        link.run(100, 500, 20'000);
        QCOMPARE(link.model.phase(), Phase::Cruise);
        const double before = link.model.bottleneckRate();
        link.run(30, 500, 28'000); // a standing queue, without losses: nothing to yield to
        QVERIFY(link.model.bottleneckRate() >= 0.98 * before);
        link.step(500, 28'000, 3);
        const double capped = link.model.bottleneckRate();
        QVERIFY2(capped <= 0.71 * before, qPrintable(QString("%1 -> %2").arg(before).arg(capped)));
        link.run(40, 500, 20'000); // the link delivers as much as before, but the cap holds
        QCOMPARE(link.model.bottleneckRate(), capped);
        QCOMPARE(link.model.phase(), Phase::Cruise);
        link.run(100, 500, 20'000);
        QVERIFY2(link.model.bottleneckRate() >= 0.95 * before,
                 qPrintable(QString("%1 -> %2").arg(before).arg(link.model.bottleneckRate())));
    }

    // Random losses change nothing when no queue stands, not even beside the queue of our own
    // probe (its round and the draining round after it are slow).
    void lossesBesideOurOwnProbeKeepTheRate() {
        Link link(2);
        link.run(100, 500, 20'000);
        const double before = link.model.bottleneckRate();
        for (int i = 0; i < 300; ++i) {
            const bool probing = link.model.pacingGain() != 1.0;
            link.step(500, probing ? 28'000 : 20'000, probing || i % 2 ? 0 : 3);
        }
        QVERIFY2(link.model.bottleneckRate() >= 0.98 * before,
                 qPrintable(QString("%1 -> %2").arg(before).arg(link.model.bottleneckRate())));
    }

    // ---- The peer's count of arrivals ---------------------------------------------------------

    // What arrived after a hole is not in flight, though UDT counts it so until the resend
    // fills the hole: the window given to UDT leaves room for it.
    void arrivalsBeyondAHoleWidenTheTransportWindow() {
        Link link(2);
        link.run(100, 500, 20'000); // 50,000 delivered
        QCOMPARE(link.model.transportWindowPackets(), link.model.windowPackets());
        // 1,000 more leave; the first is lost and the peer has the other 999.
        link.model.onSent(1'000);
        link.now += 10'000;
        link.model.onArrivals(link.now, 50'999, 1'000'000);
        QCOMPARE(link.model.transportWindowPackets(), link.model.windowPackets() + 999);
        // The resend fills the hole: the acknowledgement covers them all.
        link.now += 10'000;
        link.model.onAck(link.now, 1'000, 20'000, link.now - 20'000);
        QCOMPARE(link.model.transportWindowPackets(), link.model.windowPackets());
    }

    // The peer reports arrivals at least every kArrivalReportPackets of them, but the last ones
    // of a burst may go unreported until more arrive. With a hole open, ProbeRtt's small window
    // would then wait for them, and the peer, seeing nothing more, would not report the hole
    // again either: the window given to UDT leaves room for the hole and twice that many
    // packets behind it. Without a hole it stays small, as the acknowledgement moves on by
    // itself.
    void aHoleKeepsRoomForArrivalsNotYetReported() {
        // The round trip grew, so that the old minimum expires.
        Link link;
        link.run(20, 100, 20'000);
        qint64 delivered = 20 * 100;
        while (link.model.phase() != Phase::ProbeRtt && delivered < 200'000) {
            link.step(100, 40'000);
            delivered += 100;
        }
        QCOMPARE(link.model.phase(), Phase::ProbeRtt);
        const double probeWindow = RateModel::kProbeRttWindowPackets;
        QCOMPARE(link.model.transportWindowPackets(), probeWindow);
        // Ten packets leave; the peer has three of them and has reported them, which an
        // acknowledgement yet to come will cover: no hole.
        link.model.onSent(10);
        link.model.onArrivals(link.now, delivered + 3, 1'000'000);
        QCOMPARE(link.model.transportWindowPackets(), probeWindow + 3);
        // The first of them was lost: the window leaves room for the reports still to come.
        link.model.setHoleOpen(true);
        QCOMPARE(link.model.transportWindowPackets(), 2.0 * RateModel::kArrivalReportPackets + 3);
        // The resend fills the hole: the small window holds again.
        link.model.setHoleOpen(false);
        link.now += 1'000;
        link.model.onAck(link.now, 10, 40'000, link.now - 40'000);
        QCOMPARE(link.model.transportWindowPackets(), probeWindow);
    }

    // While acknowledgements lag behind what arrived, rate samples follow the peer's count.
    void arrivalsMeasureTheRateWhileAcknowledgementsLag() {
        const auto estimate = [](bool reports) {
            Link link(2);
            qint64 arrived = 0;
            for (int i = 0; i < 100; ++i) {
                link.now += 10'000;
                link.model.onSent(500);
                arrived += 500;
                if (reports)
                    link.model.onArrivals(link.now, arrived, link.now);
                link.model.onAck(link.now, 250, 20'000, link.now - 20'000);
            }
            return link.model.bottleneckRate();
        };
        const double withReports = estimate(true);
        QVERIFY2(qAbs(withReports - 50'000) < 2'500, qPrintable(QString::number(withReports)));
        const double withoutReports = estimate(false);
        QVERIFY2(qAbs(withoutReports - 25'000) < 1'250,
                 qPrintable(QString::number(withoutReports)));
    }

    // Startup's window grows with what arrived, not only with what is acknowledged, and by
    // each packet once.
    void startupGrowsWithArrivals() {
        RateModel model(0);
        model.onSent(1);
        model.onAck(100'000, 1, 100'000, 0); // the peers' first message
        const double before = model.windowPackets();
        const double growth = RateModel::kFirstStartupGrowth;
        model.onSent(128);
        model.onArrivals(150'000, 1 + 100, 150'000);
        QCOMPARE(model.windowPackets(), before + growth * 100);
        model.onAck(200'000, 100, 100'000, 100'000);
        QCOMPARE(model.windowPackets(), before + growth * 100);
        model.onAck(210'000, 28, 100'000, 100'000);
        QCOMPARE(model.windowPackets(), before + growth * 128);
    }

    // A backlog the peer's receiving thread takes in at once reads as a burst of arrivals: the
    // sample counts it for no more than the rate packets left at.
    void arrivalBurstsCountForNoMoreThanTheSendRate() {
        Link link(2);
        qint64 arrived = 0;
        for (int i = 0; i < 100; ++i) {
            link.now += 10'000;
            link.model.onSent(500);
            if (i >= 30 && i < 60)
                arrived += 300; // the other 200 wait in a backlog
            else if (i >= 60 && i < 63)
                arrived += 500 + 2'000; // the backlog, taken in within 30 ms
            else
                arrived += 500;
            link.model.onArrivals(link.now, arrived, link.now);
            link.model.onAck(link.now, 500, 20'000, link.now - 20'000);
        }
        QVERIFY2(link.model.bottleneckRate() < 52'500,
                 qPrintable(QString::number(link.model.bottleneckRate())));
    }

    // Counts and the peer's clock wrap at 32 bits; reports out of order are left out; after a
    // long silence, in which the peer's clock may have gone round, local time stands in for it.
    void arrivalReportsUnwrap() {
        VESK::net::ArrivalReports reports;
        QVERIFY(reports.accept(0xFFFFFF00u, 0xFFFFF000u, 1'000));
        QCOMPARE(reports.arrived(), qint64(0xFFFFFF00u));
        QCOMPARE(reports.peerUs(), qint64(0));
        QVERIFY(reports.accept(0x100u, 0x1000u, 11'000)); // both wrapped
        QCOMPARE(reports.arrived(), qint64(0xFFFFFF00u) + 0x200);
        QCOMPARE(reports.peerUs(), qint64(0x2000));
        QVERIFY(!reports.accept(0xF0u, 0x800u, 12'000));   // older: left out
        QVERIFY(!reports.accept(0x180u, 0x1000u, 12'000)); // no later
        QCOMPARE(reports.reports(), qint64(2));
        // An hour later the peer's clock reads less than before (it went round): the local time
        // since the last report stands in.
        const qint64 later = 11'000 + 3'600LL * 1'000'000;
        QVERIFY(reports.accept(0x300u, 0x10u, later));
        QCOMPARE(reports.arrived(), qint64(0xFFFFFF00u) + 0x400);
        QCOMPARE(reports.peerUs(), qint64(0x2000) + 3'600LL * 1'000'000);
    }

    // Reports travel unreliably: one older than the last one changes nothing.
    void staleArrivalReportsAreIgnored() {
        Link link(2);
        link.run(100, 500, 20'000);
        link.model.onSent(2'000);
        link.model.onArrivals(link.now, 50'500, 2'000'000);
        const double window = link.model.transportWindowPackets();
        link.model.onArrivals(link.now, 51'500, 1'990'000);
        QCOMPARE(link.model.transportWindowPackets(), window);
        link.model.onArrivals(link.now, 51'500, 2'010'000);
        QCOMPARE(link.model.transportWindowPackets(), window + 1'000);
    }

    // ---- Reporting missing packets again ----------------------------------------------------

    void gapsAreMissingUntilTheyArrive() {
        VESK::net::LossRepair repair;
        for (qint64 seq : {0, 1, 2, 5, 6, 9})
            QVERIFY(repair.onPacket(seq, 1'000));
        QCOMPARE(repair.missing(), 4); // 3, 4, 7, 8
        QVERIFY(repair.onPacket(4, 2'000));
        QVERIFY(!repair.onPacket(4, 2'000)); // a duplicate changes nothing
        QVERIFY(!repair.onPacket(5, 2'000));
        QCOMPARE(repair.missing(), 3);
    }

    void reportsRepeatOnlyAfterTheInterval() {
        VESK::net::LossRepair repair;
        repair.onPacket(0, 0);
        repair.onPacket(3, 0); // 1 and 2 missing, reported by UDT at 0
        const qint64 interval = VESK::net::LossRepair::intervalFor(100'000);
        QVERIFY(interval > 100'000);
        QVERIFY(repair.due(interval - 1, interval, 100).empty());
        QCOMPARE(repair.due(interval, interval, 100), (std::vector<qint64>{1, 2}));
        // Reported again just now: not due until another interval has passed.
        QVERIFY(repair.due(interval + 1, interval, 100).empty());
        repair.onPacket(1, interval + 2);
        QCOMPARE(repair.due(2 * interval, interval, 100), (std::vector<qint64>{2}));
    }

    void reportsAreBoundedAndLowestFirst() {
        VESK::net::LossRepair repair;
        repair.onPacket(0, 0);
        repair.onPacket(1'001, 0);
        QCOMPARE(repair.missing(), 1'000);
        const std::vector<qint64> first = repair.due(1'000'000, 1, 200);
        QCOMPARE(int(first.size()), 200);
        QCOMPARE(first.front(), qint64(1));
        QCOMPARE(first.back(), qint64(200));
        QCOMPARE(repair.due(1'000'000, 1, 200).front(), qint64(201));
    }

    // Packets after the highest received that the sender says it sent before its message are
    // lost: missing from then on, and due at once, ahead of older reports that are due too.
    void packetsSentBeforeTheSendersWordAreMissing() {
        VESK::net::LossRepair repair;
        QVERIFY(!repair.onSentUpTo(5)); // nothing received: nothing to count from
        repair.onPacket(0, 0);
        repair.onPacket(2, 0);          // 1 missing, reported by UDT at 0
        QVERIFY(!repair.onSentUpTo(2)); // nothing after the highest received
        QVERIFY(repair.onSentUpTo(5));
        QCOMPARE(repair.missing(), 4); // 1, 3, 4, 5
        const qint64 interval = VESK::net::LossRepair::intervalFor(100'000);
        QCOMPARE(repair.due(10, interval, 100), (std::vector<qint64>{3, 4, 5}));
        QVERIFY(!repair.onSentUpTo(4)); // already known
        QCOMPARE(repair.due(interval, interval, 100), (std::vector<qint64>{1}));
        // A resend of one arrives; a later packet is fresh and leaves no gap behind it.
        QVERIFY(repair.onPacket(4, 30));
        QVERIFY(repair.onPacket(6, 30));
        QCOMPARE(repair.missing(), 3); // 1, 3, 5
        QCOMPARE(repair.due(10 + interval, interval, 100), (std::vector<qint64>{3, 5}));
        // Told of more before the last were reported: the lower ones still come first.
        VESK::net::LossRepair told;
        told.onPacket(0, 0);
        told.onSentUpTo(3);
        told.onSentUpTo(6);
        QCOMPARE(told.due(0, interval, 2), (std::vector<qint64>{1, 2}));
        QCOMPARE(told.due(0, interval, 10), (std::vector<qint64>{3, 4, 5, 6}));
    }

    void aHugeGapIsLeftToTheSender() {
        VESK::net::LossRepair repair;
        repair.onPacket(0, 0);
        repair.onPacket(10'000'000, 0);
        QCOMPARE(repair.missing(), VESK::net::LossRepair::kMaxTracked);
    }

    void lossReportUsesUdtsEncoding() {
        // Runs become (first | high bit, last); single packets stay as they are; numbers wrap
        // at 31 bits.
        const qint32 base = 0x7FFFFFFE;
        const std::vector<qint32> report = VESK::net::lossReport({0, 1, 2, 4, 7, 8}, base);
        const std::vector<qint32> expected = {qint32(0x7FFFFFFEu | 0x80000000u), 0, 2,
                                              qint32(0x80000005u), 6};
        QCOMPARE(report, expected);
        QVERIFY(VESK::net::lossReport({}, 0).empty());
    }
};

QTEST_APPLESS_MAIN(tst_Congestion)
#include "tst_Congestion.moc"
