#include "test_paths.h"

#include <fstream>
#include <sstream>
#include <stdexcept>

namespace vyrtest {

std::string source_dir() {
    return VYR_SOURCE_DIR;
}
std::string binary_dir() {
    return VYR_BINARY_DIR;
}
std::string golden_dir() {
    return VYR_GOLDEN_DIR;
}

std::string read_file(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw std::runtime_error("cannot read " + path);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

void write_file(const std::string &path, const std::string &content) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    if (!out) throw std::runtime_error("cannot write " + path);
    out << content;
}

}  // namespace vyrtest
