#include "vyr_command.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>

extern char **environ;

namespace vyr {
namespace common {

namespace {

// Where the child's exit cannot be watched through a descriptor, the wait
// looks again at this period.
const int kPollPeriodMs = 20;

int64_t now_ms() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (int64_t)ts.tv_sec * 1000 + ts.tv_nsec / 1000000;
}

// The session id in /proc/<pid>/stat, or -1 for a zombie or an unreadable entry.
pid_t live_session_of(const char *pid_text) {
    char path[64], buf[512];
    snprintf(path, sizeof path, "/proc/%s/stat", pid_text);
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return -1;
    ssize_t n = read(fd, buf, sizeof buf - 1);
    close(fd);
    if (n <= 0) return -1;
    buf[n] = '\0';
    // The command name may hold blanks and parentheses: fields follow the last ')'.
    const char *p = strrchr(buf, ')');
    char state;
    int ppid, pgrp, session;
    if (!p || sscanf(p + 1, " %c %d %d %d", &state, &ppid, &pgrp, &session) != 4) return -1;
    return state == 'Z' ? -1 : session;
}

bool exited(pid_t pid) {
    siginfo_t info;
    memset(&info, 0, sizeof info);
    // WNOWAIT: the child stays a zombie, so its id keeps naming its group.
    if (waitid(P_PID, (id_t)pid, &info, WEXITED | WNOHANG | WNOWAIT) != 0)
        return errno == ECHILD;  // reaped behind our back (SIGCHLD ignored): nothing to wait for
    return info.si_pid == pid;
}

void drain(int fd, std::string *out) {
    char piece[4096];
    ssize_t got;
    while ((got = read(fd, piece, sizeof piece)) > 0) out->append(piece, (size_t)got);
}

pid_t spawn(const char *command, int out_fd) {
    posix_spawnattr_t attr;
    posix_spawn_file_actions_t actions;
    if (posix_spawnattr_init(&attr) != 0) return -1;
    if (posix_spawn_file_actions_init(&actions) != 0) {
        posix_spawnattr_destroy(&attr);
        return -1;
    }
    // Default handling and an empty mask for the signals system(3) would
    // leave as the caller has them.
    sigset_t none, defaults;
    sigemptyset(&none);
    sigemptyset(&defaults);
    for (int s : {SIGINT, SIGQUIT, SIGPIPE, SIGTERM}) sigaddset(&defaults, s);
    posix_spawnattr_setsigmask(&attr, &none);
    posix_spawnattr_setsigdefault(&attr, &defaults);
    posix_spawnattr_setflags(&attr,
                             POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSID);
    // Without the close action (it allocates) the command would inherit the
    // caller's descriptors: fail the run instead.
    bool ready = (out_fd < 0 || posix_spawn_file_actions_adddup2(&actions, out_fd, 1) == 0) &&
                 posix_spawn_file_actions_addclosefrom_np(&actions, 3) == 0;
    char sh[] = "sh", dash_c[] = "-c";
    char *argv[] = {sh, dash_c, const_cast<char *>(command), nullptr};
    pid_t pid = -1;
    if (!ready || posix_spawn(&pid, "/bin/sh", &actions, &attr, argv, environ) != 0) pid = -1;
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attr);
    return pid;
}

}  // namespace

void kill_session(pid_t leader) {
    if (leader <= 0) return;
    kill(-leader, SIGKILL);
    // Killed processes cannot fork any more; a few rounds catch those forked
    // while the first round ran.
    for (int round = 0; round < 20; ++round) {
        DIR *proc = opendir("/proc");
        if (!proc) return;
        bool found = false;
        while (struct dirent *e = readdir(proc)) {
            if (e->d_name[0] < '1' || e->d_name[0] > '9') continue;
            if (live_session_of(e->d_name) != leader) continue;
            pid_t pid = (pid_t)atoi(e->d_name);
            if (pid == leader) continue;  // already signalled; may be a zombie any moment
            kill(pid, SIGKILL);
            found = true;
        }
        closedir(proc);
        if (!found) return;
        struct timespec pause = {0, 2000000};
        nanosleep(&pause, nullptr);
    }
}

bool CommandGroup::add(pid_t leader) {
    if (closed_) return false;
    running_.insert(leader);
    return true;
}

void CommandGroup::remove(pid_t leader) {
    std::lock_guard<std::mutex> lock(mutex_);
    running_.erase(leader);
}

void CommandGroup::close() {
    std::lock_guard<std::mutex> lock(mutex_);
    closed_ = true;
    // Registered leaders are not reaped before they leave the set (under this lock).
    for (pid_t leader : running_) kill_session(leader);
}

void CommandGroup::open() {
    std::lock_guard<std::mutex> lock(mutex_);
    closed_ = false;
}

int run_command(const char *command, const CommandOptions &o) {
    if (!command) return -1;
    int out[2] = {-1, -1};
    if (o.output) {
        // Only the reading end is non-blocking: the command writes as to any pipe.
        if (pipe2(out, O_CLOEXEC) != 0) return -1;
        fcntl(out[0], F_SETFL, O_NONBLOCK);
    }
    pid_t pid = -1;
    if (o.group) {
        // Spawned under the group's lock, so a close() cannot miss it.
        std::lock_guard<std::mutex> lock(o.group->mutex_);
        if (!o.group->closed_) {
            pid = spawn(command, out[1]);
            if (pid > 0) o.group->add(pid);
        }
    } else {
        pid = spawn(command, out[1]);
    }
    if (out[1] >= 0) close(out[1]);
    if (pid <= 0) {
        if (out[0] >= 0) close(out[0]);
        return -1;
    }

    int pidfd = (int)syscall(SYS_pidfd_open, pid, 0);
    const int64_t deadline = o.kill_after_ms >= 0 ? now_ms() + o.kill_after_ms : -1;
    bool killed = false;
    while (!exited(pid)) {
        struct pollfd fds[2] = {{pidfd, POLLIN, 0}, {out[0], POLLIN, 0}};
        int timeout = pidfd < 0 ? kPollPeriodMs : -1;
        if (deadline >= 0 && !killed) {
            int64_t left = deadline - now_ms();
            if (left <= 0) {
                kill_session(pid);
                killed = true;
                continue;
            }
            if (timeout < 0 || left < timeout) timeout = (int)left;
        }
        if (poll(fds, 2, timeout) < 0 && errno != EINTR) break;
        if (out[0] >= 0 && (fds[1].revents & (POLLIN | POLLHUP))) {
            drain(out[0], o.output);
            if (fds[1].revents & POLLHUP) {
                close(out[0]);
                out[0] = -1;
            }
        }
    }
    if (pidfd >= 0) close(pidfd);
    // The shell is a zombie: its id still names its group, and what it left there goes.
    kill(-pid, SIGKILL);
    if (o.group) o.group->remove(pid);
    if (out[0] >= 0) {
        drain(out[0], o.output);
        close(out[0]);
    }
    int status = -1;
    while (waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR) return -1;
    }
    return status;
}

}  // namespace common
}  // namespace vyr
