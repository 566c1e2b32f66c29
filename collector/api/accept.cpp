#include "api/accept.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <optional>
#include <string>
#include <strings.h>

namespace {

std::string_view trimmed(std::string_view text) {
    size_t begin = text.find_first_not_of(" \t");
    return begin == text.npos ? std::string_view()
                              : text.substr(begin, text.find_last_not_of(" \t") + 1 - begin);
}

bool same(std::string_view a, std::string_view b) {
    return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

/* Calls `each` with what stands between the separators. */
template <typename Each>
void for_each_part(std::string_view text, char separator, const Each& each) {
    for (size_t end = 0; end != text.npos; text.remove_prefix(end == text.npos ? 0 : end + 1)) {
        end = text.find(separator);
        each(trimmed(text.substr(0, end)));
    }
}

/* What is asked for: a type, perhaps in a certain version, and how much. */
struct wanted_type {
    std::string_view type, version = {};
    double weight = 1;

    explicit wanted_type(std::string_view text) : type(trimmed(text.substr(0, text.find(';')))) {
        text.remove_prefix(std::min(text.find(';'), text.size() - 1) + 1);
        for_each_part(text, ';', [&](std::string_view parameter) {
            std::string_view name = trimmed(parameter.substr(0, parameter.find('=')));
            std::string_view value =
                trimmed(parameter.substr(std::min(name.size() + 1, parameter.size())));
            if (same(name, "version")) {
                version = value.starts_with('"') && value.size() > 1
                              ? value.substr(1, value.size() - 2)
                              : value;
            } else if (same(name, "q") &&
                       std::from_chars(value.data(), value.data() + value.size(), weight).ec !=
                           std::errc()) {
                weight = 1;
            }
        });
    }
};

/* How much a type is wanted: by the most exact of what is asked for. */
class weight_of_type {
public:
    weight_of_type(std::string_view type, std::string_view version)
        : names_{"*/*", std::string(type.substr(0, type.find('/') + 1)) + "*", std::string(type)},
          version_(version) {}

    void take(const wanted_type& what) {
        for (size_t i = 0; i < names_.size(); i++) {
            if (same(what.type, names_[i]) && (what.version.empty() || what.version == version_) &&
                (!exactness_ || i >= *exactness_)) {
                weight_ = exactness_ == i ? std::max(weight_, what.weight) : what.weight;
                exactness_ = i;
            }
        }
    }
    double get() const { return weight_; }

private:
    const std::array<std::string, 3> names_; /* the least exact one first */
    const std::string_view version_;
    std::optional<size_t> exactness_;
    double weight_ = 0;
};

} // namespace

double wanted(std::string_view accept, std::string_view type, std::string_view version) {
    weight_of_type weight(type, version);
    for_each_part(accept, ',', [&](std::string_view part) {
        if (!part.empty()) {
            weight.take(wanted_type(part));
        }
    });
    return weight.get();
}
