#include "vyrhost_textfile.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace vyrhost {

std::string check_textfile_path(const std::string &path) {
    const std::string suffix = ".prom";
    size_t slash = path.rfind('/');
    std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
    if (name.size() <= suffix.size() ||
        name.compare(name.size() - suffix.size(), suffix.size(), suffix) != 0)
        return "--textfile '" + path +
               "': the file name must end in .prom (the only files node_exporter's textfile "
               "collector reads)";
    return "";
}

std::string write_file_atomically(const std::string &path, const std::string &text) {
    size_t slash = path.rfind('/');
    std::string dir = slash == std::string::npos ? "" : path.substr(0, slash + 1);
    std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
    // A leading dot and no ".prom" ending: the collector never reads it.
    std::string pattern = dir + "." + name + ".XXXXXX";
    std::vector<char> temp(pattern.begin(), pattern.end());
    temp.push_back('\0');
    int fd = mkstemp(temp.data());
    if (fd < 0) return "cannot create a temporary file beside " + path + ": " + strerror(errno);
    std::string error;
    size_t done = 0;
    while (error.empty() && done < text.size()) {
        ssize_t n = write(fd, text.data() + done, text.size() - done);
        if (n <= 0)
            error = std::string("cannot write ") + temp.data() + ": " + strerror(errno);
        else
            done += static_cast<size_t>(n);
    }
    // mkstemp makes the file 0600; node_exporter usually runs as another user.
    if (error.empty() && fchmod(fd, 0644) != 0)
        error = std::string("cannot chmod ") + temp.data() + ": " + strerror(errno);
    if (close(fd) != 0 && error.empty())
        error = std::string("cannot write ") + temp.data() + ": " + strerror(errno);
    if (error.empty() && rename(temp.data(), path.c_str()) != 0)
        error =
            std::string("cannot rename ") + temp.data() + " to " + path + ": " + strerror(errno);
    if (!error.empty()) unlink(temp.data());
    return error;
}

}  // namespace vyrhost
