#pragma once

#include <QString>

#include <memory>
#include <streambuf>

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

class Digest;

// The verify value of a file computed from its bytes as they are written, so that a receiver need
// not read the whole file back to verify it: for a file written from empty, in order. It stands
// for the file only if the file ends up holding exactly the bytes added, which keep() checks by
// size; like rsync's checksum of the data it receives, it says what was written, not what a
// failing disk returns later.
class WrittenValue {
public:
    // Nothing is computed for "fileattr" (not a value of the contents).
    explicit WrittenValue(const QString& method);
    ~WrittenValue();

    bool active() const { return bool(m_digest); }
    void add(const char* data, qint64 n);
    // Something other than an append happened: nothing will be kept.
    void stop();
    qint64 bytes() const { return m_bytes; }

    // Keeps the value for the file at `path` as fileValue() keeps one it read, when the file
    // holds as many bytes as were added; false otherwise (or when it cannot be kept).
    bool keep(const QString& path);

private:
    QString m_method;
    std::unique_ptr<Digest> m_digest;
    qint64 m_bytes = 0;
};

// A stream buffer that passes everything on to `target` and adds what is written through it to
// a WrittenValue. Reading through it, or moving to any position but the end of what was
// written, stops the value.
class ValueTee : public std::streambuf {
public:
    ValueTee(std::streambuf* target, const QString& method);

    std::streambuf* target() const { return m_target; }
    WrittenValue& value() { return m_value; }

protected:
    std::streamsize xsputn(const char* data, std::streamsize n) override;
    int_type overflow(int_type c) override;
    int sync() override;
    pos_type seekoff(off_type off, std::ios_base::seekdir dir,
                     std::ios_base::openmode which) override;
    pos_type seekpos(pos_type pos, std::ios_base::openmode which) override;
    int_type underflow() override;
    int_type uflow() override;
    std::streamsize xsgetn(char* data, std::streamsize n) override;

private:
    pos_type checked(pos_type reached);

    std::streambuf* m_target;
    WrittenValue m_value;
};

} // namespace verify
} // namespace VESK
