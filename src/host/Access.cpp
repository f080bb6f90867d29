#include "Access.h"

#include "Server.h"

#include <QStringList>

namespace VESK {
namespace host {

QString addAccessLine(const QString& app, const QString& grants, AccessRules& rules) {
    QMap<QString, bool> users;
    for (const QString& grant : grants.split(',', Qt::SkipEmptyParts)) {
        const QString text = grant.trimmed();
        const int colon = text.lastIndexOf(':');
        const QString user = text.left(colon);
        const QString right = text.mid(colon + 1);
        if (colon <= 0 || (right != QLatin1String("rw") && right != QLatin1String("ro")))
            return QString("access for '%1': '%2' is not USER:rw or USER:ro").arg(app, text);
        users.insert(user, right == QLatin1String("rw"));
    }
    if (users.isEmpty())
        return QString("access for '%1' names no user (APP=USER:rw[,USER:ro...])").arg(app);
    rules.insert(app, users);
    return QString();
}

TaskPolicy policyFor(const ServeConfig& config, const QString& user) {
    TaskPolicy policy;
    policy.user = config.authenticate ? user : QString();
    for (const AppEntry& app : config.apps) {
        if (!config.authenticate) {
            policy.apps << app.key;
            policy.writableApps << app.key;
            continue;
        }
        const QMap<QString, bool> users = config.access.value(app.key);
        if (!users.contains(user))
            continue;
        policy.apps << app.key;
        if (users.value(user))
            policy.writableApps << app.key;
    }
    return policy;
}

} // namespace host
} // namespace VESK
