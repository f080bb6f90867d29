#pragma once

// What became of one client task, named once from what the session returned (the handler's
// getLastError(), its verdicts and the session's own observations), so that the sentences, the
// exit status and the summary of many tasks all read the same answer.

#include "ClientSession.h"

namespace VESK {
namespace host {

enum class Outcome {
    Done,         // the task did what it was asked (a copy: the data was sent and verified)
    Identical,    // a copy whose destination was already identical: nothing was sent
    KeptExisting, // a copy whose existing destination was kept by name (--ignore-existing)
    Interrupted,  // stopped by Ctrl-C or SIGTERM; a copy's partial file stays for a resume
    Cancelled,    // stopped by a second Ctrl-C; a download's partial file is gone
    Stalled,      // stopped because the server made no progress for the stall timeout
    VerifyFailed, // the copy did not match its source and was removed
    Failed,       // anything else; ErrorText says why in one sentence
};

// Names the outcome of a task that ran.
Outcome outcomeOf(const ClientTask& task, const TaskResult& result);

// Whether the outcome leaves the destination as the user wanted it.
inline bool succeeded(Outcome outcome) {
    return outcome == Outcome::Done || outcome == Outcome::Identical ||
           outcome == Outcome::KeptExisting;
}

} // namespace host
} // namespace VESK
