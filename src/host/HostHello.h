#pragma once

// The host hello, exchanged before any handler runs: the client names the protocol and version
// it speaks (message 1), the server accepts or refuses (message 2). A refused connection is
// closed by the server right after its answer, so an over-full or mismatched server never
// leaves a client hanging.

#include <QString>

namespace VESK {
namespace host {

constexpr quint32 kHelloMessage = 1;
constexpr quint32 kHelloAnswerMessage = 2;
// How long either side waits for the other's hello; a silent peer is not worth a thread.
constexpr int kHelloTimeoutMs = 10000;

// Reasons the server gives in "errorType".
extern const char* const kTooManyConnections;
extern const char* const kUnsupportedProtocol;
extern const char* const kUnsupportedVersion;
extern const char* const kServerStopping;

// Splits a handler's getKey(), "VESK-2.0.0", into the protocol word and the version.
void splitProtocolKey(const QString& key, QString* protocol, QString* version);

enum class HelloResult { Accepted, Refused, Failed };

// Client side: sends the hello and reads the answer. Refused gives the server's errorType in
// `errorType`; Failed a transport or format problem in `error`.
HelloResult clientHello(int socket, const QString& protocol, const QString& version,
                        QString* errorType, QString* error);

// Server side: reads a client's hello.
bool readHello(int socket, QString* protocol, QString* version, QString* error);
// Server side: accepts when `errorType` is empty, refuses with it otherwise.
bool answerHello(int socket, const QString& errorType, QString* error);

} // namespace host
} // namespace VESK
