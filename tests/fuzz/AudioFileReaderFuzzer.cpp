// libFuzzer target of the audio import read path: every input is written to a
// file and opened, probed and read through AudioFileReader as an import does
// (mixed to mono, converted to 48 kHz, cut at 10 s). Built and run by
// scripts/fuzz.sh; not part of the CMake build.

#include "audio/AudioFileReader.h"

#include <cstdint>
#include <cstdio>
#include <string>
#include <unistd.h>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const std::string path = [] {
        char name[] = "/tmp/widmo-fuzz-XXXXXX";
        const int fd = mkstemp(name);
        if (fd >= 0)
            close(fd);
        return std::string(name);
    }();
    FILE* f = std::fopen(path.c_str(), "wb");
    if (f == nullptr)
        return 0;
    if (size > 0)
        std::fwrite(data, 1, size, f);
    std::fclose(f);

    widmo::AudioFileReader reader;
    if (!reader.open(path))
        return 0;
    (void)reader.formatName();
    std::vector<float> out;
    (void)reader.readMono(out, 48000.0, widmo::AudioFileReader::kMixAllChannels, 480000);
    if (reader.channels() > 1)
        (void)reader.readMono(out, 0.0, reader.channels() - 1, 48000);
    return 0;
}
