/* Running a command line through /bin/sh as system(3) does, but in a session
 * (and process group) of its own, without the caller's open descriptors and
 * without touching the caller's signal dispositions, so that a run can be
 * ended as a whole. */
#ifndef VYR_COMMAND_H
#define VYR_COMMAND_H

#include <sys/types.h>

#include <mutex>
#include <set>
#include <string>

namespace vyr {
namespace common {

struct CommandOptions;

/* The runs of one owner, so that they can be ended together. */
class CommandGroup {
  public:
    /* Ends every run in progress with all it started, and makes later runs
     * fail (-1) until open(). */
    void close();
    void open();

  private:
    friend int run_command(const char *, const CommandOptions &);
    bool add(pid_t leader);
    void remove(pid_t leader);
    std::mutex mutex_;
    std::set<pid_t> running_;
    bool closed_ = false;
};

struct CommandOptions {
    std::string *output = nullptr; /* standard output is appended here when set */
    int kill_after_ms = -1;        /* the run is ended after this long; negative: never */
    CommandGroup *group = nullptr;
};

/* The wait status system(3) returns for the same command line; -1 when the
 * command could not be started or its group is closed. Whatever the run left
 * in its process group is killed when the shell ends. */
int run_command(const char *command, const CommandOptions &options = CommandOptions());

/* SIGKILL to every live process of the session led by `leader` (children that
 * made process groups of their own included). The leader must not have been
 * reaped, so that its id still names that session. */
void kill_session(pid_t leader);

}  // namespace common
}  // namespace vyr

#endif
