// A directory of a test's own, removed with all that is in it.
#ifndef TESTS_SUPPORT_TEMPDIR_H
#define TESTS_SUPPORT_TEMPDIR_H

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace support {

class TempDir {
  public:
    TempDir()
    {
        std::string name = (std::filesystem::temp_directory_path() / "mvtest.XXXXXX").string();
        path_ = mkdtemp(name.data());
    }

    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    ~TempDir()
    {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }

    const std::string& path() const { return path_; }

    // Path of a file in the directory.
    std::string path(const std::string& name) const { return path_ + "/" + name; }

    void make_dir(const std::string& name) const { std::filesystem::create_directory(path(name)); }

    void write(const std::string& name, const std::string& text) const
    {
        std::ofstream(path(name), std::ios::binary) << text;
    }

    std::string read(const std::string& name) const
    {
        std::ifstream in(path(name), std::ios::binary);
        return {std::istreambuf_iterator<char>(in), {}};
    }

    // Names of what is in it, sorted.
    std::vector<std::string> names() const
    {
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(path_)) {
            names.push_back(entry.path().filename());
        }
        std::sort(names.begin(), names.end());
        return names;
    }

    bool has(const std::string& name) const { return std::filesystem::exists(path(name)); }

  private:
    std::string path_;
};

} // namespace support

#endif
