#include "fuzz_support.h"

#include <dirent.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "vyr_logger.h"

// A UBSan report must end the run like a crash, or libFuzzer would go on.
extern "C" const char *__ubsan_default_options() {
    return "halt_on_error=1:print_stacktrace=1";
}

namespace vyrfuzz {

namespace {

std::vector<std::string> *g_capture = nullptr;

void drop_message(int /*level*/, const char *format, ...) {
    char line[512];
    va_list args;
    va_start(args, format);
    int n = vsnprintf(line, sizeof line, format, args);
    va_end(args);
    if (!g_capture || n < 0) return;
    std::string text((size_t)n, '\0');
    va_start(args, format);
    vsnprintf(&text[0], text.size() + 1, format, args);
    va_end(args);
    g_capture->push_back(text);
}

std::string g_scratch;

void remove_scratch() {
    if (g_scratch.empty()) return;
    // The targets write only plain files directly inside it.
    if (DIR *dir = opendir(g_scratch.c_str())) {
        while (struct dirent *entry = readdir(dir)) {
            if (strcmp(entry->d_name, ".") == 0 || strcmp(entry->d_name, "..") == 0) continue;
            unlink((g_scratch + "/" + entry->d_name).c_str());
        }
        closedir(dir);
    }
    rmdir(g_scratch.c_str());
}

}  // namespace

void quiet_logging() {
    vyr_set_log_func(drop_message, VYR_LOG_LEVEL_DEBUG);
}

void capture_log(std::vector<std::string> *lines) {
    g_capture = lines;
}

const std::string &scratch_dir() {
    if (g_scratch.empty()) {
        const char *tmp = getenv("TMPDIR");
        std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/vyr-fuzz-XXXXXX";
        if (!mkdtemp(&pattern[0])) {
            perror("mkdtemp");
            abort();
        }
        g_scratch = pattern;
        atexit(remove_scratch);
    }
    return g_scratch;
}

void write_file(const std::string &path, const uint8_t *data, size_t size) {
    // A fresh file, not a truncated one: ext4 flushes a truncated-and-rewritten
    // file at close, which would cut the executions per second tenfold.
    unlink(path.c_str());
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd < 0) {
        perror(path.c_str());
        abort();
    }
    size_t done = 0;
    while (done < size) {
        ssize_t n = write(fd, data + done, size - done);
        if (n <= 0) {
            perror(path.c_str());
            abort();
        }
        done += (size_t)n;
    }
    close(fd);
}

void fail(const char *what, const char *file, int line) {
    fprintf(stderr, "FUZZ_CHECK failed: %s at %s:%d\n", what, file, line);
    abort();
}

}  // namespace vyrfuzz
