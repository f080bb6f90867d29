#include "MachineId.h"

#include "Auth.h"

#include <QSysInfo>

namespace VESK {
namespace host {

const char* const kVeskApplicationId = "dfb1adfca05143d68c4af3bc869d269a";

QString appSpecificId(const QByteArray& machineId, const QByteArray& applicationId) {
    QByteArray id = hmacSha256(machineId, applicationId).left(16);
    if (id.size() != 16)
        return QString();
    // Version 4, variant 1 (RFC 4122).
    id[6] = char((quint8(id[6]) & 0x0f) | 0x40);
    id[8] = char((quint8(id[8]) & 0x3f) | 0x80);
    const QByteArray hex = id.toHex();
    return QString::fromLatin1(hex.left(8) + '-' + hex.mid(8, 4) + '-' + hex.mid(12, 4) + '-' +
                               hex.mid(16, 4) + '-' + hex.mid(20));
}

QString machineIdentity() {
    const QByteArray applicationId = QByteArray::fromHex(kVeskApplicationId);
    // Qt reads /etc/machine-id (or D-Bus's copy) as 32 hex digits.
    const QByteArray machineId = QByteArray::fromHex(QSysInfo::machineUniqueId());
    if (machineId.size() == 16)
        return appSpecificId(machineId, applicationId);
    return appSpecificId(QSysInfo::machineHostName().toUtf8(), applicationId);
}

} // namespace host
} // namespace VESK
