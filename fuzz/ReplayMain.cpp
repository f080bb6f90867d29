// Runs a fuzz target over stored inputs without libFuzzer, so that the normal (and the
// sanitizer) build checks the seed corpus and every input that once crashed a target.

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>

#include <cstdint>
#include <cstdio>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

bool replayFile(const QString& path) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        std::fprintf(stderr, "cannot read %s\n", qPrintable(path));
        return false;
    }
    const QByteArray bytes = file.readAll();
    LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.constData()),
                           size_t(bytes.size()));
    return true;
}

} // namespace

// Arguments: files or directories (searched recursively); at least one input must be found.
int main(int argc, char** argv) {
    int replayed = 0;
    for (int i = 1; i < argc; ++i) {
        const QString path = QString::fromLocal8Bit(argv[i]);
        const QFileInfo info(path);
        if (!info.exists()) {
            // A target that never crashed has no directory of kept inputs yet.
            std::printf("no inputs in %s\n", qPrintable(path));
            continue;
        }
        if (!info.isDir()) {
            if (!replayFile(path))
                return 1;
            ++replayed;
            continue;
        }
        QDirIterator it(path, QDir::Files | QDir::Hidden, QDirIterator::Subdirectories);
        while (it.hasNext()) {
            if (!replayFile(it.next()))
                return 1;
            ++replayed;
        }
    }
    std::printf("replayed %d inputs\n", replayed);
    return replayed > 0 ? 0 : 1;
}
