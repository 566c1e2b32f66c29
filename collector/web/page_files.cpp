#include "web/page_files.h"

#include "base/files.h"
#include "ingest/hash.h"
#include "web/answer.h"

#include <algorithm>
#include <array>
#include <map>

namespace {

constexpr std::string_view folder = "/page/", shell_name = "index.html", marker = "@VERSION@";
constexpr size_t version_bytes = 8;

/* Nothing from anywhere else, and nothing that stands in the markup. */
constexpr std::string_view policy =
    "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self'; connect-src 'self'; "
    "worker-src 'self'; base-uri 'none'; form-action 'none'; frame-ancestors 'none'";

/* Of screens; those that end with a slash have an id behind it. */
constexpr std::array<std::string_view, 9> screens = {"/",          "/agents/", "/tests/",
                                                     "/events",    "/fleet",   "/fleet/changes",
                                                     "/admission", "/tokens",  "/secrets"};

bool is_screen(std::string_view path) {
    return std::ranges::any_of(screens, [&](std::string_view one) {
        if (one.size() == 1 || one.back() != '/') {
            return path == one;
        }
        return path.starts_with(one) && path.size() > one.size() &&
               path.find('/', one.size()) == path.npos;
    });
}

std::string_view type_of(std::string_view name) {
    return name.ends_with(".js")    ? "text/javascript; charset=utf-8"
           : name.ends_with(".css") ? "text/css; charset=utf-8"
           : name.ends_with(".svg") ? "image/svg+xml"
                                    : "text/html; charset=utf-8";
}

const page_file* find(std::string_view name) {
    const auto all = page_files();
    auto found = std::ranges::find(all, name, &page_file::name);
    return found == all.end() ? nullptr : &*found;
}

std::string make_version() {
    std::string all;
    for (const page_file& file : page_files()) {
        all.append(file.name).append(1, '\0').append(view_of(sha256(file.bytes)));
    }
    return hex(view_of(sha256(all)).substr(0, version_bytes));
}

std::string make_shell() {
    std::string html(find(shell_name)->bytes);
    for (size_t at = 0; (at = html.find(marker, at)) != html.npos;) {
        html.replace(at, marker.size(), page_version());
    }
    return html;
}

api_answer shell_answer() {
    static const std::string shell = make_shell();
    api_answer answer;
    answer.type = type_of(shell_name);
    answer.body = shell;
    answer.headers.emplace_back("Content-Security-Policy", policy);
    return answer;
}

/* All files by gzip, made at the first request for one: some 30 ms, and better than what is made
 * for each request. */
const std::string& packed(const page_file& file) {
    static const std::map<std::string_view, std::string> all = [] {
        constexpr int most_effort = 9;
        std::map<std::string_view, std::string> made;
        for (const page_file& one : page_files()) {
            made.emplace(one.name, gzipped(one.bytes, most_effort));
        }
        return made;
    }();
    return all.at(file.name);
}

/* Null: there is none, or not of this version. */
const page_file* file_at(std::string_view path) {
    if (!path.starts_with(folder)) {
        return nullptr;
    }
    path.remove_prefix(folder.size());
    const size_t slash = path.find('/');
    if (slash == path.npos || path.substr(0, slash) != page_version()) {
        return nullptr;
    }
    const page_file* file = find(path.substr(slash + 1));
    return file != nullptr && file->name != shell_name ? file : nullptr;
}

} // namespace

const std::string& page_version() {
    static const std::string version = make_version();
    return version;
}

bool is_of_page(std::string_view path) {
    return is_screen(path) || file_at(path) != nullptr;
}

std::optional<api_answer> page_answer(std::string_view path) {
    if (is_screen(path)) {
        return shell_answer();
    }
    if (!path.starts_with(folder)) {
        return {};
    }
    const page_file* file = file_at(path);
    if (file == nullptr) {
        throw_not_found("There is no such file of the page, or it was of another version: load the "
                        "page again.");
    }
    api_answer answer;
    answer.type = type_of(file->name);
    answer.body = file->bytes;
    answer.packed = &packed(*file);
    answer.headers.emplace_back("Cache-Control", "public, max-age=31536000, immutable");
    answer.headers.emplace_back("Content-Security-Policy", policy); /* a worker's is its file's */
    return answer;
}

api_answer page_of_nothing() {
    api_answer answer = shell_answer();
    answer.status = 404;
    return answer;
}
