#include "api/accept.h"

#include "base/text.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <optional>
#include <string>
#include <strings.h>

namespace {

bool same(std::string_view a, std::string_view b) {
    return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

/* What is asked for: a type, perhaps in a certain version, and how much. */
struct wanted_type {
    std::string_view type, version = {};
    double weight = 1;

    explicit wanted_type(std::string_view text) : type(trimmed(text.substr(0, text.find(';')))) {
        text.remove_prefix(std::min(text.find(';'), text.size() - 1) + 1);
        for_each_part(text, ';', [&](std::string_view parameter) {
            parameter = trimmed(parameter);
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
        if (part = trimmed(part); !part.empty()) {
            weight.take(wanted_type(part));
        }
    });
    return weight.get();
}
