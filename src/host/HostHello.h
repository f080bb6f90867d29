#pragma once

// The host hello, exchanged before any handler runs. The client names the protocol and version
// it speaks (message 1); the server accepts or refuses (message 2). A refused connection is
// closed by the server right after its answer, so an over-full or mismatched server never
// leaves a client hanging. A client without a secret does not wait for message 2: its handler
// sends the task right behind message 1 and reads message 2 before the task's answer.
//
// A server that authenticates its users answers message 1 with a challenge instead, and both
// sides prove that they hold the user's secret without sending it:
//
//   1 client -> server  {protocol, version}
//   2 server -> client  {accepted: "challenge", method: "hmac-sha256", nonce: N_s}
//   3 client -> server  {user, nonce: N_c, proof: HMAC(secret, "client" label, N_s, N_c, user,
//                                                       protocol, version)}
//   4 server -> client  {accepted: "true", proof: HMAC(secret, "server" label, the same fields)}
//                    or {accepted: "false", errorType: "AuthenticationFailed"}
//
// Nonces are 32 random bytes from the operating system, in hex; proofs are HMAC-SHA256 in hex
// (see Auth.h). An unknown user and a wrong secret get the same answer after the same work. The
// client checks the server's proof before it sends its task, so a server that does not know the
// secret learns nothing of the task. The whole hello must arrive within the hello time limit,
// however the peer spreads its bytes.

#include "base/Protocol.h"

#include <QByteArray>
#include <QDeadlineTimer>
#include <QMap>
#include <QString>

namespace VESK {
namespace host {

constexpr quint32 kHelloMessage = protocol::kHello;
constexpr quint32 kHelloAnswerMessage = protocol::kHelloAnswer;
constexpr quint32 kAuthResponseMessage = protocol::kAuthResponse;
constexpr quint32 kAuthOutcomeMessage = protocol::kAuthOutcome;
// How long either side waits for the other's part of the hello, all of it; a silent or
// trickling peer is not worth a thread.
constexpr int kHelloTimeoutMs = 10000;
// No message of the hello is anywhere near this long.
constexpr quint32 kMaxHelloBytes = 64 * 1024;

// Reasons the server gives in "errorType".
extern const char* const kTooManyConnections;
extern const char* const kTooManyFromAddress;
extern const char* const kTooManyFailures;
extern const char* const kAuthenticationFailed;
extern const char* const kUnsupportedProtocol;
extern const char* const kUnsupportedVersion;
extern const char* const kServerStopping;

// Splits a handler's getKey(), "VESK-2.0.0", into the protocol word and the version.
void splitProtocolKey(const QString& key, QString* protocol, QString* version);

// What a client may prove itself with.
struct ClientCredentials {
    QString user;
    QByteArray secret;      // empty: none
    bool mustProve = false; // refuse a server that accepts without proving it knows the secret
};

enum class HelloResult {
    Accepted,
    Refused,        // the server's reason is in `errorType`
    Failed,         // transport or format problem, in `error`
    SecretNeeded,   // the server asks for authentication and the client has no secret
    ServerUnproven, // the server did not prove it knows the secret (detail in `error`)
};

// Client side: the whole hello, with the challenge when the server sends one. A `maxRate` above 0
// asks the server to send at most that many bytes a second on this connection ("maxRate" in
// message 1); the server keeps its own cap when that is lower.
HelloResult clientHello(int socket, const QString& protocol, const QString& version,
                        const ClientCredentials& credentials, QString* errorType, QString* error,
                        qint64 maxRate = 0);

// A client with nothing to prove and nothing to check (no secret, no user that the server must
// prove it knows) sends its task right behind message 1 instead of waiting a round trip for
// message 2: whatever answers gets the task either way, and a server that refuses the
// connection closes it without reading the task.
bool mayPipelineTask(const ClientCredentials& credentials);
// Client side, message 1 alone, for such a client; clientHello() sends it too.
bool sendHello(int socket, const QString& protocol, const QString& version, qint64 maxRate,
               QString* error);
// Such a client's reading of message 2, within the hello time limit from now: Accepted, Refused,
// SecretNeeded for a challenge, or Failed.
HelloResult readHelloAnswer(int socket, QString* errorType, QString* error);

// Server side: reads a client's hello before `deadline`; `maxRate` (when given) receives the
// rate the client asked for, 0 when it asked for none or sent no valid number.
bool readHello(int socket, const QDeadlineTimer& deadline, QString* protocol, QString* version,
               QString* error, qint64* maxRate = nullptr);

// The send rate of a connection: the server's cap and the client's, whichever is lower, 0 for
// neither.
qint64 connectionRate(qint64 serverCap, qint64 clientAsked);
// Server side: accepts when `errorType` is empty, refuses with it otherwise.
bool answerHello(int socket, const QString& errorType, QString* error);

enum class AuthResult { Authenticated, Rejected, Failed };

// Server side, after readHello(): challenges the client and checks its proof against `secrets`
// (user -> secret), then answers. Rejected: the client's proof did not hold and it was told
// "AuthenticationFailed"; Failed: the transport or the message format failed (in `error`).
// `user` is the name the client gave either way.
AuthResult authenticateClient(int socket, const QDeadlineTimer& deadline,
                              const QMap<QString, QByteArray>& secrets, const QString& protocol,
                              const QString& version, QString* user, QString* error);

} // namespace host
} // namespace VESK
