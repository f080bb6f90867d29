#pragma once

// Where a client's user name and secret come from: the user from the URL (else the local login
// name); the secret from --secret-file, else the file named by VESK_SECRET_FILE, else the
// per-user file ~/.config/vesk/secret (its first line). Never from the command line itself,
// where other users could read it.

#include "HostHello.h"
#include "Url.h"

namespace VESK {
namespace host {

// The name of the user this process runs as.
QString localUserName();

// The per-user secret file: $XDG_CONFIG_HOME/vesk/secret, by default ~/.config/vesk/secret.
QString defaultSecretFile();

// Fills `credentials` for `url`; `secretFile` is the --secret-file value ("" when not given).
// A secret named explicitly (option or environment) or a user named in the URL makes the client
// insist on the server's proof. "" on success, else the problem.
QString findCredentials(const VeskUrl& url, const QString& secretFile,
                        ClientCredentials* credentials);

} // namespace host
} // namespace VESK
