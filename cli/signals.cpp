// The interrupt handler and the one temporary file it may have to remove.
#include "cli/signals.h"

#include <unistd.h>

#include <climits>
#include <csignal>
#include <cstring>

#include "cli/exit_status.h"

namespace fsic::cli {

namespace {

// Written with interrupts blocked, read by the handler only.
char temporary_file[PATH_MAX];
volatile sig_atomic_t have_temporary_file = 0;

void on_interrupt(int) {
  if (have_temporary_file)
    unlink(temporary_file);
  static const char message[] = "fsic: interrupted\n";
  ssize_t ignored = write(STDERR_FILENO, message, sizeof message - 1);
  (void)ignored;
  _exit(EXIT_INTERRUPTED);
}

void set_blocked(int how) {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGTERM);
  sigprocmask(how, &set, nullptr);
}

} // namespace

void install_interrupt_handlers() {
  struct sigaction action {};
  action.sa_handler = on_interrupt;
  sigemptyset(&action.sa_mask);
  sigaddset(&action.sa_mask, SIGINT);
  sigaddset(&action.sa_mask, SIGTERM);
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
}

void register_temporary_file(const char *path) {
  block_interrupts();
  size_t n = strnlen(path, sizeof temporary_file - 1);
  memcpy(temporary_file, path, n);
  temporary_file[n] = '\0';
  have_temporary_file = 1;
  unblock_interrupts();
}

void forget_temporary_file() { have_temporary_file = 0; }

void block_interrupts() { set_blocked(SIG_BLOCK); }

void unblock_interrupts() { set_blocked(SIG_UNBLOCK); }

} // namespace fsic::cli
