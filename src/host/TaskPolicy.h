#pragma once

// What the server host lets one connection do, decided before its handler runs: who the peer is
// and which applications it may reach. The hello fills it (authentication and access rights);
// the check of the task's parameters enforces it, so the handler only ever sees tasks that are
// allowed.

#include <QString>
#include <QStringList>

namespace VESK {
namespace host {

struct TaskPolicy {
    // The authenticated user, which replaces whatever "userName" the peer's task names; empty on
    // an anonymous connection, where the peer's own "userName" is kept.
    QString user;
    // Application keys this peer may reach; any other key is answered as an unknown application,
    // so a forbidden application cannot be told from a missing one.
    QStringList apps;
    // The subset of `apps` where the peer may also write (upload, createDir); elsewhere only
    // download and list.
    QStringList writableApps;

    bool mayReach(const QString& app) const { return apps.contains(app); }
    bool mayWrite(const QString& app) const { return writableApps.contains(app); }
};

} // namespace host
} // namespace VESK
