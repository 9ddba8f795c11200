// Verdicts as text and as JSON.
#include "report.h"

#include <algorithm>
#include <cassert>

#include <nlohmann/json.hpp>

namespace zentctl {

using json = nlohmann::ordered_json;

struct Data::Tree {
    json object = json::object();
};

namespace {

json as_object(const Finding& finding)
{
    json object;
    object["level"] = level_name(finding.level);
    object["code"] = finding.code;
    object["text"] = finding.text;
    if (!finding.cure.empty()) {
        object["cure"] = finding.cure;
    }
    if (finding.line != 0) {
        object["line"] = finding.line;
    }
    if (finding.column != 0) {
        object["column"] = finding.column;
    }
    return object;
}

bool is_known(std::string_view word)
{
    return std::ranges::any_of(all_codes(), [&](const Code& code) { return code.word == word; });
}

} // namespace

const char* level_name(Level level)
{
    switch (level) {
    case Level::ok: return "ok";
    case Level::warning: return "warning";
    case Level::error: break;
    }
    return "error";
}

Data::Data() : tree_(std::make_unique<Tree>()) {}

Data::Data(Data&& other) noexcept = default;
Data& Data::operator=(Data&& other) noexcept = default;
Data::~Data() = default;

void Data::set(std::string_view name, const std::string& text)
{
    tree_->object[std::string(name)] = text;
}

void Data::set(std::string_view name, bool yes)
{
    tree_->object[std::string(name)] = yes;
}

void Data::set(std::string_view name, double number)
{
    tree_->object[std::string(name)] = number;
}

void Data::set_number(std::string_view name, int64_t number)
{
    tree_->object[std::string(name)] = number;
}

void Data::set_null(std::string_view name)
{
    tree_->object[std::string(name)] = nullptr;
}

void Data::set(std::string_view name, const std::vector<std::string>& texts)
{
    tree_->object[std::string(name)] = texts;
}

void Data::set(std::string_view name, const Data& object)
{
    tree_->object[std::string(name)] = object.tree_->object;
}

void Data::set(std::string_view name, const std::vector<Data>& objects)
{
    json list = json::array();
    for (const Data& object : objects) {
        list.push_back(object.tree_->object);
    }
    tree_->object[std::string(name)] = std::move(list);
}

Finding& Report::add(Level level, std::string_view code, std::string text, std::string cure)
{
    assert(is_known(code));
    findings.push_back({level, std::string(code), std::move(text), std::move(cure)});
    return findings.back();
}

Level Report::worst() const
{
    Level worst = Level::ok;
    for (const Finding& finding : findings) {
        worst = std::max(worst, finding.level);
    }
    return worst;
}

bool Report::has(std::string_view code) const
{
    return std::ranges::any_of(findings, [&](const Finding& finding) { return finding.code == code; });
}

std::string Report::as_json() const
{
    json object;
    object["command"] = command;
    object["exit"] = exit;
    object["findings"] = json::array();
    for (const Finding& finding : findings) {
        object["findings"].push_back(as_object(finding));
    }
    object["data"] = data.tree_->object;
    // Names and texts come from files and the network: what is no UTF-8 is replaced, never refused.
    return object.dump(-1, ' ', false, json::error_handler_t::replace);
}

std::string verdict_line(const Finding& finding)
{
    std::string line = level_name(finding.level);
    line.resize(8, ' ');
    line += finding.code + ": " + finding.text;
    return finding.cure.empty() ? line : line + ". Cure: " + finding.cure;
}

std::string file_line(const std::string& file, const Finding& finding)
{
    std::string line = file;
    if (finding.line != 0) {
        line +=
            ":" + std::to_string(finding.line) + ":" + std::to_string(std::max<size_t>(finding.column, 1));
    }
    line += std::string(": ") + level_name(finding.level) + ": " + finding.text + " [" + finding.code + "]";
    return line;
}

} // namespace zentctl
