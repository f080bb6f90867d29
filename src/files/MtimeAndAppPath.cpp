#include "handler/VeskHandler2_0_0.h"

#include <QFile>

#include <fcntl.h>
#include <sys/stat.h>

namespace VESK {

QString VeskHandler2_0_0::getAppPath(const QString& appKey) {
    // Parsed anew at every call, so a changed "appPath" takes effect at once.
    return appDirFromTable(getParam("appPath", ""), appKey);
}

bool VeskHandler2_0_0::resolveAppRoot(const QString& function, QString& root) {
    const QString appKey = getParam("appKey", "");
    const QString appPath = getAppPath(appKey);
    if (appPath.isEmpty()) {
        log("error", QString("%1: get path of app [%2] failed.").arg(function, appKey));
        return false;
    }
    // Each piece is confined below the one before it, so whatever the client sent, the result
    // stays inside the mount.
    root = pathJoin(pathJoin(getParam("mountPath", ""), appPath), getParam("rootPath", ""));
    return true;
}

void VeskHandler2_0_0::UpdateMtime(QString& path, QString funcName, qint64 mtime) {
    if (mtime == -1)
        return;
    // Paths are UTF-8 on this platform, so any name the host can give is reachable.
    const QByteArray native = QFile::encodeName(path);
    struct stat info;
    if (::stat(native.constData(), &info) != 0) {
        log("error", QString("%1: get stat of  %2 failed.").arg(funcName, path));
    } else {
        const timespec times[2] = {info.st_atim, {time_t(mtime), 0}};
        if (::utimensat(AT_FDCWD, native.constData(), times, 0) != 0)
            log("error", QString("%1: set new mtime of %2 failed.").arg(funcName, path));
    }
    // Marks that the attempt is over, also after a failure.
    log("debug",
        QString("%1: set [%2] mtime [%3] finished!").arg(funcName, path, QString::number(mtime)));
}

} // namespace VESK
