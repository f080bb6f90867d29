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
QString fileValue(const QString& path, const QString& method);

// Starts the digest library now (its configuration file, the digests' implementations), so that
// later values need no file but the one they read: for a thread about to be confined.
void prepare();

} // namespace verify
} // namespace VESK
