#include "log_capture.h"

#include <cstdarg>
#include <cstdio>
#include <mutex>

namespace vyrtest {
namespace {

std::mutex g_mutex;
std::vector<LogLine> g_lines;

// Formats into a std::string: operator new is not counted by the allocation
// failure walks, so capturing never takes one of their allocations.
void capture(int level, const char *format, ...) {
    va_list ap, ap2;
    va_start(ap, format);
    va_copy(ap2, ap);
    int n = vsnprintf(nullptr, 0, format, ap);
    va_end(ap);
    std::string text(n > 0 ? static_cast<size_t>(n) : 0, '\0');
    vsnprintf(&text[0], text.size() + 1, format, ap2);
    va_end(ap2);
    std::lock_guard<std::mutex> lock(g_mutex);
    g_lines.push_back({level, std::move(text)});
}

}  // namespace

LogCapture::LogCapture(int level) {
    clear();
    vyr_set_log_func(capture, level);
}

LogCapture::~LogCapture() {
    vyr_set_log_func(nullptr, 0);
    vyr_init_stderr_logger(0);
}

std::vector<LogLine> LogCapture::lines() const {
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_lines;
}

void LogCapture::clear() {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_lines.clear();
}

}  // namespace vyrtest
