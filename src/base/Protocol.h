#pragma once

// The numbers a vesk connection is made of, in one place for the handler and the host: the
// message number of every frame and the open modes of the file stream.

#include <QtGlobal>

namespace VESK {
namespace protocol {

// Message numbers. The host's hello comes first (1 to 4: hello, its answer or challenge, the
// client's proof, the outcome with the server's proof); then the task's own messages.
constexpr quint32 kHello = 1;
constexpr quint32 kHelloAnswer = 2;
constexpr quint32 kAuthResponse = 3;
constexpr quint32 kAuthOutcome = 4;
constexpr quint32 kTaskParam = 5;
constexpr quint32 kTaskParamAck = 6;
constexpr quint32 kFileVerifyResult = 7;
constexpr quint32 kTaskComplete = 8;
constexpr quint32 kListContent = 9;

// Open modes of the file stream, in its numbering: in 1, out 2, append 8, truncate 16,
// binary 32.
constexpr int kOpenRead = 33;    // in | binary
constexpr int kOpenAppend = 42;  // out | append | binary
constexpr int kOpenReplace = 50; // out | truncate | binary

} // namespace protocol
} // namespace VESK
