#pragma once

// Modification times as the upload exchanges them: whole seconds in an unsigned 32-bit value.

#include <QDateTime>
#include <QtGlobal>

namespace VESK {

// Seconds since the epoch as an unsigned 32-bit number; an invalid time (a missing file) and any
// time outside the range give 4294967295. Both upload sides compare times in this form.
inline qint64 unsignedSeconds(const QDateTime& time) {
    constexpr quint64 kInvalid = 0xFFFFFFFFu;
    if (!time.isValid())
        return qint64(kInvalid);
    const qint64 seconds = time.toMSecsSinceEpoch() / 1000;
    return quint64(seconds) >= kInvalid ? qint64(kInvalid) : seconds;
}

} // namespace VESK
