#include "handler/VeskHandler2_0_0.h"

namespace VESK {

QString VeskHandler2_0_0::getAppPath(const QString& appKey) {
    Q_UNUSED(appKey)
    return QString();
}

void VeskHandler2_0_0::UpdateMtime(QString& path, QString funcName, qint64 mtime) {
    Q_UNUSED(path)
    Q_UNUSED(funcName)
    Q_UNUSED(mtime)
}

} // namespace VESK
