#include "bench_support.h"

#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <charconv>
#include <cstdio>
#include <stdexcept>

#include "tarvik_initialize.h"

namespace vyrbench {

namespace {

// A small deterministic generator, so every run measures the same bytes.
struct Rng {
    uint32_t s;
    uint32_t next() {
        s ^= s << 13;
        s ^= s >> 17;
        s ^= s << 5;
        return s;
    }
    uint32_t below(uint32_t n) { return next() % n; }
};

void write_all(const std::string &path, const std::string &content) {
    FILE *f = fopen(path.c_str(), "wb");
    if (!f) throw std::runtime_error("cannot write " + path);
    fwrite(content.data(), 1, content.size(), f);
    fclose(f);
}

}  // namespace

std::string make_value_line(size_t fields, std::vector<vyr_event_tarvik_type_t> *types,
                            uint32_t seed) {
    static const char *kTexts[] = {"Active",          "RS544", "ZDC-4410-03",
                                   "Holloway Optics", "OK",    "16.35.2000"};
    // Column types depend on the column only; values on the seed as well, so
    // lines of different seeds fit one event type.
    Rng column_rng{0x2545F491u};
    Rng rng{seed * 2654435761u + 1};
    std::string line;
    char tok[64];
    if (types) types->clear();
    for (size_t i = 0; i < fields; ++i) {
        uint32_t kind = column_rng.below(100);
        tarvik_field_type_t type;
        if (kind < 50) {
            type = TARVIK_FIELD_UINT64;
            // Counters: mostly small, some large running totals.
            if (rng.below(4) == 0)
                snprintf(tok, sizeof tok, "%llu",
                         (unsigned long long)rng.next() * 1000003ull + rng.below(1000));
            else
                snprintf(tok, sizeof tok, "%u", rng.below(100000));
        } else if (kind < 85) {
            type = TARVIK_FIELD_DOUBLE;
            uint32_t form = rng.below(10);
            if (form < 5)
                snprintf(tok, sizeof tok, "%u.%u", rng.below(100), rng.below(10));
            else if (form < 8)
                snprintf(tok, sizeof tok, "%u.%uE-%u", 1 + rng.below(9), rng.below(10),
                         9 + rng.below(7));
            else
                snprintf(tok, sizeof tok, "-%u.%u", rng.below(10), rng.below(100));
        } else {
            type = TARVIK_FIELD_STRING;
            snprintf(tok, sizeof tok, "%s", kTexts[rng.below(6)]);
        }
        if (i) line += ',';
        line += tok;
        if (types) {
            std::string name = "col_" + std::to_string(i);
            types->push_back({name, name, type, true});
        }
    }
    return line;
}

std::vector<std::string> make_value_lines(size_t fields, size_t count,
                                          std::vector<vyr_event_tarvik_type_t> *types) {
    std::vector<std::string> lines;
    for (size_t i = 0; i < count; ++i)
        lines.push_back(make_value_line(fields, i == 0 ? types : nullptr, (uint32_t)i + 1));
    return lines;
}

std::string make_header_line(size_t fields) {
    std::string line;
    for (size_t i = 0; i < fields; ++i) {
        if (i) line += ',';
        line += "col_" + std::to_string(i);
    }
    return line;
}

size_t event_size(const std::vector<vyr_event_tarvik_type_t> &types) {
    size_t size = TARVIK_EVENT_FIXED_SIZE;
    for (const auto &t : types) size += t.type == TARVIK_FIELD_STRING ? TARVIK_TEXT_SIZE : 8;
    return size;
}

size_t baseline_convert(std::string_view line, const std::vector<vyr_event_tarvik_type_t> &types,
                        uint8_t *event) {
    const char *p = line.data();
    const char *end = p + line.size();
    size_t offset = TARVIK_EVENT_FIXED_SIZE;
    size_t i = 0;
    while (p < end && i < types.size()) {
        const char *comma = static_cast<const char *>(memchr(p, ',', (size_t)(end - p)));
        const char *stop = comma ? comma : end;
        switch (types[i].type) {
            case TARVIK_FIELD_UINT64: {
                uint64_t v = 0;
                std::from_chars(p, stop, v);
                memcpy(event + offset, &v, 8);
                offset += 8;
                break;
            }
            case TARVIK_FIELD_DOUBLE: {
                double v = 0;
                std::from_chars(p, stop, v);
                memcpy(event + offset, &v, 8);
                offset += 8;
                break;
            }
            default: {
                size_t n = (size_t)(stop - p);
                if (n > TARVIK_TEXT_SIZE) n = TARVIK_TEXT_SIZE;
                memcpy(event + offset, p, n);
                memset(event + offset + n, 0, TARVIK_TEXT_SIZE - n);
                event[offset + TARVIK_TEXT_SIZE - 1] = 0;
                offset += TARVIK_TEXT_SIZE;
                break;
            }
        }
        ++i;
        p = stop + 1;
    }
    return i;
}

size_t baseline_read_line(const char *path, uint64_t offset, char *buf, size_t cap) {
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return 0;
    ssize_t got = pread(fd, buf, cap, (off_t)offset);
    close(fd);
    if (got <= 0) return 0;
    const void *nl = memchr(buf, '\n', (size_t)got);
    return nl ? (size_t)(static_cast<const char *>(nl) - buf) : (size_t)got;
}

TempDir::TempDir() {
    struct stat st;
    std::string tmpl = (stat("/dev/shm", &st) == 0 && S_ISDIR(st.st_mode) ? "/dev/shm" : "/tmp") +
                       std::string("/vyr_bench_XXXXXX");
    if (!mkdtemp(&tmpl[0])) throw std::runtime_error("mkdtemp failed");
    path_ = tmpl;
}

TempDir::~TempDir() {
    std::string cmd = "rm -rf '" + path_ + "'";
    if (system(cmd.c_str()) != 0) fprintf(stderr, "could not remove %s\n", path_.c_str());
}

HandMadeProvider::HandMadeProvider(const std::string &dir, size_t devices, size_t fields,
                                   bool parsers)
    : p_(tarvik_provider_instance()), types_(new std::vector<vyr_event_tarvik_type_t>) {
    p_->devices.clear();
    p_->type_infos.clear();
    p_->next_device = 0;
    p_->run_as_service = true;
    p_->stop_requested = false;
    p_->provider.schema_index = 0;

    value_line_ = make_value_line(fields, types_);
    std::vector<std::string> lines = make_value_lines(fields, devices < 16 ? devices : 16, nullptr);
    std::string header = make_header_line(fields);
    header_offset_ = header.size() + 1;
    event_size_ = vyrbench::event_size(*types_);

    tarvik_schema_type_info_t info;
    info.type_index = 0;
    info.event_size = event_size_;
    info.fields = types_;
    p_->type_infos["bench_hdr"] = info;

    char name[32];
    for (size_t i = 0; i < devices; ++i) {
        snprintf(name, sizeof name, "dev%05zu", i);
        std::string file = dir + "/" + name + ".csv";
        // Neighbouring devices differ in their values, as real ones do.
        write_all(file, header + "\n" + lines[i % lines.size()] + "\n");
        files_.push_back(file);
        tarvik_provider_dev_info_t &d = p_->devices[name];
        d.name = strdup(name);
        d.out_file_path = strdup(file.c_str());
        d.header_id = strdup("bench_hdr");
        d.type_info = &p_->type_infos["bench_hdr"];  // as initialize records it
        d.header_offset = header_offset_;
        d.event_cache = static_cast<uint8_t *>(calloc(1, event_size_));
        memcpy(d.event_cache + TARVIK_EVENT_NAME_OFFSET, TARVIK_EVENT_NAME,
               sizeof TARVIK_EVENT_NAME);
        memcpy(d.event_cache + TARVIK_DEVICE_NAME_OFFSET, name, strlen(name) + 1);
        if (parsers) {
            d.parser = new TarvikFormatParser(file, new std::vector<vyr_event_tarvik_type_t>());
            if (!d.parser->parse()) throw std::runtime_error("cannot parse " + file);
            tarvik_release_parse_state(d);  // as initialize leaves it
        }
    }
}

HandMadeProvider::~HandMadeProvider() {
    for (auto &e : p_->devices) {
        free(e.second.name);
        free(e.second.out_file_path);
        free(e.second.header_id);
        free(e.second.event_cache);
        if (e.second.parser) {
            delete e.second.parser->typesInfo;
            delete e.second.parser;
        }
    }
    p_->devices.clear();
    p_->type_infos.clear();
    p_->next_device = 0;
    delete types_;
}

}  // namespace vyrbench
