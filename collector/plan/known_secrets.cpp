#include "plan/known_secrets.h"

#include "base/text.h"
#include "base/wipe.h"

#include <algorithm>
#include <utility>

static constexpr size_t longest_value = 4096; /* bytes */

bool is_secret_value(std::string_view value) {
    if (value.empty() || value.size() > longest_value) {
        return false;
    }
    for (size_t i = 0; i < value.size(); i++) {
        const auto c = static_cast<unsigned char>(value[i]);
        const bool is_c1 =
            c == 0xc2 && i + 1 < value.size() && static_cast<unsigned char>(value[i + 1]) < 0xa0;
        if (c < 0x20 || c == 0x7f || is_c1) {
            return false;
        }
    }
    std::string valid = valid_utf8(value);
    const bool is_valid = valid == value;
    wipe(valid);
    return is_valid;
}

std::string secret_value_rule() {
    return "1 to " + std::to_string(longest_value) + " bytes of UTF-8 without control characters";
}

namespace {

/* "a, b and 3 more". */
std::string listed(const std::vector<std::string>& names) {
    constexpr size_t most = 10;
    std::string text;
    for (size_t i = 0; i < names.size() && i < most; i++) {
        text.append(i > 0 ? ", " : "").append(printable(names[i]));
    }
    return names.size() > most ? text + " and " + std::to_string(names.size() - most) + " more"
                               : text;
}

} // namespace

known_secrets::value::~value() {
    wipe(text);
}

known_secrets::known_secrets(settings& kept, std::string directory)
    : kept_(kept), directory_(std::move(directory)) {}

known_secrets::~known_secrets() {
    for (auto& [name, text] : before_) {
        wipe(text);
    }
}

/* Those that do not open are there without a text, and named in `closed`. */
bool known_secrets::read(values& found, std::vector<std::string>& closed, std::string& error) {
    std::vector<stored_secret> all;
    if (!kept_.for_each_secret([&](const stored_secret& one) { all.push_back(one); }, error)) {
        return false;
    }
    sealer with;
    const bool has_key = !all.empty() && with.open(directory_, false, error);
    for (const stored_secret& one : all) {
        value& now = found[one.name];
        std::optional<std::string> text =
            has_key ? with.unseal(one.name, one.sealed) : std::nullopt;
        if (text) {
            now.text.swap(*text);
        } else {
            closed.push_back(one.name);
        }
        now.shown = {
            .name = one.name, .by = one.by, .made = one.made, .readable = !now.text.empty()};
        now.serial = one.serial;
    }
    if (has_key && !closed.empty()) {
        error = "they were sealed with another key, or are damaged";
    }
    return true;
}

bool known_secrets::refresh(std::string& error) {
    error.clear();
    std::lock_guard one_at_a_time(refreshing_);
    values found;
    std::vector<std::string> closed;
    if (!read(found, closed, error)) {
        error = "the secrets of tests cannot be read: " + error;
        return false;
    }
    take(found);
    if (!closed.empty()) {
        error =
            "secrets that cannot be opened, so tests with them are not sent: " + listed(closed) +
            ": " + error;
    }
    return closed.empty();
}

void known_secrets::take(values& found) {
    std::lock_guard lock(mutex_);
    bool changed = found.size() != values_.size();
    for (auto& [name, one] : values_) {
        auto now = found.find(name);
        const bool same_text = now != found.end() && now->second.text == one.text;
        changed = changed || !same_text || now->second.serial != one.serial;
        if (!same_text && !one.text.empty()) {
            std::string& before = before_[name];
            before.swap(one.text); /* what is swapped out is wiped with `one` */
        }
    }
    values_.swap(found);
    if (changed) {
        newest_++;
        hide();
    }
}

bool known_secrets::set(std::string_view name, std::string_view value, const std::string& by,
                        int64_t now, std::string& error) {
    error.clear();
    if (!is_secret_name(name)) {
        error = "the name of a secret has to be 1 to " + std::to_string(longest_secret_name) +
                " letters, digits, '-', '_' and '.'";
        return false;
    }
    if (!is_secret_value(value)) {
        error = "the value of a secret has to be " + secret_value_rule();
        return false;
    }
    /* A key that is only away for now is not replaced: then nothing would open any more. */
    std::vector<std::string> others;
    auto note = [&](const stored_secret& one) {
        if (one.name != name) {
            others.push_back(one.name);
        }
    };
    sealer with;
    if (!kept_.for_each_secret(note, error)) {
        return false;
    }
    if (!with.open(directory_, others.empty(), error)) {
        error += others.empty() ? ""
                                : " (put the key back, or remove the secrets that were sealed with "
                                  "it: " +
                                      listed(others) + ")";
        return false;
    }
    stored_secret kept{
        .name = std::string(name), .sealed = with.seal(name, value), .by = by, .made = now};
    if (kept.sealed.empty()) {
        error = "there are no random numbers";
        return false;
    }
    if (!kept_.put_secret(kept, error)) {
        return false;
    }
    std::string of_others;
    refresh(of_others);
    if (serial_of(name) == 0) {
        error = of_others;
    }
    return error.empty();
}

bool known_secrets::remove(std::string_view name, std::string& error) {
    error.clear();
    if (!kept_.drop_secret(name, error)) {
        return false;
    }
    std::string of_others;
    refresh(of_others);
    return true;
}

std::vector<known_secrets::entry> known_secrets::list() const {
    std::lock_guard lock(mutex_);
    std::vector<entry> all;
    all.reserve(values_.size());
    for (const auto& [name, one] : values_) {
        all.push_back(one.shown);
        auto uses = uses_.find(name);
        all.back().used = uses != uses_.end() ? uses->second : 0;
    }
    return all;
}

uint64_t known_secrets::newest() const {
    std::lock_guard lock(mutex_);
    return newest_;
}

uint64_t known_secrets::serial_of(std::string_view name) const {
    std::lock_guard lock(mutex_);
    auto found = values_.find(name);
    return found != values_.end() && found->second.shown.readable ? found->second.serial : 0;
}

std::optional<std::string> known_secrets::expand(std::string_view line,
                                                 std::string& missing) const {
    std::lock_guard lock(mutex_);
    size_t size = line.size(), from = 0;
    placeholder at;
    for (; find_placeholder(line, from, at); from = at.end) {
        auto found = values_.find(at.name);
        if (!at.name.empty() && (found == values_.end() || !found->second.shown.readable)) {
            missing = at.name;
            return std::nullopt;
        }
        size += at.name.empty() ? 0 : found->second.text.size();
    }
    std::string text;
    text.reserve(size); /* it does not move, and leaves nothing behind */
    for (from = 0; find_placeholder(line, from, at); from = at.end) {
        auto found = values_.find(at.name);
        text.append(line.substr(from, at.begin - from));
        if (at.name.empty()) {
            text.append(line.substr(at.begin, at.end - at.begin));
        } else {
            text.append(found->second.text);
        }
    }
    text.append(line.substr(from));
    return text;
}

void known_secrets::note_uses(std::map<std::string, size_t, std::less<>> lines,
                              names_of_test tests) {
    std::lock_guard lock(mutex_);
    uses_ = std::move(lines);
    tests_ = std::move(tests);
    hide();
}

/* With the mutex. */
void known_secrets::hide() {
    hidden_texts::by_test all;
    for (const auto& [test, names] : tests_) {
        std::vector<std::string>& texts = all[test];
        for (const std::string& name : names) {
            if (auto now = values_.find(name); now != values_.end()) {
                texts.push_back(now->second.text);
            }
            if (auto then = before_.find(name); then != before_.end()) {
                texts.push_back(then->second);
            }
        }
    }
    hidden_.hide(std::move(all));
}
