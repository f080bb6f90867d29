#pragma once

// What a handler logged during one task, kept so that the host can explain a failure in one
// sentence (client) or one summary line (server).

#include "base/VeskBase.h"

#include <QMutex>
#include <QStringList>

#include <memory>

namespace VESK {
namespace host {

class TaskLog {
public:
    // Starts recording the handler's log; the record outlives the handler if need be.
    explicit TaskLog(VeskBase* handler);

    // Messages of one level, oldest first.
    QStringList messages(const QString& level) const;
    QStringList errors() const { return messages(QStringLiteral("error")); }
    bool contains(const QString& level, const QString& message) const;

private:
    struct Entry {
        QString level;
        QString message;
    };
    struct Record {
        mutable QMutex mutex;
        QList<Entry> entries;
    };
    std::shared_ptr<Record> m_record;
};

} // namespace host
} // namespace VESK
