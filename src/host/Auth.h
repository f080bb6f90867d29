#pragma once

// Shared secrets and the proofs built from them. A user and the server share a secret; in the
// host hello each side proves it holds the secret by a keyed hash over both sides' fresh random
// nonces, the user and the protocol spoken, so the secret itself never crosses the network and
// no proof can be replayed on another connection. See HostHello.h for the exchange.

#include <QByteArray>
#include <QMap>
#include <QString>

#include <chrono>
#include <deque>
#include <mutex>

namespace VESK {
namespace host {

// Bytes of a nonce, from the operating system's random source.
constexpr int kNonceBytes = 32;

// `count` bytes from the operating system's random source (empty when it fails).
QByteArray randomBytes(int count);
QByteArray hmacSha256(const QByteArray& key, const QByteArray& message);
// Compares in time that depends only on the lengths, never on where the first difference is.
bool sameBytes(const QByteArray& a, const QByteArray& b);

enum class ProofRole { Client, Server };

// What one side sends to show it holds `secret`. The two roles hash different labels, so a
// server can never answer with the client's own proof.
QByteArray helloProof(ProofRole role, const QByteArray& secret, const QByteArray& serverNonce,
                      const QByteArray& clientNonce, const QString& user, const QString& protocol,
                      const QString& version);

// Reads a server's secrets file: lines USER:SECRET, '#' starts a comment line, blank lines are
// skipped. Refuses a file that its group or others may read. "" on success, else the problem.
QString readSecretsFile(const QString& path, QMap<QString, QByteArray>* secrets);

// Reads a client's secret: the first line of the file. "" on success, else the problem.
QString readSecretFile(const QString& path, QByteArray* secret);

// The secret of a server that admits only the user running it: the first line of `path`, which
// must be private to its owner as a secrets file must. A missing file is created with a new
// random secret (readable by its owner only, in a directory of the owner's only when it has to
// make that too) and `created` is set. "" on success, else the problem.
QString ownSecret(const QString& path, QByteArray* secret, bool* created);

// Remembers failed authentications per address: an address with kMaxFailures within a minute is
// refused for the next minute. Thread-safe.
class FailureLimiter {
public:
    static constexpr int kMaxFailures = 10;
    static constexpr std::chrono::seconds kWindow{60};

    void recordFailure(const QString& address);
    bool blocked(const QString& address);

private:
    using Clock = std::chrono::steady_clock;
    struct Record {
        std::deque<Clock::time_point> failures; // within the last window
        Clock::time_point blockedUntil;
    };
    void forgetOld(Clock::time_point now);

    std::mutex m_mutex;
    QMap<QString, Record> m_records;
};

} // namespace host
} // namespace VESK
