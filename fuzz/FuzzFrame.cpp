// Fuzz target for the frame reader: the bytes a peer sends are cut into frames with the same
// decoder recvFrame uses, and each body goes on to the parameter parser as recv's caller does.

#include "FuzzCheck.h"

#include "base/VeskBase.h"
#include "base/Wire.h"

#include <cstddef>
#include <cstdint>

using namespace VESK::wire;

namespace {

void checkComplete(const QByteArray& input, quint32 number, const QByteArray& body, int consumed) {
    FUZZ_CHECK(quint32(body.size()) <= kMaxBodyBytes);
    FUZZ_CHECK(consumed == kHeaderBytes + body.size());
    // What was decoded encodes back to exactly the bytes it came from.
    FUZZ_CHECK(encodeFrame(number, body) == input.left(consumed));
    VESK::VeskBase::unSerializeParam(QString::fromUtf8(body));
}

void checkRefused(const QByteArray& input, Decoded result) {
    FrameHeader header;
    if (input.size() < kHeaderBytes) {
        FUZZ_CHECK(result == Decoded::Incomplete);
        return;
    }
    const bool acceptable = decodeHeader(input.constData(), header);
    if (result == Decoded::Invalid)
        FUZZ_CHECK(!acceptable && header.length > kMaxBodyBytes);
    else
        FUZZ_CHECK(acceptable && qint64(input.size()) < kHeaderBytes + qint64(header.length));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    QByteArray input(reinterpret_cast<const char*>(data), int(size));
    for (;;) {
        quint32 number = 0;
        QByteArray body;
        int consumed = -1;
        const Decoded result = decodeFrame(input, number, body, consumed);
        if (result != Decoded::Complete) {
            FUZZ_CHECK(consumed == -1);
            checkRefused(input, result);
            return 0;
        }
        checkComplete(input, number, body, consumed);
        input.remove(0, consumed);
    }
}
