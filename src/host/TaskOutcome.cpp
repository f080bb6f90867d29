#include "TaskOutcome.h"

#include "Transfer.h"

namespace VESK {
namespace host {

namespace {

// A copy the handler found already in place announces its second pass, the one piece of news
// it reports only in its log.
bool wasSecondPass(const TaskResult& r) {
    for (const QString& line : r.infos) {
        if (line.endsWith(QLatin1String(" second pass.")))
            return true;
    }
    return false;
}

} // namespace

Outcome outcomeOf(const ClientTask& task, const TaskResult& r) {
    if (r.ok) {
        if (!wasSecondPass(r))
            return Outcome::Done;
        return task.ignoreExisting ? Outcome::KeptExisting : Outcome::Identical;
    }
    const bool stopped =
        r.lastError == QLatin1String("pause") || r.lastError == QLatin1String("cancel");
    if (r.stalled && !r.interrupted && r.lastError == QLatin1String("pause"))
        return Outcome::Stalled;
    if (r.interrupted && stopped)
        return r.lastError == QLatin1String("cancel") || r.cancelledAfterPause
                   ? Outcome::Cancelled
                   : Outcome::Interrupted;
    if (verificationFailed(r.errors))
        return Outcome::VerifyFailed;
    return Outcome::Failed;
}

} // namespace host
} // namespace VESK
