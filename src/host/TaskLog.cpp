#include "TaskLog.h"

#include <QMutexLocker>

namespace VESK {
namespace host {

TaskLog::TaskLog(VeskBase* handler)
    : m_record(std::make_shared<Record>()) {
    auto record = m_record;
    // Without a context object the functor runs on the emitting thread (the task's worker, or
    // the thread that called pause()), so nothing waits for an event loop.
    QObject::connect(handler, &VeskBase::sigLog, [record](QString level, QString message) {
        QMutexLocker lock(&record->mutex);
        record->entries.append({level, message});
    });
}

QStringList TaskLog::messages(const QString& level) const {
    QMutexLocker lock(&m_record->mutex);
    QStringList out;
    for (const Entry& entry : m_record->entries) {
        if (entry.level == level)
            out << entry.message;
    }
    return out;
}

bool TaskLog::contains(const QString& level, const QString& message) const {
    return messages(level).contains(message);
}

} // namespace host
} // namespace VESK
