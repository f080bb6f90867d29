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

QString hostPortText(const QString& host, quint16 port) {
    return QString(host.contains(':') ? "[%1]:%2" : "%1:%2").arg(host, QString::number(port));
}

QString VeskUrl::toString() const {
    return QString("vesk://%1%2/%3%4")
        .arg(user.isEmpty() ? QString() : user + '@', hostPortText(host, port), appKey, path);
}

QString VeskUrl::fileName() const {
    return path.mid(path.lastIndexOf('/') + 1);
}

QString VeskUrl::directory() const {
    return path.left(std::max(0, int(path.lastIndexOf('/'))));
}

bool parseHostPort(const QString& text, QString& host, quint16& port, bool allowZero,
                   QString* error) {
    // An IPv6 address goes in brackets, as in URLs: "[::1]:9000", "[fe80::1%eth0]".
    int colon = text.lastIndexOf(':');
    if (text.startsWith('[')) {
        const int close = text.indexOf(']');
        host = text.mid(1, close - 1);
        colon = close + 1 < text.size() && text.at(close + 1) == ':' ? close + 1 : -1;
        if (close < 0 || !host.contains(':') || host.contains('[') ||
            (colon < 0 && close + 1 != text.size())) {
            setError(error, QString("'%1' does not name a host (an IPv6 address goes in "
                                    "brackets: [::1]:9000)")
                                .arg(text));
            return false;
        }
    } else {
        host = colon < 0 ? text : text.left(colon);
    }
    if (host.isEmpty() || host.contains('[') || (host.contains(':') && !text.startsWith('['))) {
        setError(error, QString("'%1' does not name a host (IPv4 address, name, or IPv6 address "
                                "in brackets)")
                            .arg(text));
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
    url = VeskUrl();
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
    url.portGiven = authority.endsWith(':' + QString::number(url.port));

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
