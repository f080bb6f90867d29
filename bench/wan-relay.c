// wan-relay: the middle of bench/wan's emulated link. It takes every frame arriving on one
// interface, drops it with a given probability, and sends it out of the other interface after a
// fixed delay, in both directions. The kernel it runs on has no netem qdisc; this is the delay
// and loss part of one (the link rate is a tbf qdisc on the end points).
//
//   wan-relay IF_A IF_B ONE_WAY_DELAY_US LOSS_PERCENT
//
// It runs until killed and prints, on SIGTERM, frames passed and dropped per direction.
//
// The relay shares the machine's cores with both ends of the transfer it carries, so it must
// cost as little as it can: one thread for both directions, frames moved in batches
// (recvmmsg/sendmmsg), and a wake-up on a short fixed tick rather than for every frame. A frame's
// delay counts from the kernel's receive timestamp, so waiting for the tick to receive it does not
// add to it; it leaves on the first tick at or after its due time.

#define _GNU_SOURCE
#include <arpa/inet.h>
#include <errno.h>
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

enum { kSlots = 65536, kFrameMax = 2048, kBatch = 64 };
static const uint64_t kTickNs = 100000;  // how long the relay sleeps between rounds
static const uint64_t kRetryNs = 20000;  // how long it waits when an egress queue is full

struct frame {
    uint64_t due_ns;
    unsigned length;
    unsigned char data[kFrameMax];
};

struct direction {
    const char* from_name;
    int from, to; // packet sockets
    uint64_t delay_ns;
    uint64_t drop_below; // a frame is dropped when a random 64-bit value is below this
    uint64_t passed, dropped, overflow;
    struct frame* ring; // frames waiting for their due time, oldest at head
    unsigned head, count;
    uint64_t random;
};

static struct direction g_dirs[2];
static volatile sig_atomic_t g_stop = 0;

static uint64_t clock_ns(clockid_t clock) {
    struct timespec ts;
    clock_gettime(clock, &ts);
    return (uint64_t)ts.tv_sec * 1000000000ull + (uint64_t)ts.tv_nsec;
}

static uint64_t next_random(struct direction* d) {
    // xorshift64*: fast, and good enough to pick frames to drop.
    d->random ^= d->random >> 12;
    d->random ^= d->random << 25;
    d->random ^= d->random >> 27;
    return d->random * 2685821657736338717ull;
}

static int open_on(const char* name) {
    const int fd = socket(AF_PACKET, SOCK_RAW | SOCK_NONBLOCK, htons(ETH_P_ALL));
    if (fd < 0) {
        perror("socket");
        exit(1);
    }
    struct sockaddr_ll addr = {0};
    addr.sll_family = AF_PACKET;
    addr.sll_protocol = htons(ETH_P_ALL);
    addr.sll_ifindex = (int)if_nametoindex(name);
    if (addr.sll_ifindex == 0) {
        fprintf(stderr, "wan-relay: no interface %s\n", name);
        exit(1);
    }
    if (bind(fd, (struct sockaddr*)&addr, sizeof addr) != 0) {
        perror("bind");
        exit(1);
    }
    const int one = 1;
    // Frames this relay sends out of an interface must not come back in as received ones.
    setsockopt(fd, SOL_PACKET, PACKET_IGNORE_OUTGOING, &one, sizeof one);
    setsockopt(fd, SOL_SOCKET, SO_TIMESTAMPNS, &one, sizeof one);
    const int buffer = 64 << 20;
    setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &buffer, sizeof buffer);
    setsockopt(fd, SOL_SOCKET, SO_SNDBUFFORCE, &buffer, sizeof buffer);
    return fd;
}

// The monotonic time a frame arrived, from its receive timestamp (which the kernel takes on the
// real-time clock), or now when it has none.
static uint64_t arrival_ns(struct msghdr* header, uint64_t now, uint64_t realtime_offset) {
    for (struct cmsghdr* c = CMSG_FIRSTHDR(header); c; c = CMSG_NXTHDR(header, c)) {
        if (c->cmsg_level != SOL_SOCKET || c->cmsg_type != SCM_TIMESTAMPNS)
            continue;
        struct timespec ts;
        memcpy(&ts, CMSG_DATA(c), sizeof ts);
        const uint64_t at = (uint64_t)ts.tv_sec * 1000000000ull + (uint64_t)ts.tv_nsec;
        if (at >= realtime_offset && at - realtime_offset <= now)
            return at - realtime_offset;
    }
    return now;
}

// Takes in whatever has arrived, straight into the ring's free slots.
static void receive(struct direction* d) {
    static unsigned char scratch[kFrameMax];
    static char control[kBatch][CMSG_SPACE(sizeof(struct timespec))];
    struct mmsghdr messages[kBatch];
    struct iovec vectors[kBatch];
    for (;;) {
        const unsigned room = kSlots - d->count;
        for (int i = 0; i < kBatch; ++i) {
            // With the ring full, frames still have to be read (and are counted as overflow).
            vectors[i].iov_base = (unsigned)i < room
                                      ? d->ring[(d->head + d->count + (unsigned)i) % kSlots].data
                                      : scratch;
            vectors[i].iov_len = kFrameMax;
            memset(&messages[i].msg_hdr, 0, sizeof messages[i].msg_hdr);
            messages[i].msg_hdr.msg_iov = &vectors[i];
            messages[i].msg_hdr.msg_iovlen = 1;
            messages[i].msg_hdr.msg_control = control[i];
            messages[i].msg_hdr.msg_controllen = sizeof control[i];
        }
        const int got = recvmmsg(d->from, messages, kBatch, MSG_DONTWAIT, NULL);
        if (got <= 0)
            return;
        const uint64_t now = clock_ns(CLOCK_MONOTONIC);
        const uint64_t offset = clock_ns(CLOCK_REALTIME) - now;
        unsigned kept = 0;
        for (int i = 0; i < got; ++i) {
            if ((unsigned)i >= room || messages[i].msg_hdr.msg_flags & MSG_TRUNC) {
                ++d->overflow;
                continue;
            }
            if (next_random(d) < d->drop_below) {
                ++d->dropped;
                continue;
            }
            // Frames behind a dropped one move down so that the ring stays without holes.
            struct frame* to = &d->ring[(d->head + d->count + kept) % kSlots];
            const struct frame* from = &d->ring[(d->head + d->count + (unsigned)i) % kSlots];
            if (to != from)
                memcpy(to->data, from->data, messages[i].msg_len);
            to->length = messages[i].msg_len;
            to->due_ns = arrival_ns(&messages[i].msg_hdr, now, offset) + d->delay_ns;
            ++kept;
        }
        d->count += kept;
        if (got < kBatch)
            return;
    }
}

// Sends every frame that is due by now. Returns 0 when an egress queue was full.
static int send_due(struct direction* d, uint64_t now) {
    struct mmsghdr messages[kBatch];
    struct iovec vectors[kBatch];
    while (d->count && d->ring[d->head].due_ns <= now) {
        int n = 0;
        while (n < kBatch && (unsigned)n < d->count) {
            struct frame* f = &d->ring[(d->head + (unsigned)n) % kSlots];
            if (f->due_ns > now)
                break;
            vectors[n].iov_base = f->data;
            vectors[n].iov_len = f->length;
            memset(&messages[n].msg_hdr, 0, sizeof messages[n].msg_hdr);
            messages[n].msg_hdr.msg_iov = &vectors[n];
            messages[n].msg_hdr.msg_iovlen = 1;
            ++n;
        }
        int sent = sendmmsg(d->to, messages, (unsigned)n, MSG_DONTWAIT);
        if (sent < 0) {
            if (errno == EAGAIN || errno == ENOBUFS || errno == EINTR)
                return 0;
            sent = 1; // a frame the interface refuses for good is dropped, not retried forever
        }
        d->passed += (uint64_t)sent;
        d->head = (d->head + (unsigned)sent) % kSlots;
        d->count -= (unsigned)sent;
        if (sent < n)
            return 0;
    }
    return 1;
}

static void sleep_until(uint64_t when_ns) {
    const struct timespec ts = {(time_t)(when_ns / 1000000000ull), (long)(when_ns % 1000000000ull)};
    clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &ts, NULL);
}

static void on_signal(int sig) {
    (void)sig;
    g_stop = 1;
}

int main(int argc, char** argv) {
    if (argc != 5) {
        fprintf(stderr, "usage: wan-relay IF_A IF_B ONE_WAY_DELAY_US LOSS_PERCENT\n");
        return 2;
    }
    const uint64_t delay_ns = strtoull(argv[3], NULL, 10) * 1000ull;
    const double loss = strtod(argv[4], NULL) / 100.0;
    const int a = open_on(argv[1]);
    const int b = open_on(argv[2]);
    for (int i = 0; i < 2; ++i) {
        struct direction* d = &g_dirs[i];
        d->from_name = i == 0 ? argv[1] : argv[2];
        d->from = i == 0 ? a : b;
        d->to = i == 0 ? b : a;
        d->delay_ns = delay_ns;
        d->drop_below = loss > 0 ? (uint64_t)(loss * 18446744073709551615.0) : 0;
        d->ring = calloc(kSlots, sizeof(struct frame));
        d->random = clock_ns(CLOCK_MONOTONIC) * 2654435761ull + (uint64_t)i + 1;
        if (!d->ring) {
            fprintf(stderr, "wan-relay: out of memory\n");
            return 1;
        }
        // Fault the ring in now rather than in the middle of a measurement.
        memset(d->ring, 0, kSlots * sizeof(struct frame));
    }
    // Sleeps end within a microsecond of when they were asked to, not the default 50.
    prctl(PR_SET_TIMERSLACK, 1000UL, 0, 0, 0);
    signal(SIGTERM, on_signal);
    signal(SIGINT, on_signal);
    while (!g_stop) {
        receive(&g_dirs[0]);
        receive(&g_dirs[1]);
        const uint64_t now = clock_ns(CLOCK_MONOTONIC);
        const int drained = send_due(&g_dirs[0], now) & send_due(&g_dirs[1], now);
        // A frame due before the next tick waits for it: waking for each frame (one every 12 us
        // at 1 Gbit/s) would cost more than moving it, and a tick late is far inside the delay.
        sleep_until(now + (drained ? kTickNs : kRetryNs));
    }
    for (int i = 0; i < 2; ++i)
        fprintf(stderr, "wan-relay: from %s: %llu passed, %llu dropped, %llu overflowed\n",
                g_dirs[i].from_name, (unsigned long long)g_dirs[i].passed,
                (unsigned long long)g_dirs[i].dropped, (unsigned long long)g_dirs[i].overflow);
    return 0;
}
