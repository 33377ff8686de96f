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
    char line[512], kind, name[400];
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
    ASSERT_GT(names.size(), 100u);
    std::vector<void *> syms;
    for (const std::string &name : names) syms.push_back(dlsym(handle, name.c_str()));
    for (void *cb : {(void *)d->initialize, (void *)d->start, (void *)d->write_events,
                     (void *)d->stop, (void *)d->destroy, (void *)d->get_sources, (void *)d->query})
        names.push_back("callback " + std::to_string(syms.size())), syms.push_back(cb);
    for (size_t i = 0; i < names.size(); ++i) {
        const std::string &name = names[i];
        any_fn fn = reinterpret_cast<any_fn>(syms[i]);
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
