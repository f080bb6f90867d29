#include "Verify.h"

#include <QByteArray>
#include <QFile>
#include <QFileInfo>

#include <openssl/crypto.h>
#include <openssl/evp.h>
#define XXH_INLINE_ALL
#include <xxhash.h>

#include <cerrno>
#include <ctime>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace VESK {
namespace verify {

const char* const kDefaultMethod = "xxh3";

namespace {

// Large enough that one read call amortises the system call and the digest set-up, and small
// enough to stay in the core's cache between the read that fills it and the digest that consumes
// it (4 MiB blocks made the "xxh3" value of a cached file 15 % slower).
constexpr qint64 kBlockBytes = 1024 * 1024;

// Feeds the whole file to `consume` block by block; false when it cannot be read to the end.
template <typename Consume> bool readBlocks(const QString& path, Consume consume) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly | QIODevice::Unbuffered))
        return false;
    ::posix_fadvise(file.handle(), 0, 0, POSIX_FADV_SEQUENTIAL);
    QByteArray block(int(kBlockBytes), Qt::Uninitialized);
    for (;;) {
        const qint64 n = file.read(block.data(), kBlockBytes);
        if (n < 0)
            return false;
        if (n == 0)
            return true;
        consume(block.constData(), size_t(n));
    }
}

} // namespace

// One verify value under way: an OpenSSL digest or XXH3's 128-bit hash.
class Digest {
public:
    // Null for "fileattr" (not computed from the contents) or when the library fails.
    static std::unique_ptr<Digest> start(const QString& canonical) {
        std::unique_ptr<Digest> d(new Digest);
        if (canonical == QLatin1String("xxh3")) {
            d->m_xxh3.reset(XXH3_createState());
            if (d->m_xxh3 && XXH3_128bits_reset(d->m_xxh3.get()) == XXH_OK)
                return d;
            return nullptr;
        }
        const EVP_MD* md = canonical == QLatin1String("md5")      ? EVP_md5()
                           : canonical == QLatin1String("sha1")   ? EVP_sha1()
                           : canonical == QLatin1String("sha256") ? EVP_sha256()
                                                                  : nullptr;
        d->m_evp.reset(EVP_MD_CTX_new());
        if (md && d->m_evp && EVP_DigestInit_ex(d->m_evp.get(), md, nullptr) == 1)
            return d;
        return nullptr;
    }

    void update(const char* data, size_t n) {
        if (m_xxh3)
            XXH3_128bits_update(m_xxh3.get(), data, n);
        else
            m_ok = m_ok && EVP_DigestUpdate(m_evp.get(), data, n) == 1;
    }

    // The value as lowercase hexadecimal text; "" when the library failed.
    QString finish() {
        QByteArray raw;
        if (m_xxh3) {
            XXH128_canonical_t canonical;
            XXH128_canonicalFromHash(&canonical, XXH3_128bits_digest(m_xxh3.get()));
            raw = QByteArray(reinterpret_cast<const char*>(canonical.digest),
                             sizeof canonical.digest);
        } else {
            unsigned char out[EVP_MAX_MD_SIZE];
            unsigned int outLen = 0;
            if (!m_ok || EVP_DigestFinal_ex(m_evp.get(), out, &outLen) != 1)
                return QString();
            raw = QByteArray(reinterpret_cast<const char*>(out), int(outLen));
        }
        return QString::fromLatin1(raw.toHex());
    }

private:
    Digest() = default;
    std::unique_ptr<XXH3_state_t, decltype(&XXH3_freeState)> m_xxh3{nullptr, XXH3_freeState};
    std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> m_evp{nullptr, EVP_MD_CTX_free};
    bool m_ok = true;
};

namespace {

QString contentValue(const QString& path, const QString& canonical) {
    const std::unique_ptr<Digest> d = Digest::start(canonical);
    if (!d || !readBlocks(path, [&](const char* data, size_t n) { d->update(data, n); }))
        return QString();
    return d->finish();
}

// What a kept value was computed from. `ctimeNs` is, in a kept record, the latest change time
// the file may show: the moment the record was written plus kChangeTimeMarginNs.
struct Facts {
    qint64 size = 0;
    qint64 mtimeNs = 0;
    quint64 inode = 0;
    qint64 ctimeNs = 0;
};

// Writing the record itself changes the file's change time (to the moment of the write, give or
// take a clock tick). A margin that covers the write keeps the record valid; a write delayed
// beyond it only costs one more computation.
constexpr qint64 kChangeTimeMarginNs = 200 * 1000 * 1000;
constexpr int kRecordVersion = 1;

bool factsOf(const QByteArray& native, Facts& facts) {
    struct stat st {};
    if (::stat(native.constData(), &st) != 0 || !S_ISREG(st.st_mode))
        return false;
    facts.size = st.st_size;
    facts.mtimeNs = qint64(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec;
    facts.inode = st.st_ino;
    facts.ctimeNs = qint64(st.st_ctim.tv_sec) * 1000000000 + st.st_ctim.tv_nsec;
    return true;
}

QByteArray attributeName(const QString& method) {
    return "user.vesk." + method.toLatin1();
}

// The kept record: "VERSION SIZE MTIME_NS INODE CTIME_BOUND_NS VALUE".
bool readRecord(const QByteArray& native, const QString& method, Facts& kept, QString& value) {
    char buffer[256];
    const ssize_t n =
        ::getxattr(native.constData(), attributeName(method).constData(), buffer, sizeof buffer);
    if (n <= 0)
        return false;
    const QList<QByteArray> parts = QByteArray(buffer, int(n)).split(' ');
    if (parts.size() != 6 || parts[0].toInt() != kRecordVersion)
        return false;
    bool ok[4] = {};
    kept.size = parts[1].toLongLong(&ok[0]);
    kept.mtimeNs = parts[2].toLongLong(&ok[1]);
    kept.inode = parts[3].toULongLong(&ok[2]);
    kept.ctimeNs = parts[4].toLongLong(&ok[3]);
    value = QString::fromLatin1(parts[5]);
    return ok[0] && ok[1] && ok[2] && ok[3] && !value.isEmpty();
}

void writeRecord(const QByteArray& native, const QString& method, const Facts& facts,
                 const QString& value) {
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    const qint64 bound = qint64(now.tv_sec) * 1000000000 + now.tv_nsec + kChangeTimeMarginNs;
    const QByteArray record =
        QByteArray::number(kRecordVersion) + ' ' + QByteArray::number(facts.size) + ' ' +
        QByteArray::number(facts.mtimeNs) + ' ' + QByteArray::number(facts.inode) + ' ' +
        QByteArray::number(bound) + ' ' + value.toLatin1();
    // Unsupported, read-only or not ours: the value is simply computed again next time.
    ::setxattr(native.constData(), attributeName(method).constData(), record.constData(),
               size_t(record.size()), 0);
}

bool sameContentFacts(const Facts& a, const Facts& b) {
    return a.size == b.size && a.mtimeNs == b.mtimeNs && a.inode == b.inode;
}

} // namespace

QString canonicalMethod(const QString& method) {
    static const QStringList known = {"fileattr", "md5", "sha1", "sha256", "xxh3"};
    return known.contains(method) ? method : QString::fromLatin1(kDefaultMethod);
}

QString computeFileValue(const QString& path, const QString& method) {
    const QString m = canonicalMethod(method);
    if (m == QLatin1String("fileattr")) {
        const QFileInfo info(path);
        if (!info.exists() || !info.isFile())
            return QString();
        return QString::number(info.size());
    }
    return contentValue(path, m);
}

void prepare() {
    OPENSSL_init_crypto(OPENSSL_INIT_LOAD_CONFIG, nullptr);
    std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> ctx(EVP_MD_CTX_new(), EVP_MD_CTX_free);
    for (const EVP_MD* md : {EVP_md5(), EVP_sha1(), EVP_sha256()}) {
        if (ctx)
            EVP_DigestInit_ex(ctx.get(), md, nullptr);
    }
}

QString fileValue(const QString& path, const QString& method) {
    const QString m = canonicalMethod(method);
    if (m == QLatin1String("fileattr"))
        return computeFileValue(path, m);
    const QByteArray native = QFile::encodeName(path);
    Facts before;
    const bool known = factsOf(native, before);
    Facts kept;
    QString value;
    if (known && readRecord(native, m, kept, value) && sameContentFacts(before, kept) &&
        before.ctimeNs <= kept.ctimeNs)
        return value;
    value = computeFileValue(path, m);
    // Kept only when the file did not change while it was read.
    Facts after;
    if (known && !value.isEmpty() && factsOf(native, after) && sameContentFacts(before, after) &&
        after.ctimeNs == before.ctimeNs)
        writeRecord(native, m, after, value);
    return value;
}

void adoptKeptValue(const QString& path, const QString& method) {
    const QString m = canonicalMethod(method);
    if (m == QLatin1String("fileattr"))
        return;
    const QByteArray native = QFile::encodeName(path);
    Facts now;
    Facts kept;
    QString value;
    if (factsOf(native, now) && readRecord(native, m, kept, value) && now.size == kept.size &&
        now.inode == kept.inode)
        writeRecord(native, m, now, value);
}

WrittenValue::WrittenValue(const QString& method)
    : m_method(canonicalMethod(method)) {
    if (m_method != QLatin1String("fileattr"))
        m_digest = Digest::start(m_method);
}

WrittenValue::~WrittenValue() = default;

void WrittenValue::add(const char* data, qint64 n) {
    if (!m_digest || n <= 0)
        return;
    m_digest->update(data, size_t(n));
    m_bytes += n;
}

void WrittenValue::stop() {
    m_digest.reset();
}

bool WrittenValue::keep(const QString& path) {
    if (!m_digest)
        return false;
    const QString value = m_digest->finish();
    m_digest.reset();
    const QByteArray native = QFile::encodeName(path);
    Facts facts;
    if (value.isEmpty() || !factsOf(native, facts) || facts.size != m_bytes)
        return false;
    writeRecord(native, m_method, facts, value);
    Facts kept;
    QString keptValue;
    return readRecord(native, m_method, kept, keptValue) && keptValue == value;
}

ValueTee::ValueTee(std::streambuf* target, const QString& method)
    : m_target(target)
    , m_value(method) {}

std::streamsize ValueTee::xsputn(const char* data, std::streamsize n) {
    const std::streamsize written = m_target->sputn(data, n);
    m_value.add(data, written);
    if (written != n)
        m_value.stop();
    return written;
}

ValueTee::int_type ValueTee::overflow(int_type c) {
    if (traits_type::eq_int_type(c, traits_type::eof()))
        return m_target->pubsync() == 0 ? traits_type::not_eof(c) : traits_type::eof();
    const char ch = traits_type::to_char_type(c);
    return xsputn(&ch, 1) == 1 ? c : traits_type::eof();
}

int ValueTee::sync() {
    return m_target->pubsync();
}

ValueTee::pos_type ValueTee::checked(pos_type reached) {
    // A file opened to append writes at its end wherever the position was moved; only a
    // position at the end of what was written keeps the bytes in the order they were added.
    if (reached == pos_type(off_type(-1)) || off_type(reached) != m_value.bytes())
        m_value.stop();
    return reached;
}

ValueTee::pos_type ValueTee::seekoff(off_type off, std::ios_base::seekdir dir,
                                     std::ios_base::openmode which) {
    return checked(m_target->pubseekoff(off, dir, which));
}

ValueTee::pos_type ValueTee::seekpos(pos_type pos, std::ios_base::openmode which) {
    return checked(m_target->pubseekpos(pos, which));
}

ValueTee::int_type ValueTee::underflow() {
    m_value.stop();
    return m_target->sgetc();
}

ValueTee::int_type ValueTee::uflow() {
    m_value.stop();
    return m_target->sbumpc();
}

std::streamsize ValueTee::xsgetn(char* data, std::streamsize n) {
    m_value.stop();
    return m_target->sgetn(data, n);
}

} // namespace verify
} // namespace VESK
