// Every C function the shared library exports, called with null pointers and
// zeros for all its arguments, must return, and so must the provider
// descriptor's callbacks: each call runs in a child
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
#include "vyr_event_provider.h"

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
    // The descriptor's callbacks too, reached through the entry point.
    auto construct = reinterpret_cast<vyr_event_provider_t *(*)(vyr_dict_t *)>(
        dlsym(handle, "construct_event_provider"));
    ASSERT_NE(construct, nullptr);
    vyr_event_provider_t *d = construct(nullptr);
    const std::pair<const char *, void *> callbacks[] = {{"initialize", (void *)d->initialize},
                                                         {"start", (void *)d->start},
                                                         {"write_events", (void *)d->write_events},
                                                         {"stop", (void *)d->stop},
                                                         {"destroy", (void *)d->destroy},
                                                         {"get_sources", (void *)d->get_sources},
                                                         {"query", (void *)d->query}};
    ASSERT_GT(names.size(), 100u);
    for (const auto &c : callbacks) names.push_back(c.first);
    for (const std::string &name : names) {
        void *sym = dlsym(handle, name.c_str());
        for (const auto &c : callbacks)
            if (name == c.first) sym = c.second;
        any_fn fn = reinterpret_cast<any_fn>(sym);
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
