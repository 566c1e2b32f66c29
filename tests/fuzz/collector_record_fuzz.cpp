/* A block of records as an agent may send it, and all that the collector makes of one: its reading,
 * its summary, the line and the JSON object for people and programs. */
#include "base/text.h"
#include "fuzz.h"
#include "protocol/record.h"
#include "show/json.h"
#include "show/record_text.h"

#include <boost/json.hpp>

static void check_strings(const record& r) {
    require(r.strings.size() <= r.declared_strings);
    for (std::string_view text : r.strings) {
        require(!text.empty() && text.data() >= r.raw.data());
        require(text.data() + text.size() < r.raw.data() + r.raw.size());
    }
}

static void check_texts(const record& r) {
    record_summary summary = summarize(r);
    require(summary.type == r.type() || summary.schema == nullptr);
    std::string line = values_text(r, summary);
    std::string shown = printable(line);
    require(printable(shown) == shown && display_width(shown) <= 2 * shown.size());
    require(!type_name(summary.type).empty());
    if (summary.status) {
        require(!status_word(summary.type, *summary.status).empty());
    }
    std::string json = record_json("account \xff\n", "a\"g\\ent", 1, r);
    require(json.find('\n') == json.npos && valid_utf8(json) == json);
    boost::system::error_code failed;
    boost::json::parse_options options;
    options.max_depth = 64;
    boost::json::value parsed = boost::json::parse(json, failed, {}, options);
    require(!failed && parsed.is_object());
}

static void check_record(const record& r, int depth) {
    require(depth <= record_max_depth);
    check_strings(r);
    check_texts(r);
    for (std::string_view bytes : r.nested) {
        record part;
        std::string reason;
        require(decode_record(bytes, part, reason));
        check_record(part, depth + 1);
    }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::vector<char> bytes(data, data + size); /* without a byte behind it */
    std::string_view block(bytes.data(), bytes.size());
    require_no_growth([&] {
        size_t at = 0;
        for (block_reader reader(block); reader.next();) {
            require(reader.offset == at && reader.bytes > 0);
            at += reader.bytes;
            require(at <= block.size());
            if (reader.good) {
                require(reader.current.raw == block.substr(reader.offset, reader.bytes));
                check_record(reader.current, 1);
            } else {
                require(!reader.reason.empty());
            }
        }
        require(at == block.size());
    });
    return 0;
}
