// Captures log lines through the logger's registered log function.
#pragma once

#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "vyr_logger.h"

namespace vyrtest {

struct LogLine {
    int level;
    std::string text;
};

// While alive, every message at or below `level` is recorded instead of written.
class LogCapture {
  public:
    explicit LogCapture(int level = VYR_LOG_LEVEL_DEBUG);
    ~LogCapture();
    LogCapture(const LogCapture &) = delete;
    LogCapture &operator=(const LogCapture &) = delete;

    std::vector<LogLine> lines() const;
    // Lines of exactly this level and text.
    size_t count(int level, const std::string &text) const;
    bool contains(int level, const std::string &text) const { return count(level, text) > 0; }
    // Any line (any level) holding `fragment`.
    bool contains_fragment(const std::string &fragment) const;
    void clear();
    std::string dump() const;  // for failure messages
};

}  // namespace vyrtest
