#include "Auth.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QtEndian>

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/rand.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace VESK {
namespace host {

namespace {

// Each field goes in with its length in front, so that no two different inputs hash alike.
void appendField(QByteArray& message, const QByteArray& field) {
    char length[4];
    qToBigEndian<quint32>(quint32(field.size()), length);
    message.append(length, sizeof length);
    message.append(field);
}

// A secret is the rest of its line; a line ending of a file edited elsewhere is not part of it.
QByteArray lineContent(const QByteArray& line) {
    QByteArray text = line;
    while (text.endsWith('\r') || text.endsWith('\n'))
        text.chop(1);
    return text;
}

} // namespace

QByteArray randomBytes(int count) {
    QByteArray bytes(count, Qt::Uninitialized);
    if (RAND_bytes(reinterpret_cast<unsigned char*>(bytes.data()), count) != 1)
        return QByteArray();
    return bytes;
}

QByteArray hmacSha256(const QByteArray& key, const QByteArray& message) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (!HMAC(EVP_sha256(), key.constData(), key.size(),
              reinterpret_cast<const unsigned char*>(message.constData()), size_t(message.size()),
              digest, &length))
        return QByteArray();
    return QByteArray(reinterpret_cast<const char*>(digest), int(length));
}

bool sameBytes(const QByteArray& a, const QByteArray& b) {
    return a.size() == b.size() &&
           CRYPTO_memcmp(a.constData(), b.constData(), size_t(a.size())) == 0;
}

QByteArray helloProof(ProofRole role, const QByteArray& secret, const QByteArray& serverNonce,
                      const QByteArray& clientNonce, const QString& user, const QString& protocol,
                      const QString& version) {
    QByteArray message;
    appendField(message,
                role == ProofRole::Client ? "vesk hello client proof" : "vesk hello server proof");
    appendField(message, serverNonce);
    appendField(message, clientNonce);
    appendField(message, user.toUtf8());
    appendField(message, protocol.toUtf8());
    appendField(message, version.toUtf8());
    return hmacSha256(secret, message);
}

namespace {

// "" when `path` is a regular file that only its owner may read, else the problem; `what` names
// the file in the sentence.
QString privateFileProblem(const QString& path, const QString& what) {
    struct stat info;
    if (::stat(QFile::encodeName(path).constData(), &info) != 0 || !S_ISREG(info.st_mode))
        return QString("cannot read the %1 %2").arg(what, path);
    if (info.st_mode & (S_IRGRP | S_IROTH))
        return QString("the %1 %2 is readable by its group or others; make it private first "
                       "(chmod 600 %2)")
            .arg(what, path);
    return QString();
}

// Writes a new random secret into `path`, which must not exist yet; the file is private from the
// moment it exists. "" on success, else the problem.
QString createSecretFile(const QString& path, QByteArray* secret) {
    const QString dir = QFileInfo(path).absolutePath();
    if (!QFileInfo(dir).isDir() &&
        (!QDir().mkpath(dir) || ::chmod(QFile::encodeName(dir).constData(), 0700) != 0))
        return QString("cannot create the directory %1 for the secret file").arg(dir);
    const QByteArray bytes = randomBytes(kNonceBytes);
    if (bytes.isEmpty())
        return QString("the operating system gave no random bytes for a new secret");
    const QByteArray text = bytes.toHex() + '\n';
    const int fd =
        ::open(QFile::encodeName(path).constData(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd < 0)
        return QString("cannot create the secret file %1").arg(path);
    const bool written = ::write(fd, text.constData(), size_t(text.size())) == text.size();
    if (::close(fd) != 0 || !written) {
        ::unlink(QFile::encodeName(path).constData());
        return QString("cannot write the secret file %1").arg(path);
    }
    *secret = bytes.toHex();
    return QString();
}

} // namespace

QString readSecretsFile(const QString& path, QMap<QString, QByteArray>* secrets) {
    if (const QString problem = privateFileProblem(path, "secrets file"); !problem.isEmpty())
        return problem;
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return QString("cannot read the secrets file %1").arg(path);
    int number = 0;
    while (!file.atEnd()) {
        ++number;
        const QByteArray line = lineContent(file.readLine());
        if (line.trimmed().isEmpty() || line.trimmed().startsWith('#'))
            continue;
        const int colon = line.indexOf(':');
        if (colon <= 0 || colon == line.size() - 1)
            return QString("line %1 of the secrets file %2 is not USER:SECRET")
                .arg(QString::number(number), path);
        secrets->insert(QString::fromUtf8(line.left(colon)), line.mid(colon + 1));
    }
    return QString();
}

QString readSecretFile(const QString& path, QByteArray* secret) {
    QFile file(path);
    if (!QFileInfo(path).isFile() || !file.open(QIODevice::ReadOnly))
        return QString("cannot read the secret file %1").arg(path);
    *secret = lineContent(file.readLine());
    if (secret->isEmpty())
        return QString("the secret file %1 holds no secret on its first line").arg(path);
    return QString();
}

QString ownSecret(const QString& path, QByteArray* secret, bool* created) {
    *created = !QFileInfo::exists(path);
    if (*created)
        return createSecretFile(path, secret);
    if (const QString problem = privateFileProblem(path, "secret file"); !problem.isEmpty())
        return problem;
    return readSecretFile(path, secret);
}

// ---- FailureLimiter ---------------------------------------------------------------------------

void FailureLimiter::forgetOld(Clock::time_point now) {
    for (auto it = m_records.begin(); it != m_records.end();) {
        Record& record = it.value();
        while (!record.failures.empty() && now - record.failures.front() >= kWindow)
            record.failures.pop_front();
        if (record.failures.empty() && record.blockedUntil <= now)
            it = m_records.erase(it);
        else
            ++it;
    }
}

void FailureLimiter::recordFailure(const QString& address) {
    std::lock_guard<std::mutex> lock(m_mutex);
    const Clock::time_point now = Clock::now();
    forgetOld(now);
    Record& record = m_records[address];
    record.failures.push_back(now);
    if (int(record.failures.size()) >= kMaxFailures) {
        record.blockedUntil = now + kWindow;
        record.failures.clear();
    }
}

bool FailureLimiter::blocked(const QString& address) {
    std::lock_guard<std::mutex> lock(m_mutex);
    const auto it = m_records.constFind(address);
    return it != m_records.constEnd() && it->blockedUntil > Clock::now();
}

} // namespace host
} // namespace VESK
