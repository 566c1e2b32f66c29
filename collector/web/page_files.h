/* The page, as it is compiled in: a shell, which is what every address of a screen is answered
 * with, and the files that it loads. Nothing of it is secret, so nobody has to be signed in. The
 * files have the version of all of them together in their addresses: browsers keep them for good,
 * and never mix those of two versions. */
#ifndef VINDRAL_COLLECTOR_WEB_PAGE_FILES_H
#define VINDRAL_COLLECTOR_WEB_PAGE_FILES_H

#include "api/request.h"

#include <optional>
#include <span>
#include <string>
#include <string_view>

struct page_file {
    std::string_view name; /* "base/text.js"; the shell is "index.html" */
    std::string_view bytes;
};

/* All of them. Made by the build out of page/. */
std::span<const page_file> page_files();

/* Changes with any byte of any file. */
const std::string& page_version();

/* Whether it is the shell or one of the files: constants, as cheap to give out as to refuse. */
bool is_of_page(std::string_view path);

/* What GET of this path is answered with; none when it is not the page's. A file of another version
 * is not there (404): a tab that was opened before an upgrade has to be loaded anew. */
std::optional<api_answer> page_answer(std::string_view path);

/* The shell, which says that nothing is at this address: for a browser that a person sent there. */
api_answer page_of_nothing();

#endif
