// The child in its private mount namespace, and the parent that waits for it.
#include "cli/isolation.h"

#include <dirent.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <new>
#include <string>

#include "cli/exit_status.h"
#include "cli/file_io.h"
#include "cli/signals.h"

namespace fsic::cli {

namespace {

volatile sig_atomic_t child_pid = 0;

void pass_on(int signal) {
  if (child_pid > 0)
    kill(child_pid, signal);
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

// The library's mount directories are /tmp/fs.<time>.<pid> with one directory per
// volume: of a child that did not finish, they are left empty once its namespace is
// gone. Only empty directories are removed (rmdir), nothing else.
void remove_mount_directories(pid_t pid) {
  DIR *tmp = opendir("/tmp");
  if (!tmp)
    return;
  std::string suffix = std::string(".").append(std::to_string(pid));
  while (dirent *e = readdir(tmp)) {
    std::string name = e->d_name;
    if (name.rfind("fs.", 0) != 0 || name.size() <= suffix.size() ||
        name.compare(name.size() - suffix.size(), suffix.size(), suffix) != 0)
      continue;
    std::string base = "/tmp/" + name;
    if (DIR *d = opendir(base.c_str())) {
      while (dirent *v = readdir(d)) {
        if (strcmp(v->d_name, ".") != 0 && strcmp(v->d_name, "..") != 0)
          rmdir((base + "/" + v->d_name).c_str());
      }
      closedir(d);
    }
    rmdir(base.c_str());
  }
  closedir(tmp);
}

int child(const std::function<int()> &work, pid_t parent) {
  // The child must not outlive the parent that would clean up after it.
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != parent)
    _exit(EXIT_INTERRUPTED);
  install_interrupt_handlers();
  int status = enter_private_namespace();
  try {
    if (status == EXIT_OK)
      status = work();
  } catch (const std::bad_alloc &) {
    fputs("fsic: out of memory\n", stderr);
    status = EXIT_NO_MEMORY;
  }
  fflush(stdout);
  fflush(stderr);
  return status;
}

} // namespace

int run_isolated(const std::function<int()> &work, const std::string &database) {
  fflush(stdout);
  fflush(stderr);
  pid_t parent = getpid();
  block_interrupts();
  pid_t pid = fork();
  if (pid < 0) {
    fprintf(stderr, "fsic: cannot start the worker process: %s\n", strerror(errno));
    return EXIT_INVENTORY;
  }
  if (pid == 0) {
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
  while (waitpid(pid, &wstatus, 0) < 0 && errno == EINTR) {
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
