#pragma once

// A partial file (dir/.name.vesk-part) belongs to the one transfer that writes it: the server
// holds an operating-system lock on it while a task receives into it, records which source it
// is a copy of, and removes partial files nobody came back to.

#include <QString>

#include <memory>

namespace VESK {
namespace host {

// The identity of an upload's source as its task describes it: size, modification time and,
// when the client sent one, the verify value with its method.
QString sourceIdentity(qint64 fileSize, qint64 mtime, const QString& method,
                       const QString& verifyValue);

// Whether two identities describe one source: the same size and modification time, and the same
// value for every verify method both name. A resume with verification of a part sent without it
// (or with another method) is still the same source.
bool sameSource(const QString& recorded, const QString& identity);

// What to record after `identity` resumed `recorded`: every fact either of them knows, the newer
// one's first.
QString mergedSource(const QString& recorded, const QString& identity);

// An exclusive lock on a partial file, held from before the handler runs until the task ends.
// It is a lock of the open file description (flock), so it also holds between servers sharing
// one file system that supports it, and it goes with its holder's process, however that ends.
class PartialFile {
public:
    enum class Outcome {
        Locked, // this task owns the partial file now
        Busy,   // another transfer holds it
        Failed, // it cannot be opened (a link, a directory, no permission...)
    };

    // Opens (creating it when missing, never following a link) and locks `path`. `error` says
    // why on Failed.
    static Outcome acquire(const QString& path, std::unique_ptr<PartialFile>& out,
                           QString* error = nullptr);
    ~PartialFile();
    PartialFile(const PartialFile&) = delete;
    PartialFile& operator=(const PartialFile&) = delete;

    qint64 size() const;
    // The source identity recorded on the file; "" when none is.
    QString recordedSource() const;
    // Whether the file system keeps identities at all (extended attributes).
    bool canRecordSource() const;
    bool recordSource(const QString& identity);
    // Drops what the file holds, so that the transfer starts again at 0.
    bool clear();

private:
    PartialFile(const QString& path, int fd, bool created);

    QString m_path;
    int m_fd;
    bool m_created; // this task created it, so an unused empty one is removed again at the end
};

// Removes the partial files below `dir` (links not followed) that nobody holds and that were
// not modified for `ttlSeconds`; returns how many it removed.
int removeStalePartialFiles(const QString& dir, qint64 ttlSeconds);

} // namespace host
} // namespace VESK
