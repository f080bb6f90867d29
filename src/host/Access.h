#pragma once

// Who may use which application of a server that authenticates its users, as given by
// `--access APP=USER:rw[,USER:ro...]` (or an [access] group of the config file), and the
// TaskPolicy of one connection that follows from it.

#include "TaskPolicy.h"

#include <QMap>
#include <QString>

namespace VESK {
namespace host {

struct ServeConfig;

// Application key -> user -> may write.
using AccessRules = QMap<QString, QMap<QString, bool>>;

// Adds the rights of one access line, "USER:rw,USER:ro" for application `app`, to `rules`; the
// line replaces an earlier one for the same application. "" on success, else the problem.
QString addAccessLine(const QString& app, const QString& grants, AccessRules& rules);

// What a connection of `user` may do: on an anonymous server every application, all writable;
// on one that authenticates, the applications its access lines give the user.
TaskPolicy policyFor(const ServeConfig& config, const QString& user);

} // namespace host
} // namespace VESK
