// A directory of a test's own, removed with all that is in it.
#ifndef TESTS_SUPPORT_TEMPDIR_H
#define TESTS_SUPPORT_TEMPDIR_H

#include <cstdint>
#include <string>
#include <vector>

namespace support {

// What stands in a file, at most so many bytes from its start; empty if it cannot be read.
std::string read_file(const std::string& path, size_t most = SIZE_MAX);

class TempDir {
  public:
    TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    ~TempDir();

    const std::string& path() const { return path_; }

    // Path of a file in the directory.
    std::string path(const std::string& name) const { return path_ + "/" + name; }

    void make_dir(const std::string& name) const;
    void write(const std::string& name, const std::string& text) const;
    std::string read(const std::string& name, size_t most = SIZE_MAX) const; // empty if it cannot be read
    std::vector<std::string> names() const;                                  // of what is in it, sorted
    bool has(const std::string& name) const;

  private:
    std::string path_;
};

} // namespace support

#endif
