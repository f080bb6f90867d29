#pragma once

// Which files a copy of many sources or whole trees moves, and what each is called on the other
// side. Names follow scp: a target that is a directory (it exists as one, or its text ends in
// "/") receives the sources under their own names; with one source, any other target is the
// copy's new name. A source directory ending in "/" stands for its contents, as with rsync.

#include "ClientSession.h"

#include <QList>
#include <QString>

namespace VESK {
namespace host {

// One thing to copy: a file, or a directory to create (so that empty ones arrive too).
struct CopyItem {
    QString local;          // absolute local path
    QString remote;         // path below the application's directory: "/a/b.txt"
    bool directory = false; // a directory to create rather than a file to copy
    qint64 size = -1;       // the file's size when known beforehand (uploads)
};

// Where a source named `name` lands below `target` (a local path or a path on the server).
// `contentsOnly`: the source is a directory written with a trailing "/".
QString placeFor(const QString& target, bool targetIsDirectory, int sourceCount,
                 const QString& name, bool contentsOnly);

// "/a" + "b" -> "/a/b"; "" + "b" -> "/b" (paths on the server).
QString joinRemote(const QString& directory, const QString& name);

// True when `name` is the name of a partial file, which the server never accepts or serves.
bool isPartialFileName(const QString& name);

// Adds the tree below the local directory `localDir` as items below `remoteDir`: every
// directory (empty ones included) and every regular file, partial files left out.
void addLocalTree(const QString& localDir, const QString& remoteDir, QList<CopyItem>& items);

// What a path on the server is.
enum class RemoteKind { Missing, File, Directory };

// Finds out what `path` is on the server of `base` (its URL, credentials and plug-in) by listing
// its parent only as far as the parent's own entries. Returns -1 and sets `kind`, else the exit
// status of a failure to connect (already printed).
int probeRemote(const ClientTask& base, const QString& path, RemoteKind* kind);

// Lists the server directory `path` of `base`: its entries as paths below it ("/x/y") mapped
// to "file" or "dir". Returns -1 when the listing ran (`ok` says whether it ended well, `result`
// holds the details), else the exit status of a failure to connect (already printed).
int listRemote(const ClientTask& base, const QString& path, QMap<QString, QString>* entries,
               TaskResult* result);

} // namespace host
} // namespace VESK
