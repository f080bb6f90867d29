// Fuzz target for the parameter parser, the first thing a server does with a peer's message,
// and for the path joining that must keep every peer-supplied value inside the mount.

#include "FuzzCheck.h"

#include "base/VeskBase.h"

#include <cstddef>
#include <cstdint>

using VESK::VeskBase;

namespace {

const QString kMount = QStringLiteral("/srv/mount");

void checkConfined(const QString& joined) {
    FUZZ_CHECK(joined == kMount || joined.startsWith(kMount + "/"));
    const QStringList segments = joined.mid(kMount.size()).split('/');
    FUZZ_CHECK(!segments.contains(QStringLiteral("..")));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const QString text = QString::fromUtf8(reinterpret_cast<const char*>(data), int(size));
    const QMap<QString, QString> map = VeskBase::unSerializeParam(text);
    // What the parser accepted goes back and forth through the wire form unchanged.
    FUZZ_CHECK(VeskBase::unSerializeParam(VeskBase::serializeParam(map)) == map);
    QString previous;
    for (auto it = map.cbegin(); it != map.cend(); ++it) {
        checkConfined(VeskBase::pathJoin(kMount, it.value()));
        checkConfined(VeskBase::pathJoin(VeskBase::pathJoin(kMount, previous), it.value()));
        previous = it.value();
    }
    return 0;
}
