// Command runs through /bin/sh: the wait status system(3) gives, the captured
// output, the time limit and the group that ends its runs as a whole.
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>

#include "vyr_command.h"

using vyr::common::CommandGroup;
using vyr::common::CommandOptions;
using vyr::common::run_command;

namespace {

// Ids a command printed, one a line, are gone within 5 s.
bool all_gone(const std::string &ids) {
    for (int i = 0; i < 250; ++i, std::this_thread::sleep_for(std::chrono::milliseconds(20))) {
        bool alive = false;
        for (size_t at = 0; at < ids.size(); at = ids.find('\n', at) + 1)
            alive = alive || kill(std::stoi(ids.substr(at)), 0) == 0;
        if (!alive) return true;
    }
    return false;
}

TEST(Command, SameWaitStatusAsSystemAndTheOutput) {
    for (const char *command : {"exit 3", "kill -9 $$", "sh -c 'kill -TERM $$'"})
        EXPECT_EQ(run_command(command), system(command)) << command;
    EXPECT_EQ(run_command(nullptr), -1);
    std::string out;
    const CommandOptions o{&out};
    EXPECT_EQ(run_command("printf 'a\\0b\\n'; head -c 200000 /dev/zero; ls /proc/self/fd", o), 0);
    EXPECT_EQ(out.substr(0, 4) + out.substr(200004),
              std::string("a\0b\n0\n1\n2\n3\n", 12));  // 3: ls's own handle on the directory
    // No descriptor left for the output pipe: the run is refused.
    struct rlimit saved;
    getrlimit(RLIMIT_NOFILE, &saved);
    int lowest = dup(0);
    close(lowest);
    struct rlimit low = {(rlim_t)lowest, saved.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &low), 0);
    int status = run_command("echo x", o);
    setrlimit(RLIMIT_NOFILE, &saved);
    EXPECT_EQ(status, -1);
}

// A signal the caller's thread takes while it waits does not end the run.
TEST(Command, SignalsToTheWaitingThreadAreSurvived) {
    struct sigaction quiet = {}, old;
    quiet.sa_handler = [](int) {};  // no SA_RESTART: the wait returns EINTR
    sigaction(SIGUSR1, &quiet, &old);
    pthread_t waiter = pthread_self();
    std::thread poke([waiter] {
        for (int i = 0; i < 5; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(40));
            pthread_kill(waiter, SIGUSR1);
        }
    });
    std::string out;
    EXPECT_EQ(run_command("sleep 0.3; echo done", {&out}), 0);
    poke.join();
    sigaction(SIGUSR1, &old, nullptr);
    EXPECT_EQ(out, "done\n");
}

// A run that ignores TERM, and a child of it in a process group of its own,
// are ended by the time limit; a closed group ends its runs and refuses more.
TEST(Command, TimeLimitAndGroupEndEverything) {
    // timeout makes a process group of its own for itself and its sleep.
    std::string ids;
    const char *stubborn = "trap '' TERM; timeout 100 sleep 100 & echo $!; sleep 100";
    EXPECT_EQ(run_command(stubborn, {&ids, 200}), SIGKILL);
    EXPECT_TRUE(all_gone(ids)) << ids;

    CommandGroup group;
    const CommandOptions g{nullptr, -1, &group};
    int status = 0;
    std::thread run([&] { status = run_command("trap '' TERM; sleep 100 & wait", g); });
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    group.close();
    run.join();
    EXPECT_TRUE(status == SIGKILL && run_command("true", g) == -1);
    group.open();
    EXPECT_EQ(run_command("true", g), 0);
}

}  // namespace
