// Runs a fuzz target over the files and directories named on the command line, without libFuzzer.
// Each input stands in a heap block of its exact size, so that a sanitizer sees one byte too many.
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {
size_t replay(const std::filesystem::path& path)
{
    std::ifstream in(path, std::ios::binary);
    const std::vector<char> bytes{std::istreambuf_iterator<char>(in), {}};
    auto block = std::make_unique<uint8_t[]>(bytes.size());
    if (!bytes.empty()) {
        memcpy(block.get(), bytes.data(), bytes.size());
    }
    LLVMFuzzerTestOneInput(block.get(), bytes.size());
    return 1;
}
} // namespace

int main(int argc, char** argv)
{
    size_t count = 0;
    for (int i = 1; i < argc; ++i) {
        if (!std::filesystem::is_directory(argv[i])) {
            count += replay(argv[i]);
            continue;
        }
        for (const auto& entry : std::filesystem::directory_iterator(argv[i])) {
            count += replay(entry.path());
        }
    }
    printf("%zu inputs replayed\n", count);
    return count > 0 ? 0 : 1;
}
