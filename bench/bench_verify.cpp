// bench_verify METHOD FILE: prints the verify value of FILE as the base computes it for
// getFileVerifyValue (read from the file every time: the value kept with the file is neither
// used nor written, so the figure is that of the computation), in the form of md5sum ("VALUE
// FILE"), so the benchmark can time it against the coreutils tools and check that both agree. The
// time the computation took goes to stderr as "seconds S": the process start-up (UDT measures the
// CPU clock for 100 ms when it is loaded) is not part of what is measured.

#include "base/Verify.h"

#include <QString>

#include <chrono>
#include <cstdio>

int main(int argc, char* argv[]) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: bench_verify METHOD FILE\n"
                             "  METHOD: fileattr, md5, sha1, sha256 or xxh3\n");
        return 2;
    }
    const QString method = QString::fromLocal8Bit(argv[1]);
    const QString path = QString::fromLocal8Bit(argv[2]);
    const auto start = std::chrono::steady_clock::now();
    const QString value = VESK::verify::computeFileValue(path, method);
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
    if (value.isEmpty()) {
        std::fprintf(stderr, "bench_verify: cannot read %s\n", argv[2]);
        return 1;
    }
    std::printf("%s  %s\n", value.toLatin1().constData(), argv[2]);
    std::fprintf(stderr, "seconds %.6f\n", took.count());
    return 0;
}
