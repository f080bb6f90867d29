#include "Congestion.h"

#include <udt/ccc.h>
#include <udt/udt.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <limits>
#include <new>
#include <random>
#include <type_traits>

namespace VESK {
namespace net {

namespace {

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
    , m_sampleStartUs(startUs)
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
    enter(Phase::Startup, nowUs);
}

void RateModel::onAck(qint64 nowUs, qint64 newlyAcked, qint64 rttUs) {
    if (newlyAcked > 0) {
        m_timeoutsInARow = 0;
        m_delivered += newlyAcked;
        m_sampleDelivered += newlyAcked;
    }
    if (rttUs > 0) {
        updateMinRtt(nowUs, rttUs);
        m_roundLowRttUs = std::min(m_roundLowRttUs, rttUs);
        if (m_phase == Phase::ProbeRtt)
            m_probeRttLowUs = std::min(m_probeRttLowUs, rttUs);
    }

    if (m_delivered >= m_roundEndsAt) {
        const bool sampled = nowUs - m_sampleStartUs >= kMinSampleUs;
        if (sampled)
            takeRateSample(nowUs);
        endRound(nowUs, sampled);
    }

    const qint64 rtt = m_minRttUs > 0 ? m_minRttUs : kAssumedRttUs;
    switch (m_phase) {
    case Phase::Cruise:
        if (nowUs - m_cycleStartUs >= std::max(rtt, kAckPeriodUs)) {
            m_cycleIndex = (m_cycleIndex + 1) % kCycleLength;
            m_cycleStartUs = nowUs;
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

void RateModel::updateMinRtt(qint64 nowUs, qint64 rttUs) {
    if (m_minRttUs == 0 || rttUs <= m_minRttUs) {
        m_minRttUs = rttUs;
        m_minRttStampUs = nowUs;
    }
}

void RateModel::takeRateSample(qint64 nowUs) {
    const double seconds = double(nowUs - m_sampleStartUs) / 1e6;
    const double rate = double(m_sampleDelivered) / seconds;
    m_sampleStartUs = nowUs;
    m_sampleDelivered = 0;
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
}

void RateModel::endRound(qint64 nowUs, bool sampled) {
    // Many losses in one round: the path is overloaded, whatever the round trip says.
    const bool heavyLoss =
        m_roundSent > 0 && m_roundLost > 1 && m_roundLost > kCongestionLossShare * m_roundSent;
    if (heavyLoss && m_bottleneckRate > 0.0) {
        m_bottleneckRate *= kHeavyLossBackoff;
        m_samples.assign(1, {nowUs, m_bottleneckRate});
        if (m_phase == Phase::Startup)
            enter(Phase::Drain, nowUs);
    }
    m_queueGrowing = m_minRttUs > 0 && m_roundLowRttUs != std::numeric_limits<qint64>::max() &&
                     m_roundLowRttUs > kQueueRttFactor * m_minRttUs + kQueueRttSlackUs;

    switch (m_phase) {
    case Phase::Startup:
        if (sampled && m_bottleneckRate > 0.0) {
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
    m_roundSent = 0;
    m_roundLost = 0;
    m_roundLowRttUs = std::numeric_limits<qint64>::max();
}

void RateModel::enter(Phase phase, qint64 nowUs) {
    m_phase = phase;
    m_phaseStartUs = nowUs;
    m_cycleStartUs = nowUs;
    if (phase == Phase::ProbeRtt)
        m_probeRttLowUs = std::numeric_limits<qint64>::max();
}

double RateModel::bdpPackets() const {
    const qint64 rtt = m_minRttUs > 0 ? m_minRttUs : kAssumedRttUs;
    return m_bottleneckRate * double(rtt + kAckPeriodUs) / 1e6;
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
    if (m_minRttUs <= 0 || smoothedRttUs <= 0)
        return 0;
    qint64 timeout = baseTimeoutUs(smoothedRttUs);
    for (int i = 0; i < m_timeoutsInARow && timeout < kMaxRetransmitTimeoutUs; ++i)
        timeout *= 2;
    return std::min(timeout, kMaxRetransmitTimeoutUs);
}

double RateModel::sendPeriodUs() const {
    if (m_bottleneckRate <= 0.0)
        return kInitialPeriodUs;
    return 1e6 / (pacingGain() * std::max(m_bottleneckRate, floorRate()));
}

double RateModel::windowPackets() const {
    if (m_phase == Phase::ProbeRtt)
        return kProbeRttWindowPackets;
    if (m_bottleneckRate <= 0.0)
        return kMinWindowPackets;
    const double gain = m_phase == Phase::Cruise ? kCruiseWindowGain : kStartupGain;
    // UDT acknowledges cumulatively: what arrived after a lost packet counts as in flight until
    // the resend arrives, and when the resend is lost too, until the timeout sends it again.
    const qint64 rtt = m_minRttUs > 0 ? m_minRttUs : kAssumedRttUs;
    const double recovery = m_bottleneckRate * double(rtt + baseTimeoutUs(rtt)) / 1e6;
    return std::max(gain * bdpPackets() + recovery, double(kMinWindowPackets));
}

// ---- LossRepair -------------------------------------------------------------------------------

void LossRepair::onPacket(qint64 seq, qint64 nowUs) {
    if (m_highest < 0) {
        m_highest = seq;
        return;
    }
    if (seq <= m_highest) {
        m_missing.erase(seq);
        return;
    }
    for (qint64 s = m_highest + 1; s < seq && int(m_missing.size()) < kMaxTracked; ++s) {
        m_missing.insert(s);
        m_reports.emplace_back(nowUs, s);
    }
    m_highest = seq;
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

// A loss report as UDT's own control packet. CCC::sendCustomMsg() sends any packet to the peer,
// but the library keeps CPacket's constructor and pack() to itself, so the object is laid out
// here as the installed header declares it (its reference members are pointers in this ABI)
// and filled as pack() fills a loss report: the control bit and type 3 in the first header
// word, the loss entries as the payload. UDT converts both to network order when it sends.
class LossReportPacket {
public:
    explicit LossReportPacket(std::vector<qint32>& entries) {
        Image* image = new (m_storage) Image;
        image->seqNo = reinterpret_cast<int32_t*>(&image->header[0]);
        image->msgNo = reinterpret_cast<int32_t*>(&image->header[1]);
        image->timeStamp = reinterpret_cast<int32_t*>(&image->header[2]);
        image->id = reinterpret_cast<int32_t*>(&image->header[3]);
        image->data = reinterpret_cast<char**>(&image->vector[1].iov_base);
        image->header[0] = 0x80000000u | (quint32(kLossReportType) << 16);
        image->vector[0].iov_base = image->header;
        image->vector[0].iov_len = sizeof image->header;
        image->vector[1].iov_base = entries.data();
        image->vector[1].iov_len = entries.size() * sizeof(qint32);
    }
    LossReportPacket(const LossReportPacket&) = delete;
    LossReportPacket& operator=(const LossReportPacket&) = delete;

    CPacket& packet() { return *std::launder(reinterpret_cast<CPacket*>(m_storage)); }

private:
    static constexpr int kLossReportType = 3;

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

// UDT calls onPktSent() on its sending thread and everything else on its receiving thread, so
// the sending side only records how far it got, and the model runs on the receiving thread.
class VeskCongestion : public CCC {
public:
    void init() override {
        static std::atomic<unsigned> flows{0};
        std::minstd_rand random(unsigned(monotonicUs()) ^ (flows++ * 2654435761u));
        m_model = RateModel(monotonicUs(), int(random() % 8));
        apply();
    }

    void onPktSent(const CPacket* packet) override {
        const int32_t seq = packet->m_iSeqNo;
        const int32_t highest = m_highestSent.load(std::memory_order_relaxed);
        if (highest < 0 || sequenceDistance(highest, seq) > 0)
            m_highestSent.store(seq, std::memory_order_relaxed);
        if (m_firstSent.load(std::memory_order_relaxed) < 0)
            m_firstSent.store(seq, std::memory_order_release);
    }

    void onACK(int32_t ack) override {
        const qint64 now = monotonicUs();
        catchUpSent();
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
        m_model.onAck(now, acked, m_iRTT);
        apply();
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
    }

    void onTimeout() override {
        m_model.onTimeout(monotonicUs());
        apply();
    }

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
        m_repair.onPacket(m_unwrapped, now);
        if (m_repair.missing() == 0 || now - m_lastRepairScanUs < kRepairScanUs)
            return;
        m_lastRepairScanUs = now;
        const std::vector<qint64> due =
            m_repair.due(now, LossRepair::intervalFor(m_iRTT), kMaxReportedPerPacket);
        if (due.empty())
            return;
        std::vector<qint32> entries = lossReport(due, qint32(m_wireBase));
        LossReportPacket report(entries);
        sendCustomMsg(report.packet());
    }

private:
    void catchUpSent() {
        const int32_t highest = m_highestSent.load(std::memory_order_relaxed);
        if (highest < 0)
            return;
        if (m_countedSent < 0) {
            const int32_t first = m_firstSent.load(std::memory_order_acquire);
            m_model.onSent(sequenceDistance(first, highest) + 1);
        } else {
            m_model.onSent(sequenceDistance(m_countedSent, highest));
        }
        m_countedSent = highest;
    }

    void apply() {
        m_dPktSndPeriod = m_model.sendPeriodUs();
        m_dCWndSize = m_model.windowPackets();
        if (const qint64 timeout = m_model.retransmitTimeoutUs(m_iRTT); timeout > 0)
            setRTO(int(timeout));
    }

    // Missing packets named in one report: well inside the smallest packet's payload.
    static constexpr int kMaxReportedPerPacket = 200;
    static constexpr qint64 kRepairScanUs = 5'000;

    RateModel m_model;
    LossRepair m_repair;
    qint64 m_wireBase = -1; // UDT's number of the first packet received
    int32_t m_lastWire = 0;
    qint64 m_unwrapped = 0; // the last packet received, counted from the first
    qint64 m_lastRepairScanUs = 0;
    std::atomic<int32_t> m_highestSent{-1};
    std::atomic<int32_t> m_firstSent{-1};
    int32_t m_countedSent = -1;
    int32_t m_lastAck = -1;
    int32_t m_highestLost = -1;
};

} // namespace

bool useCongestion(int socket, Congestion congestion) {
    if (congestion == Congestion::Udt)
        return true;                    // UDT's default
    CCCFactory<VeskCongestion> factory; // UDT keeps a copy
    return UDT::setsockopt(socket, 0, UDT_CC, &factory, sizeof factory) != UDT::ERROR;
}

Congestion congestionOf(int socket) {
    CCC* control = nullptr;
    int len = sizeof control;
    if (UDT::getsockopt(socket, 0, UDT_CC, &control, &len) == UDT::ERROR || !control)
        return Congestion::Udt;
    return dynamic_cast<VeskCongestion*>(control) ? Congestion::Vesk : Congestion::Udt;
}

} // namespace net
} // namespace VESK
