// Real streams for tests: short ones, made by ffmpeg when they are first asked for and kept in the build
// tree, since each test is a process of its own. Nothing here works without ffmpeg and ffprobe: see
// streams_missing.
#ifndef TESTS_SUPPORT_STREAMS_H
#define TESTS_SUPPORT_STREAMS_H

#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "child.h"
#include "paths.h"
#include "ts_packets.h"

namespace support {

// Why streams cannot be made here, empty if they can: a test that needs them skips with this text.
inline std::string streams_missing()
{
    for (const char* name : {"/usr/bin/ffmpeg", "/usr/bin/ffprobe"}) {
        if (access(name, X_OK) != 0) {
            return std::string(name) + " is not installed";
        }
    }
    return "";
}

inline Buffer read_stream(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    Buffer bytes{std::istreambuf_iterator<char>(in), {}};
    bytes.shrink_to_fit();
    return bytes;
}

// Writes a file under a name of this process and then moves it to its place: other tests see all of it or
// nothing.
template <class Write>
std::string make_once(const std::string& name, Write write)
{
    const std::filesystem::path folder = build_path("streams");
    std::filesystem::create_directories(folder);
    const std::filesystem::path place = folder / name;
    if (!std::filesystem::exists(place)) {
        const std::filesystem::path own = folder / (std::to_string(getpid()) + "-" + name);
        write(own.string());
        std::filesystem::rename(own, place);
    }
    return place.string();
}

inline std::string write_stream(const std::string& name, const Buffer& bytes)
{
    return make_once(name, [&](const std::string& path) {
        std::ofstream(path, std::ios::binary)
            .write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    });
}

inline std::string ffmpeg(const std::vector<std::string>& arguments)
{
    std::vector<std::string> argv = {"/usr/bin/ffmpeg", "-nostdin", "-hide_banner",
                                     "-loglevel",       "error",    "-y"};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    const ChildResult result = run_program(argv);
    EXPECT_EQ(result.exit_code, 0) << result.err;
    return result.err;
}

// A second of moving picture with an I-frame in ten, and a tone; 188-byte packets. Path of the file.
inline std::string stream_188(const std::string& codec)
{
    return make_once(codec + ".ts", [&](const std::string& path) {
        ffmpeg({"-f", "lavfi", "-i", "testsrc=size=96x64:rate=25:duration=1", "-f", "lavfi", "-i",
                "sine=frequency=440:duration=1", "-c:v", codec, "-g", "10", "-c:a", "mp2", "-f", "mpegts",
                path});
    });
}

// The same behind time stamps: 192-byte packets.
inline std::string stream_192(const std::string& codec)
{
    const std::string plain = stream_188(codec);
    return make_once(codec + ".m2ts", [&](const std::string& path) {
        ffmpeg({"-i", plain, "-c", "copy", "-f", "mpegts", "-mpegts_m2ts_mode", "1", path});
    });
}

// The same with 16 bytes behind each packet, as check symbols would stand there.
inline std::string stream_204(const std::string& codec)
{
    const Buffer plain = read_stream(stream_188(codec));
    Buffer padded;
    for (size_t pos = 0; pos < plain.size(); pos += 188) {
        const Buffer one = join({part(plain, pos, 188)}, 204);
        padded.insert(padded.end(), one.begin(), one.end());
    }
    return write_stream(codec + ".204.ts", padded);
}

// What ffprobe prints, in lines of fields that commas separate.
inline std::vector<std::vector<std::string>> ffprobe(const std::string& path,
                                                     const std::vector<std::string>& arguments)
{
    std::vector<std::string> argv = {"/usr/bin/ffprobe", "-v", "error", "-of", "csv=p=0"};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    argv.push_back(path);
    const ChildResult result = run_program(argv);
    EXPECT_EQ(result.exit_code, 0) << result.err;
    std::vector<std::vector<std::string>> table;
    std::istringstream lines(result.out);
    for (std::string line; std::getline(lines, line);) {
        std::vector<std::string> fields;
        std::istringstream rest(line);
        for (std::string field; std::getline(rest, field, ',');) {
            fields.push_back(field);
        }
        if (!fields.empty()) {
            table.push_back(fields);
        }
    }
    return table;
}

} // namespace support

#endif
