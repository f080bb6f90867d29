#pragma once

// Many copies in one process: up to N connections at once, one task each, taking the next file
// as each one finishes. One progress line stands for all of them; a failed file is named and
// the others go on; a summary closes the run.

#include "CopyPlan.h"

namespace VESK {
namespace host {

struct BatchOptions {
    int parallel = 4;     // connections at once
    bool verbose = false; // a line for every file as it ends
};

// The line drawn while a batch runs: files done of all, bytes done of all (when known), the
// rate and the time left.
QString batchProgressLine(int filesDone, int files, qint64 bytesDone, qint64 bytes, double seconds);

// The closing sentence: "3 files: 2 copied, 1 already identical, 0 failed; 12 KiB in 0.4 s".
struct BatchCounts {
    int copied = 0;
    int identical = 0;
    int failed = 0;
    int notRun = 0; // left out, or stopped, by an interrupt
    int failedDirectories = 0;
    qint64 moved = 0;
    double seconds = 0.0;
};
QString batchSummary(const BatchCounts& counts);

// Copies `items` (directories first) with `base` as the template of every task: its operation
// ("upload" or "download"), URL, credentials and options. Returns the exit status: 0 when all
// arrived, 1 when any failed, 130 when interrupted.
int runBatch(const ClientTask& base, const QList<CopyItem>& items, const BatchOptions& options);

} // namespace host
} // namespace VESK
