#include "ClientConfig.h"

#include <QDir>
#include <QFileInfo>
#include <QSettings>
#include <QStandardPaths>

namespace VESK {
namespace host {

QString clientConfigFile() {
    return QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation) + "/vesk/config";
}

QString applyServerAlias(VeskUrl& url, QString* secretFile) {
    secretFile->clear();
    const QString path = clientConfigFile();
    if (!QFileInfo::exists(path))
        return QString();
    QSettings settings(path, QSettings::IniFormat);
    if (settings.status() != QSettings::NoError)
        return QString("cannot read %1").arg(path);
    if (!settings.childGroups().contains(url.host))
        return QString();
    settings.beginGroup(url.host);
    const QString where = QString("[%1] in %2").arg(url.host, path);
    QString host = settings.value("host").toString();
    // An IPv6 address may be written as in URLs, in brackets.
    if (host.startsWith('[') && host.endsWith(']'))
        host = host.mid(1, host.size() - 2);
    if (host.isEmpty())
        return QString("%1 gives no host").arg(where);
    if (!url.portGiven && settings.contains("port")) {
        bool ok = false;
        const uint port = settings.value("port").toString().toUInt(&ok);
        if (!ok || port == 0 || port > 65535)
            return QString("%1: '%2' is not a valid port")
                .arg(where, settings.value("port").toString());
        url.port = quint16(port);
    }
    url.host = host;
    if (url.user.isEmpty())
        url.user = settings.value("user").toString();
    QString secret = settings.value("secret-file").toString();
    if (secret.startsWith(QLatin1String("~/")))
        secret = QDir::home().filePath(secret.mid(2));
    if (!secret.isEmpty())
        *secretFile = QFileInfo(path).dir().absoluteFilePath(secret);
    return QString();
}

} // namespace host
} // namespace VESK
