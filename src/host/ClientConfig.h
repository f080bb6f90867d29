#pragma once

// The client's configuration file, $XDG_CONFIG_HOME/vesk/config (by default
// ~/.config/vesk/config): INI groups named after servers, so that a URL can name a server by a
// short name.
//
//   [backup]
//   host = 2001:db8::7
//   port = 9000
//   user = alice
//   secret-file = secrets/backup      (relative to the file's directory; ~/ is the home)
//
// makes vesk://backup/appA/docs mean vesk://alice@[2001:db8::7]:9000/appA/docs with that secret.

#include "Url.h"

namespace VESK {
namespace host {

QString clientConfigFile();

// When `url.host` names a group of the client configuration, puts its host, port (unless the URL
// gives one) and user (unless the URL names one) into `url`, and its secret file into
// `secretFile` ("" when it names none). "" on success, also when there is no such group; else
// the problem.
QString applyServerAlias(VeskUrl& url, QString* secretFile);

} // namespace host
} // namespace VESK
