#include "ClientCredentials.h"

#include "Auth.h"

#include <QFileInfo>
#include <QStandardPaths>

#include <pwd.h>
#include <unistd.h>

namespace VESK {
namespace host {

QString localUserName() {
    if (const passwd* pw = ::getpwuid(::geteuid()))
        return QString::fromLocal8Bit(pw->pw_name);
    return qEnvironmentVariable("USER");
}

QString defaultSecretFile() {
    return QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation) + "/vesk/secret";
}

QString findCredentials(const VeskUrl& url, const QString& secretFile,
                        ClientCredentials* credentials) {
    credentials->user = url.user.isEmpty() ? localUserName() : url.user;
    QString path = secretFile;
    bool named = !path.isEmpty();
    if (!named) {
        path = qEnvironmentVariable("VESK_SECRET_FILE");
        named = !path.isEmpty();
    }
    if (!named) {
        path = defaultSecretFile();
        // The per-user file is optional: without it the client is anonymous.
        if (!QFileInfo::exists(path))
            return QString();
    }
    const QString problem = readSecretFile(path, &credentials->secret);
    if (!problem.isEmpty())
        return problem;
    credentials->mustProve = named || !url.user.isEmpty();
    return QString();
}

} // namespace host
} // namespace VESK
