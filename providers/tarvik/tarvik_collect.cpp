#include "tarvik_collect.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <charconv>
#include <cstdio>

#include "tarvik_initialize.h"
#include "vyr_logger.h"

// strtoull/strtod need a terminated text; tokens are views into the line.
template <typename F>
static auto with_c_string(std::string_view token, F convert) {
    char small[64];
    if (token.size() < sizeof small) {
        memcpy(small, token.data(), token.size());
        small[token.size()] = '\0';
        return convert(small);
    }
    std::string copy(token);
    return convert(copy.c_str());
}

static bool all_digits(std::string_view token) {
    for (char c : token)
        if (c < '0' || c > '9') return false;
    return true;
}

uint64_t tarvik_token_to_u64(std::string_view token) {
    // Plain digits that cannot overflow take the fast path; everything else
    // (blanks, signs, trailing text, 20 digits) gets strtoull's exact rules.
    if (!token.empty() && token.size() <= 19 && all_digits(token)) {
        uint64_t v = 0;
        for (char c : token) v = v * 10 + (uint64_t)(c - '0');
        return v;
    }
    return with_c_string(token, [](const char *s) -> uint64_t {
        char *end = nullptr;
        errno = 0;
        unsigned long long v = strtoull(s, &end, 10);
        if (end == s || errno == ERANGE) return 0;
        return (uint64_t)v;
    });
}

double tarvik_token_to_double(std::string_view token) {
    // A short plain decimal (digits with at most one '.') cannot overflow or
    // underflow, and from_chars rounds exactly as strtod does.
    if (!token.empty() && token.size() <= 24) {
        bool plain = true, dot = false, digit = false;
        for (char c : token) {
            if (c >= '0' && c <= '9') {
                digit = true;
            } else if (c == '.' && !dot) {
                dot = true;
            } else {
                plain = false;
                break;
            }
        }
        if (plain && digit) {
            double v = 0.0;
            auto r = std::from_chars(token.data(), token.data() + token.size(), v,
                                     std::chars_format::fixed);
            if (r.ec == std::errc() && r.ptr == token.data() + token.size()) return v;
        }
    }
    return with_c_string(token, [](const char *s) -> double {
        char *end = nullptr;
        errno = 0;
        double v = strtod(s, &end);
        if (end == s || errno == ERANGE) return 0.0;
        return v;
    });
}

bool get_csv_line_by_offset(const char *path, uint64_t offset, std::string &line) {
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        VYR_WARN("[tarvik provider] [%s] Could not open file %s.  Will retry later",
                 "get_csv_line_by_offset", path);
        return false;
    }
    // Only the open decides the result; a failed read leaves what was read.
    line.clear();
    char buf[4096];
    uint64_t pos = offset;
    for (;;) {
        ssize_t got = pread(fd, buf, sizeof buf, (off_t)pos);
        if (got <= 0) break;
        const void *nl = memchr(buf, '\n', (size_t)got);
        if (nl) {
            line.append(buf, (size_t)((const char *)nl - buf));
            break;
        }
        line.append(buf, (size_t)got);
        pos += (uint64_t)got;
    }
    close(fd);
    return true;
}

bool tarvik_csv_to_event(tarvik_provider_t *p, tarvik_provider_dev_info_t *dev,
                         const std::string &line) {
    const char *fn = "tarvik_csv_to_event";
    static thread_local std::vector<std::string_view> tokens;
    tarvikSplitCsvView(line, tokens);

    auto it = p->type_infos.find(dev->header_id);
    if (it == p->type_infos.end()) it = p->type_infos.emplace(dev->header_id, tarvik_schema_type_info_t()).first;
    static const std::vector<vyr_event_tarvik_type_t> kNoFields;
    const std::vector<vyr_event_tarvik_type_t> &fields =
        it->second.fields ? *it->second.fields : kNoFields;

    if (tokens.size() != fields.size()) {
        VYR_WARN(
            "[tarvik provider] [%s] Number of fields in csv line (%zu) does not match number of "
            "tarvik fields (%zu)",
            fn, tokens.size(), fields.size());
        VYR_DEBUG("[tarvik provider] [%s] csv line: %s", fn, line.c_str());
        return false;
    }

    pthread_mutex_lock(&dev->event_lock);
    uint8_t *event = dev->event_cache;
    uint64_t now = tarvik_now_usec();
    memcpy(event, &now, sizeof now);
    size_t offset = TARVIK_EVENT_FIXED_SIZE;
    for (size_t i = 0; i < tokens.size(); ++i) {
        switch (fields[i].type) {
            case TARVIK_FIELD_UINT64: {
                uint64_t v = tarvik_token_to_u64(tokens[i]);
                memcpy(event + offset, &v, sizeof v);
                offset += 8;
                break;
            }
            case TARVIK_FIELD_DOUBLE: {
                double v = tarvik_token_to_double(tokens[i]);
                memcpy(event + offset, &v, sizeof v);
                offset += 8;
                break;
            }
            case TARVIK_FIELD_STRING: {
                size_t n = tokens[i].size() < TARVIK_TEXT_SIZE ? tokens[i].size() : TARVIK_TEXT_SIZE;
                memcpy(event + offset, tokens[i].data(), n);
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
    }
    pthread_mutex_unlock(&dev->event_lock);
    return true;
}

static void remove_large_files(const char *path) {
    struct stat st;
    if (stat(path, &st) != 0) return;
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
        if (dev.disabled) continue;
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
            int rc = tarvik_run_shell(dev.command);
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
            VYR_DEBUG("[tarvik provider] [%s] Failed to convert csv line to event for device %s", fn,
                      dev.name);
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
        while (p->update_interval_sec * 1000000 > tarvik_now_usec() - last_pass) {
            sleep(2);
            if (p->stop_requested) return nullptr;
        }
        tarvik_collect_pass(p);
        last_pass = tarvik_now_usec();
        VYR_DEBUG("[tarvik provider] [%s] ======== Updated all devices", "tarvik_thread_callback");
        if (p->stop_requested) return nullptr;
    }
}
