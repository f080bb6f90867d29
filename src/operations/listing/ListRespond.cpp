#include "base/Protocol.h"
#include "handler/VeskHandler2_0_0.h"

#include <QDir>
#include <QFileInfo>

namespace VESK {

namespace {
// A chunk goes out once its key count, less one, reaches this: the first one at 100 entries
// beside "bLast", every later one at 101 entries (the key is not put back after a send).
constexpr int kChunkLimit = 100;
} // namespace

bool VeskHandler2_0_0::listRespond() {
    // The stop is looked at only once the client has its acknowledgment; this reading is unused.
    getStatus();
    const QString function = "listRespond";
    ParamMap chunk;

    const QString srcPath = getParam("srcPath", "");
    const QString userName = getParam("userName", "");
    const QString appVersion = getParam("appVersion", "");
    Q_UNUSED(userName)
    Q_UNUSED(appVersion)

    QString root;
    if (!resolveAppRoot(function, root))
        return false;
    root = pathJoin(root, srcPath);
    log("info", QString("%1: %2 ...").arg(function, root));
    // Nothing at all goes to the client before the acknowledgment; it fails on its own receive.
    if (!exist(root)) {
        log("error", QString("%1: dir %2 is not exist.").arg(function, root));
        return false;
    }

    chunk.clear();
    chunk.insert("ackRespond", "true");
    if (!sendTaskParamAck(function, chunk))
        return false;
    checkStatus();

    // Breadth-first: directories found go to the end of the queue, so each depth is finished
    // before the next one starts and a directory's pair always precedes its contents.
    QStringList pending{root};
    chunk.clear();
    chunk.insert("bLast", "false");
    while (!pending.isEmpty()) {
        const QString dir = pending.takeFirst();
        const QFileInfoList entries =
            QDir(dir).entryInfoList(QDir::AllEntries | QDir::NoDotAndDotDot, QDir::NoSort);
        for (const QFileInfo& entry : entries) {
            const QString full = entry.filePath();
            if (!full.startsWith(root)) {
                log("error", QString("%1: get ListContent failed.").arg(function));
                return false;
            }
            QString rel = full.mid(root.size());
            // A root ending in "/" leaves the separator out of the relative part.
            if (!rel.startsWith('/'))
                rel.prepend('/');
            if (entry.isFile()) {
                chunk.insert(rel, "file");
            } else if (entry.isDir()) {
                chunk.insert(rel, "dir");
                pending.append(full);
            }
            if (chunk.size() - 1 >= kChunkLimit) {
                if (!sendMap(protocol::kListContent, chunk)) {
                    log("error", QString("%1: send ListContent failed.").arg(function));
                    return false;
                }
                chunk.clear();
            }
        }
        checkStatus();
    }

    chunk.insert("bLast", "true");
    if (sendMap(protocol::kListContent, chunk))
        return true;
    log("error", QString("%1: send ListContent failed.").arg(function));
    return false;
}

} // namespace VESK
