// vyrhost --textfile: each poll's exposition in a file that node_exporter's
// textfile collector (--collector.textfile.directory) reads.
#pragma once

#include <string>

namespace vyrhost {

// "" when `path` names a file the collector reads (a name ending in ".prom"
// with something before it), else the complaint.
std::string check_textfile_path(const std::string &path);

// Replaces the file at `path` with `text` so that a reader sees the old
// content or the new, never a part: the text goes to a temporary file in the
// same directory (a name the collector skips), made readable by all, which
// is then renamed over `path`. "" on success, else why (no temporary file is
// left behind).
std::string write_file_atomically(const std::string &path, const std::string &text);

}  // namespace vyrhost
