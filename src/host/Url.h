#pragma once

// vesk://[USER@]HOST:PORT/APPKEY/PATH: who connects, the server, the application and the place
// inside its directory.

#include <QString>

namespace VESK {
namespace host {

constexpr quint16 kDefaultPort = 9000;

struct VeskUrl {
    QString user; // "" when the URL names none
    QString host;
    quint16 port = kDefaultPort;
    bool portGiven = false; // the URL names the port (else kDefaultPort, or a server alias's)
    QString appKey;
    // "/dir/file.txt", or "" for the application's own directory.
    QString path;

    QString toString() const;
    QString fileName() const;  // last segment of path ("" for the application's directory)
    QString directory() const; // path without its last segment ("" at the top)
};

// Parses `text`; on failure returns false with a sentence in `error`. "." segments are dropped,
// ".." is refused (the server confines paths anyway, so it could only surprise the user).
bool parseUrl(const QString& text, VeskUrl& url, QString* error);

// "HOST:PORT", with an IPv6 address in brackets ("[::1]:9000").
QString hostPortText(const QString& host, quint16 port);

// "HOST:PORT" ("[ADDRESS]:PORT" for IPv6) with the port in 0..65535 (0 only when `allowZero`); used
// by serve --listen too.
bool parseHostPort(const QString& text, QString& host, quint16& port, bool allowZero,
                   QString* error);

} // namespace host
} // namespace VESK
