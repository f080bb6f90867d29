// wan-relay: the middle of bench/wan's emulated link. It takes every frame arriving on one
// interface, drops it with a given probability, and sends it out of the other interface after a
// fixed delay, in both directions (one thread each). The kernel it runs on has no netem qdisc;
// this is the delay and loss part of one (the link rate is a tbf qdisc on the end points).
//
//   wan-relay IF_A IF_B ONE_WAY_DELAY_US LOSS_PERCENT
//
// It runs until killed and prints, on SIGTERM, frames passed and dropped per direction.

#define _GNU_SOURCE
#include <arpa/inet.h>
#include <errno.h>
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

enum { kSlots = 65536, kFrameMax = 2048 };

struct frame {
    uint64_t due_ns;
    int length;
    unsigned char data[kFrameMax];
};

struct direction {
    const char* from_name;
    int from, to; // packet sockets
    int to_index;
    uint64_t delay_ns;
    uint32_t drop_below; // a frame is dropped when a random 32-bit value is below this
    uint64_t passed, dropped, overflow;
    struct frame* ring;
    unsigned head, tail;
    uint64_t random;
};

static struct direction g_dirs[2];

static uint64_t now_ns(void) {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (uint64_t)ts.tv_sec * 1000000000ull + (uint64_t)ts.tv_nsec;
}

static uint32_t next_random(struct direction* d) {
    // xorshift64*: fast, and good enough to pick frames to drop.
    d->random ^= d->random >> 12;
    d->random ^= d->random << 25;
    d->random ^= d->random >> 27;
    return (uint32_t)((d->random * 2685821657736338717ull) >> 32);
}

static int open_on(const char* name, int* index) {
    const int fd = socket(AF_PACKET, SOCK_RAW, htons(ETH_P_ALL));
    if (fd < 0) {
        perror("socket");
        exit(1);
    }
    *index = (int)if_nametoindex(name);
    if (*index == 0) {
        fprintf(stderr, "wan-relay: no interface %s\n", name);
        exit(1);
    }
    struct sockaddr_ll addr = {0};
    addr.sll_family = AF_PACKET;
    addr.sll_protocol = htons(ETH_P_ALL);
    addr.sll_ifindex = *index;
    if (bind(fd, (struct sockaddr*)&addr, sizeof addr) != 0) {
        perror("bind");
        exit(1);
    }
    const int one = 1;
    // Frames this relay sends out of an interface must not come back in as received ones.
    setsockopt(fd, SOL_PACKET, PACKET_IGNORE_OUTGOING, &one, sizeof one);
    const int buffer = 64 << 20;
    setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &buffer, sizeof buffer);
    setsockopt(fd, SOL_SOCKET, SO_SNDBUFFORCE, &buffer, sizeof buffer);
    return fd;
}

static void* run(void* arg) {
    struct direction* d = arg;
    struct sockaddr_ll to = {0};
    to.sll_family = AF_PACKET;
    to.sll_ifindex = d->to_index;
    to.sll_halen = ETH_ALEN;
    for (;;) {
        const uint64_t now = now_ns();
        while (d->head != d->tail && d->ring[d->head].due_ns <= now) {
            struct frame* f = &d->ring[d->head];
            memcpy(to.sll_addr, f->data, ETH_ALEN);
            while (sendto(d->to, f->data, (size_t)f->length, 0, (struct sockaddr*)&to, sizeof to) <
                       0 &&
                   errno == ENOBUFS)
                usleep(20);
            d->head = (d->head + 1) % kSlots;
            ++d->passed;
        }
        int wait_ms = 10;
        if (d->head != d->tail) {
            const uint64_t left = d->ring[d->head].due_ns - now;
            wait_ms = left > 1000000 ? (int)(left / 1000000) : 0;
        }
        struct pollfd p = {d->from, POLLIN, 0};
        if (wait_ms > 0)
            poll(&p, 1, wait_ms);
        else if (d->head != d->tail) {
            // Less than a millisecond to the next departure: a short sleep, then check again.
            const struct timespec pause = {0, 20000};
            nanosleep(&pause, NULL);
        }
        for (;;) {
            struct frame* f = &d->ring[d->tail];
            const ssize_t n = recv(d->from, f->data, kFrameMax, MSG_DONTWAIT);
            if (n <= 0)
                break;
            if (next_random(d) < d->drop_below) {
                ++d->dropped;
                continue;
            }
            const unsigned next = (d->tail + 1) % kSlots;
            if (next == d->head) {
                ++d->overflow;
                continue;
            }
            f->length = (int)n;
            f->due_ns = now_ns() + d->delay_ns;
            d->tail = next;
        }
    }
    return NULL;
}

static void report(int sig) {
    (void)sig;
    for (int i = 0; i < 2; ++i)
        fprintf(stderr, "wan-relay: from %s: %llu passed, %llu dropped, %llu overflowed\n",
                g_dirs[i].from_name, (unsigned long long)g_dirs[i].passed,
                (unsigned long long)g_dirs[i].dropped, (unsigned long long)g_dirs[i].overflow);
    _exit(0);
}

int main(int argc, char** argv) {
    if (argc != 5) {
        fprintf(stderr, "usage: wan-relay IF_A IF_B ONE_WAY_DELAY_US LOSS_PERCENT\n");
        return 2;
    }
    const uint64_t delay_ns = strtoull(argv[3], NULL, 10) * 1000ull;
    const double loss = strtod(argv[4], NULL) / 100.0;
    int index_a = 0, index_b = 0;
    const int a = open_on(argv[1], &index_a);
    const int b = open_on(argv[2], &index_b);
    for (int i = 0; i < 2; ++i) {
        struct direction* d = &g_dirs[i];
        d->from_name = i == 0 ? argv[1] : argv[2];
        d->from = i == 0 ? a : b;
        d->to = i == 0 ? b : a;
        d->to_index = i == 0 ? index_b : index_a;
        d->delay_ns = delay_ns;
        d->drop_below = (uint32_t)(loss * 4294967296.0);
        d->ring = calloc(kSlots, sizeof(struct frame));
        d->random = now_ns() * 2654435761ull + (uint64_t)i + 1;
        if (!d->ring) {
            fprintf(stderr, "wan-relay: out of memory\n");
            return 1;
        }
    }
    signal(SIGTERM, report);
    signal(SIGINT, report);
    pthread_t threads[2];
    for (int i = 0; i < 2; ++i)
        pthread_create(&threads[i], NULL, run, &g_dirs[i]);
    pthread_join(threads[0], NULL);
    return 0;
}
