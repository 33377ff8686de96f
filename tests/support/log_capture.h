// Captures log lines through the logger's registered log function.
#pragma once

#include <string>
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

    std::vector<LogLine> lines() const;
    void clear();
    // Lines of exactly this level and text.
    size_t count(int level, const std::string &text) const {
        size_t n = 0;
        for (const auto &l : lines()) n += l.level == level && l.text == text;
        return n;
    }
    bool contains(int level, const std::string &text) const { return count(level, text) > 0; }
    // Any line (any level) holding `fragment`.
    bool contains_fragment(const std::string &fragment) const {
        return dump().find(fragment) != std::string::npos;
    }
    std::string dump() const {  // for failure messages
        std::string out;
        for (const auto &l : lines()) out += "  <" + std::to_string(l.level) + "> " + l.text + "\n";
        return out;
    }
};

}  // namespace vyrtest
