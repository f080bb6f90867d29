#pragma once

// How a client names its machine to a server ("mac"): an identifier of the machine that is
// stable, yet specific to vesk. The machine id itself must never leave the machine (other
// programs use it as a secret), so what goes out is a keyed hash of it: HMAC-SHA256 keyed by the
// machine id over vesk's own fixed application id, its first 16 bytes made a version-4 UUID. The
// same derivation as systemd's sd_id128_get_machine_app_specific(), so `systemd-id128
// machine-id --app-specific=...` with vesk's id shows the same value.

#include <QByteArray>
#include <QString>

namespace VESK {
namespace host {

// vesk's application id, 128 bits, as 32 hex digits.
extern const char* const kVeskApplicationId;

// The application-specific identifier of a machine whose id is `machineId` (16 bytes), as a
// UUID "xxxxxxxx-xxxx-4xxx-yxxx-xxxxxxxxxxxx".
QString appSpecificId(const QByteArray& machineId, const QByteArray& applicationId);

// This machine's identifier for vesk. Without a machine id, the same hash keyed by the host
// name, so that nothing identifying is sent as it is.
QString machineIdentity();

} // namespace host
} // namespace VESK
