#include "CopyPlan.h"

#include <QDir>
#include <QDirIterator>
#include <QFileInfo>

#include <mutex>

namespace VESK {
namespace host {

namespace {

const QLatin1String kPartialSuffix(".vesk-part");

// A listing task of `base`'s server that prints nothing and hands each chunk to `onList`.
ClientTask listingTask(const ClientTask& base, const QString& path) {
    ClientTask list(base.command, "list");
    list.url = base.url;
    list.credentials = base.credentials;
    list.plugins = base.plugins;
    list.quiet = true;
    list.silent = true;
    list.stallTimeout = base.stallTimeout;
    list.sharedInterrupts = base.sharedInterrupts;
    list.waitForPlaceMs = base.waitForPlaceMs;
    list.params.insert("rootPath", base.params.value("rootPath"));
    list.params.insert("srcPath", path);
    return list;
}

} // namespace

QString placeFor(const QString& target, bool targetIsDirectory, int sourceCount,
                 const QString& name, bool contentsOnly) {
    if (contentsOnly)
        return target;
    if (!targetIsDirectory && sourceCount == 1)
        return target;
    if (target.endsWith('/'))
        return target + name;
    return target + '/' + name;
}

QString joinRemote(const QString& directory, const QString& name) {
    return directory + '/' + name;
}

bool isPartialFileName(const QString& name) {
    return name.startsWith('.') && name.endsWith(kPartialSuffix);
}

void addLocalTree(const QString& localDir, const QString& remoteDir, QList<CopyItem>& items) {
    const QDir root(localDir);
    QDirIterator it(localDir, QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden | QDir::System,
                    QDirIterator::Subdirectories);
    QList<CopyItem> files;
    while (it.hasNext()) {
        it.next();
        const QFileInfo info = it.fileInfo();
        const QString relative = root.relativeFilePath(info.filePath());
        CopyItem item;
        item.local = info.absoluteFilePath();
        item.remote = joinRemote(remoteDir, relative);
        if (info.isDir()) {
            item.directory = true;
            items.append(item);
        } else if (info.isFile() && !isPartialFileName(info.fileName())) {
            item.size = info.size();
            files.append(item);
        }
    }
    // Directories first, so that each exists before anything lands in it.
    items.append(files);
}

int listRemote(const ClientTask& base, const QString& path, QMap<QString, QString>* entries,
               TaskResult* result) {
    ClientTask list = listingTask(base, path);
    std::mutex mutex;
    list.onList = [&](const QMap<QString, QString>& chunk) {
        std::lock_guard<std::mutex> lock(mutex);
        entries->insert(chunk);
        return true;
    };
    return runTask(list, *result);
}

int probeRemote(const ClientTask& base, const QString& path, RemoteKind* kind) {
    *kind = RemoteKind::Missing;
    if (path.isEmpty()) {
        *kind = RemoteKind::Directory;
        return -1;
    }
    const QString parent = path.left(path.lastIndexOf('/'));
    const QString own = path.mid(path.lastIndexOf('/'));
    ClientTask list = listingTask(base, parent);
    std::mutex mutex;
    QString found;
    // The listing goes breadth-first: once an entry below a subdirectory shows up, all of the
    // parent's own entries have been seen, and the rest of the tree is not wanted.
    list.onList = [&](const QMap<QString, QString>& chunk) {
        std::lock_guard<std::mutex> lock(mutex);
        if (chunk.contains(own))
            found = chunk.value(own);
        for (auto it = chunk.constBegin(); it != chunk.constEnd(); ++it) {
            if (it.key().indexOf('/', 1) > 0)
                return false;
        }
        return found.isEmpty();
    };
    TaskResult result;
    const int early = runTask(list, result);
    if (early >= 0)
        return early;
    if (found == QLatin1String("dir"))
        *kind = RemoteKind::Directory;
    else if (found == QLatin1String("file"))
        *kind = RemoteKind::File;
    return -1;
}

} // namespace host
} // namespace VESK
