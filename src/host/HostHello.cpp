#include "HostHello.h"

#include "Auth.h"
#include "base/VeskBase.h"
#include "base/Wire.h"

namespace VESK {
namespace host {

const char* const kTooManyConnections = "TooManyConnections";
const char* const kTooManyFromAddress = "TooManyFromAddress";
const char* const kTooManyFailures = "TooManyFailures";
const char* const kAuthenticationFailed = "AuthenticationFailed";
const char* const kUnsupportedProtocol = "UnsupportedProtocol";
const char* const kUnsupportedVersion = "UnsupportedVersion";
const char* const kServerStopping = "ServerStopping";

namespace {

const QLatin1String kChallenge("challenge");
const QLatin1String kMethod("hmac-sha256");

bool sendMap(int socket, quint32 number, const ParamMap& map, QString* error) {
    return wire::sendFrame(socket, number, VeskBase::serializeParam(map).toUtf8(), error);
}

// Reads message `expected` before `deadline` and parses it as a parameter map. `got` receives
// the number of the message that came, when one did.
bool recvMap(int socket, quint32 expected, const QDeadlineTimer& deadline, ParamMap& map,
             QString* error, quint32* got = nullptr) {
    quint32 number = 0;
    QByteArray body;
    if (wire::recvFrameWithin(socket, deadline, kMaxHelloBytes, number, body, error) !=
        wire::Received::Frame)
        return false;
    if (got)
        *got = number;
    if (number != expected) {
        if (error)
            *error = QString("expected message %1, got %2")
                         .arg(QString::number(expected), QString::number(number));
        return false;
    }
    map = VeskBase::unSerializeParam(QString::fromUtf8(body));
    return true;
}

QString hex(const QByteArray& bytes) {
    return QString::fromLatin1(bytes.toHex());
}

// Hex text of exactly `bytes` bytes, or empty.
QByteArray fromHex(const QString& text, int bytes) {
    const QByteArray value = QByteArray::fromHex(text.toLatin1());
    return value.size() == bytes && hex(value) == text.toLower() ? value : QByteArray();
}

HelloResult answerChallenge(int socket, const ParamMap& challenge, const QString& protocol,
                            const QString& version, const ClientCredentials& credentials,
                            const QDeadlineTimer& deadline, QString* errorType, QString* error) {
    if (credentials.secret.isEmpty())
        return HelloResult::SecretNeeded;
    const QByteArray serverNonce = fromHex(challenge.value("nonce"), kNonceBytes);
    if (challenge.value("method") != kMethod || serverNonce.isEmpty()) {
        if (error)
            *error = QString("it asks for an unknown kind of authentication");
        return HelloResult::Failed;
    }
    const QByteArray clientNonce = randomBytes(kNonceBytes);
    if (clientNonce.isEmpty()) {
        if (error)
            *error = QString("no random numbers from the operating system");
        return HelloResult::Failed;
    }
    const auto proof = [&](ProofRole role) {
        return helloProof(role, credentials.secret, serverNonce, clientNonce, credentials.user,
                          protocol, version);
    };
    const ParamMap response{{"user", credentials.user},
                            {"nonce", hex(clientNonce)},
                            {"proof", hex(proof(ProofRole::Client))}};
    if (!sendMap(socket, kAuthResponseMessage, response, error))
        return HelloResult::Failed;
    ParamMap outcome;
    if (!recvMap(socket, kAuthOutcomeMessage, deadline, outcome, error))
        return HelloResult::Failed;
    if (outcome.value("accepted") != QLatin1String("true")) {
        if (errorType)
            *errorType = outcome.value("errorType");
        return HelloResult::Refused;
    }
    const QByteArray serverProof = fromHex(outcome.value("proof"), 32);
    if (!sameBytes(serverProof, proof(ProofRole::Server))) {
        if (error)
            *error = QString("its proof of the secret is wrong");
        return HelloResult::ServerUnproven;
    }
    return HelloResult::Accepted;
}

} // namespace

void splitProtocolKey(const QString& key, QString* protocol, QString* version) {
    const int dash = key.indexOf('-');
    *protocol = key.left(dash);
    *version = dash < 0 ? QString() : key.mid(dash + 1);
}

bool sendHello(int socket, const QString& protocol, const QString& version, qint64 maxRate,
               QString* error) {
    ParamMap hello{{"protocol", protocol}, {"version", version}};
    if (maxRate > 0)
        hello.insert("maxRate", QString::number(maxRate));
    return sendMap(socket, kHelloMessage, hello, error);
}

namespace {

// Reads message 2 and what follows from it: the challenge answered when the server sends one
// (SecretNeeded without a secret), else the server's verdict.
HelloResult readAnswer(int socket, const QString& protocol, const QString& version,
                       const ClientCredentials& credentials, QString* errorType, QString* error) {
    const QDeadlineTimer deadline(kHelloTimeoutMs);
    ParamMap answer;
    if (!recvMap(socket, kHelloAnswerMessage, deadline, answer, error))
        return HelloResult::Failed;
    if (answer.value("accepted") == kChallenge)
        return answerChallenge(socket, answer, protocol, version, credentials, deadline, errorType,
                               error);
    if (answer.value("accepted") == QLatin1String("true")) {
        if (credentials.mustProve) {
            if (error)
                *error = QString("it accepted without proving that it knows the secret");
            return HelloResult::ServerUnproven;
        }
        return HelloResult::Accepted;
    }
    if (errorType)
        *errorType = answer.value("errorType");
    return HelloResult::Refused;
}

} // namespace

HelloResult clientHello(int socket, const QString& protocol, const QString& version,
                        const ClientCredentials& credentials, QString* errorType, QString* error,
                        qint64 maxRate) {
    if (!sendHello(socket, protocol, version, maxRate, error))
        return HelloResult::Failed;
    return readAnswer(socket, protocol, version, credentials, errorType, error);
}

bool mayPipelineTask(const ClientCredentials& credentials) {
    return credentials.secret.isEmpty() && !credentials.mustProve;
}

HelloResult readHelloAnswer(int socket, QString* errorType, QString* error) {
    // Without a secret a challenge is answered with SecretNeeded before the protocol is needed.
    return readAnswer(socket, QString(), QString(), ClientCredentials(), errorType, error);
}

bool readHello(int socket, const QDeadlineTimer& deadline, QString* protocol, QString* version,
               QString* error, qint64* maxRate) {
    ParamMap hello;
    if (!recvMap(socket, kHelloMessage, deadline, hello, error))
        return false;
    *protocol = hello.value("protocol");
    *version = hello.value("version");
    if (maxRate) {
        bool ok = false;
        *maxRate = hello.value("maxRate").toLongLong(&ok);
        if (!ok || *maxRate < 0)
            *maxRate = 0;
    }
    return true;
}

qint64 connectionRate(qint64 serverCap, qint64 clientAsked) {
    if (serverCap <= 0)
        return std::max<qint64>(clientAsked, 0);
    return clientAsked > 0 ? std::min(serverCap, clientAsked) : serverCap;
}

bool answerHello(int socket, const QString& errorType, QString* error) {
    ParamMap answer{{"accepted", errorType.isEmpty() ? "true" : "false"}};
    if (!errorType.isEmpty())
        answer.insert("errorType", errorType);
    return sendMap(socket, kHelloAnswerMessage, answer, error);
}

AuthResult authenticateClient(int socket, const QDeadlineTimer& deadline,
                              const QMap<QString, QByteArray>& secrets, const QString& protocol,
                              const QString& version, QString* user, QString* error) {
    const QByteArray serverNonce = randomBytes(kNonceBytes);
    if (serverNonce.isEmpty()) {
        if (error)
            *error = QString("no random numbers from the operating system");
        return AuthResult::Failed;
    }
    const ParamMap challenge{
        {"accepted", kChallenge}, {"method", kMethod}, {"nonce", hex(serverNonce)}};
    ParamMap response;
    quint32 got = 0;
    if (!sendMap(socket, kHelloAnswerMessage, challenge, error))
        return AuthResult::Failed;
    if (!recvMap(socket, kAuthResponseMessage, deadline, response, error, &got)) {
        // A client without a secret sends its task right behind message 1 (mayPipelineTask).
        if (got == protocol::kTaskParam && error)
            *error = QString("it has no secret and sent its task");
        return AuthResult::Failed;
    }
    *user = response.value("user");
    const QByteArray clientNonce = fromHex(response.value("nonce"), kNonceBytes);
    const QByteArray clientProof = fromHex(response.value("proof"), 32);

    // An unknown user is checked against a secret nobody holds, so that its answer takes the
    // same work as a wrong secret's.
    static const QByteArray nobodysSecret = randomBytes(kNonceBytes);
    const auto known = secrets.constFind(*user);
    const QByteArray& secret = known != secrets.constEnd() ? *known : nobodysSecret;
    const auto proof = [&](ProofRole role) {
        return helloProof(role, secret, serverNonce, clientNonce, *user, protocol, version);
    };
    const bool proven = sameBytes(clientProof, proof(ProofRole::Client)) &&
                        known != secrets.constEnd() && !clientNonce.isEmpty();
    ParamMap outcome{{"accepted", proven ? "true" : "false"}};
    if (proven)
        outcome.insert("proof", hex(proof(ProofRole::Server)));
    else
        outcome.insert("errorType", kAuthenticationFailed);
    if (!sendMap(socket, kAuthOutcomeMessage, outcome, error))
        return AuthResult::Failed;
    return proven ? AuthResult::Authenticated : AuthResult::Rejected;
}

} // namespace host
} // namespace VESK
