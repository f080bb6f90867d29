#include "HostHello.h"

#include "base/Net.h"
#include "base/VeskBase.h"
#include "base/Wire.h"

namespace VESK {
namespace host {

const char* const kTooManyConnections = "TooManyConnections";
const char* const kUnsupportedProtocol = "UnsupportedProtocol";
const char* const kUnsupportedVersion = "UnsupportedVersion";
const char* const kServerStopping = "ServerStopping";

namespace {

bool sendMap(int socket, quint32 number, const ParamMap& map, QString* error) {
    return wire::sendFrame(socket, number, VeskBase::serializeParam(map).toUtf8(), error);
}

// Reads message `expected` within the hello time limit and parses it as a parameter map.
bool recvMap(int socket, quint32 expected, ParamMap& map, QString* error) {
    net::setReceiveTimeout(socket, kHelloTimeoutMs);
    quint32 number = 0;
    QByteArray body;
    const bool received = wire::recvFrame(socket, number, body, error);
    // The handler's own messages may legitimately wait much longer than a hello.
    net::setReceiveTimeout(socket, -1);
    if (!received)
        return false;
    if (number != expected) {
        if (error)
            *error = QString("expected message %1, got %2")
                         .arg(QString::number(expected), QString::number(number));
        return false;
    }
    map = VeskBase::unSerializeParam(QString::fromUtf8(body));
    return true;
}

} // namespace

void splitProtocolKey(const QString& key, QString* protocol, QString* version) {
    const int dash = key.indexOf('-');
    *protocol = key.left(dash);
    *version = dash < 0 ? QString() : key.mid(dash + 1);
}

HelloResult clientHello(int socket, const QString& protocol, const QString& version,
                        QString* errorType, QString* error) {
    const ParamMap hello{{"protocol", protocol}, {"version", version}};
    if (!sendMap(socket, kHelloMessage, hello, error))
        return HelloResult::Failed;
    ParamMap answer;
    if (!recvMap(socket, kHelloAnswerMessage, answer, error))
        return HelloResult::Failed;
    if (answer.value("accepted") == QLatin1String("true"))
        return HelloResult::Accepted;
    if (errorType)
        *errorType = answer.value("errorType");
    return HelloResult::Refused;
}

bool readHello(int socket, QString* protocol, QString* version, QString* error) {
    ParamMap hello;
    if (!recvMap(socket, kHelloMessage, hello, error))
        return false;
    *protocol = hello.value("protocol");
    *version = hello.value("version");
    return true;
}

bool answerHello(int socket, const QString& errorType, QString* error) {
    ParamMap answer{{"accepted", errorType.isEmpty() ? "true" : "false"}};
    if (!errorType.isEmpty())
        answer.insert("errorType", errorType);
    return sendMap(socket, kHelloAnswerMessage, answer, error);
}

} // namespace host
} // namespace VESK
