#pragma once

// Ctrl-C and SIGTERM for the whole program. The two signals are blocked in every thread and
// taken by one watcher thread with sigwait(), so the reaction runs as ordinary code: it may
// lock, call a handler's pause() or close a socket, none of which is safe in a signal handler.

#include <functional>

namespace VESK {
namespace host {

// Called on the watcher thread; `count` numbers the interrupts since the reaction was set.
using InterruptReaction = std::function<void(int signal, int count)>;

// Blocks SIGINT and SIGTERM in the calling thread. Call it first thing in main(), before any
// thread exists (UDT starts its own), so that every later thread inherits the mask.
void blockInterrupts();

// Starts the watcher thread (once). Until a reaction is set, an interrupt ends the program with
// status 130, as the shell's default would.
void startInterruptWatcher();

// Replaces the reaction; an empty function restores the default.
void setInterruptReaction(InterruptReaction reaction);

} // namespace host
} // namespace VESK
