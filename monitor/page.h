// The files of the page, compiled in from monitor/web/.
#ifndef ZENTMON_PAGE_H
#define ZENTMON_PAGE_H

#include <string_view>

namespace zentmon {

struct PageFile {
    std::string_view path; // "/style.css"; "/" for index.html
    const char* type;
    std::string_view content;
};

// The file of a path, or NULL.
const PageFile* find_page_file(std::string_view path);

} // namespace zentmon

#endif
