// Runs the LVM adapter in a fresh process for lvm_backend_test, which checks this
// program's standard output, standard error and exit status.
//
//   lvm_probe init        init + quit; prints "init=ok" or "init=null"
//   lvm_probe host-log    the same with the host's own GLib handlers installed first;
//                         prints how many messages reached them during and after init
//   lvm_probe walk NAME   the inventory's whole sequence, plus opening the group NAME
//                         that must fail; prints "vg G" and "lv G L" lines and the
//                         number of threads after every step
//
// Exit status: 0 done as expected, 3 init returned null, 4 a step failed.
#include "fs/lvm_internal.h"
#include "tests/support/process.h"

#include <glib.h>

#include <cstdio>
#include <cstring>
#include <string>

namespace {

using support::thread_count;

struct host_counts {
  int domain = 0;
  int fallback = 0;
};

void host_domain_handler(const gchar *, GLogLevelFlags, const gchar *message, gpointer data) {
  ++static_cast<host_counts *>(data)->domain;
  std::printf("host-domain: %s\n", message);
}

void host_default_handler(const gchar *, GLogLevelFlags, const gchar *message, gpointer data) {
  ++static_cast<host_counts *>(data)->fallback;
  std::printf("host-default: %s\n", message);
}

int run_init() {
  fsic::detail::lvm::handle *h = fsic::detail::lvm::init();
  std::printf("init=%s\n", h != nullptr ? "ok" : "null");
  fsic::detail::lvm::quit(h);
  return h != nullptr ? 0 : 3;
}

int run_host_log() {
  host_counts counts;
  g_log_set_handler(nullptr, static_cast<GLogLevelFlags>(G_LOG_LEVEL_MASK), host_domain_handler,
                    &counts);
  g_log_set_default_handler(host_default_handler, &counts);
  const int status = run_init();
  std::printf("during: domain=%d default=%d\n", counts.domain, counts.fallback);
  g_log(nullptr, G_LOG_LEVEL_WARNING, "host warning after");
  g_log("GLib", G_LOG_LEVEL_WARNING, "host glib warning after");
  std::printf("after: domain=%d default=%d\n", counts.domain, counts.fallback);
  return status;
}

int run_walk(const char *missing) {
  const int baseline = thread_count();
  int worst = baseline;
  auto step = [&](const char *what) {
    const int n = thread_count();
    if (n != baseline)
      worst = n;
    std::printf("threads %s %d\n", what, n);
  };
  step("start");
  fsic::detail::lvm::handle_ptr h(fsic::detail::lvm::init());
  step("init");
  if (!h)
    return 3;
  if (fsic::detail::lvm::scan(h.get()) != 0)
    return 4;
  step("scan");
  fsic::detail::lvm::name_list names = fsic::detail::lvm::list_vg_names(h.get());
  step("list");
  if (!names)
    return 4;
  for (std::size_t i = 0; i < names.size(); ++i) {
    std::string vg = names[i];
    fsic::detail::lvm::group_ptr g(fsic::detail::lvm::vg_open(h.get(), vg.c_str()));
    step("open");
    if (!g)
      return 4;
    std::printf("vg %s\n", vg.c_str());
    fsic::detail::lvm::lv_list lvs = fsic::detail::lvm::vg_list_lvs(g.get());
    step("lvs");
    for (std::size_t j = 0; j < lvs.size(); ++j)
      std::printf("lv %s %s\n", vg.c_str(), fsic::detail::lvm::lv_get_name(lvs[j]));
    g.reset();
    step("close");
  }
  fsic::detail::lvm::group_ptr gone(fsic::detail::lvm::vg_open(h.get(), missing));
  step("open-missing");
  if (gone)
    return 4;
  h.reset();
  step("quit");
  std::printf("threads-changed %s\n", worst == baseline ? "no" : "yes");
  return 0;
}

} // namespace

int main(int argc, char **argv) {
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  if (argc == 2 && std::strcmp(argv[1], "init") == 0)
    return run_init();
  if (argc == 2 && std::strcmp(argv[1], "host-log") == 0)
    return run_host_log();
  if (argc == 3 && std::strcmp(argv[1], "walk") == 0)
    return run_walk(argv[2]);
  std::printf("usage: lvm_probe init|host-log|walk NAME\n");
  return 2;
}
