#include "tempdir.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace support {

// In blocks: byte by byte a recording of many megabytes would take seconds.
std::string read_file(const std::string& path, size_t most)
{
    std::ifstream in(path, std::ios::binary);
    std::string text;
    std::vector<char> block(std::min<size_t>(most, 65'536));
    while (text.size() < most && in) {
        in.read(block.data(), static_cast<std::streamsize>(std::min(block.size(), most - text.size())));
        text.append(block.data(), static_cast<size_t>(in.gcount()));
    }
    return text;
}

TempDir::TempDir()
{
    path_ = (std::filesystem::temp_directory_path() / "mvtest.XXXXXX").string();
    if (mkdtemp(path_.data()) == nullptr) {
        perror("mkdtemp");
        abort();
    }
}

TempDir::~TempDir()
{
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

void TempDir::make_dir(const std::string& name) const
{
    std::filesystem::create_directory(path(name));
}

void TempDir::write(const std::string& name, const std::string& text) const
{
    std::ofstream(path(name), std::ios::binary) << text;
}

std::string TempDir::read(const std::string& name, size_t most) const
{
    return read_file(path(name), most);
}

std::vector<std::string> TempDir::names() const
{
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(path_)) {
        names.push_back(entry.path().filename());
    }
    std::sort(names.begin(), names.end());
    return names;
}

bool TempDir::has(const std::string& name) const
{
    return std::filesystem::exists(path(name));
}

} // namespace support
