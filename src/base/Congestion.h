#pragma once

// Congestion control for vesk's UDT connections. UDT's own control slows down by a ninth on
// every loss event, so on a long link with a little random loss it crawls. vesk's control
// instead measures the path: the rate at which the peer acknowledges data (its bottleneck rate)
// and the shortest round trip seen. It paces packets at the measured rate, keeps about two
// round trips' worth of data in flight, probes for more now and then, and backs off when the
// round trip grows (a queue is building) or when a large share of a round is lost, but not for
// an isolated lost packet.
//
// RateModel holds the decisions and is fed plain numbers (times, packet counts), so it can be
// driven by tests; VeskCongestion connects it to UDT's callbacks.

#include <QString>
#include <QtGlobal>

#include <deque>
#include <limits>
#include <set>
#include <utility>
#include <vector>

namespace VESK {
namespace net {

enum class Congestion {
    Vesk, // RateModel below (the default)
    Udt,  // UDT's built-in control
};

// "vesk" or "udt"; false for anything else.
bool parseCongestion(const QString& text, Congestion* congestion);
QString congestionName(Congestion congestion);

class RateModel {
public:
    enum class Phase {
        Startup,  // rate unknown: doubles or triples each round until it stops growing
        Drain,    // empties the queue startup built
        Cruise,   // paces at the measured rate, with a probe upwards and a drain every cycle
        ProbeRtt, // a short dip in flight size to measure the round trip without a queue
    };

    static constexpr double kStartupGain = 2.885; // 2/ln 2: doubles delivery each round
    static constexpr int kMinWindowPackets = 32;
    // The peer reports its count of arrivals at least every this many packets, besides every
    // report period: fewer than this many go unreported after a burst that ended within a
    // period. The window given to UDT while a hole is open (transportWindowPackets()) is twice
    // as large, so that the packets it lets follow the hole always reach this count, even with
    // more of them missing. The count also lets Startup's window grow between UDT's
    // acknowledgements, which on a short path come far less often than the packets.
    static constexpr int kArrivalReportPackets = 32;
    // The first round's window. In Startup the window then grows by what each acknowledgement
    // covers, doubling every round trip, until the rate estimate catches up with it.
    static constexpr int kInitialWindowPackets = 128;
    // A connection's first Startup, which knows nothing of the path, grows its window by this
    // many packets for each one delivered, tripling it every round trip: seven doublings from
    // the first window to 1 Gbit/s over 200 ms take 1.4 s, five triplings 1 s. The rate of the
    // round under way is read this many times a round, so that the bound the rate puts on the
    // window keeps up. Later Startups (the path grew, or timeouts) begin near the path's rate
    // and double, bounded by the estimate alone.
    static constexpr double kFirstStartupGrowth = 2.0;
    static constexpr int kFirstStartupReadingsPerRound = 4;
    static constexpr int kProbeRttWindowPackets = 8;
    static constexpr qint64 kMinRttLifetimeUs = 10'000'000;
    static constexpr qint64 kProbeRttHoldUs = 200'000;
    // A rate sample spans at least this long: acknowledgements come about every 10 ms, and a
    // shorter span would mostly measure their jitter.
    static constexpr qint64 kMinSampleUs = 25'000;
    // Probing cycles the bottleneck rate estimate remembers its largest sample for.
    static constexpr int kRateWindowCycles = 3;
    // A round that loses more than this share of its packets is congestion, not noise.
    static constexpr double kCongestionLossShare = 0.2;
    static constexpr qint64 kMinRetransmitTimeoutUs = 60'000;
    static constexpr qint64 kMaxRetransmitTimeoutUs = 2'000'000;
    // The first timeout before any round trip was measured (UDT's own assumption).
    static constexpr qint64 kUnmeasuredTimeoutUs = 300'000;

    // `startUs` is the current time; `cruisePhase` picks where the probing cycle starts, so that
    // flows started together do not probe in step.
    explicit RateModel(qint64 startUs = 0, int cruisePhase = 0);

    // `packets` more data packets left (first sends and resends alike).
    void onSent(qint64 packets);
    // An acknowledgement at `nowUs`: `newlyAcked` packets more are delivered; `rttUs` is the
    // trip of the newest of them (0: not known), which is longer than the path's when the
    // acknowledgement waited for a lost packet's resend; `ackedSentUs` is when that packet was
    // sent (0: not known); `smoothedRttUs` is the transport's own smoothed round trip (0: none),
    // which never waits for a resend but trails changes and starts from an assumption.
    // The shortest trips give the path's minimum; whether a queue builds is judged by the lower
    // of the two. A rate sample spans the longer of the time between its acknowledgements and
    // the time its packets took to leave, so acknowledgements that arrive bunched cannot make
    // the path look faster than the data was sent.
    void onAck(qint64 nowUs, qint64 newlyAcked, qint64 rttUs, qint64 ackedSentUs = 0,
               qint64 smoothedRttUs = 0);
    // The peer reported `lostPackets` packets it has not seen.
    void onLoss(qint64 nowUs, qint64 lostPackets);
    // The peer has received `arrived` data packets in all (resends included), as of `peerUs` on
    // its own clock. UDT's acknowledgement is cumulative: behind a lost packet it stands still
    // until the resend arrives, a round trip or more, while what follows the hole keeps
    // arriving. On a lossy path that happens every round, and a rate read from acknowledgements
    // alone lags the path's by as much. The peer's count keeps moving: rate samples take the
    // larger of the two readings, and Startup's window grows with whichever has moved further.
    void onArrivals(qint64 nowUs, qint64 arrived, qint64 peerUs);
    // The last connections to the same peer found the path to carry `rate` packets a second
    // (this connection's share of it) with a shortest round trip of `minRttUs`. Once this
    // connection has measured its own round trip and finds it within a factor of two of that,
    // its first Startup jumps to half the window that rate needs, paced at no more than the rate
    // until those packets are delivered, instead of growing to it from a first window over
    // several round trips. If that round loses a large share of its packets, the path has
    // changed, and Startup starts over from a first window. Ignored once Startup has ended.
    void resume(double rate, qint64 minRttUs);
    // Nothing was acknowledged for a while. UDT's peer reports a lost packet once; when the
    // resend is lost too, only this timeout recovers it, so a single one is no sign of
    // congestion. A second one in a row halves the rate and starts over.
    void onTimeout(qint64 nowUs);

    Phase phase() const { return m_phase; }
    // A jump of resume() lost a large share of its packets.
    bool resumeFailed() const { return m_resumeFailed; }
    // The rate estimate comes from rounds that had data enough to fill their window.
    bool pathMeasured() const { return m_startupBestRate > 0.0 || m_phase != Phase::Startup; }
    // Estimated bottleneck rate in packets per second (0 before the first sample).
    double bottleneckRate() const { return m_bottleneckRate; }
    // Shortest round trip seen recently, microseconds (0 before the first).
    qint64 minRtt() const { return m_minRttUs; }
    double pacingGain() const;
    // Microseconds between two packets.
    double sendPeriodUs() const;
    // Packets that may be in flight.
    double windowPackets() const;
    // The window to give UDT, which counts everything sent after the oldest unacknowledged
    // packet as in flight: the window, plus what the peer reports has arrived beyond that
    // packet. Without it, a hole held open by a lost resend stops the sender for as long as the
    // resend takes, one round trip or more, however little is in flight. While the peer has
    // reported a packet missing that is not acknowledged yet (setHoleOpen()), the window is no
    // smaller than twice kArrivalReportPackets, so that the sender does not wait for arrivals
    // the peer has not reported yet: the peer runs only when packets arrive, and reports
    // missing packets again only then.
    double transportWindowPackets() const;
    void setHoleOpen(bool open) { m_holeOpen = open; }
    // How long UDT waits without an acknowledgement before it sends everything unacknowledged
    // again, for the given smoothed round trip: UDT's own minimum is 300 ms, which on a short
    // lossy link leaves a lost resend's hole open (and the window stuck) for many round trips.
    // Doubles with each timeout in a row; 0 before the round trip is known (UDT's own then).
    qint64 retransmitTimeoutUs(qint64 smoothedRttUs) const;

private:
    // The counts where a rate sample started.
    struct SampleStart {
        qint64 us = 0;
        qint64 sentUs = 0; // when the newest packet acknowledged then was sent
        qint64 delivered = 0;
        qint64 sent = 0;
        qint64 arrived = 0;
        qint64 peerUs = -1; // the peer's clock at its count; -1: no report then
    };

    // The rate from `start` to now, and a sample's start here.
    double rateSince(const SampleStart& start, qint64 nowUs, qint64 ackedSentUs) const;
    SampleStart sampleStartHere(qint64 nowUs, qint64 ackedSentUs) const;
    // Closes the estimate's sample under way and updates the estimate.
    void takeRateSample(qint64 nowUs, qint64 ackedSentUs);
    // Startup's window grows by what the peer has newly received, by either count.
    void grow(qint64 progress);
    // `sampled`: the round also closed a rate sample.
    void endRound(qint64 nowUs, bool sampled);
    void updateMinRtt(qint64 nowUs, qint64 rttUs);
    // Applies resume() once the round trip is known.
    void jumpToRememberedRate();
    // A probing cycle of Cruise ends.
    void endCycle(qint64 nowUs);
    void enter(Phase phase, qint64 nowUs);
    double bdpPackets() const;
    double bdpPacketsAt(double rate) const; // the same for another rate
    // In Startup, the rate of one startup window per round trip (0 elsewhere, or before the
    // round trip is known).
    double startupWindowRate() const;
    // The most data in flight the estimate allows with `gain` times the path's capacity.
    double boundWindow(double gain) const;
    double boundWindowAt(double gain, double rate) const; // the same for another rate
    // The rate Startup paces and bounds its window by: in the first Startup the estimate or the
    // round's readings, whichever is higher; otherwise the estimate.
    double startupRate() const;
    // How far the startup window may grow: the bound of Startup once the rate is estimated, so
    // that the last rounds before the estimate stops growing overshoot no further than that.
    double startupWindowCap() const;
    // The pace never falls below a minimal window per round trip: a pace slower than UDT's
    // timeout would draw timeouts that lower it further.
    double floorRate() const;

    Phase m_phase = Phase::Startup;
    qint64 m_phaseStartUs = 0;
    int m_cycleIndex = 0;
    qint64 m_cycleStartUs = 0;
    bool m_queueGrowing = false; // the last round's trip was well above the minimum
    int m_timeoutsInARow = 0;

    qint64 m_sent = 0;
    qint64 m_delivered = 0;
    qint64 m_roundEndsAt = 0; // the round ends once this many packets are delivered
    qint64 m_roundStartUs = 0;
    qint64 m_roundStartDelivered = 0;
    qint64 m_roundSent = 0;
    qint64 m_roundLost = 0;
    qint64 m_roundLowRttUs = 0; // shortest trip of the round
    qint64 m_probeRttLowUs = 0; // shortest trip while in ProbeRtt

    bool m_sampling = false; // from the first acknowledgement of data on
    // The peer's own count of arrivals, and its clock, at the last report (-1: none yet).
    qint64 m_arrived = 0;
    qint64 m_arrivedPeerUs = -1;
    SampleStart m_sample;  // the estimate's, a round or more long
    SampleStart m_reading; // the first Startup's readings within a round
    qint64 m_progress = 0; // the larger of delivered and arrived that Startup has grown by
    std::deque<std::pair<qint64, double>> m_samples; // (time, rate), most recent last
    double m_bottleneckRate = 0.0;

    double m_startupBestRate = 0.0;
    int m_startupFlatRounds = 0;
    double m_startupWindow = kInitialWindowPackets;
    bool m_firstStartup = true; // no phase was entered yet
    // The first Startup's highest reading so far (see kFirstStartupGrowth).
    double m_startupReadingRate = 0.0;
    bool m_holeOpen = false; // see setHoleOpen()
    // resume(): the rate and round trip to check against (0: none), and while the jump's
    // packets are on their way, the pace's cap and the count of deliveries that ends it.
    double m_resumeRate = 0.0;
    qint64 m_resumeRttUs = 0;
    double m_resumePaceCap = 0.0;
    qint64 m_resumeEndsAt = 0;
    bool m_resumeFailed = false;
    // The estimate at the ends of the last probing cycles (or the start of the phase), oldest
    // first; 0 where there was none yet.
    std::deque<double> m_cycleBaseRates;
    // Another flow keeps the bottleneck's queue filled (from the last loss-free steady round).
    bool m_foreignQueue = false;
    // Upper bound on the estimate after losses beside such a queue; infinite when none.
    double m_rateCap = std::numeric_limits<double>::infinity();
    int m_cleanCycles = 0; // probing cycles since the cap was last lowered

    qint64 m_minRttUs = 0;
    qint64 m_minRttStampUs = 0;
};

// The receiving side's list of packets still missing, so that it can report them again. UDT's
// receiver reports a gap once, when it sees it; a resend that is lost too then waits for the
// sender's timeout, which UDT's steady acknowledgements keep putting off until the window is
// full, and which then sends everything unacknowledged again. At 1 % random loss on a long fast
// link that happens every few round trips. Sequence numbers here are unwrapped (64-bit, only
// growing), the caller maps UDT's 31-bit ones.
class LossRepair {
public:
    // More missing packets than this are left to the sender's timeout.
    static constexpr int kMaxTracked = 1 << 16;

    // A data packet `seq` arrived at `nowUs`. Packets skipped over are missing from now on and
    // count as reported now (UDT has just reported the gap). False when the packet had arrived
    // before, is older than the first one, or fell in a gap too large to track.
    bool onPacket(qint64 seq, qint64 nowUs);

    // The peer says it sent every packet up to `seq` before a message that arrived just now,
    // and a path keeps packets in the order they were sent: any of them not received by now is
    // lost, even after the highest packet received, where no later arrival exposes the gap
    // (the last packets of a transfer). Those become missing, due for a report at once. False
    // when nothing had arrived yet to count from, or when none was new.
    bool onSentUpTo(qint64 seq);

    // The missing packets last reported at or before `nowUs - intervalUs`, at most `max` (the
    // longest waiting), in ascending order; they count as reported at `nowUs`.
    std::vector<qint64> due(qint64 nowUs, qint64 intervalUs, int max);

    int missing() const { return int(m_missing.size()); }
    // The highest packet received or known to be sent (-1: none yet).
    qint64 highest() const { return m_highest; }

    // How long to wait after a report before repeating it, for a smoothed round trip: the resend
    // needs one round trip, and UDT's acknowledgement timer and pacing add to it.
    static qint64 intervalFor(qint64 rttUs);

private:
    static constexpr qint64 kNeverReported = std::numeric_limits<qint64>::min() / 4;

    qint64 m_highest = -1;
    std::set<qint64> m_missing;
    // (time of the last report, sequence), oldest first: reports only ever happen "now", so
    // appending keeps the order, and a scan stops at the first entry not yet due instead of
    // walking every missing packet on the receiving thread. Entries of packets that arrived
    // meanwhile are dropped when they come up.
    std::deque<std::pair<qint64, qint64>> m_reports;
};

// The sending side's reading of the peer's arrival reports (RateModel::onArrivals()): counts
// and clock readings that wrap at 32 bits, unwrapped into totals that only grow.
class ArrivalReports {
public:
    // Past this long without a report, the peer's clock (which wraps every 71 minutes) may have
    // gone round: the local time since stands in for the time the peer's clock moved.
    static constexpr qint64 kLongGapUs = 10LL * 60 * 1'000'000;

    // A report of `count` arrivals at `peerClock` (the peer's microseconds), received at local
    // `nowUs`. False, and left out, when it is no later than the last one taken: reports
    // travel unreliably and may come out of order.
    bool accept(quint32 count, quint32 peerClock, qint64 nowUs);

    qint64 reports() const { return m_reports; }
    qint64 arrived() const { return m_arrived; }
    qint64 peerUs() const { return m_peerUs; } // 0 at the first report

private:
    qint64 m_reports = 0;
    qint64 m_arrived = 0;
    qint64 m_peerUs = 0;
    quint32 m_lastCount = 0;
    quint32 m_lastClock = 0;
    qint64 m_lastLocalUs = 0;
};

// UDT loss-report entries for ascending unwrapped sequence numbers whose 0 is UDT's `wireBase`:
// a lone number as it is, a run as its first (high bit set) and its last.
std::vector<qint32> lossReport(const std::vector<qint64>& sequences, qint32 wireBase);

// Installs RateModel into a UDT socket (before connect or listen; accepted sockets inherit it).
bool useCongestion(int socket, Congestion congestion);
// The control a connected socket runs.
Congestion congestionOf(int socket);
// Lets a connected socket's first Startup begin from what the connections to the same peer
// address measured of the path in the last minutes (RateModel::resume()), shared with the
// connections to it that move data now; and has what this one measures left for the next when
// it closes. Called after connect or accept, before the socket carries data. Nothing for a
// socket that runs UDT's control.
void joinPath(int socket, const QString& peer);
// What the connections to `peer` (an address as joinPath() takes it) measured of the path
// together in the last minutes, packets a second; 0 when nothing.
double rememberedPathRate(const QString& peer);
// Forgets every measurement kept for joinPath(); connections open now stay counted.
void forgetPaths();
// Data packets the peer of a connected socket last reported as arrived; -1 when the socket runs
// UDT's control, which has no such reports.
qint64 peerArrivals(int socket);

} // namespace net
} // namespace VESK
