#include "ctl/options.h"

#include "ctl/failure.h"
#include "ctl/output.h"
#include "ctl/text.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <numeric>
#include <sys/stat.h>

namespace {

const char footer[] =
    "For example:\n"
    "  vindralctl tests --state problem\n"
    "  vindralctl series web-1:load --from -2h\n"
    "  vindralctl agents --fail >/dev/null || echo something is wrong\n\n"
    "AGENT is an id, account/name, or a name that one agent has; TEST an id,\n"
    "AGENT:NAME, or a name. TIME is -2h or +30d (s, m, h, d, w), now, today,\n"
    "yesterday, 12:30, 2026-05-01, \"2026-05-01 12:30\" or 2026-05-01T12:30:00Z.\n\n"
    "Exit status: 0 well, 1 something is wrong that was asked for, 2 usage, 3 the\n"
    "collector cannot be reached, 4 not allowed, 5 not found. More in vindralctl(1).";

constexpr size_t longest_token = 4096;

/* A token is printable ASCII: nothing of it can end a header. */
bool is_token(const std::string& text) {
    return !text.empty() && text.size() <= longest_token &&
           std::all_of(text.begin(), text.end(), [](char c) { return c > ' ' && c < 0x7f; });
}

/* The first line. Of a longer one no more than shows that it is no token. */
std::string read_token_file(const std::string& name) {
    std::ifstream file(name);
    std::string line(longest_token + 2, 0);
    if (!file.read(line.data(), static_cast<std::streamsize>(line.size())) && file.gcount() == 0) {
        throw failure{status_usage, printable(name) + ": no token can be read from it"};
    }
    line.resize(static_cast<size_t>(file.gcount()));
    line.erase(std::min(line.find('\n'), line.size()));
    line.erase(line.find_last_not_of(" \t\r") + 1);
    struct stat found {};
    if (stat(name.c_str(), &found) == 0 && S_ISREG(found.st_mode) &&
        (found.st_mode & S_IROTH) != 0) {
        tell("everybody on this machine can read " + printable(name) + ": chmod 600 helps");
    }
    return line;
}

std::string from_environment(const char* name) {
    const char* text = getenv(name);
    return text != nullptr ? text : "";
}

/* What is empty was mostly a variable that is not set, and not meant as "any". */
std::string refuse_empty(const std::string& text) {
    return text.empty() ? "the value is empty" : "";
}

void add_option(CLI::App& to, const option_def& row, given& said) {
    CLI::Option* made = nullptr;
    if (row.text != nullptr) {
        made = to.add_option(row.name, said.*row.text, row.help)->check(refuse_empty);
    } else if (row.texts != nullptr) {
        made = to.add_option(row.name, said.*row.texts, row.help)
                   ->expected(1)
                   ->allow_extra_args(false)
                   ->take_all()
                   ->check(refuse_empty);
    } else if (row.number != nullptr) {
        made = to.add_option(row.name, said.*row.number, row.help)
                   ->check(CLI::Range(row.least, row.most));
    } else {
        to.add_flag(row.name, said.*row.flag, row.help);
    }
    if (made != nullptr) {
        made->option_text(row.value);
    }
}

const char* help_of_word(const std::string& word) {
    return word == "AGENT"      ? "its id, account/name, or name where one only has it"
           : word == "TEST"     ? "its id, AGENT:NAME, or name where one only has it"
           : word == "FILE"     ? "the fleet file; - is standard input"
           : word == "REVISION" ? "whose text; without it that of the one before"
                                : "";
}

/* How many letters have to be changed, left out or put in to make one of the other. */
size_t distance(std::string_view a, std::string_view b) {
    std::vector<size_t> row(b.size() + 1);
    std::iota(row.begin(), row.end(), size_t{0});
    for (size_t i = 0; i < a.size(); i++) {
        size_t above_left = row[0];
        row[0] = i + 1;
        for (size_t j = 0; j < b.size(); j++) {
            const size_t changed = above_left + (a[i] == b[j] ? 0 : 1);
            above_left = row[j + 1];
            row[j + 1] = std::min({changed, row[j] + 1, above_left + 1});
        }
    }
    return row[b.size()];
}

/* "; tests?", or nothing when none is like it. */
std::string guess(const std::string& word, const std::vector<std::string>& all) {
    std::string best;
    size_t least = 1 + word.size() / 3;
    for (const std::string& each : all) {
        if (size_t apart = word.size() < 40 ? distance(word, each) : least; apart < least) {
            least = apart;
            best = "; " + each + "?";
        }
    }
    return best;
}

/* "show" of "agents show". */
std::string last_word(const char* name) {
    const char* space = strrchr(name, ' ');
    return space != nullptr ? space + 1 : name;
}

class parser {
public:
    explicit parser(given& said) : said_(said), app_("Ask a Vindral collector", "vindralctl") {
        app_.set_help_flag("-h,--help", "print this, or the help of a command");
        app_.set_version_flag("--version", "vindralctl " VINDRAL_VERSION,
                              "print the version of this program");
        app_.fallthrough();
        app_.require_subcommand(1);
        app_.footer(footer);
        app_.get_formatter()->column_width(30);
        app_.get_formatter()->label("TEXT", ""); /* the name of a value says it */
        app_.get_formatter()->label("REQUIRED", "");
        app_.get_formatter()->label("SUBCOMMAND", "COMMAND");
        app_.get_formatter()->label("SUBCOMMANDS", "COMMANDS");
        app_.get_formatter()->label("Positionals", "Words");
        for (const option_def* row : global_options()) {
            add_option(app_, *row, said_);
        }
        for (const command_def& row : all_commands()) {
            add_command(row);
        }
    }

    const command_def* read(int argc, const char* const* argv) {
        app_.parse(argc, argv);
        return rows_.at(chosen());
    }
    std::string help() const { return app_.help(); }

    /* What to type for help with the command that was found so far. */
    std::string help_command() const { return words_of(chosen()) + " --help"; }
    bool lacks_command() const {
        return chosen()->get_require_subcommand_min() > 0 && chosen()->get_subcommands().empty();
    }

    /* What is wrong with a word that nothing takes; "" when there is none. */
    std::string unexpected() const {
        const std::vector<std::string> rest = app_.remaining(true);
        if (rest.empty()) {
            return "";
        }
        auto option = std::find_if(rest.begin(), rest.end(),
                                   [](const std::string& each) { return each.starts_with('-'); });
        const std::string word = option != rest.end() ? *option : rest[0];
        const std::string name = option != rest.end() ? word.substr(0, word.find('=')) : word;
        std::vector<std::string> all;
        for (const CLI::App* of : {chosen(), &app_}) {
            for (const CLI::Option* each : of->get_options()) {
                all.push_back(each->get_name());
            }
        }
        if (option != rest.end()) {
            return of_command() + "there is no option " + name + guess(name, all);
        }
        all.clear();
        for (const CLI::App* each : chosen()->get_subcommands(nullptr)) {
            all.push_back(each->get_name());
        }
        if (chosen()->get_name() == "set") { /* it may be the secret: not said again */
            return of_command() + "there is one word too many: a value is read from standard "
                                  "input alone";
        }
        return all.empty()
                   ? of_command() + "\"" + name + "\" is one word too many"
                   : of_command() + "there is no command \"" + name + "\"" + guess(name, all);
    }

private:
    const CLI::App* chosen() const {
        const CLI::App* found = &app_;
        while (!found->get_subcommands().empty()) {
            found = found->get_subcommands()[0];
        }
        return found;
    }
    std::string words_of(const CLI::App* command) const {
        auto row = rows_.find(command);
        return row != rows_.end() ? std::string("vindralctl ") + row->second->name : "vindralctl";
    }
    /* "agents: " */
    std::string of_command() const {
        auto row = rows_.find(chosen());
        return row != rows_.end() ? std::string(row->second->name) + ": " : "";
    }

    void add_command(const command_def& row) {
        std::string name = row.name;
        CLI::App* above = &app_;
        if (size_t space = name.find(' '); space != std::string::npos) {
            above = by_name_.at(name.substr(0, space));
            /* A parent that does nothing itself needs one. */
            above->require_subcommand(rows_.at(above)->run != nullptr ? 0 : 1, 1);
        }
        CLI::App* made = above->add_subcommand(last_word(row.name), row.help)->group("Commands");
        made->footer("The options of vindralctl can stand here, too: see vindralctl --help.");
        if (row.word != nullptr) {
            std::string name_of_word = row.word;
            const bool is_optional = name_of_word.starts_with('[');
            if (is_optional) {
                name_of_word = name_of_word.substr(1, name_of_word.size() - 2);
            }
            made->add_option(name_of_word, said_.word, help_of_word(name_of_word))
                ->required(!is_optional)
                ->check(refuse_empty);
        }
        for (const option_def* option : row.options) {
            add_option(*made, *option, said_);
        }
        by_name_[name] = made;
        rows_[made] = &row;
    }

    given& said_;
    CLI::App app_;
    std::map<std::string, CLI::App*> by_name_;
    std::map<const CLI::App*, const command_def*> rows_;
};

} // namespace

command_line read_command_line(int argc, const char* const* argv) {
    command_line line;
    try {
        parser reader(line.said);
        try {
            line.command = reader.read(argc, argv);
            line.outcome = reading::run;
        } catch (const CLI::CallForVersion& version) {
            line.outcome = reading::show;
            line.text = std::string(version.what()) + "\n";
        } catch (const CLI::CallForHelp&) {
            line.outcome = reading::show;
            line.text = reader.help();
        } catch (const CLI::Error& error) {
            const std::string unexpected = reader.unexpected();
            line.outcome = reading::wrong;
            line.help = reader.help_command();
            line.text = without_secrets(printable(!unexpected.empty()      ? unexpected
                                                  : reader.lacks_command() ? "a command is missing"
                                                                           : error.what()));
        }
    } catch (const CLI::Error& error) {
        line.outcome = reading::wrong;
        line.text = without_secrets(printable(error.what()));
    }
    return line;
}

http_access access_of(const given& said) {
    http_access access;
    std::string url = said.url.empty() ? from_environment("VINDRAL_URL") : said.url;
    access.where = read_url(url.empty() ? "http://127.0.0.1:8080" : url);
    access.ca_file = said.ca;
    if (!said.token.empty() && !said.token_file.empty()) {
        throw failure{status_usage, "there is one token: --token or --token-file"};
    }
    access.token = !said.token.empty()        ? said.token
                   : !said.token_file.empty() ? read_token_file(said.token_file)
                                              : from_environment("VINDRAL_TOKEN");
    if ((!access.token.empty() || !said.token_file.empty()) && !is_token(access.token)) {
        throw failure{status_usage, "the token is none: it has blanks or other characters in it "
                                    "that no token has"};
    }
    if (!access.where.tls && !access.where.is_loopback() && !access.token.empty()) {
        throw failure{status_usage, "the token would go to " + access.where.host +
                                        " in the clear: off this machine the API speaks https://"};
    }
    return access;
}

std::string without_secrets(std::string text) {
    constexpr const char of_tokens[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvw"
                                       "xyz0123456789-_";
    for (const char* begin : {"vt_", "vl_", "vs_", "ve_"}) {
        for (size_t at = 0; (at = text.find(begin, at)) != std::string::npos;) {
            /* "receive_buffer" has none. */
            const bool is_word =
                begin[1] == 'e' && at > 0 &&
                std::string_view(of_tokens).find(text[at - 1]) != std::string_view::npos;
            at += 3;
            if (is_word) {
                continue;
            }
            size_t end = text.find_first_not_of(of_tokens, at);
            text.replace(at, std::min(end, text.size()) - at, "...");
        }
    }
    return text;
}

void hide_token(int argc, char** argv) {
    const char name[] = "--token";
    for (int i = 1; i < argc; i++) {
        char* secret = nullptr;
        char* word = argv[i];
        if (word == nullptr) {
            return;
        }
        if (strcmp(word, name) == 0) {
            secret = argv[i + 1]; /* the last one is null */
        } else if (strncmp(word, "--token=", sizeof name) == 0) {
            secret = word + sizeof name;
        }
        if (secret != nullptr) {
            memset(secret, '*', strlen(secret));
        }
    }
}
