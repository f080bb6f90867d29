#pragma once

// What the client does around one upload or download: how the user's options become the
// handler's verification and replace switches, the lock that keeps two downloads out of one
// local partial file, and how much of what was sent the server has acknowledged.

#include <QString>
#include <QStringList>

#include <memory>

namespace VESK {
namespace host {

// How the client treats a destination that already exists.
//
// The handler decides by fixed rules: with a verification method, an existing destination whose
// verify value equals the source's is left alone (and nothing is sent), any other is replaced
// after the new copy has been received and verified; without a method an existing destination
// is kept by name alone. So verifying by default is what makes a re-run send exactly what
// changed: an identical file costs two verify values (cached, see verify::fileValue), a changed
// one is sent again. A resumed transfer onto a source that changed since its partial file was
// written fails that verification; the handler then removes the partial file, and the client
// runs the transfer once more from 0 (Outcome::VerifyFailed). Keeping files by name
// (--ignore-existing) needs the method "false" for uploads, since only then does the server
// skip an existing file without comparing it.
struct TransferChoice {
    QString method = QStringLiteral("xxh3"); // the handler's "bVerify"
    bool replace = false;                    // the handler's "bReplace": restart from 0
    bool ignoreExisting = false;             // keep an existing destination by name
};

// After a transfer that ended well: the verify value kept with `path` (the file just installed
// or compared, with the handler's method "bVerify") stays valid across the rename and the new
// modification time the transfer gave it. Nothing happens without a method.
void keepVerifiedValue(const QString& path, const QString& method);

// Bytes still unacknowledged in the send buffer of UDT socket `socket` (whole packets of the
// connection's payload size; 0 when the socket cannot tell).
qint64 unacknowledgedBytes(int socket);

// An exclusive advisory lock (flock) on a download's local partial file, created empty when
// missing so that there is something to lock. A second download into the same file finds it
// held and is refused at once; the kernel releases it when its holder exits, also by kill -9.
// An empty partial file this lock created is removed again when the lock is released, so a
// download that received nothing leaves nothing behind.
class PartialFileLock {
public:
    explicit PartialFileLock(const QString& partialPath);
    ~PartialFileLock();
    PartialFileLock(const PartialFileLock&) = delete;
    PartialFileLock& operator=(const PartialFileLock&) = delete;

    enum class State { Held, Busy, Failed };
    State state() const { return m_state; }
    // Why the lock could not be taken (State::Failed).
    QString error() const { return m_error; }
    // Empties the partial file under the lock (a download that starts over).
    bool truncate();

private:
    QString m_path;
    int m_fd = -1;
    bool m_created = false;
    State m_state = State::Failed;
    QString m_error;
};

// Takes the lock of a download's partial file `partial` in `lock` (creating `localDir` first,
// which the lock needs) and, with `replace`, empties the file: the handler starts at offset 0
// but appends to the partial file it finds, and the partial file is the client's own. Returns
// "" when held, else a sentence naming `shown` or the partial file.
QString lockPartialFile(std::unique_ptr<PartialFileLock>& lock, const QString& localDir,
                        const QString& partial, bool replace, const QString& shown);

} // namespace host
} // namespace VESK
