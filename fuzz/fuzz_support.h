// Shared pieces of the fuzz targets: a silent logger that still formats every
// message, a scratch directory, and a check that crashes on a mismatch so
// libFuzzer records the input.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace vyrfuzz {

// Every message is formatted (so bad format arguments still show under the
// sanitizers) and dropped: the targets run millions of inputs.
void quiet_logging();

// While set, every formatted message is also appended to `lines` (nullptr stops).
void capture_log(std::vector<std::string> *lines);

// A private directory under $TMPDIR (or /tmp), made once and removed at exit.
const std::string &scratch_dir();

void write_file(const std::string &path, const uint8_t *data, size_t size);

[[noreturn]] void fail(const char *what, const char *file, int line);

}  // namespace vyrfuzz

#define FUZZ_CHECK(cond)                                       \
    do {                                                       \
        if (!(cond)) vyrfuzz::fail(#cond, __FILE__, __LINE__); \
    } while (0)
