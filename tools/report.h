// What a command found, and how it is shown: verdicts as lines, or everything as one JSON object.
#ifndef ZENTCTL_REPORT_H
#define ZENTCTL_REPORT_H

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace zentctl {

// Exit codes.
enum : int { kGood = 0, kFindings = 1, kCouldNotLook = 2 };

// From the best to the worst.
enum class Level { ok, warning, error };

// One word that names a kind of finding: what scripts look for. All of them stand in codes.cpp.
struct Code {
    const char* word;
    const char* meaning;
};

std::span<const Code> all_codes();

struct Finding {
    Level level = Level::ok;
    std::string code;
    std::string text;
    std::string cure;  // empty: none
    size_t line = 0;   // of a file, from 1; 0: none
    size_t column = 0; // in bytes, from 1; 0: none
};

const char* level_name(Level level);

// What a command gives besides its findings: names with values, in the order in which they are set. Only
// report.cpp knows the JSON library: its header takes longer to compile than all of zentctl.
class Data {
  public:
    Data();
    Data(Data&& other) noexcept;
    Data& operator=(Data&& other) noexcept;
    ~Data();

    void set(std::string_view name, const std::string& text);

    void set(std::string_view name, const char* text) { set(name, std::string(text)); }

    void set(std::string_view name, bool yes);
    void set(std::string_view name, double number);
    void set_number(std::string_view name, int64_t number);
    void set_null(std::string_view name);
    void set(std::string_view name, const std::vector<std::string>& texts);
    void set(std::string_view name, const Data& object);
    void set(std::string_view name, const std::vector<Data>& objects);

    template <std::integral Number>

    requires(!std::same_as<Number, bool>) void set(std::string_view name, Number number)
    {
        set_number(name, static_cast<int64_t>(number));
    }

  private:
    friend class Report;
    struct Tree;
    std::unique_ptr<Tree> tree_;
};

class Report {
  public:
    explicit Report(std::string name) : command(std::move(name)) {}

    // REQUIRES: a word of all_codes().
    Finding& add(Level level, std::string_view code, std::string text, std::string cure = "");

    Finding& ok(std::string_view code, std::string text) { return add(Level::ok, code, std::move(text)); }

    Finding& warn(std::string_view code, std::string text, std::string cure = "")
    {
        return add(Level::warning, code, std::move(text), std::move(cure));
    }

    Finding& error(std::string_view code, std::string text, std::string cure = "")
    {
        return add(Level::error, code, std::move(text), std::move(cure));
    }

    // The worst of what was found; ok where nothing was.
    Level worst() const;

    bool has(std::string_view code) const;

    // The object that --json prints, in one line.
    std::string as_json() const;

    std::string command;
    std::vector<Finding> findings;
    Data data;
    int exit = kGood;
    bool wants_json = false;
};

// "LEVEL CODE: TEXT. Cure: CURE", one line without its end.
std::string verdict_line(const Finding& finding);

// "FILE:LINE:COLUMN: LEVEL: TEXT [CODE]"
std::string file_line(const std::string& file, const Finding& finding);

} // namespace zentctl

#endif
