#pragma once

#include <QString>

namespace VESK {
namespace verify {

// Method names understood by fileValue(); any other text selects kDefaultMethod.
extern const char* const kDefaultMethod;

// Canonical method for `method`: one of "fileattr", "md5", "sha1", "sha256", "xxh3".
QString canonicalMethod(const QString& method);

// The verify value of the file at `path` as lowercase hexadecimal text ("fileattr": the size in
// decimal), or "" when the file is missing or cannot be read. Reads in large blocks, in constant
// memory.
//
// A value read from the file is kept in its extended attribute "user.vesk.METHOD" together with
// the facts it was computed from: size, modification time in nanoseconds, inode, and a bound on
// the change time. A later call whose file still shows the same facts (and a change time within
// the bound) returns the kept value without reading the file. Any write to the file changes its
// modification time, and setting the modification time back changes its change time, so a kept
// value never outlives the contents it describes. Where the file system has no extended
// attributes (or the file cannot be written) the value is computed every time.
QString fileValue(const QString& path, const QString& method);

// The verify value read from the file itself, neither looking at nor keeping a record.
QString computeFileValue(const QString& path, const QString& method);

// Carries the kept value of `method` over to the file's present modification and change times,
// for a file whose contents a transfer has just verified or compared with that value and then
// only renamed or re-timed (which changes those times but not the contents). Keeps nothing when
// the size or inode no longer match.
void adoptKeptValue(const QString& path, const QString& method);

// Starts the digest library now (its configuration file, the digests' implementations), so that
// later values need no file but the one they read: for a thread about to be confined.
void prepare();

} // namespace verify
} // namespace VESK
