#include "tarvik_collect.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>

#include "tarvik_convert.h"
#include "tarvik_initialize.h"
#include "vyr_logger.h"
#include "vyr_time.h"

namespace {

constexpr size_t kKeptReadBuffer = 1024 * 1024;

// Read buffer of the calling thread, kept between passes so a warm pass reads
// without allocating. It starts large enough for the usual value line in one
// pread and doubles when a line is longer.
struct ReadBuffer {
    char *data = nullptr;
    size_t size = 0;
    ~ReadBuffer() { release(); }
    void release() {
        free(data);
        data = nullptr;
        size = 0;
    }
    bool grow() {
        size_t want = size ? size * 2 : 64 * 1024;
        char *bigger = static_cast<char *>(realloc(data, want));
        if (!bigger) return false;
        data = bigger;
        size = want;
        return true;
    }
};

}  // namespace

bool get_csv_line_by_offset(const char *path, uint64_t offset, std::string &line) {
    // Anyone may create files under /tmp: a link is not followed, and a FIFO,
    // socket, directory or device is not read (it could block or never end).
    int fd = open(path, O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    struct stat st;
    if (fd >= 0 && (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode))) {
        close(fd);
        fd = -1;
    }
    if (fd < 0) {
        VYR_WARN("[tarvik provider] [%s] Could not open file %s.  Will retry later",
                 "get_csv_line_by_offset", path);
        return false;
    }
    // Only the open decides the result; a failed read leaves what was read.
    static thread_local ReadBuffer buf;
    size_t have = 0;
    for (;;) {
        if (have == buf.size && !buf.grow()) break;
        ssize_t got = pread(fd, buf.data + have, buf.size - have, (off_t)(offset + have));
        if (got <= 0) break;
        const void *nl = memchr(buf.data + have, '\n', (size_t)got);
        if (nl) {
            have = (size_t)(static_cast<const char *>(nl) - buf.data);
            break;
        }
        have += (size_t)got;
    }
    close(fd);
    line.assign(buf.data ? buf.data : "", have);
    // A freak line of megabytes should not stay resident for the life of the host.
    if (buf.size > kKeptReadBuffer) buf.release();
    return true;
}

// Commas in s[0..n), eight bytes at a time: a byte equal to ',' becomes zero
// after the xor, and the zero-byte test marks exactly those bytes.
static size_t count_commas(const char *s, size_t n) {
    const uint64_t commas = 0x2C2C2C2C2C2C2C2Cull;
    const uint64_t low7 = 0x7F7F7F7F7F7F7F7Full;
    const uint64_t ones = 0x0101010101010101ull;
    size_t count = 0, i = 0;
    for (; i + 8 <= n; i += 8) {
        uint64_t w;
        memcpy(&w, s + i, 8);
        uint64_t x = w ^ commas;
        uint64_t zero_high = ~(((x & low7) + low7) | x | low7);
        count += (size_t)((((zero_high >> 7) & ones) * ones) >> 56);
    }
    for (; i < n; ++i) count += s[i] == ',';
    return count;
}

static inline const char *next_comma(const char *p, const char *end) {
    const void *c = memchr(p, ',', (size_t)(end - p));
    return c ? static_cast<const char *>(c) : end;
}

bool tarvik_csv_to_event(tarvik_provider_t *p, tarvik_provider_dev_info_t *dev,
                         const std::string &line) {
    const char *fn = "tarvik_csv_to_event";
    // Comma-separated pieces; a comma at the very end makes no final piece.
    size_t token_count =
        line.empty() ? 0 : count_commas(line.data(), line.size()) + (line.back() != ',' ? 1 : 0);

    const tarvik_schema_type_info_t &info = tarvik_device_type_info(p, dev);
    static const std::vector<vyr_event_tarvik_type_t> kNoFields;
    const std::vector<vyr_event_tarvik_type_t> &fields = info.fields ? *info.fields : kNoFields;

    if (token_count != fields.size()) {
        VYR_WARN(
            "[tarvik provider] [%s] Number of fields in csv line (%zu) does not match number of "
            "tarvik fields (%zu)",
            fn, token_count, fields.size());
        VYR_DEBUG("[tarvik provider] [%s] csv line: %s", fn, line.c_str());
        return false;
    }

    const bool fast_ok = tarvik_fast_double_allowed();
    pthread_mutex_lock(&dev->event_lock);
    uint8_t *event = dev->event_cache;
    uint64_t now = vyr_time_now_usec();
    memcpy(event, &now, sizeof now);
    size_t offset = TARVIK_EVENT_FIXED_SIZE;
    // One walk over the line: each number is read where its token starts, and
    // the token's end is searched for only when something follows the number.
    const char *pos = line.data();
    const char *end = pos + line.size();
    for (size_t i = 0; i < token_count; ++i) {
        const char *token_end;
        switch (fields[i].type) {
            case TARVIK_FIELD_UINT64: {
                uint64_t v;
                if (pos < end && tarvik_is_digit(*pos)) {
                    const char *q = tarvik_digit_run_u64(pos, end, &v);
                    token_end = q == end || *q == ',' ? q : next_comma(q, end);
                } else {
                    token_end = next_comma(pos, end);
                    v = tarvik_slow_u64(std::string_view(pos, (size_t)(token_end - pos)));
                }
                memcpy(event + offset, &v, sizeof v);
                offset += 8;
                break;
            }
            case TARVIK_FIELD_DOUBLE: {
                double v;
                const char *q = fast_ok ? tarvik_fast_double_prefix(pos, end, &v) : nullptr;
                if (q) {
                    token_end = q == end || *q == ',' ? q : next_comma(q, end);
                } else {
                    token_end = next_comma(pos, end);
                    v = tarvik_slow_double(std::string_view(pos, (size_t)(token_end - pos)));
                }
                memcpy(event + offset, &v, sizeof v);
                offset += 8;
                break;
            }
            case TARVIK_FIELD_STRING: {
                token_end = next_comma(pos, end);
                size_t len = (size_t)(token_end - pos);
                size_t n = len < TARVIK_TEXT_SIZE ? len : TARVIK_TEXT_SIZE;
                memcpy(event + offset, pos, n);
                memset(event + offset + n, 0, TARVIK_TEXT_SIZE - n);
                event[offset + TARVIK_TEXT_SIZE - 1] = 0;
                offset += TARVIK_TEXT_SIZE;
                break;
            }
            default:
                VYR_ERROR("[tarvik provider] [%s] Unknown tarvik field type %d", fn,
                          (int)fields[i].type);
                pthread_mutex_unlock(&dev->event_lock);
                return false;
        }
        pos = token_end < end ? token_end + 1 : end;
    }
    pthread_mutex_unlock(&dev->event_lock);
    return true;
}

static void remove_large_files(const char *path) {
    struct stat st;
    if (lstat(path, &st) != 0) return;
    // A link planted here would make the tool write through it: the link goes.
    if (S_ISLNK(st.st_mode)) {
        unlink(path);
        return;
    }
    if ((uint64_t)st.st_size > TARVIK_MAX_FILE_SIZE) {
        VYR_DEBUG("[tarvik provider] [%s] Size of file %s is %zu bytes > %d", "remove_large_files",
                  path, (size_t)st.st_size, TARVIK_MAX_FILE_SIZE);
        // Compared with 1, not with a failure result: a failed removal passes silently.
        if (remove(path) == 1)
            VYR_WARN("[tarvik provider] [%s] Could not remove file %s", "remove_large_files", path);
    }
}

void tarvik_collect_pass(tarvik_provider_t *p) {
    const char *fn = "tarvik_thread_callback";
    static thread_local std::string line;
    for (auto &entry : p->devices) {
        tarvik_provider_dev_info_t &dev = entry.second;
        // A device whose header run failed has no event type or record; a
        // good service run clears its disabled flag, so the record decides.
        if (dev.disabled || !dev.event_cache) continue;
        if (dev.parse_errors > TARVIK_MAX_PARSE_ERRORS) {
            VYR_WARN(
                "[tarvik provider] [%s] Device %s exceeded max parsing errors number (%d).  Will "
                "not collect data",
                fn, dev.name, TARVIK_MAX_PARSE_ERRORS);
            dev.disabled = true;
            continue;
        }
        if (!p->run_as_service) {
            remove_large_files(dev.out_file_path);
            VYR_DEBUG("[tarvik provider] [%s] Collecting tarvik data for device %s", fn,
                      entry.first.c_str());
            int rc = tarvik_run_tool(p, dev.command);
            if (rc != 0) {
                VYR_WARN("[tarvik provider] [%s] Could not execute command %s, system returned %d",
                         fn, dev.command, rc);
                dev.disabled = true;
                continue;
            }
        }
        if (!get_csv_line_by_offset(dev.out_file_path, dev.header_offset, line)) {
            VYR_DEBUG("[tarvik provider] [%s] Failed to get second (data) line of file %s", fn,
                      dev.out_file_path);
            dev.parse_errors++;
            continue;
        }
        if (line.empty()) {
            VYR_DEBUG("[tarvik provider] [%s] empty last line of file %s", fn, dev.out_file_path);
            dev.parse_errors++;
            continue;
        }
        if (tarvik_csv_to_event(p, &dev, line)) {
            dev.new_data = true;
            dev.parse_errors = 0;
            VYR_DEBUG("[tarvik provider] Internal thread updated tarvik device %s", dev.name);
        } else {
            VYR_DEBUG("[tarvik provider] [%s] Failed to convert csv line to event for device %s",
                      fn, dev.name);
            VYR_INFO("[tarvik provider] [%s] device %s will not be collected", fn, dev.name);
            dev.disabled = true;
        }
    }
}

void *tarvik_thread_callback(void *arg) {
    tarvik_provider_t *p = static_cast<tarvik_provider_t *>(arg);
    if (p->stop_requested) return nullptr;
    uint64_t last_pass = 0;
    for (;;) {
        // The interval counts from the end of the previous pass, in 2-second steps.
        while (p->update_interval_sec * 1000000 > vyr_time_now_usec() - last_pass) {
            sleep(2);
            if (p->stop_requested) return nullptr;
        }
        tarvik_collect_pass(p);
        last_pass = vyr_time_now_usec();
        VYR_DEBUG("[tarvik provider] [%s] ======== Updated all devices", "tarvik_thread_callback");
        if (p->stop_requested) return nullptr;
    }
}
