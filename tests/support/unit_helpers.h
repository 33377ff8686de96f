// Helpers the unit tests share: temporary files, scoped environment
// variables, owned JSON values, golden files, captured log texts and locales
// built into the build tree. Header-only.
#pragma once

#include <ftw.h>
#include <locale.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <initializer_list>
#include <optional>
#include <string>
#include <vector>

#ifdef __SANITIZE_ADDRESS__
#include <sanitizer/lsan_interface.h>
#endif

#include "log_capture.h"
#include "test_paths.h"
#include "vyr_json.h"

namespace vyrtest {
namespace unit {

// A file under /tmp holding `content`, removed with the object.
struct TempFile {
    std::string path;
    explicit TempFile(const std::string &content = "") {
        char name[] = "/tmp/vyr_unit_XXXXXX";
        int fd = mkstemp(name);
        if (fd >= 0) close(fd);
        path = name;
        write_file(path, content);
    }
    ~TempFile() { unlink(path.c_str()); }
    std::string read() const { return read_file(path); }
};

// A directory under /tmp, removed with everything in it.
struct TempDir {
    std::string path;
    TempDir() {
        char name[] = "/tmp/vyr_unit_XXXXXX";
        path = mkdtemp(name) ? name : "/nonexistent";
    }
    ~TempDir() {
        nftw(
            path.c_str(), [](const char *p, const struct stat *, int, FTW *) { return remove(p); },
            8, FTW_DEPTH | FTW_PHYS);
    }
    std::string file(const std::string &name, const std::string &content) const {
        write_file(path + "/" + name, content);
        return path + "/" + name;
    }
};

// Environment variables changed for one scope: the named ones start unset,
// and every variable touched is put back as it was.
class ScopedEnv {
  public:
    explicit ScopedEnv(std::initializer_list<const char *> cleared = {}) {
        for (const char *name : cleared) set(name, nullptr);
    }
    ~ScopedEnv() {
        for (auto it = saved_.rbegin(); it != saved_.rend(); ++it)
            put(it->first, it->second.has_value() ? it->second->c_str() : nullptr);
    }
    // nullptr unsets.
    void set(const std::string &name, const char *value) {
        const char *old = getenv(name.c_str());
        saved_.emplace_back(name, old ? std::optional<std::string>(old) : std::nullopt);
        put(name, value);
    }

  private:
    static void put(const std::string &name, const char *value) {
        value ? setenv(name.c_str(), value, 1) : unsetenv(name.c_str());
    }
    std::vector<std::pair<std::string, std::optional<std::string>>> saved_;
};

// Owns a json_t for one scope.
struct Json {
    json_t *v;
    explicit Json(json_t *value) : v(value) {}
    ~Json() { json_decref(v); }
};

// A heap text taken over and freed; "<null>" for none.
inline std::string take(char *text) {
    std::string out(text ? text : "<null>");
    free(text);
    return out;
}

inline std::string text_of(const json_t *value, bool pretty = false) {
    return value ? take(vyr_json_serialize(value, pretty ? 1 : 0)) : "<null>";
}

// A file of the golden schema JSON set, e.g. "two_types.pretty.json".
inline std::string golden(const std::string &file) {
    return read_file(golden_dir() + "/schema_json/" + file);
}
// The 32 hex digits of a golden schema's identifier.
inline std::string golden_md5(const std::string &name) {
    return golden(name + ".md5").substr(0, 32);
}

// The captured texts, of one level or (level < 0) of all.
inline std::vector<std::string> texts(const LogCapture &log, int level = -1) {
    std::vector<std::string> out;
    for (const auto &l : log.lines())
        if (level < 0 || l.level == level) out.push_back(l.text);
    return out;
}

// The locale "<language>.<charmap>" for `mask`: the installed one, else one
// compiled with localedef into the build tree; (locale_t)0 when neither exists.
inline locale_t built_locale(int mask, const std::string &language, const std::string &charmap) {
    const std::string name = language + "." + charmap;
    if (locale_t loc = newlocale(mask, name.c_str(), (locale_t)0)) return loc;
    const std::string dir = binary_dir() + "/test_locales";
    const std::string build = "mkdir -p '" + dir + "' && { test -d '" + dir + "/" + name +
                              "' || localedef -i " + language + " -f " + charmap + " '" + dir +
                              "/" + name + "' >/dev/null 2>&1; }";
    if (system(build.c_str()) != 0) return (locale_t)0;
    ScopedEnv env;
    env.set("LOCPATH", dir.c_str());
#ifdef __SANITIZE_ADDRESS__
    __lsan::ScopedDisabler glibc_keeps_the_locale_path;  // not ours to free
#endif
    return newlocale(mask, name.c_str(), (locale_t)0);
}

}  // namespace unit
}  // namespace vyrtest
