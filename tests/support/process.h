// Programs and child processes of the tests: running a program with its output
// captured, running a piece of code without root's privileges, the environment of this
// process for one scope, and the number of this process's threads.
#ifndef FSIC_TESTS_SUPPORT_PROCESS_H
#define FSIC_TESTS_SUPPORT_PROCESS_H

#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace support {

struct proc_result {
  int status = -1; // exit code, or 128 + signal; -1 when the program could not be run
  bool timed_out = false;
  std::string out;
  std::string err;
  // Status, stdout and stderr, for a failure message.
  std::string describe() const;
};

// Environment changes of a child: a value sets the variable, nullopt removes it.
using env_list = std::vector<std::pair<std::string, std::optional<std::string>>>;

// The PATH a child gets with `system_path` set.
inline constexpr const char *kSystemPath = "/usr/sbin:/usr/bin:/sbin:/bin";

// Runs argv (searched on PATH, or on kSystemPath when `system_path` is set, so that
// stand-ins put on PATH by a test are never picked up) with this process's
// environment changed by `env`, stdin from /dev/null, stdout and stderr captured, no
// other descriptors, an empty signal mask and a time limit (then it is killed).
proc_result run(const std::vector<std::string> &argv, const env_list &env = {},
                bool system_path = true, int timeout_seconds = 60);

// Runs `body` in a child process that has given up root (uid and gid 65534), so that
// permission bits bind as they do for an ordinary user; returns the child's exit code
// (the body's result, 0-255), or -1 when the child could not drop privileges.
int run_unprivileged(const std::function<int()> &body);

// Runs `body` in a child process with a time limit, so that a call that would block for
// ever fails the test instead of hanging it. Returns the child's exit code (the body's
// result, 0-255), kTimedOut when the limit passed (the child is then killed), or -1
// when the child died otherwise.
inline constexpr int kTimedOut = -2;
int run_in_child(const std::function<int()> &body, int timeout_seconds);

// The number of threads of this process (-1 when /proc cannot tell).
int thread_count();

// Sets (a value) or removes (nullopt) an environment variable of this process for one
// scope; the old state comes back at its end.
class scoped_env {
public:
  scoped_env(const char *name, const std::optional<std::string> &value);
  ~scoped_env();
  scoped_env(const scoped_env &) = delete;
  scoped_env &operator=(const scoped_env &) = delete;

private:
  std::string name_;
  std::optional<std::string> old_;
};

} // namespace support

#endif // FSIC_TESTS_SUPPORT_PROCESS_H
