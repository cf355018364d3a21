#include "vindra/base/print.h"

#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <string>
#include <utility>

namespace base {
namespace {

// Never destroyed: servers that end after main() print too.
line_sink& current_sink() {
    static auto* const sink = new line_sink;
    return *sink;
}

// The text that the arguments make, without its line feed.
std::string text_of(const char* format, std::va_list arguments) {
    std::va_list again;
    va_copy(again, arguments);
    const int length = std::vsnprintf(nullptr, 0, format, again);
    va_end(again);
    if (length < 0) return {};

    std::string text(static_cast<std::size_t>(length) + 1, '\0');
    std::vsnprintf(text.data(), text.size(), format, arguments);
    text.pop_back();
    if (text.ends_with('\n')) text.pop_back();
    return text;
}

} // namespace

void print_to(line_sink sink) {
    current_sink() = std::move(sink);
}

void puts(const char* line) {
    if (current_sink()) {
        current_sink()(line);
    } else {
        std::puts(line);
    }
}

void printf(const char* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    if (current_sink()) {
        current_sink()(text_of(format, arguments));
    } else {
        std::vprintf(format, arguments);
    }
    va_end(arguments);
}

} // namespace base
