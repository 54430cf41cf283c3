// A fuzz target as a plain, repeatable program: every file named on the command line (or
// found in the directories named) is run whole, then a fixed number of deterministic
// mutations of their beginnings: bit flips, truncations, byte insertions and deletions, and
// splices of two files. Any memory error, overflow or hang shows up under the sanitizers.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

namespace fs = std::filesystem;

std::vector<uint8_t> read_bytes(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(in),
                                std::istreambuf_iterator<char>());
}

void run(const std::vector<uint8_t>& bytes) {
    LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
}

// Bitstreams, WAV files, and corpus or regression files (named without an extension); the
// reference outputs and notes beside them are skipped.
bool is_input(const fs::path& path) {
    const std::string ext = path.extension().string();
    return ext.empty() || ext == ".bit" || ext == ".mp3" || ext == ".mp2" || ext == ".wav";
}

}  // namespace

// usage: <target>_driver MUTATIONS PATH...
int main(int argc, char** argv) {
    if (argc < 3) {
        std::fprintf(stderr, "usage: %s MUTATIONS PATH...\n", argv[0]);
        return 2;
    }
    const long mutations = std::strtol(argv[1], nullptr, 10);
    std::vector<fs::path> files;
    for (int i = 2; i < argc; ++i) {
        const fs::path path(argv[i]);
        if (fs::is_directory(path)) {
            for (const auto& entry : fs::recursive_directory_iterator(path)) {
                if (entry.is_regular_file() && is_input(entry.path()))
                    files.push_back(entry.path());
            }
        } else if (fs::is_regular_file(path)) {
            files.push_back(path);
        }
    }
    std::sort(files.begin(), files.end());
    if (files.empty()) {
        std::fprintf(stderr, "no inputs found\n");
        return 2;
    }
    std::vector<std::vector<uint8_t>> inputs;
    for (const auto& file : files) {
        inputs.push_back(read_bytes(file));
        std::fprintf(stderr, "== %s\n", file.string().c_str());
        run(inputs.back());
    }
    run({});

    // Mutations work on the first few frames of each input, so that thousands stay quick.
    constexpr size_t kPrefix = 6000;
    std::mt19937 random(20240611);
    for (long m = 0; m < mutations; ++m) {
        const auto& source = inputs[static_cast<size_t>(m) % inputs.size()];
        std::vector<uint8_t> bytes(
            source.begin(), source.begin() + static_cast<long>(std::min(source.size(), kPrefix)));
        if (bytes.empty()) continue;
        const auto pick = [&](size_t n) { return static_cast<size_t>(random() % n); };
        switch (m % 5) {
            case 0:  // a few bit flips
                for (int k = 0, n = 1 + static_cast<int>(pick(8)); k < n; ++k) {
                    bytes[pick(bytes.size())] ^= static_cast<uint8_t>(1u << pick(8));
                }
                break;
            case 1:  // truncation
                bytes.resize(pick(bytes.size() + 1));
                break;
            case 2:  // insertion of a short run of one byte value (0x00, 0xFF or random)
            {
                const size_t at = pick(bytes.size() + 1);
                const uint8_t values[3] = {0x00, 0xFF, static_cast<uint8_t>(random())};
                bytes.insert(bytes.begin() + static_cast<long>(at), 1 + pick(16), values[pick(3)]);
                break;
            }
            case 3:  // deletion of a span
            {
                const size_t at = pick(bytes.size());
                const size_t n = std::min(bytes.size() - at, 1 + pick(64));
                bytes.erase(bytes.begin() + static_cast<long>(at),
                            bytes.begin() + static_cast<long>(at + n));
                break;
            }
            default:  // splice: the head of this input, the tail of another
            {
                const auto& other = inputs[pick(inputs.size())];
                const size_t cut = pick(bytes.size());
                const size_t from = other.empty() ? 0 : pick(std::min(other.size(), kPrefix));
                bytes.resize(cut);
                bytes.insert(
                    bytes.end(), other.begin() + static_cast<long>(from),
                    other.begin() + static_cast<long>(std::min(other.size(), from + kPrefix)));
                break;
            }
        }
        run(bytes);
    }
    std::fprintf(stderr, "\nfuzz driver: %zu inputs, %ld mutations, no fault\n",
                 inputs.size(), mutations);
    return 0;
}
