// The page's files by their paths.
#include "page.h"

#include "page_files.h" // made by cmake/EmbedPage.cmake

namespace zentmon {

namespace {

constexpr PageFile kFiles[] = {
    {"/", "text/html; charset=utf-8", page_index_html},
    {"/app.js", "text/javascript; charset=utf-8", page_app_js},
    {"/style.css", "text/css; charset=utf-8", page_style_css},
    {"/icon.svg", "image/svg+xml", page_icon_svg},
};

} // namespace

const PageFile* find_page_file(std::string_view path)
{
    for (const PageFile& file : kFiles) {
        if (file.path == path) {
            return &file;
        }
    }
    return nullptr;
}

} // namespace zentmon
