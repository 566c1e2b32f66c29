/* Whether JSON fits a JSON Schema: as much of these as the description of the API uses. Written
 * apart from what makes either. A word of a schema that is not known here is an error, so that
 * nothing passes unchecked. */
#ifndef JSON_SCHEMA_H
#define JSON_SCHEMA_H

#include <boost/json.hpp>
#include <regex.h>
#include <set>
#include <string>
#include <string_view>

class json_schema {
public:
    using value = boost::json::value;
    using object = boost::json::object;

    /* `components`: what "#/components/schemas/NAME" stands for. */
    explicit json_schema(const object& components) : components_(components) {}

    /* "" when it fits; else where and why not. */
    std::string check(const value& what, const value& schema, const std::string& at = "$") const {
        const object& s = schema.as_object();
        for (const auto& member : s) {
            static const std::set<std::string> known = {
                "$ref",          "type",          "format",
                "enum",          "const",         "required",
                "items",         "anyOf",         "properties",
                "minimum",       "maximum",       "minLength",
                "maxLength",     "description",   "additionalProperties",
                "minProperties", "maxProperties", "pattern",
                "title",         "$schema",       "$defs"};
            if (!known.contains(std::string(member.key()))) {
                return at + ": the schema says " + std::string(member.key());
            }
        }
        if (const value* ref = s.if_contains("$ref")) {
            std::string name(ref->as_string());
            return check(what, components_.at(name.substr(name.rfind('/') + 1)), at);
        }
        if (const value* any = s.if_contains("anyOf")) {
            std::string all;
            for (const value& each : any->as_array()) {
                std::string why = check(what, each, at);
                if (why.empty()) {
                    return "";
                }
                all += why + "; ";
            }
            return all;
        }
        std::string why = check_value(what, s, at);
        if (why.empty() && what.is_object()) {
            why = check_object(what.get_object(), s, at);
        }
        if (why.empty() && what.is_array() && s.contains("items")) {
            for (size_t i = 0; i < what.get_array().size() && why.empty(); i++) {
                why = check(what.get_array()[i], s.at("items"), at + "[" + std::to_string(i) + "]");
            }
        }
        return why;
    }

private:
    static bool is(const value& what, std::string_view type) {
        return (type == "null" && what.is_null()) || (type == "boolean" && what.is_bool()) ||
               (type == "integer" && (what.is_int64() || what.is_uint64())) ||
               (type == "number" && what.is_number()) || (type == "string" && what.is_string()) ||
               (type == "array" && what.is_array()) || (type == "object" && what.is_object());
    }

    /* "2026-05-01T12:00:00Z" */
    static bool is_time(std::string_view text) {
        constexpr std::string_view form = "dddd-dd-ddTdd:dd:ddZ";
        bool fits = text.size() == form.size();
        for (size_t i = 0; fits && i < form.size(); i++) {
            fits = form[i] == 'd' ? text[i] >= '0' && text[i] <= '9' : text[i] == form[i];
        }
        return fits;
    }

    /* One that means the same to POSIX as to ECMAScript. */
    static bool fits_pattern(const char* text, const char* pattern) {
        regex_t compiled;
        if (regcomp(&compiled, pattern, REG_EXTENDED | REG_NOSUB) != 0) {
            return false;
        }
        const bool fits = regexec(&compiled, text, 0, nullptr, 0) == 0;
        regfree(&compiled);
        return fits;
    }

    static std::string check_value(const value& what, const object& s, const std::string& at) {
        const std::string text = boost::json::serialize(what).substr(0, 80);
        if (const value* type = s.if_contains("type")) {
            bool fits = false;
            if (type->is_string()) {
                fits = is(what, type->as_string());
            } else {
                for (const value& each : type->as_array()) {
                    fits = fits || is(what, each.as_string());
                }
            }
            if (!fits) {
                return at + " is " + text + ", not " + boost::json::serialize(*type);
            }
        }
        if (const value* all = s.if_contains("enum")) {
            bool fits = false;
            for (const value& each : all->as_array()) {
                fits = fits || each == what;
            }
            if (!fits) {
                return at + " is " + text + ", none of " + boost::json::serialize(*all);
            }
        }
        if (const value* one = s.if_contains("const"); one != nullptr && *one != what) {
            return at + " is " + text;
        }
        if (const value* least = s.if_contains("minimum");
            least != nullptr && what.is_number() &&
            what.to_number<double>() < least->to_number<double>()) {
            return at + " is " + text;
        }
        if (const value* pattern = s.if_contains("pattern");
            pattern != nullptr && what.is_string() &&
            !fits_pattern(what.get_string().c_str(), pattern->as_string().c_str())) {
            return at + " is " + text + ", not " + boost::json::serialize(*pattern);
        }
        if (const value* least = s.if_contains("minLength");
            least != nullptr && what.is_string() &&
            what.get_string().size() < least->to_number<size_t>()) {
            return at + " is " + text;
        }
        if (const value* least = s.if_contains("minProperties");
            least != nullptr && what.is_object() &&
            what.get_object().size() < least->to_number<size_t>()) {
            return at + " is " + text;
        }
        if (const value* most = s.if_contains("maximum");
            most != nullptr && what.is_number() &&
            what.to_number<double>() > most->to_number<double>()) {
            return at + " is " + text;
        }
        if (s.contains("format") && what.is_string() && !is_time(what.get_string())) {
            return at + " is " + text + ", no time";
        }
        return "";
    }

    std::string check_object(const object& what, const object& s, const std::string& at) const {
        if (const value* required = s.if_contains("required")) {
            for (const value& name : required->as_array()) {
                if (!what.contains(name.as_string())) {
                    return at + " lacks " + std::string(name.as_string());
                }
            }
        }
        const value* known = s.if_contains("properties");
        const value* more = s.if_contains("additionalProperties");
        for (const auto& member : what) {
            const std::string here = at + "." + std::string(member.key());
            std::string why;
            if (known != nullptr && known->as_object().contains(member.key())) {
                why = check(member.value(), known->as_object().at(member.key()), here);
            } else if (more != nullptr && more->is_object()) {
                why = check(member.value(), *more, here);
            } else if (more != nullptr && more->is_bool() && !more->get_bool()) {
                why = here + " is not in the schema";
            }
            if (!why.empty()) {
                return why;
            }
        }
        return "";
    }

    const object& components_;
};

#endif
