#pragma once

// Where a server task may reach on disk. Once the host knows a task's application (it has read
// the task's parameters, before the handler runs), the thread that will run the task is
// confined to that application's directory:
//
//   const QString dir = config.appDirectory(appKey);
//   QString why;
//   if (!confinement::confineTask(dir, {destination, partialFile}, config.logFile, &why))
//       refuse the task with `why`;
//   handler->process();
//
// The paths are those the task's operation will touch, joined as the handler joins them: for an
// upload the destination directory, the file and its partial file; for a download the file; for
// a listing its directory; for createDir the directory. A false return means the task must not
// run: either a path leaves `dir`, or Landlock is there but the thread could not be confined.
//
// With Landlock (Linux 5.13 and later) the kernel then refuses, to this thread only, every read,
// write, creation, removal, rename, truncation and device ioctl outside `dir`, whatever symbolic
// links inside it say; the restriction lasts as long as the thread, so a server confines only a
// thread that serves one connection and then ends. Other threads, UDT's among them, are not
// affected. Without Landlock, confineTask() checks the task's paths instead (see
// pathsStayInside()).
//
// Landlock does not cover changing a mode, an owner or a time stamp by name. The base's chmod
// goes through a descriptor, which a confined thread can only open inside `dir`; a time stamp
// set by name is covered by the path check that confineTask() makes in any case, with the race
// described at pathsStayInside().

#include <QString>
#include <QStringList>

namespace VESK {
namespace host {
namespace confinement {

// The Landlock ABI version of the running kernel, probed once; 0 when Landlock is not available
// (an older kernel, or not enabled in its "lsm=" list).
int landlockAbi();

// One sentence for the server to print at start: how its tasks are confined.
QString startupNotice();

// Restricts the calling thread, for the rest of its life, to `dir` (which must exist): inside it
// every file operation Landlock knows is allowed, outside none. `keepOpen` names files the
// thread must still write afterwards (the protocol log): they are opened first and kept open.
// Sets no-new-privileges on the thread first, as Landlock requires. False, with the reason in
// `error`, when Landlock is not available or the restriction could not be made; the thread is
// then unchanged.
bool confineThreadTo(const QString& dir, const QStringList& keepOpen, QString* error);

// The check used where Landlock is missing: true when every path in `paths` stays inside `dir`
// once resolved. A path is resolved by its longest existing prefix with every symbolic link
// followed (realpath); the part that does not exist yet must be plain names (no "..", no link to
// follow). A link that leads nowhere counts as leaving, since what it would create is not known.
// Sets `offending` to the first path that leaves.
//
// The race that remains: the check is made before the handler uses the paths, so a local user
// who can write inside `dir` may replace a directory by a link between the check and the use.
// Only the kernel's confinement closes that. A peer on the network cannot win it alone: the
// protocol creates files and directories, never links.
bool pathsStayInside(const QString& dir, const QStringList& paths, QString* offending);

// What a server does once it knows a task's application directory `dir` and the paths the task
// will touch: refuses (false, with the reason in `error`) when a path leaves `dir`, then, where
// Landlock is available, confines the calling thread to `dir` with `logFile` kept open. Where
// Landlock is missing the path check alone decides.
bool confineTask(const QString& dir, const QStringList& paths, const QString& logFile,
                 QString* error);

} // namespace confinement
} // namespace host
} // namespace VESK
