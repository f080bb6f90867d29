#include "Url.h"

#include <QStringList>

namespace VESK {
namespace host {

namespace {

const QLatin1String kScheme("vesk://");

void setError(QString* error, const QString& text) {
    if (error)
        *error = text;
}

} // namespace

QString VeskUrl::toString() const {
    return QString("vesk://%1%2:%3/%4%5")
        .arg(user.isEmpty() ? QString() : user + '@', host, QString::number(port), appKey, path);
}

QString VeskUrl::fileName() const {
    return path.mid(path.lastIndexOf('/') + 1);
}

QString VeskUrl::directory() const {
    return path.left(std::max(0, int(path.lastIndexOf('/'))));
}

bool parseHostPort(const QString& text, QString& host, quint16& port, bool allowZero,
                   QString* error) {
    const int colon = text.lastIndexOf(':');
    host = colon < 0 ? text : text.left(colon);
    if (host.isEmpty() || host.contains('[') || host.contains(':')) {
        setError(error, QString("'%1' does not name a host (IPv4 address or name)").arg(text));
        return false;
    }
    if (colon < 0) {
        port = kDefaultPort;
        return true;
    }
    bool ok = false;
    const uint value = text.mid(colon + 1).toUInt(&ok, 10);
    if (!ok || value > 65535 || (value == 0 && !allowZero)) {
        setError(error, QString("'%1' is not a valid port").arg(text.mid(colon + 1)));
        return false;
    }
    port = quint16(value);
    return true;
}

bool parseUrl(const QString& text, VeskUrl& url, QString* error) {
    if (!text.startsWith(kScheme)) {
        setError(error,
                 QString("'%1' is not a vesk URL (vesk://[USER@]HOST:PORT/APPKEY/PATH)").arg(text));
        return false;
    }
    const QString rest = text.mid(kScheme.size());
    const int slash = rest.indexOf('/');
    QString authority = slash < 0 ? rest : rest.left(slash);
    const int at = authority.lastIndexOf('@');
    if (at >= 0) {
        url.user = authority.left(at);
        authority = authority.mid(at + 1);
        if (url.user.isEmpty()) {
            setError(error, QString("'%1' names an empty user before '@'").arg(text));
            return false;
        }
    }
    if (!parseHostPort(authority, url.host, url.port, false, error))
        return false;

    QStringList segments =
        rest.mid(slash < 0 ? rest.size() : slash + 1).split('/', Qt::SkipEmptyParts);
    segments.removeAll(QStringLiteral("."));
    if (segments.contains(QStringLiteral(".."))) {
        setError(error, QString("'%1': '..' is not allowed in a vesk URL").arg(text));
        return false;
    }
    if (segments.isEmpty()) {
        setError(error,
                 QString("'%1' names no application (vesk://HOST:PORT/APPKEY/PATH)").arg(text));
        return false;
    }
    url.appKey = segments.takeFirst();
    url.path = segments.isEmpty() ? QString() : '/' + segments.join('/');
    return true;
}

} // namespace host
} // namespace VESK
