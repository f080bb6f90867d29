#include "Congestion.h"
#include "Net.h"

#include <QLoggingCategory>

#include <udt/ccc.h>
#include <udt/udt.h>

#include <sys/mman.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <limits>
#include <mutex>
#include <new>
#include <random>
#include <string>
#include <type_traits>
#include <unordered_map>

namespace VESK {
namespace net {

namespace {

// QT_LOGGING_RULES="vesk.congestion.debug=true" traces every decision of a connection's control.
Q_LOGGING_CATEGORY(lcCongestion, "vesk.congestion", QtWarningMsg)

// Gains of one probing cycle in Cruise, one step per round trip: probe a quarter above the
// estimate, drain what that queued, then six rounds at the estimate.
constexpr double kCycleGains[] = {1.25, 0.75, 1.0, 1.0, 1.0, 1.0, 1.0, 1.0};
constexpr int kCycleLength = int(sizeof kCycleGains / sizeof kCycleGains[0]);
constexpr double kCruiseWindowGain = 2.0;
// UDT acknowledges every 10 ms; data waits up to that long for its acknowledgement.
constexpr qint64 kAckPeriodUs = 10'000;
// Before the first round trip is measured.
constexpr qint64 kAssumedRttUs = 100'000;
// The pace before the first rate sample: the window limits the first round, not the pace.
constexpr double kInitialPeriodUs = 10.0;
// The queue counts as growing when a whole round's trips exceed the minimum by half and 5 ms.
constexpr double kQueueRttFactor = 1.5;
constexpr qint64 kQueueRttSlackUs = 5'000;
constexpr double kQueueDrainGain = 0.75;
constexpr double kHeavyLossBackoff = 0.7;
// An estimate that grew by this much over this many probing cycles sends Cruise back to
// Startup.
constexpr double kRegrowthFactor = 1.2;
constexpr int kRegrowthCycles = 2;
// A loss-free round after the probe's drain whose shortest trip is still this much above the
// minimum (a twentieth of it, plus this) finds a queue that another flow keeps filled.
constexpr qint64 kForeignQueueSlackUs = 3'000;
// The first steady phase of the probing cycle: our own probe's queue has drained by then.
constexpr int kFirstSteadyPhase = 2;
// Losses beside such a queue are its overflow: the rate is capped at this share of the
// estimate, as a TCP flow backs off, until this many probing cycles pass without them.
constexpr double kSharedLossBackoff = 0.7;
constexpr int kSharedCapCycles = 4;

qint64 monotonicUs() {
    using namespace std::chrono;
    return duration_cast<microseconds>(steady_clock::now().time_since_epoch()).count();
}

// Distance from a to b in UDT's 31-bit sequence numbers, negative when b is before a.
qint64 sequenceDistance(int32_t a, int32_t b) {
    constexpr qint64 kRange = qint64(0x7FFFFFFF) + 1;
    qint64 d = qint64(b) - qint64(a);
    if (d > kRange / 2)
        d -= kRange;
    else if (d < -kRange / 2)
        d += kRange;
    return d;
}

} // namespace

bool parseCongestion(const QString& text, Congestion* congestion) {
    if (text == QLatin1String("vesk"))
        *congestion = Congestion::Vesk;
    else if (text == QLatin1String("udt"))
        *congestion = Congestion::Udt;
    else
        return false;
    return true;
}

QString congestionName(Congestion congestion) {
    return congestion == Congestion::Udt ? QStringLiteral("udt") : QStringLiteral("vesk");
}

// ---- RateModel --------------------------------------------------------------------------------

RateModel::RateModel(qint64 startUs, int cruisePhase)
    : m_phaseStartUs(startUs)
    , m_cycleIndex(((cruisePhase % kCycleLength) + kCycleLength) % kCycleLength)
    , m_cycleStartUs(startUs)
    , m_roundEndsAt(1)
    , m_roundStartUs(startUs)
    , m_roundLowRttUs(std::numeric_limits<qint64>::max())
    , m_cycleBaseRates(kRegrowthCycles, 0.0)
    , m_minRttStampUs(startUs) {}

void RateModel::onSent(qint64 packets) {
    if (packets <= 0)
        return;
    m_sent += packets;
    m_roundSent += packets;
}

void RateModel::onLoss(qint64, qint64 lostPackets) {
    if (lostPackets > 0)
        m_roundLost += lostPackets;
}

void RateModel::resume(double rate, qint64 minRttUs) {
    if (!m_firstStartup || m_phase != Phase::Startup || rate <= 0.0 || minRttUs <= 0)
        return;
    m_resumeRate = rate;
    m_resumeRttUs = minRttUs;
}

void RateModel::jumpToRememberedRate() {
    const double rate = m_resumeRate;
    m_resumeRate = 0.0;
    // Another round trip is another path, or the same one with a queue in it. The first
    // sample may include a wait for the peer's acknowledgement timer, which on a short path is
    // most of it.
    if (!m_firstStartup || m_phase != Phase::Startup ||
        m_minRttUs > 2 * m_resumeRttUs + kAckPeriodUs ||
        2 * m_minRttUs + kAckPeriodUs < m_resumeRttUs)
        return;
    const double window = 0.5 * bdpPacketsAt(rate);
    if (window <= m_startupWindow)
        return;
    m_startupWindow = window;
    m_resumePaceCap = rate;
    m_resumeEndsAt = m_sent + qint64(window);
}

void RateModel::onTimeout(qint64 nowUs) {
    // UDT also calls this when it merely heard nothing for a while with data waiting to be
    // sent; with nothing in flight that says nothing about the path.
    if (m_sent <= m_delivered)
        return;
    // One timeout is usually a lost resend (the peer reports a loss only once); only repeated
    // ones without progress in between say the path carries less.
    if (++m_timeoutsInARow < 2 || m_bottleneckRate <= 0.0)
        return;
    m_bottleneckRate = std::max(m_bottleneckRate / 2, floorRate());
    m_samples.assign(1, {nowUs, m_bottleneckRate});
    m_startupBestRate = m_bottleneckRate;
    m_startupFlatRounds = 0;
    m_startupWindow = std::max(bdpPackets(), double(kInitialWindowPackets));
    enter(Phase::Startup, nowUs);
}

void RateModel::onAck(qint64 nowUs, qint64 newlyAcked, qint64 rttUs, qint64 ackedSentUs,
                      qint64 smoothedRttUs) {
    if (newlyAcked > 0) {
        m_timeoutsInARow = 0;
        m_delivered += newlyAcked;
        grow(std::max(m_delivered, m_arrived));
        if (!m_sampling) {
            // The first sample starts here: the time before (connection set-up, the peers'
            // first messages) says nothing of the path's rate.
            m_sampling = true;
            m_sample = sampleStartHere(nowUs, ackedSentUs);
            m_reading = m_sample;
        }
    }
    if (smoothedRttUs > 0)
        m_roundLowRttUs = std::min(m_roundLowRttUs, smoothedRttUs);
    if (rttUs > 0) {
        updateMinRtt(nowUs, rttUs);
        if (m_resumeRate > 0.0)
            jumpToRememberedRate();
        m_roundLowRttUs = std::min(m_roundLowRttUs, rttUs);
        if (m_phase == Phase::ProbeRtt)
            m_probeRttLowUs = std::min(m_probeRttLowUs, rttUs);
    }

    if (m_delivered >= m_roundEndsAt) {
        const bool sampled = m_sampling && nowUs - m_sample.us >= kMinSampleUs;
        if (sampled)
            takeRateSample(nowUs, ackedSentUs);
        endRound(nowUs, sampled);
    }
    if (m_firstStartup && m_sampling && m_minRttUs > 0 &&
        nowUs - m_reading.us >=
            std::max(kMinSampleUs, m_minRttUs / kFirstStartupReadingsPerRound)) {
        // The estimate bounds Startup's window: sampled at the end of each round, it trails a
        // rate that triples in a round by a whole one. Shorter readings raise the bound sooner;
        // they stay out of the estimate, as a span this short may catch the peer taking in a
        // backlog at once, and count for no more than a round that tripled would deliver.
        double reading = rateSince(m_reading, nowUs, ackedSentUs);
        if (m_bottleneckRate > 0.0)
            reading = std::min(reading, (1.0 + kFirstStartupGrowth) * m_bottleneckRate);
        m_startupReadingRate = std::max(m_startupReadingRate, reading);
        m_reading = sampleStartHere(nowUs, ackedSentUs);
    }

    const qint64 rtt = m_minRttUs > 0 ? m_minRttUs : kAssumedRttUs;
    switch (m_phase) {
    case Phase::Cruise:
        if (nowUs - m_cycleStartUs >= std::max(rtt, kAckPeriodUs)) {
            m_cycleIndex = (m_cycleIndex + 1) % kCycleLength;
            m_cycleStartUs = nowUs;
            if (m_cycleIndex == 0)
                endCycle(nowUs);
        }
        break;
    case Phase::ProbeRtt:
        if (nowUs - m_phaseStartUs >= std::max(kProbeRttHoldUs, rtt)) {
            if (m_probeRttLowUs != std::numeric_limits<qint64>::max())
                m_minRttUs = m_probeRttLowUs;
            m_minRttStampUs = nowUs;
            enter(Phase::Cruise, nowUs);
        }
        break;
    default:
        break;
    }
    if (m_phase != Phase::Startup && m_phase != Phase::ProbeRtt &&
        nowUs - m_minRttStampUs > kMinRttLifetimeUs)
        enter(Phase::ProbeRtt, nowUs);
}

void RateModel::onArrivals(qint64, qint64 arrived, qint64 peerUs) {
    // Reports travel unreliably and may come out of order: only newer ones count.
    if (m_arrivedPeerUs >= 0 && peerUs <= m_arrivedPeerUs)
        return;
    m_arrived = std::max(m_arrived, arrived);
    m_arrivedPeerUs = peerUs;
    for (SampleStart* start : {&m_sample, &m_reading}) {
        if (m_sampling && start->peerUs < 0) {
            start->arrived = m_arrived;
            start->peerUs = peerUs;
        }
    }
    grow(std::max(m_delivered, m_arrived));
}

void RateModel::grow(qint64 progress) {
    if (progress <= m_progress)
        return;
    if (m_phase == Phase::Startup)
        m_startupWindow = std::min(m_startupWindow + (m_firstStartup ? kFirstStartupGrowth : 1.0) *
                                                         double(progress - m_progress),
                                   startupWindowCap());
    m_progress = progress;
}

void RateModel::updateMinRtt(qint64 nowUs, qint64 rttUs) {
    if (m_minRttUs == 0 || rttUs <= m_minRttUs) {
        m_minRttUs = rttUs;
        m_minRttStampUs = nowUs;
    }
}

RateModel::SampleStart RateModel::sampleStartHere(qint64 nowUs, qint64 ackedSentUs) const {
    SampleStart start;
    start.us = nowUs;
    start.sentUs = ackedSentUs;
    start.delivered = m_delivered;
    start.sent = m_sent;
    start.arrived = m_arrived;
    start.peerUs = m_arrivedPeerUs;
    return start;
}

double RateModel::rateSince(const SampleStart& start, qint64 nowUs, qint64 ackedSentUs) const {
    qint64 span = std::max<qint64>(nowUs - start.us, 1);
    if (ackedSentUs > 0 && start.sentUs > 0)
        span = std::max(span, ackedSentUs - start.sentUs);
    double rate = double(m_delivered - start.delivered) * 1e6 / double(span);
    // The peer's clock times its arrivals, so reports that travel bunched cannot inflate this
    // reading; the peer's receiving thread can still take in a backlog at once, so the reading
    // counts for no more than the rate at which packets left here meanwhile. A span shorter
    // than a sample's would mostly measure how the arrivals bunch.
    const qint64 peerSpan = m_arrivedPeerUs - start.peerUs;
    if (start.peerUs >= 0 && peerSpan >= kMinSampleUs) {
        const double arrivedRate = double(m_arrived - start.arrived) * 1e6 / double(peerSpan);
        const double sentRate =
            double(m_sent - start.sent) * 1e6 / double(std::max<qint64>(nowUs - start.us, 1));
        rate = std::max(rate, std::min(arrivedRate, sentRate));
    }
    return rate;
}

void RateModel::takeRateSample(qint64 nowUs, qint64 ackedSentUs) {
    const double rate = rateSince(m_sample, nowUs, ackedSentUs);
    m_sample = sampleStartHere(nowUs, ackedSentUs);
    m_samples.push_back({nowUs, rate});
    // Three probing cycles: samples and cycle phases do not line up, and within three cycles
    // one sample covers a probe whole.
    const qint64 rtt = m_minRttUs > 0 ? m_minRttUs : kAssumedRttUs;
    const qint64 window = kRateWindowCycles * kCycleLength * std::max(rtt, kAckPeriodUs);
    while (m_samples.size() > 1 && nowUs - m_samples.front().first > window)
        m_samples.pop_front();
    m_bottleneckRate = 0.0;
    for (const auto& sample : m_samples)
        m_bottleneckRate = std::max(m_bottleneckRate, sample.second);
    m_bottleneckRate = std::min(m_bottleneckRate, m_rateCap);
}

void RateModel::endRound(qint64 nowUs, bool sampled) {
    // Many losses in one round: the path is overloaded, whatever the round trip says.
    // Measured against what the round sent, or what is in flight when that is more: a round
    // whose sending stalled on a full window (what arrived behind a lost packet counts as in
    // flight until its resend does) sends little while the peer still reports the last round's
    // random losses.
    const double exposed = double(std::max(m_roundSent, m_sent - m_delivered));
    const bool heavyLoss = m_roundLost > 1 && m_roundLost > kCongestionLossShare * exposed;
    if (m_resumePaceCap > 0.0 && heavyLoss) {
        // The remembered rate no longer fits the path: start over as a first connection would.
        m_startupWindow = kInitialWindowPackets;
        m_resumePaceCap = 0.0;
        m_resumeFailed = true;
    } else if (m_resumePaceCap > 0.0 && m_delivered >= m_resumeEndsAt) {
        m_resumePaceCap = 0.0;
    }
    if (heavyLoss && m_bottleneckRate > 0.0) {
        m_bottleneckRate *= kHeavyLossBackoff;
        m_samples.assign(1, {nowUs, m_bottleneckRate});
        if (m_phase == Phase::Startup)
            enter(Phase::Drain, nowUs);
    }
    // A queue grows when even the round's shortest trip is well above the minimum. In a round
    // that lost packets the trips cannot tell: an acknowledgement held back by a hole makes its
    // newest packet's trip long, and the transport's smoothed round trip may still be on its way
    // from its assumed start. A queue that overflows shows as heavy loss instead.
    m_queueGrowing = m_roundLost == 0 && m_minRttUs > 0 &&
                     m_roundLowRttUs != std::numeric_limits<qint64>::max() &&
                     m_roundLowRttUs > kQueueRttFactor * m_minRttUs + kQueueRttSlackUs;
    // Random loss comes at any round trip; a queue another flow keeps filled (a loss-based TCP
    // flow fills it until it overflows) makes losses that are congestion. Left alone, the
    // estimate would hold its share and the other flow would back off at every overflow.
    if (m_phase == Phase::Cruise && m_roundLost == 0 && m_cycleIndex >= kFirstSteadyPhase &&
        m_minRttUs > 0 && m_roundLowRttUs != std::numeric_limits<qint64>::max())
        m_foreignQueue = m_roundLowRttUs > m_minRttUs + m_minRttUs / 20 + kForeignQueueSlackUs;
    if (m_phase == Phase::Cruise && m_foreignQueue && m_roundLost > 1 && !heavyLoss) {
        m_rateCap =
            std::max(floorRate(), kSharedLossBackoff * std::min(m_rateCap, m_bottleneckRate));
        m_bottleneckRate = std::min(m_bottleneckRate, m_rateCap);
        m_cleanCycles = 0;
        m_foreignQueue = false;
    }
    // A round that delivered less than a first window had no more data to send (the peers'
    // messages before a transfer, or its last packets): it says nothing of the path.
    const bool appLimited = m_delivered - m_roundStartDelivered < kInitialWindowPackets;

    switch (m_phase) {
    case Phase::Startup:
        if (m_queueGrowing && m_bottleneckRate > 0.0) {
            // A queue builds at the bottleneck: the rate is found.
            enter(Phase::Drain, nowUs);
        } else if (sampled && m_bottleneckRate > 0.0 && !appLimited) {
            if (m_bottleneckRate >= 1.25 * m_startupBestRate) {
                m_startupBestRate = m_bottleneckRate;
                m_startupFlatRounds = 0;
            } else if (++m_startupFlatRounds >= 3) {
                enter(Phase::Drain, nowUs);
            }
        }
        break;
    case Phase::Drain:
        if (double(m_sent - m_delivered) <= bdpPackets() || m_queueGrowing == false)
            enter(Phase::Cruise, nowUs);
        break;
    default:
        break;
    }

    m_roundEndsAt = std::max(m_sent, m_delivered + 1);
    m_roundStartUs = nowUs;
    m_roundStartDelivered = m_delivered;
    m_roundSent = 0;
    m_roundLost = 0;
    m_roundLowRttUs = std::numeric_limits<qint64>::max();
}

void RateModel::endCycle(qint64 nowUs) {
    if (m_rateCap != std::numeric_limits<double>::infinity()) {
        // Growth under a cap is the cap's release, not room on the path.
        if (++m_cleanCycles >= kSharedCapCycles)
            m_rateCap = std::numeric_limits<double>::infinity();
        m_cycleBaseRates.assign(kRegrowthCycles, 0.0);
        m_cycleBaseRates.back() = m_bottleneckRate;
        return;
    }
    // Probes that keep finding more (room another flow left, or a startup that ended early on
    // a lossy path's stalls) mean room the cycle's small probes would take many cycles to fill:
    // look for its end as at the start.
    const double before = m_cycleBaseRates.front();
    m_cycleBaseRates.pop_front();
    m_cycleBaseRates.push_back(m_bottleneckRate);
    if (before <= 0.0 || m_bottleneckRate < kRegrowthFactor * before)
        return;
    m_startupBestRate = m_bottleneckRate;
    m_startupFlatRounds = 0;
    m_startupWindow = windowPackets();
    enter(Phase::Startup, nowUs);
}

void RateModel::enter(Phase phase, qint64 nowUs) {
    m_firstStartup = false;
    m_resumeRate = 0.0;
    m_resumePaceCap = 0.0;
    m_phase = phase;
    m_phaseStartUs = nowUs;
    m_cycleStartUs = nowUs;
    m_cycleBaseRates.assign(kRegrowthCycles, 0.0);
    m_cycleBaseRates.back() = m_bottleneckRate;
    if (phase == Phase::ProbeRtt)
        m_probeRttLowUs = std::numeric_limits<qint64>::max();
}

double RateModel::bdpPackets() const {
    return bdpPacketsAt(m_bottleneckRate);
}

double RateModel::bdpPacketsAt(double rate) const {
    const qint64 rtt = m_minRttUs > 0 ? m_minRttUs : kAssumedRttUs;
    return rate * double(rtt + kAckPeriodUs) / 1e6;
}

double RateModel::pacingGain() const {
    switch (m_phase) {
    case Phase::Startup:
        return kStartupGain;
    case Phase::Drain:
        return 1.0 / kStartupGain;
    case Phase::ProbeRtt:
        return 1.0;
    case Phase::Cruise:
        break;
    }
    // A growing queue turns the steady rounds into draining ones; the probe stays, so that an
    // estimate lowered by a queue that was not ours (or by a busy receiver) recovers.
    const double gain = kCycleGains[m_cycleIndex];
    return m_queueGrowing && gain <= 1.0 ? kQueueDrainGain : gain;
}

double RateModel::floorRate() const {
    const qint64 rtt = m_minRttUs > 0 ? m_minRttUs : kAssumedRttUs;
    return kMinWindowPackets * 1e6 / double(rtt + kAckPeriodUs);
}

namespace {

// A round trip and a half (the resend's trip and the acknowledgement's) and two acknowledgement
// periods: first timeout for a round trip of `rttUs`.
qint64 baseTimeoutUs(qint64 rttUs) {
    return std::max(rttUs + rttUs / 2 + 2 * kAckPeriodUs, RateModel::kMinRetransmitTimeoutUs);
}

} // namespace

qint64 RateModel::retransmitTimeoutUs(qint64 smoothedRttUs) const {
    qint64 timeout =
        m_minRttUs > 0 && smoothedRttUs > 0 ? baseTimeoutUs(smoothedRttUs) : kUnmeasuredTimeoutUs;
    for (int i = 0; i < m_timeoutsInARow && timeout < kMaxRetransmitTimeoutUs; ++i)
        timeout *= 2;
    return std::min(timeout, kMaxRetransmitTimeoutUs);
}

double RateModel::startupWindowRate() const {
    if (m_phase != Phase::Startup || m_minRttUs <= 0)
        return 0.0;
    return m_startupWindow * 1e6 / double(m_minRttUs + kAckPeriodUs);
}

double RateModel::sendPeriodUs() const {
    // In Startup the window, growing with every acknowledgement, leads: the rate estimate
    // trails it by a round trip.
    const double rate = std::max(startupRate(), startupWindowRate());
    if (rate <= 0.0)
        return kInitialPeriodUs;
    double paced = pacingGain() * std::max(rate, floorRate());
    if (m_resumePaceCap > 0.0)
        paced = std::min(paced, std::max(m_resumePaceCap, floorRate()));
    return 1e6 / paced;
}

double RateModel::boundWindow(double gain) const {
    return boundWindowAt(gain, m_bottleneckRate);
}

double RateModel::boundWindowAt(double gain, double rate) const {
    // UDT acknowledges cumulatively: what arrived after a lost packet counts as in flight until
    // the resend arrives, and when the resend is lost too, until the timeout sends it again.
    const qint64 rtt = m_minRttUs > 0 ? m_minRttUs : kAssumedRttUs;
    const double recovery = rate * double(rtt + baseTimeoutUs(rtt)) / 1e6;
    return std::max(gain * bdpPacketsAt(rate) + recovery, double(kMinWindowPackets));
}

double RateModel::startupRate() const {
    return m_firstStartup ? std::max(m_bottleneckRate, m_startupReadingRate) : m_bottleneckRate;
}

double RateModel::startupWindowCap() const {
    // Only an estimate from rounds that had data enough to fill their window bounds it: the few
    // messages before a transfer measure the peers, not the path.
    return m_startupBestRate > 0.0 ? boundWindowAt(kStartupGain, startupRate())
                                   : std::numeric_limits<double>::infinity();
}

double RateModel::windowPackets() const {
    switch (m_phase) {
    case Phase::ProbeRtt:
        return kProbeRttWindowPackets;
    case Phase::Startup:
        // What arrives after a lost packet stays in flight until its resend does: with loss, the
        // bound from the estimate, which leaves room for that, can be the larger.
        return std::max(
            {m_startupWindow, double(kMinWindowPackets),
             m_startupBestRate > 0.0 ? boundWindowAt(kStartupGain, startupRate()) : 0.0});
    case Phase::Drain:
        return m_bottleneckRate > 0.0 ? boundWindow(kStartupGain) : double(kMinWindowPackets);
    case Phase::Cruise:
        break;
    }
    return m_bottleneckRate > 0.0 ? boundWindow(kCruiseWindowGain) : double(kMinWindowPackets);
}

double RateModel::transportWindowPackets() const {
    const double beyondHole = double(std::max<qint64>(0, m_arrived - m_delivered));
    if (!m_holeOpen)
        return windowPackets() + beyondHole;
    return std::max(windowPackets(), 2.0 * kArrivalReportPackets) + beyondHole;
}

// ---- LossRepair -------------------------------------------------------------------------------

bool LossRepair::onPacket(qint64 seq, qint64 nowUs) {
    if (m_highest < 0) {
        m_highest = seq;
        return true;
    }
    if (seq <= m_highest)
        return m_missing.erase(seq) > 0;
    for (qint64 s = m_highest + 1; s < seq && int(m_missing.size()) < kMaxTracked; ++s) {
        m_missing.insert(s);
        m_reports.emplace_back(nowUs, s);
    }
    m_highest = seq;
    return true;
}

bool LossRepair::onSentUpTo(qint64 seq) {
    if (m_highest < 0 || seq <= m_highest)
        return false;
    // Never reported: due before anything reported already, after those never reported that
    // were added before (lower), so that the front stays the longest waiting.
    auto at = std::find_if(m_reports.begin(), m_reports.end(),
                           [](const auto& entry) { return entry.first != kNeverReported; });
    bool added = false;
    for (qint64 s = m_highest + 1; s <= seq && int(m_missing.size()) < kMaxTracked; ++s) {
        m_missing.insert(s);
        at = m_reports.emplace(at, kNeverReported, s) + 1;
        added = true;
    }
    m_highest = seq;
    return added;
}

std::vector<qint64> LossRepair::due(qint64 nowUs, qint64 intervalUs, int max) {
    std::vector<qint64> result;
    while (!m_reports.empty() && int(result.size()) < max &&
           nowUs - m_reports.front().first >= intervalUs) {
        const qint64 seq = m_reports.front().second;
        m_reports.pop_front();
        if (m_missing.count(seq) == 0)
            continue;
        result.push_back(seq);
        m_reports.emplace_back(nowUs, seq);
    }
    // Stale entries of packets that arrived are dropped as they come up front.
    while (!m_reports.empty() && m_missing.count(m_reports.front().second) == 0)
        m_reports.pop_front();
    std::sort(result.begin(), result.end());
    return result;
}

qint64 LossRepair::intervalFor(qint64 rttUs) {
    const qint64 rtt = rttUs > 0 ? rttUs : kAssumedRttUs;
    return rtt + std::max(rtt / 4, kAckPeriodUs);
}

bool ArrivalReports::accept(quint32 count, quint32 peerClock, qint64 nowUs) {
    if (m_reports == 0) {
        m_arrived = count;
        m_peerUs = 0;
    } else {
        const qint32 moreArrived = qint32(count - m_lastCount);
        qint64 later = qint32(peerClock - m_lastClock);
        if (nowUs - m_lastLocalUs > kLongGapUs)
            later = nowUs - m_lastLocalUs;
        if (later <= 0 || moreArrived < 0)
            return false;
        m_arrived += moreArrived;
        m_peerUs += later;
    }
    ++m_reports;
    m_lastCount = count;
    m_lastClock = peerClock;
    m_lastLocalUs = nowUs;
    return true;
}

std::vector<qint32> lossReport(const std::vector<qint64>& sequences, qint32 wireBase) {
    const auto wire = [wireBase](qint64 seq) { return qint32((wireBase + seq) & 0x7FFFFFFF); };
    std::vector<qint32> entries;
    for (size_t i = 0; i < sequences.size();) {
        size_t last = i;
        while (last + 1 < sequences.size() && sequences[last + 1] == sequences[last] + 1)
            ++last;
        if (last == i) {
            entries.push_back(wire(sequences[i]));
        } else {
            entries.push_back(qint32(quint32(wire(sequences[i])) | 0x80000000u));
            entries.push_back(wire(sequences[last]));
        }
        i = last + 1;
    }
    return entries;
}

// ---- UDT's side -------------------------------------------------------------------------------

namespace {

// A control packet as UDT lays it out. CCC::sendCustomMsg() sends any packet to the peer, but
// the library keeps CPacket's constructor and pack() to itself, so the object is laid out here
// as the installed header declares it (its reference members are pointers in this ABI) and
// filled as pack() fills one: the control bit, the type and its extension in the first header
// word, 32-bit words as the payload. UDT converts both to network order when it sends, and back
// when it receives.
class ControlPacket {
public:
    // Type 3 is a loss report, whose payload is loss entries; UDT hands a packet of type 0x7FFF
    // to the peer's CCC::processCustomMsg(), and keeps the extension for the user.
    static constexpr quint32 kLossReport = 3;
    static constexpr quint32 kUserDefined = 0x7FFF;

    ControlPacket(quint32 type, quint32 extension, std::vector<qint32>& words) {
        Image* image = new (m_storage) Image;
        image->seqNo = reinterpret_cast<int32_t*>(&image->header[0]);
        image->msgNo = reinterpret_cast<int32_t*>(&image->header[1]);
        image->timeStamp = reinterpret_cast<int32_t*>(&image->header[2]);
        image->id = reinterpret_cast<int32_t*>(&image->header[3]);
        image->data = reinterpret_cast<char**>(&image->vector[1].iov_base);
        image->header[0] = 0x80000000u | (type << 16) | (extension & 0xFFFFu);
        image->vector[0].iov_base = image->header;
        image->vector[0].iov_len = sizeof image->header;
        image->vector[1].iov_base = words.data();
        image->vector[1].iov_len = words.size() * sizeof(qint32);
    }
    ControlPacket(const ControlPacket&) = delete;
    ControlPacket& operator=(const ControlPacket&) = delete;

    CPacket& packet() { return *std::launder(reinterpret_cast<CPacket*>(m_storage)); }

    // The payload of a received user-defined packet with this extension, as words; empty when
    // the packet is another kind.
    static std::vector<qint32> userPayload(const CPacket* packet, quint32 extension) {
        const quint32 first = quint32(packet->m_iSeqNo);
        if (first != (0x80000000u | (kUserDefined << 16) | (extension & 0xFFFFu)))
            return {};
        const auto* image = reinterpret_cast<const Image*>(packet);
        const size_t count = image->vector[1].iov_len / sizeof(qint32);
        const auto* words = reinterpret_cast<const qint32*>(packet->m_pcData);
        return std::vector<qint32>(words, words + count);
    }

private:
    struct Image {
        int32_t* seqNo;
        int32_t* msgNo;
        int32_t* timeStamp;
        int32_t* id;
        char** data;
        uint32_t header[4]{};
        iovec vector[2]{};
        int32_t pad = 0;
    };
    static_assert(sizeof(Image) == sizeof(CPacket), "CPacket's layout differs from its header");
    static_assert(alignof(Image) == alignof(CPacket), "CPacket's layout differs from its header");
    static_assert(std::is_trivially_destructible<Image>::value, "nothing to destroy");

    alignas(CPacket) unsigned char m_storage[sizeof(Image)];
};

// When each recent data packet left, by sequence number, for rate samples and round trips:
// written by UDT's sending thread, read by its receiving thread. Times are microseconds from the
// connection's start, modulo 2^32 (71 minutes, far longer than any packet is in flight); 0 marks
// a packet sent more than once, whose acknowledgement cannot tell which copy arrived. The table
// is mapped, not allocated: a connection that exchanges only a few messages touches a page or
// two of it.
class SendTimes {
public:
    // More packets than the flow window lets be unacknowledged, even with the smallest
    // packets IPv4 promises to carry: a packet's slot is not reused while it may be in flight.
    static constexpr int kSlots = 1 << 19;
    static_assert(kSlots > kWindowBytes / (576 - 28), "the table must cover the whole window");

    SendTimes() = default;
    SendTimes(const SendTimes&) = delete;
    SendTimes& operator=(const SendTimes&) = delete;
    ~SendTimes() {
        if (m_table)
            ::munmap(m_table, kBytes);
    }

    void start(qint64 nowUs) {
        m_epochUs = nowUs;
        if (m_table)
            return;
        void* table =
            ::mmap(nullptr, kBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (table != MAP_FAILED)
            m_table = static_cast<std::atomic<quint32>*>(table);
    }

    // Sending thread: `seq` left at `nowUs`, for the first time or (`again`) not.
    void record(int32_t seq, qint64 nowUs, bool again) {
        if (m_table)
            m_table[seq & (kSlots - 1)].store(again ? 0u : quint32(nowUs - m_epochUs) | 1u,
                                              std::memory_order_relaxed);
    }

    bool available() const { return m_table != nullptr; }

    // Receiving thread: when `seq` left, at or before `nowUs`; 0 when not known.
    qint64 sentAt(int32_t seq, qint64 nowUs) const {
        if (!m_table)
            return 0;
        const quint32 sent = m_table[seq & (kSlots - 1)].load(std::memory_order_relaxed);
        if (sent == 0)
            return 0;
        return nowUs - qint64(quint32(quint32(nowUs - m_epochUs) - sent));
    }

private:
    static constexpr size_t kBytes = kSlots * sizeof(std::atomic<quint32>);
    static_assert(sizeof(std::atomic<quint32>) == sizeof(quint32), "a plain word per slot");

    qint64 m_epochUs = 0;
    std::atomic<quint32>* m_table = nullptr;
};

// UDT calls onPktSent() on its sending thread and everything else on its receiving thread, so
// the sending side only records how far it got and when each packet left, and the model runs on
// the receiving thread.
class VeskCongestion;

// What connections measured of the path to each peer address (joinPath()), and the connections
// to it that are open now.
struct PathEntry {
    double rate = 0.0; // packets a second, all connections to the peer together
    qint64 minRttUs = 0;
    qint64 stampUs = 0; // when it was measured
    std::vector<VeskCongestion*> open;
};

// A measurement is trusted for this long; the paths of a machine seldom change faster, and a
// resumed connection that finds its path changed starts over (RateModel::resume()).
constexpr qint64 kPathMemoryUs = 10LL * 60 * 1'000'000;
// A measurement below this share of the remembered one leaves that in place (leavePath()).
constexpr double kPathKeepShare = 0.8;
// Peers remembered at most: a server sees many.
constexpr size_t kMaxPaths = 4096;

std::mutex g_pathsLock;
std::unordered_map<std::string, PathEntry> g_paths;

class VeskCongestion : public CCC {
public:
    ~VeskCongestion() override { leavePath(); }

    void close() override { leavePath(); }

    // See joinPath(). Called on the thread that connected or accepted the socket.
    void joinPath(const std::string& peer) {
        std::lock_guard<std::mutex> lock(g_pathsLock);
        if (!m_path.empty() || peer.empty())
            return;
        const qint64 now = monotonicUs();
        if (g_paths.size() >= kMaxPaths && !g_paths.count(peer))
            forgetOldPaths(now);
        PathEntry& entry = g_paths[peer];
        entry.open.push_back(this);
        m_path = peer;
        m_resumePending.store(true);
        qCDebug(lcCongestion, "%p joins %s: %.0f packets/s remembered, %d open",
                static_cast<const void*>(this), peer.c_str(), entry.rate, int(entry.open.size()));
    }

    // This connection's share of the rate remembered for its peer, and the round trip it was
    // measured with, taken when the connection first hears from the peer: connections opened
    // together (the files of a tree) are all open by then and divide the rate among them, where
    // shares fixed as each joined would add up to twice the rate.
    void takeRememberedShare() {
        double rate = 0.0;
        qint64 rtt = 0;
        {
            std::lock_guard<std::mutex> lock(g_pathsLock);
            const auto it = g_paths.find(m_path);
            if (it == g_paths.end())
                return;
            const PathEntry& entry = it->second;
            if (entry.rate <= 0.0 || monotonicUs() - entry.stampUs > kPathMemoryUs)
                return;
            rate = entry.rate / double(std::max<size_t>(entry.open.size(), 1));
            rtt = entry.minRttUs;
        }
        qCDebug(lcCongestion, "%p resumes at %.0f packets/s, round trip %lld",
                static_cast<const void*>(this), rate, rtt);
        m_model.resume(rate, rtt);
    }

    void init() override {
        static std::atomic<unsigned> flows{0};
        std::minstd_rand random(unsigned(monotonicUs()) ^ (flows++ * 2654435761u));
        m_model = RateModel(monotonicUs(), int(random() % 8));
        m_sendTimes.start(monotonicUs());
        apply();
    }

    void onPktSent(const CPacket* packet) override {
        const int32_t seq = packet->m_iSeqNo;
        const int32_t highest = m_highestSent.load(std::memory_order_relaxed);
        const bool fresh = highest < 0 || sequenceDistance(highest, seq) > 0;
        m_sendTimes.record(seq, monotonicUs(), !fresh);
        // UDT hands a packet to the socket after this returns, and calls this for the next one
        // only after that: a count of calls tells which packets have surely left.
        const quint32 call = m_sendCalls.fetch_add(1) + 1;
        if (fresh) {
            m_highestSent.store(seq);
            m_highestSentCall.store(quint64(call) << 32 | quint32(seq));
        }
        if (m_firstSent.load(std::memory_order_relaxed) < 0)
            m_firstSent.store(seq, std::memory_order_release);
        if (fresh && m_idle.exchange(false))
            setRTO(int(m_busyTimeoutUs.load()));
    }

    void onACK(int32_t ack) override {
        const qint64 now = monotonicUs();
        catchUpSent();
        if (m_resumePending.exchange(false))
            takeRememberedShare();
        qint64 acked = 0;
        if (m_lastAck < 0) {
            const int32_t first = m_firstSent.load(std::memory_order_acquire);
            if (first >= 0)
                acked = std::max<qint64>(0, sequenceDistance(first, ack));
        } else {
            acked = std::max<qint64>(0, sequenceDistance(m_lastAck, ack));
        }
        if (m_lastAck < 0 || acked > 0)
            m_lastAck = ack;
        // The acknowledgement names the next packet expected: the newest delivered is the one
        // before it. Its trip is this connection's round-trip sample (UDT's own estimate starts
        // from an assumed 100 ms and takes many acknowledgements to forget it); it includes the
        // receiver's wait for its acknowledgement timer, which the shortest samples do not.
        const int32_t newest = ack == 0 ? 0x7FFFFFFF : ack - 1;
        const qint64 sent = acked > 0 ? m_sendTimes.sentAt(newest, now) : 0;
        const qint64 trip =
            sent > 0 ? std::max<qint64>(now - sent, 1) : (m_sendTimes.available() ? 0 : m_iRTT);
        m_model.onAck(now, acked, trip, sent, m_iRTT);
        apply();
        trace("ack", now, acked);
        if (acked > 0)
            m_probesWithoutProgress = 0;
        probeIfStalled(now);
    }

    void onLoss(const int32_t* losses, int size) override {
        catchUpSent();
        // The peer repeats its loss reports until the packets arrive: count each loss once.
        qint64 fresh = 0;
        for (int i = 0; i < size; ++i) {
            int32_t from = losses[i];
            int32_t to = from;
            if (from < 0) { // a range: first (flagged) and last
                from &= 0x7FFFFFFF;
                to = (i + 1 < size) ? losses[++i] : from;
            }
            if (m_highestLost >= 0 && sequenceDistance(m_highestLost, from) <= 0)
                from = m_highestLost == 0x7FFFFFFF ? 0 : m_highestLost + 1;
            const qint64 count = sequenceDistance(from, to) + 1;
            if (count > 0) {
                fresh += count;
                m_highestLost = to;
            }
        }
        m_model.onLoss(monotonicUs(), fresh);
        apply();
        trace("loss", monotonicUs(), fresh);
    }

    void onTimeout() override {
        catchUpSent();
        m_model.onTimeout(monotonicUs());
        apply();
        trace("timeout", monotonicUs(), 0);
    }

    // The sending side: the peer's count of arrivals (see RateModel::onArrivals()). Any
    // packet from the peer also restarts UDT's retransmission timeout, as its acknowledgements
    // and loss reports do: while data arrives, a lost resend is recovered by the peer's repeated
    // loss report (LossRepair), and once nothing new arrives, by the exchange of probes and
    // answers (probeIfStalled()); UDT's timeout remains for when the peer falls silent.
    // The receiving side: the peer's probe.
    void processCustomMsg(const CPacket* packet) override {
        const qint64 now = monotonicUs();
        const std::vector<qint32> probe = ControlPacket::userPayload(packet, kProbe);
        if (!probe.empty()) {
            answerProbe(probe[0], now);
            return;
        }
        const std::vector<qint32> words = ControlPacket::userPayload(packet, kArrivalReport);
        if (words.size() < 2 || !m_peer.accept(quint32(words[0]), quint32(words[1]), now))
            return;
        m_peerArrivedShown.store(m_peer.arrived(), std::memory_order_relaxed);
        m_model.onArrivals(now, m_peer.arrived(), m_peer.peerUs());
        apply();
        trace("arrivals", now, m_peer.arrived());
        probeIfStalled(now);
    }

    qint64 peerArrivals() const { return m_peerArrivedShown.load(std::memory_order_relaxed); }

    // The receiving side: UDT calls this for every data packet, on its receiving thread.
    void onPktReceived(const CPacket* packet) override {
        const int32_t seq = packet->m_iSeqNo;
        if (m_wireBase < 0) {
            m_wireBase = seq;
            m_lastWire = seq;
        }
        m_unwrapped += sequenceDistance(m_lastWire, seq);
        m_lastWire = seq;
        const qint64 now = monotonicUs();
        const bool missing = m_unwrapped <= m_repair.highest();
        const bool fresh = m_repair.onPacket(m_unwrapped, now);
        // A resend that fills a hole is acknowledged at once, not at UDT's next acknowledgement
        // time: UDT checks its timers only as packets arrive (or every 100 ms), and after the
        // last resend of a transfer none may, while the sender waits for its timeout.
        acknowledgeAtOnce(fresh && missing);
        reportArrival(fresh, now);
        if (now - m_lastRepairScanUs >= kRepairScanUs)
            reportDueLosses(now);
    }

private:
    void trace(const char* event, qint64 nowUs, qint64 count) const {
        if (!lcCongestion().isDebugEnabled())
            return;
        qCDebug(lcCongestion,
                "%p %lld %s %lld phase=%d rate=%.0f window=%.0f udt-window=%.0f period=%.2f "
                "rtt=%d minrtt=%lld",
                static_cast<const void*>(this), nowUs, event, count, int(m_model.phase()),
                m_model.bottleneckRate(), m_model.windowPackets(), m_model.transportWindowPackets(),
                m_model.sendPeriodUs(), m_iRTT, m_model.minRtt());
    }

    // Reports again the missing packets whose last report is a repair interval old.
    void reportDueLosses(qint64 now) {
        if (m_repair.missing() == 0)
            return;
        m_lastRepairScanUs = now;
        const std::vector<qint64> due =
            m_repair.due(now, LossRepair::intervalFor(m_iRTT), kMaxReportedPerPacket);
        if (due.empty())
            return;
        std::vector<qint32> entries = lossReport(due, qint32(m_wireBase));
        ControlPacket report(ControlPacket::kLossReport, 0, entries);
        sendCustomMsg(report.packet());
    }

    // The sending side, after news from the peer: when sending has paused (nothing new since
    // the last news, or for a while) with the peer not yet reporting everything sent as
    // arrived, the peer may run out of arrivals to act on (it acts only when packets arrive):
    // the last packets of a transfer may have been lost where no later packet shows the gap,
    // and a lost resend waits for its repeated report. A probe tells the peer the highest
    // packet sent before it, which the path delivers ahead of the probe, and gives it a moment
    // to report what is missing; while something is, the peer answers with its count of
    // arrivals, which brings the next probe a round trip later. Without this, only UDT's
    // timeout would recover them, which resends everything not acknowledged.
    void probeIfStalled(qint64 now) {
        catchUpSent();
        const int32_t highest = m_countedSent;
        const bool unchanged = highest == m_highestAtLastNews;
        m_highestAtLastNews = highest;
        if (highest < 0 || m_lastAck < 0 || sequenceDistance(highest, m_lastAck) > 0 ||
            m_peer.reports() == 0 || m_peer.arrived() >= m_sentTotal)
            return;
        const qint64 sentAt = m_sendTimes.sentAt(highest, now);
        const bool paused = sentAt > 0 && now - sentAt >= kMinProbeGapUs;
        if ((!unchanged && !paused) || m_probesWithoutProgress >= kMaxProbesWithoutProgress)
            return;
        // The highest packet has left once UDT went on to another one (see onPktSent()), or
        // surely after a while (a busy sending thread may wait between the two); until then,
        // the one before it has.
        const quint64 mark = m_highestSentCall.load();
        const bool left =
            (sentAt > 0 && now - sentAt >= kSurelyLeftUs) ||
            (quint32(mark) == quint32(highest) && quint32(mark >> 32) != m_sendCalls.load());
        const int32_t upTo = left ? highest : (highest == 0 ? 0x7FFFFFFF : highest - 1);
        // One probe a while at most, unless the last one could not tell of the highest packet
        // yet and this one can.
        const bool catchingUp = m_lastProbeHighest == highest && m_lastProbeUpTo != upTo;
        if (now - m_lastProbeUs < std::max(m_model.minRtt() / 2, kMinProbeGapUs) && !catchingUp)
            return;
        m_lastProbeUs = now;
        m_lastProbeUpTo = upTo;
        m_lastProbeHighest = highest;
        ++m_probesWithoutProgress;
        std::vector<qint32> words{upTo};
        ControlPacket probe(ControlPacket::kUserDefined, kProbe, words);
        sendCustomMsg(probe.packet());
        trace("probe", now, upTo);
    }

    // UDT acknowledges after this packet whatever has arrived, or (false) at its own times.
    void acknowledgeAtOnce(bool atOnce) {
        if (atOnce != m_acknowledgingAtOnce) {
            m_acknowledgingAtOnce = atOnce;
            setACKInterval(atOnce ? 1 : 0);
        }
    }

    // The receiving side: the peer sent everything up to `upTo` before its probe. What has
    // arrived is acknowledged at once, too (see onPktReceived()).
    void answerProbe(qint32 upTo, qint64 now) {
        if (m_wireBase < 0)
            return;
        acknowledgeAtOnce(true);
        const qint64 high = m_unwrapped + sequenceDistance(m_lastWire, upTo & 0x7FFFFFFF);
        m_repair.onSentUpTo(high);
        reportDueLosses(now);
        trace("probed", now, m_repair.missing());
        // An answer to every probe would keep a short path busy with them: there, a lost resend
        // is left to the sender's timeout.
        if (m_repair.missing() > 0 && now - m_lastArrivalReportUs >= kMinProbeGapUs)
            sendArrivalReport(now);
    }

    // Counts a data packet that arrived for the first time, and tells the peer the count every
    // report period, or sooner once kArrivalReportPackets more have arrived: this side has no
    // clock of its own, so the report after the last packet of a burst that ended within the
    // period would wait for the next packet, and a sender whose window is full of packets that
    // arrived behind a hole would wait for its timeout. UDT shows a packet here before it finds
    // room for it in the receive buffer; one dropped for want of room (the flow window keeps the
    // sender from causing that) counts as arrived here, and is left to UDT's own loss report
    // and the sender's timeout.
    void reportArrival(bool fresh, qint64 now) {
        if (fresh)
            ++m_arrived;
        if (m_lastArrivalReportUs > 0 && now - m_lastArrivalReportUs < kArrivalReportUs &&
            m_arrived - m_reportedArrived < quint32(RateModel::kArrivalReportPackets))
            return;
        sendArrivalReport(now);
    }

    void sendArrivalReport(qint64 now) {
        m_lastArrivalReportUs = now;
        m_reportedArrived = m_arrived;
        std::vector<qint32> words{qint32(m_arrived), qint32(quint32(now - m_epochUs))};
        ControlPacket report(ControlPacket::kUserDefined, kArrivalReport, words);
        sendCustomMsg(report.packet());
    }

    void catchUpSent() {
        const int32_t highest = m_highestSent.load(std::memory_order_relaxed);
        if (highest < 0)
            return;
        qint64 fresh = 0;
        if (m_countedSent < 0) {
            const int32_t first = m_firstSent.load(std::memory_order_acquire);
            fresh = sequenceDistance(first, highest) + 1;
        } else {
            fresh = sequenceDistance(m_countedSent, highest);
        }
        m_model.onSent(fresh);
        m_sentTotal += fresh;
        m_countedSent = highest;
    }

    // Leaves the peer's entry of g_paths, and leaves there what this connection and those still
    // open to the peer measure together.
    void leavePath() {
        std::lock_guard<std::mutex> lock(g_pathsLock);
        if (m_path.empty())
            return;
        const auto it = g_paths.find(m_path);
        m_path.clear();
        if (it == g_paths.end())
            return;
        PathEntry& entry = it->second;
        // What the connections open now measure together is what the path carries at least.
        // It replaces the remembered value unless it is much lower: a connection alone at the
        // end of a tree, or among others that have not measured yet, sees less than the path
        // carries, and the larger value then stays, but ages as it was and expires. A
        // connection whose jump to the remembered value lost many packets found the path
        // changed, and replaces it whatever it measured. The one leaving need not have measured
        // anything itself: the receiving end of a connection whose sender in this process is
        // still open leaves the sender's measurement, which the sender may only leave much
        // later (UDT closes a connection whose peer has gone in its own time).
        double rate = 0.0;
        qint64 minRtt = 0;
        for (const VeskCongestion* flow : entry.open) {
            const double shown = flow->m_shownRate.load();
            const qint64 rtt = flow->m_shownMinRtt.load();
            rate += shown;
            if (shown > 0.0 && rtt > 0 && (minRtt == 0 || rtt < minRtt))
                minRtt = rtt;
        }
        const qint64 now = monotonicUs();
        const bool fresh = now - entry.stampUs <= kPathMemoryUs;
        if (rate > 0.0 &&
            (m_resumeFailed.load() || !fresh || rate >= kPathKeepShare * entry.rate)) {
            entry.rate = rate;
            entry.minRttUs = minRtt;
            entry.stampUs = now;
        }
        entry.open.erase(std::remove(entry.open.begin(), entry.open.end(), this), entry.open.end());
        qCDebug(lcCongestion, "%p leaves: own %.0f, path %.0f packets/s, %d open",
                static_cast<const void*>(this), m_shownRate.load(), entry.rate,
                int(entry.open.size()));
        if (entry.open.empty() && entry.rate <= 0.0)
            g_paths.erase(it);
    }

    static void forgetOldPaths(qint64 now) {
        for (auto it = g_paths.begin(); it != g_paths.end();) {
            if (it->second.open.empty() && now - it->second.stampUs > kPathMemoryUs)
                it = g_paths.erase(it);
            else
                ++it;
        }
        if (g_paths.size() < kMaxPaths)
            return;
        // Still full: the longest unmeasured of the idle ones goes.
        auto oldest = g_paths.end();
        for (auto it = g_paths.begin(); it != g_paths.end(); ++it) {
            if (it->second.open.empty() &&
                (oldest == g_paths.end() || it->second.stampUs < oldest->second.stampUs))
                oldest = it;
        }
        if (oldest != g_paths.end())
            g_paths.erase(oldest);
    }

    void apply() {
        m_shownRate.store(m_model.pathMeasured() ? m_model.bottleneckRate() : 0.0);
        m_shownMinRtt.store(m_model.minRtt());
        if (m_model.resumeFailed())
            m_resumeFailed.store(true);
        // The acknowledgement names the first packet not received: a packet reported missing
        // at or after it still leaves a hole.
        m_model.setHoleOpen(m_highestLost >= 0 && m_lastAck >= 0 &&
                            sequenceDistance(m_lastAck, m_highestLost) >= 0);
        m_dPktSndPeriod = m_model.sendPeriodUs();
        m_dCWndSize = m_model.transportWindowPackets();
        const qint64 timeout = m_model.retransmitTimeoutUs(m_iRTT);
        m_busyTimeoutUs.store(timeout);
        // UDT resends what is unacknowledged only after a timeout with nothing at all heard from
        // the peer, and a waiting peer's keep-alives (sent at its own timeout) are something: a
        // lost last message would wait until the peer's timeout outgrew ours. So a side with
        // everything acknowledged keeps quiet for longer than any side's timeout, and its first
        // new packet (onPktSent) brings its own timeout back.
        const int32_t highest = m_highestSent.load();
        const bool idle =
            highest < 0 || (m_lastAck >= 0 && sequenceDistance(highest, m_lastAck) > 0);
        if (!idle) {
            m_idle.store(false);
            setRTO(int(timeout));
            return;
        }
        setRTO(int(kIdleTimeoutUs));
        m_idle.store(true);
        // A packet sent meanwhile may have found the flag still down.
        if (m_highestSent.load() != highest && m_idle.exchange(false))
            setRTO(int(m_busyTimeoutUs.load()));
    }

    // Missing packets named in one report: well inside the smallest packet's payload.
    static constexpr int kMaxReportedPerPacket = 200;
    static constexpr qint64 kRepairScanUs = 5'000;
    // The user-defined control packet that carries the count of arrivals, and how often it
    // goes: as often as UDT acknowledges.
    static constexpr quint32 kArrivalReport = 0x5641;
    static constexpr qint64 kArrivalReportUs = 10'000;
    // The user-defined control packet that probes a stalled peer, how often at most, and how
    // many go without an acknowledgement of progress before the sender leaves the rest to its
    // timeout (a peer that keeps answering keeps that timeout off).
    static constexpr quint32 kProbe = 0x5650;
    static constexpr qint64 kMinProbeGapUs = 1'000;
    static constexpr qint64 kSurelyLeftUs = 10'000;
    static constexpr int kMaxProbesWithoutProgress = 16;
    // Keep-alive period with nothing in flight: beyond the longest retransmission timeout.
    static constexpr qint64 kIdleTimeoutUs = RateModel::kMaxRetransmitTimeoutUs + 500'000;

    RateModel m_model;
    SendTimes m_sendTimes;
    LossRepair m_repair;
    qint64 m_wireBase = -1; // UDT's number of the first packet received
    int32_t m_lastWire = 0;
    qint64 m_unwrapped = 0; // the last packet received, counted from the first
    qint64 m_lastRepairScanUs = 0;
    qint64 m_epochUs = monotonicUs();
    quint32 m_arrived = 0;
    quint32 m_reportedArrived = 0; // m_arrived at the last report
    qint64 m_lastArrivalReportUs = 0;
    ArrivalReports m_peer;
    std::atomic<qint64> m_peerArrivedShown{0}; // m_peer.arrived(), for other threads
    std::atomic<int32_t> m_highestSent{-1};
    std::atomic<int32_t> m_firstSent{-1};
    int32_t m_countedSent = -1;
    qint64 m_sentTotal = 0; // distinct packets sent up to m_countedSent
    int32_t m_lastAck = -1;
    int32_t m_highestLost = -1;
    int32_t m_highestAtLastNews = -1; // m_highestSent when the peer was last heard from
    qint64 m_lastProbeUs = 0;
    int32_t m_lastProbeUpTo = -1;
    int32_t m_lastProbeHighest = -1; // m_highestSent when it went
    std::atomic<quint32> m_sendCalls{0};
    // The call of onPktSent() (high word) that sent m_highestSent (low word; none at first).
    std::atomic<quint64> m_highestSentCall{0xFFFFFFFFu};
    bool m_acknowledgingAtOnce = false;
    int m_probesWithoutProgress = 0;
    std::atomic<qint64> m_busyTimeoutUs{RateModel::kUnmeasuredTimeoutUs};
    std::atomic<bool> m_idle{false};
    // The model's estimate for other threads (0: not measured yet), and its round trip.
    std::atomic<double> m_shownRate{0.0};
    std::atomic<qint64> m_shownMinRtt{0};
    // joinPath() found the peer: takeRememberedShare() is due on UDT's thread.
    std::atomic<bool> m_resumePending{false};
    std::atomic<bool> m_resumeFailed{false};
    std::string m_path; // the peer's entry of g_paths; guarded by g_pathsLock
};

} // namespace

bool useCongestion(int socket, Congestion congestion) {
    if (congestion == Congestion::Udt)
        return true;                    // UDT's default
    CCCFactory<VeskCongestion> factory; // UDT keeps a copy
    return UDT::setsockopt(socket, 0, UDT_CC, &factory, sizeof factory) != UDT::ERROR;
}

namespace {

VeskCongestion* veskControlOf(int socket) {
    CCC* control = nullptr;
    int len = sizeof control;
    if (UDT::getsockopt(socket, 0, UDT_CC, &control, &len) == UDT::ERROR || !control)
        return nullptr;
    return dynamic_cast<VeskCongestion*>(control);
}

} // namespace

Congestion congestionOf(int socket) {
    return veskControlOf(socket) ? Congestion::Vesk : Congestion::Udt;
}

void joinPath(int socket, const QString& peer) {
    if (VeskCongestion* control = veskControlOf(socket))
        control->joinPath(peer.toStdString());
}

double rememberedPathRate(const QString& peer) {
    std::lock_guard<std::mutex> lock(g_pathsLock);
    const auto it = g_paths.find(peer.toStdString());
    if (it == g_paths.end() || monotonicUs() - it->second.stampUs > kPathMemoryUs)
        return 0.0;
    return it->second.rate;
}

void forgetPaths() {
    std::lock_guard<std::mutex> lock(g_pathsLock);
    for (auto it = g_paths.begin(); it != g_paths.end();) {
        it->second.rate = 0.0;
        if (it->second.open.empty())
            it = g_paths.erase(it);
        else
            ++it;
    }
}

qint64 peerArrivals(int socket) {
    const VeskCongestion* control = veskControlOf(socket);
    return control ? control->peerArrivals() : -1;
}

} // namespace net
} // namespace VESK
