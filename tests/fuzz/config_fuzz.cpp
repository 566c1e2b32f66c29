/* The lines of a configuration file. */
#include "vindral_config.cpp"

#include <cstdint>

static void forget_settings() {
    for (const text_setting& setting : text_settings) {
        replace(*setting.value, nullptr);
    }
    for (const url_setting& setting : url_settings) {
        replace(*setting.server, nullptr);
        replace(*setting.url, nullptr);
        replace(*setting.port, nullptr);
    }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static FILE* const silenced = freopen("/dev/null", "w", stdout); /* unknown keys are printed */
    FILE* file = fmemopen(const_cast<uint8_t*>(data), size, "r");
    if (silenced == nullptr || file == nullptr) {
        return 0;
    }
    read_settings(file);
    fclose(file);
    for (const text_setting& setting : text_settings) {
        const char* value = *setting.value;
        if (value != nullptr &&
            (is_space(*value) || (*value == '\0' && !counts_without_value(setting.key)))) {
            __builtin_trap();
        }
    }
    forget_settings();
    return 0;
}
