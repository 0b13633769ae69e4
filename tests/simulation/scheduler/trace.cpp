#include "scheduler/trace.h"

#include "memory/product_memory.h"
#include "scheduler/scheduler.h"
#include "scheduler/symbols.h"

#include <cstdarg>
#include <cstdio>
#include <map>

namespace sim {

bool g_is_telling;

namespace {

std::map<const void *, std::string> g_names;

} // namespace

void tell(const char *format, ...) {
    char text[512];
    va_list arguments;
    va_start(arguments, format);
    (void)vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    fprintf(stderr, "%11.3f ms  %-10s  %s\n", static_cast<double>(now()) / kMillisecond,
            self().name, text);
}

std::string name_of_address(const void *address) {
    char text[64];
    if (address == nullptr) {
        return "the time to pass";
    }
    if (!g_is_telling) { // the text is not shown, but compared: names take their time
        (void)snprintf(text, sizeof text, "%p", address);
        return text;
    }
    const auto named = g_names.find(address);
    if (named != g_names.end()) {
        return named->second;
    }
    if (!is_in_heap(address)) {
        const std::string place =
            is_product_variable(address) ? variable_at(address) : line_at(address);
        if (!place.empty()) {
            return g_names[address] = place;
        }
    }
    (void)snprintf(text, sizeof text, "%p", address);
    return text;
}

void name_address(const void *address, const char *name) {
    g_names[address] = name;
}

void forget_names() {
    g_names.clear();
}

} // namespace sim
