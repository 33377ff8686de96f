// Shared pieces of the benchmarks: realistic value lines, hand-made devices
// with their collection files on tmpfs, and the plain-code baselines every
// ratio is measured against.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "tarvik_format_parser.h"
#include "tarvik_provider.h"

namespace vyrbench {

// A value line of `fields` columns in phyprobe's mix: about half counters,
// a third doubles (plain, negative and scientific, as BER columns are) and
// the rest texts. The same seed gives the same line and types.
std::string make_value_line(size_t fields, std::vector<vyr_event_tarvik_type_t> *types,
                            uint32_t seed = 1);
// `count` lines of the same column types and different values (seeds 1..count),
// so a loop over them does not let the branch predictor learn one line.
std::vector<std::string> make_value_lines(size_t fields, size_t count,
                                          std::vector<vyr_event_tarvik_type_t> *types);
// A header line naming `fields` columns.
std::string make_header_line(size_t fields);

// Record size of an event with these field types.
size_t event_size(const std::vector<vyr_event_tarvik_type_t> &types);

// Baseline conversion: a memchr split and std::from_chars into the same
// record layout (texts copied into 64-byte slots). No error handling beyond
// what from_chars gives; it is the floor, not a replacement.
size_t baseline_convert(std::string_view line, const std::vector<vyr_event_tarvik_type_t> &types,
                        uint8_t *event);

// Baseline read: open, one pread of the bytes from `offset`, close. Returns
// the bytes up to the newline in `buf`.
size_t baseline_read_line(const char *path, uint64_t offset, char *buf, size_t cap);

// A directory on tmpfs (/dev/shm when there is one), removed on destruction.
class TempDir {
  public:
    TempDir();
    ~TempDir();
    const std::string &path() const { return path_; }

  private:
    std::string path_;
};

// The provider singleton filled with `devices` hand-made device records in
// service mode, each with its own collection file of `fields` columns in
// `dir`, sharing one event type. Restores an empty provider on destruction.
class HandMadeProvider {
  public:
    // With `parsers`, every device also keeps a parsed TarvikFormatParser, as
    // initialization leaves it, so memory figures cover what a device holds.
    HandMadeProvider(const std::string &dir, size_t devices, size_t fields, bool parsers = false);
    ~HandMadeProvider();
    tarvik_provider_t *provider() const { return p_; }
    // The line of device 0 (seed 1); lengths of the others are alike.
    const std::string &value_line() const { return value_line_; }
    const std::vector<vyr_event_tarvik_type_t> &types() const { return *types_; }
    const std::string &file_of(size_t i) const { return files_[i]; }
    uint64_t header_offset() const { return header_offset_; }
    size_t event_size() const { return event_size_; }

  private:
    tarvik_provider_t *p_;
    std::vector<vyr_event_tarvik_type_t> *types_;
    std::vector<std::string> files_;
    std::string value_line_;
    uint64_t header_offset_ = 0;
    size_t event_size_ = 0;
};

}  // namespace vyrbench
