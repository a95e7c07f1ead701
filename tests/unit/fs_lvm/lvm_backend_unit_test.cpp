// The adapter's argument checks and its GLib message guard.
#include "fs/lvm_internal.h"
#include "tests/unit/driver/stdio_capture.h"

#include <fcntl.h>
#include <glib.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <latch>
#include <optional>
#include <string>
#include <thread>

namespace {

using fsic::detail::lvm::impl::quiet_glib_log;

using drivertest::stderr_capture;

struct host_log {
  int calls = 0;
  std::string last;
};

void host_handler(const gchar *, GLogLevelFlags, const gchar *message, gpointer data) {
  auto *h = static_cast<host_log *>(data);
  ++h->calls;
  h->last = message;
}

TEST(LvmAdapterArguments, NullArgumentsAreRejectedWithoutCrashing) {
  EXPECT_EQ(fsic::detail::lvm::scan(nullptr), -1);
  EXPECT_FALSE(fsic::detail::lvm::list_vg_names(nullptr));
  EXPECT_EQ(fsic::detail::lvm::vg_open(nullptr, "vg"), nullptr);
  EXPECT_FALSE(fsic::detail::lvm::vg_list_lvs(nullptr));
  EXPECT_EQ(fsic::detail::lvm::lv_get_name(nullptr), nullptr);
  fsic::detail::lvm::vg_close(nullptr);
  fsic::detail::lvm::quit(nullptr);
  fsic::detail::lvm::name_list empty;
  EXPECT_FALSE(empty);
  EXPECT_EQ(empty.size(), 0u);
  EXPECT_EQ(empty[0], nullptr);
}

TEST(QuietGlibLog, DropsThisThreadsMessagesAndRestoresTheHostHandler) {
  host_log host;
  const guint id = g_log_set_handler("", G_LOG_LEVEL_MASK, host_handler, &host);
  std::string err;
  {
    stderr_capture cap;
    ASSERT_TRUE(cap.ok());
    {
      quiet_glib_log quiet;
      g_log("", G_LOG_LEVEL_WARNING, "inside %d", 1);
      g_log(nullptr, G_LOG_LEVEL_CRITICAL, "inside %d", 2);
      g_log("GLib", G_LOG_LEVEL_WARNING, "inside %d", 3);
      g_log("GLib-GObject", G_LOG_LEVEL_CRITICAL, "inside %d", 4);
      g_log("GModule", G_LOG_LEVEL_MESSAGE, "inside %d", 5);
    }
    err = cap.text();
  }
  EXPECT_EQ(host.calls, 0);
  EXPECT_EQ(err, "");
  // The host's own handler, with its own data, is in charge again.
  g_log("", G_LOG_LEVEL_WARNING, "after");
  EXPECT_EQ(host.calls, 1);
  EXPECT_EQ(host.last, "after");
  g_log_remove_handler("", id);
}

TEST(QuietGlibLog, FatalWarningsDoNotAbortInsideAndAreRestored) {
  const GLogLevelFlags original = g_log_set_always_fatal(
      static_cast<GLogLevelFlags>(G_LOG_LEVEL_WARNING | G_LOG_LEVEL_CRITICAL));
  {
    quiet_glib_log quiet;
    g_log("", G_LOG_LEVEL_WARNING, "would abort without the guard");
    g_log("GLib", G_LOG_LEVEL_CRITICAL, "would abort without the guard");
  }
  const GLogLevelFlags after = g_log_set_always_fatal(original);
  EXPECT_EQ(after & (G_LOG_LEVEL_WARNING | G_LOG_LEVEL_CRITICAL),
            G_LOG_LEVEL_WARNING | G_LOG_LEVEL_CRITICAL);
}

TEST(QuietGlibLog, OtherThreadsMessagesStillReachTheWriter) {
  stderr_capture cap;
  ASSERT_TRUE(cap.ok());
  {
    quiet_glib_log quiet;
    std::thread other([] { g_log("GLib", G_LOG_LEVEL_WARNING, "from-other-thread"); });
    other.join();
    g_log("GLib", G_LOG_LEVEL_WARNING, "from-guarded-thread");
  }
  const std::string err = cap.text();
  EXPECT_NE(err.find("from-other-thread"), std::string::npos) << err;
  EXPECT_EQ(err.find("from-guarded-thread"), std::string::npos) << err;
}

TEST(QuietGlibLogDeathTest, OtherThreadsFatalWarningsStayFatal) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(
      {
        g_log_set_always_fatal(static_cast<GLogLevelFlags>(G_LOG_LEVEL_WARNING));
        quiet_glib_log quiet;
        std::thread other([] { g_log("", G_LOG_LEVEL_WARNING, "fatal-from-other-thread"); });
        other.join();
      },
      "fatal-from-other-thread");
}

TEST(QuietGlibLog, OverlappingGuardsOnTwoThreadsRestoreOnce) {
  host_log host;
  const guint id = g_log_set_handler("GLib", G_LOG_LEVEL_MASK, host_handler, &host);
  {
    std::optional<quiet_glib_log> first;
    first.emplace();
    std::latch second_started(1);
    std::latch first_ended(1);
    std::thread second([&] {
      quiet_glib_log quiet;
      second_started.count_down();
      first_ended.wait();
      // The first guard is gone; this thread's guard still holds.
      g_log("GLib", G_LOG_LEVEL_WARNING, "second thread still quiet");
    });
    second_started.wait();
    first.reset();
    first_ended.count_down();
    second.join();
  }
  EXPECT_EQ(host.calls, 0);
  g_log("GLib", G_LOG_LEVEL_WARNING, "after both");
  EXPECT_EQ(host.calls, 1);
  g_log_remove_handler("GLib", id);
}

} // namespace
