#include "SignalHandling.h"

#include "Console.h"

#include <QtGlobal>

#include <csignal>
#include <cstdlib>
#include <mutex>
#include <pthread.h>
#include <thread>
#include <unistd.h>

namespace VESK {
namespace host {

namespace {

struct WatcherState {
    std::mutex mutex;
    InterruptReaction reaction;
    int count = 0;
};

WatcherState& state() {
    static WatcherState s;
    return s;
}

sigset_t interruptSignals() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    return set;
}

void watch() {
    const sigset_t set = interruptSignals();
    for (;;) {
        int signal = 0;
        if (sigwait(&set, &signal) != 0)
            continue;
        // The reaction runs under the lock, so a command that replaces it afterwards knows the
        // old one is not running any more.
        std::lock_guard<std::mutex> lock(state().mutex);
        if (!state().reaction) {
            // Nothing is running that could keep a partial state worth stopping cleanly.
            static const char message[] = "vesk: interrupted\n";
            const ssize_t written = ::write(STDERR_FILENO, message, sizeof message - 1);
            Q_UNUSED(written)
            std::_Exit(kExitInterrupted);
        }
        state().reaction(signal, ++state().count);
    }
}

} // namespace

void blockInterrupts() {
    const sigset_t set = interruptSignals();
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

void startInterruptWatcher() {
    static std::once_flag once;
    std::call_once(once, [] { std::thread(watch).detach(); });
}

void setInterruptReaction(InterruptReaction reaction) {
    std::lock_guard<std::mutex> lock(state().mutex);
    state().reaction = std::move(reaction);
    state().count = 0;
}

} // namespace host
} // namespace VESK
