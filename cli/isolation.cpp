// The child in its private mount namespace, and the parent that waits for it.
#include "cli/isolation.h"

#include <dirent.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <new>
#include <string>
#include <string_view>

#include "cli/exit_status.h"
#include "cli/file_io.h"
#include "cli/output.h"
#include "cli/signals.h"

namespace fsic::cli {

namespace {

volatile sig_atomic_t child_pid = 0;

void pass_on(int signal) {
  int saved = errno;
  if (child_pid > 0)
    kill(child_pid, signal);
  errno = saved;
}

// In the child: a mount namespace of its own whose mounts do not propagate back.
int enter_private_namespace() {
  if (unshare(CLONE_NEWNS) != 0) {
    fprintf(stderr, "fsic: cannot make a private mount namespace: %s\n", strerror(errno));
    return EXIT_INVENTORY;
  }
  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
    fprintf(stderr, "fsic: cannot make the mount namespace private: %s\n", strerror(errno));
    return EXIT_INVENTORY;
  }
  return EXIT_OK;
}

// Whether `name` is a base mount directory of the library's for process `pid`:
// "fs." + 17 digits (local date and time to the millisecond) + "." + the pid.
bool base_dir_name(const char *name, pid_t pid) {
  std::string_view n(name);
  std::string tail = std::string(".").append(std::to_string(pid));
  if (n.size() != 3 + 17 + tail.size() || n.substr(0, 3) != "fs." || n.substr(20) != tail)
    return false;
  for (char c : n.substr(3, 17))
    if (c < '0' || c > '9')
      return false;
  return true;
}

// The library's mount directories of a child that did not finish are left empty once
// its namespace is gone. Only empty directories that this user owns and that are no
// links are removed, relative to descriptors: nothing another user put under /tmp is
// followed.
void remove_mount_directories(pid_t pid) {
  int tmp = open("/tmp", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (tmp < 0)
    return;
  DIR *list = fdopendir(dup(tmp));
  while (dirent *e = list ? readdir(list) : nullptr) {
    struct stat st {};
    if (!base_dir_name(e->d_name, pid) || fstatat(tmp, e->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0 ||
        !S_ISDIR(st.st_mode) || st.st_uid != geteuid())
      continue;
    int base = openat(tmp, e->d_name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (base < 0)
      continue;
    if (DIR *d = fdopendir(base)) {
      while (dirent *v = readdir(d))
        if (strcmp(v->d_name, ".") != 0 && strcmp(v->d_name, "..") != 0)
          unlinkat(base, v->d_name, AT_REMOVEDIR);
      closedir(d);
    } else {
      close(base);
    }
    unlinkat(tmp, e->d_name, AT_REMOVEDIR);
  }
  if (list)
    closedir(list);
  close(tmp);
}

int child(const std::function<int()> &work, pid_t parent) {
  // The child must not outlive the parent that would clean up after it.
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != parent)
    _exit(EXIT_INTERRUPTED);
  int status = enter_private_namespace();
  try {
    if (status == EXIT_OK)
      status = work();
  } catch (const std::bad_alloc &) {
    status = out_of_memory();
  }
  return finish_output(status);
}

} // namespace

int run_isolated(const std::function<int()> &work, const std::string &database) {
  fflush(stdout);
  fflush(stderr);
  pid_t parent = getpid();
  // An ignored SIGCHLD, inherited from the caller, would reap the child unseen.
  signal(SIGCHLD, SIG_DFL);
  block_interrupts();
  pid_t pid = fork();
  if (pid < 0) {
    int error = errno;
    unblock_interrupts();
    fprintf(stderr, "fsic: cannot start the worker process: %s\n", strerror(error));
    return EXIT_INVENTORY;
  }
  if (pid == 0) {
    install_interrupt_handlers();
    unblock_interrupts();
    _exit(child(work, parent));
  }
  child_pid = pid;
  struct sigaction action {};
  action.sa_handler = pass_on;
  sigemptyset(&action.sa_mask);
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
  unblock_interrupts();

  int wstatus = 0;
  pid_t waited;
  while ((waited = waitpid(pid, &wstatus, 0)) < 0 && errno == EINTR) {
  }
  int wait_error = errno;
  child_pid = 0;
  install_interrupt_handlers();
  if (waited < 0) {
    fprintf(stderr, "fsic: lost the worker process: %s\n", strerror(wait_error));
    return EXIT_INVENTORY;
  }
  if (WIFEXITED(wstatus) && WEXITSTATUS(wstatus) != EXIT_INTERRUPTED)
    return WEXITSTATUS(wstatus);
  // Interrupted or killed: what it could not undo itself.
  remove_mount_directories(pid);
  // Its temporary database file, unless another writer holds the lock by now and the
  // file is that writer's.
  if (!database.empty()) {
    file_lock lock;
    if (lock.acquire(database) == 0)
      unlink(temporary_path(database).c_str());
  }
  if (WIFEXITED(wstatus))
    return EXIT_INTERRUPTED;
  int signal = WTERMSIG(wstatus);
  if (signal == SIGINT || signal == SIGTERM)
    return EXIT_INTERRUPTED;
  fprintf(stderr, "fsic: the worker process was killed by signal %d\n", signal);
  return 128 + signal;
}

} // namespace fsic::cli
