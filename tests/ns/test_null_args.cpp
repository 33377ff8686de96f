// Every C function the shared library exports, called with null pointers and
// zeros for all its arguments, must return: each call runs in a child
// process, and a crash or a hang (5 s) names the function.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "test_paths.h"

namespace {

typedef void (*any_fn)(void *, void *, void *, void *, void *, void *);

// Defined text symbols in the dynamic table: what the version script lets out.
std::vector<std::string> exported(const std::string &library) {
    std::vector<std::string> names;
    FILE *nm = popen(("nm -D --defined-only " + library).c_str(), "r");
    char line[512], kind;
    char name[400];
    while (nm && fgets(line, sizeof line, nm))
        if (sscanf(line, "%*s %c %399s", &kind, name) == 2 && kind == 'T' &&
            std::string(name).rfind("_Z", 0) != 0)  // C++ entries take references
            names.push_back(name);
    if (nm) pclose(nm);
    return names;
}

TEST(NullArguments, EveryExportedFunctionReturns) {
    const std::string library = vyrtest::binary_dir() + "/libtarvik_provider.so";
    void *handle = dlopen(library.c_str(), RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(handle, nullptr) << dlerror();
    std::vector<std::string> names = exported(library);
    ASSERT_GT(names.size(), 100u);
    for (const std::string &name : names) {
        any_fn fn = reinterpret_cast<any_fn>(dlsym(handle, name.c_str()));
        ASSERT_NE(fn, nullptr) << name;
        fflush(nullptr);
        pid_t pid = fork();
        if (pid == 0) {
            alarm(5);
            fn(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
            _exit(0);
        }
        int status = 0;
        ASSERT_EQ(waitpid(pid, &status, 0), pid);
        EXPECT_TRUE(WIFEXITED(status)) << name << " died of signal " << WTERMSIG(status);
    }
}

}  // namespace
