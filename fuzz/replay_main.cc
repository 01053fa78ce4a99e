// Runs every file of the given corpus directories (or the given files) once
// through a fuzzer's LLVMFuzzerTestOneInput, so that the normal test build
// replays the seed corpus without libFuzzer. Fails when nothing was replayed,
// so that a missing or empty corpus is noticed.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <system_error>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

namespace {

bool RunFile(const std::filesystem::path &file) {
    std::ifstream in(file, std::ios::binary);
    if (!in) {
        std::fprintf(stderr, "cannot read %s\n", file.c_str());
        return false;
    }
    std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    // An empty input still gets a valid, non-null pointer, as libFuzzer gives it.
    uint8_t none = 0;
    LLVMFuzzerTestOneInput(bytes.empty() ? &none : bytes.data(), bytes.size());
    return true;
}

}  // namespace

int main(int argc, char **argv) {
    size_t replayed = 0;
    for (int i = 1; i < argc; ++i) {
        std::filesystem::path arg(argv[i]);
        std::error_code ec;
        if (!std::filesystem::is_directory(arg, ec)) {
            if (!RunFile(arg)) return 1;
            ++replayed;
            continue;
        }
        std::vector<std::filesystem::path> files;
        for (const auto &entry : std::filesystem::directory_iterator(arg, ec))
            if (entry.is_regular_file()) files.push_back(entry.path());
        std::sort(files.begin(), files.end());  // a stable order makes a failure reproducible
        for (const auto &f : files) {
            std::printf("replay %s\n", f.c_str());
            std::fflush(stdout);
            if (!RunFile(f)) return 1;
            ++replayed;
        }
    }
    std::printf("%zu inputs replayed\n", replayed);
    return replayed > 0 ? 0 : 1;
}
