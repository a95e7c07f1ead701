#include "tests/support/process.h"

#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <sstream>
#include <stdexcept>

namespace support {

std::string proc_result::describe() const {
  std::ostringstream s;
  s << "status " << status << (timed_out ? " (timed out)" : "") << "\nstdout:\n"
    << out << "stderr:\n"
    << err;
  return s.str();
}

proc_result run(const std::vector<std::string> &argv, const env_list &env, bool system_path,
                int timeout_seconds) {
  proc_result r;
  int out[2], err[2];
  if (pipe2(out, O_CLOEXEC) != 0)
    return r;
  if (pipe2(err, O_CLOEXEC) != 0) {
    close(out[0]);
    close(out[1]);
    return r;
  }
  std::vector<char *> args;
  for (const auto &a : argv)
    args.push_back(const_cast<char *>(a.c_str()));
  args.push_back(nullptr);
  const pid_t pid = fork();
  if (pid == 0) {
    const int null = open("/dev/null", O_RDONLY);
    dup2(null, 0);
    dup2(out[1], 1);
    dup2(err[1], 2);
    syscall(SYS_close_range, 3u, ~0u, 0u);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    if (system_path)
      setenv("PATH", kSystemPath, 1);
    for (const auto &[name, value] : env) {
      if (value)
        setenv(name.c_str(), value->c_str(), 1);
      else
        unsetenv(name.c_str());
    }
    execvp(args[0], args.data());
    _exit(127);
  }
  close(out[1]);
  close(err[1]);
  if (pid < 0) {
    close(out[0]);
    close(err[0]);
    return r;
  }
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(timeout_seconds);
  pollfd fds[2] = {{out[0], POLLIN, 0}, {err[0], POLLIN, 0}};
  std::string *sinks[2] = {&r.out, &r.err};
  int open_fds = 2;
  while (open_fds > 0) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                          deadline - std::chrono::steady_clock::now())
                          .count();
    if (left <= 0) {
      r.timed_out = true;
      kill(pid, SIGKILL);
      break;
    }
    const int n_ready = poll(fds, 2, static_cast<int>(left));
    if (n_ready < 0 && errno == EINTR)
      continue;
    if (n_ready < 0)
      break;
    for (int i = 0; i < 2; ++i) {
      if (fds[i].fd < 0 || fds[i].revents == 0)
        continue;
      char buf[4096];
      const ssize_t n = read(fds[i].fd, buf, sizeof buf);
      if (n > 0) {
        sinks[i]->append(buf, static_cast<std::size_t>(n));
      } else if (n == 0 || errno != EINTR) {
        close(fds[i].fd);
        fds[i].fd = -1;
        --open_fds;
      }
    }
  }
  for (auto &f : fds)
    if (f.fd >= 0)
      close(f.fd);
  int wstatus = 0;
  pid_t waited;
  do
    waited = waitpid(pid, &wstatus, 0);
  while (waited == -1 && errno == EINTR);
  if (waited == pid) {
    if (WIFEXITED(wstatus))
      r.status = WEXITSTATUS(wstatus);
    else if (WIFSIGNALED(wstatus))
      r.status = 128 + WTERMSIG(wstatus);
  }
  return r;
}

int run_unprivileged(const std::function<int()> &body) {
  fflush(nullptr);
  const pid_t pid = fork();
  if (pid < 0)
    throw std::runtime_error("fork failed");
  if (pid == 0) {
    if (geteuid() == 0 && (setgroups(0, nullptr) != 0 || setgid(65534) != 0 || setuid(65534) != 0))
      _exit(255);
    _exit(body() & 0xFF);
  }
  int wstatus = 0;
  if (waitpid(pid, &wstatus, 0) != pid || !WIFEXITED(wstatus))
    return -1;
  const int code = WEXITSTATUS(wstatus);
  return code == 255 ? -1 : code;
}

int run_in_child(const std::function<int()> &body, int timeout_seconds) {
  fflush(nullptr);
  const pid_t pid = fork();
  if (pid < 0)
    throw std::runtime_error("fork failed");
  if (pid == 0)
    _exit(body() & 0xFF);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(timeout_seconds);
  int wstatus = 0;
  for (;;) {
    const pid_t done = waitpid(pid, &wstatus, WNOHANG);
    if (done == pid)
      break;
    if (done < 0)
      return -1;
    if (std::chrono::steady_clock::now() >= deadline) {
      kill(pid, SIGKILL);
      waitpid(pid, &wstatus, 0);
      return kTimedOut;
    }
    struct timespec pause = {0, 20 * 1000 * 1000};
    nanosleep(&pause, nullptr);
  }
  return WIFEXITED(wstatus) ? WEXITSTATUS(wstatus) : -1;
}

int thread_count() {
  DIR *d = opendir("/proc/self/task");
  if (d == nullptr)
    return -1;
  int n = 0;
  while (dirent *e = readdir(d))
    if (e->d_name[0] != '.')
      ++n;
  closedir(d);
  return n;
}

scoped_env::scoped_env(const char *name, const std::optional<std::string> &value) : name_(name) {
  if (const char *old = getenv(name))
    old_ = old;
  if (value)
    setenv(name, value->c_str(), 1);
  else
    unsetenv(name);
}

scoped_env::~scoped_env() {
  if (old_)
    setenv(name_.c_str(), old_->c_str(), 1);
  else
    unsetenv(name_.c_str());
}

} // namespace support
