// Runs a fuzz target over the files and directories named on the command line, without libFuzzer.
// Each input stands in a heap block of its exact size, so that a sanitizer sees one byte too many. Files are
// read by libc, whose calls MemorySanitizer knows.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <dirent.h>
#include <memory>
#include <string>
#include <sys/stat.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {
[[noreturn]] void refuse(const std::string& path)
{
    perror(path.c_str());
    exit(1);
}

void replay(const std::string& path)
{
    FILE* file = fopen(path.c_str(), "rb");
    struct stat status = {};
    if (file == nullptr || fstat(fileno(file), &status) != 0) {
        refuse(path);
    }
    const auto size = static_cast<size_t>(status.st_size);
    const auto block = std::make_unique_for_overwrite<uint8_t[]>(size);
    if (fread(block.get(), 1, size, file) != size) {
        refuse(path);
    }
    fclose(file);
    LLVMFuzzerTestOneInput(block.get(), size);
}

size_t replay_folder(const std::string& path)
{
    DIR* folder = opendir(path.c_str());
    if (folder == nullptr) {
        refuse(path);
    }
    size_t count = 0;
    while (const struct dirent* entry = readdir(folder)) {
        if (entry->d_name[0] != '.') {
            replay(path + "/" + entry->d_name);
            ++count;
        }
    }
    closedir(folder);
    return count;
}
} // namespace

int main(int argc, char** argv)
{
    size_t count = 0;
    for (int i = 1; i < argc; ++i) {
        struct stat status = {};
        if (stat(argv[i], &status) == 0 && S_ISDIR(status.st_mode)) {
            count += replay_folder(argv[i]);
        } else {
            replay(argv[i]);
            ++count;
        }
    }
    printf("%zu inputs replayed\n", count);
    return count > 0 ? 0 : 1;
}
