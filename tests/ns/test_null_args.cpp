// Every C function the shared library exports, and every callback of the
// provider descriptor, called with null pointers and zeros for all its
// arguments must return: each call runs in a child process, and a crash or a
// hang (5 s) names the function.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <sys/wait.h>
#include <unistd.h>

#include "test_paths.h"
#include "vyr_event_provider.h"

TEST(NullArguments, EveryExportedFunctionReturns) {
    typedef void (*any_fn)(void *, void *, void *, void *, void *, void *);
    const std::string library = vyrtest::binary_dir() + "/libtarvik_provider.so";
    void *handle = dlopen(library.c_str(), RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(handle, nullptr) << dlerror();
    // Defined text symbols in the dynamic table, but C++ ones (they take references).
    std::vector<std::string> names;
    std::vector<void *> fns;
    FILE *nm = popen(("nm -D --defined-only " + library).c_str(), "r");
    char line[512], kind, name[400];
    while (fgets(line, sizeof line, nm))
        if (sscanf(line, "%*s %c %399s", &kind, name) == 2 && kind == 'T' &&
            std::string(name).rfind("_Z", 0) != 0)
            names.push_back(name), fns.push_back(dlsym(handle, name));
    pclose(nm);
    ASSERT_GT(names.size(), 100u);
    auto construct = reinterpret_cast<vyr_event_provider_t *(*)(vyr_dict_t *)>(
        dlsym(handle, "construct_event_provider"));
    vyr_event_provider_t *d = construct(nullptr);
    for (void *cb : {(void *)d->initialize, (void *)d->start, (void *)d->write_events,
                     (void *)d->stop, (void *)d->destroy, (void *)d->get_sources, (void *)d->query})
        names.push_back("callback " + std::to_string(fns.size())), fns.push_back(cb);
    for (size_t i = 0; i < names.size(); ++i) {
        ASSERT_NE(fns[i], nullptr) << names[i];
        fflush(nullptr);
        pid_t pid = fork();
        if (pid == 0) {
            alarm(5);
            reinterpret_cast<any_fn>(fns[i])(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
            _exit(0);
        }
        int status = 0;
        ASSERT_EQ(waitpid(pid, &status, 0), pid);
        EXPECT_TRUE(WIFEXITED(status)) << names[i] << " died of signal " << WTERMSIG(status);
    }
}
