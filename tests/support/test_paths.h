// Where the tests find the repository, the build, the golden files and the simulators.
#pragma once

#include <string>

namespace vyrtest {

std::string source_dir();  // the repository
std::string binary_dir();  // the build tree
std::string golden_dir();  // tests/golden
std::string read_file(const std::string &path);
void write_file(const std::string &path, const std::string &content);

}  // namespace vyrtest
