// Allocations of the logging library. It allocates nothing of its own: its tables are
// static. The configuration loader's only allocations are libc's (the FILE of the
// stream over the file's descriptor, and the stream's buffer), which the process scope
// fails: the loader reports nothing by design,
// so a configuration file whose stream cannot be made counts as missing (nothing is
// applied), and a stream without a buffer is read unbuffered (everything is applied).
// Either way nothing is left allocated and no half-applied configuration remains.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <fsic/log.h>

#include "fault_gtest.h"
#include "fault_tree.h"
#include "util/log_internal.h"

using namespace fsic::detail;

namespace {

using fault::attempt;
using fault::checks;
using fault::operation;

const char kConfig[] = "# channels of the library\n"
                       "[fs]\n"
                       "level = debug\n"
                       "format = \"%{class}: %{message}\"\n"
                       "[other]\n"
                       "level = warn\n";

// What the configuration decides: the options table, the channel's mask and the format.
struct config_state {
  std::vector<std::string> entries;
  uint32_t fs_flags = 0;
  std::string format;
  bool operator==(const config_state &o) const {
    return entries == o.entries && fs_flags == o.fs_flags && format == o.format;
  }
};

config_state current() {
  config_state st;
  unsigned n = 0;
  const log_options *options = _ic_log_options(&n);
  for (unsigned i = 0; i < n; i++)
    st.entries.push_back(std::string(options[i].name) + "=" + std::to_string(options[i].flags));
  st.fs_flags = __ic_log_fs.flags;
  const format_desc *f = get_format();
  st.format.assign(reinterpret_cast<const char *>(f), sizeof *f);
  return st;
}

// Records go to a static buffer (a writer that allocates would count too).
char g_record[LOG_RECORD_SIZE + 1];
unsigned g_record_len;
int capture(const void *data, unsigned len) {
  memcpy(g_record, data, len);
  g_record_len = len;
  return 0;
}

class FaultLog : public ::testing::Test {
protected:
  void SetUp() override {
    path_ = dir_.path() + "/log.conf";
    faulttest::write_file(path_, kConfig);
    unsetenv("LOG_LEVEL");
    unsetenv("LOG_CONFIG");
    // The channel resolved without a configuration file, and with the file fully
    // applied (undisturbed).
    _ic_log_reset();
    get_channel_flags(&__ic_log_fs);
    nothing_ = current();
    _ic_log_reset();
    setenv("LOG_CONFIG", path_.c_str(), 1);
    get_channel_flags(&__ic_log_fs);
    full_ = current();
    ASSERT_FALSE(full_ == nothing_);
    unsetenv("LOG_CONFIG");
    _ic_log_reset();
  }
  void TearDown() override {
    unsetenv("LOG_CONFIG");
    _ic_log_reset();
  }

  // The load through LOG_CONFIG on the first resolution of a channel.
  operation load_op(fault::scope sc, int *nothing_applied) {
    operation op;
    op.name = "log configuration load (LOG_CONFIG)";
    op.sc = sc;
    op.setup = [this] {
      setenv("LOG_CONFIG", path_.c_str(), 1);
      _ic_log_reset();
    };
    op.call = [] {
      get_channel_flags(&__ic_log_fs);
      return FSIC_OK;
    };
    op.after_success = [this, nothing_applied](checks &c, const attempt &a) {
      const config_state st = current();
      if (a.r.fired() && st == nothing_) {
        ++*nothing_applied;
        return;
      }
      c.that(st == full_, "the configuration is applied in part");
    };
    op.teardown = [] {
      unsetenv("LOG_CONFIG");
      _ic_log_reset();
    };
    return op;
  }

  faulttest::temp_dir dir_{"fsic-fault"};
  std::string path_;
  config_state nothing_, full_;
};

TEST_F(FaultLog, TheLoaderAllocatesNothingOfItsOwn) {
  int nothing_applied = 0;
  const operation load = load_op(fault::scope::library, &nothing_applied);
  EXPECT_EQ(fault::run(load).points, 0);

  FILE *file = nullptr;
  operation stream;
  stream.name = "load_config_from_stream";
  stream.setup = [&] {
    _ic_log_reset();
    file = fopen(path_.c_str(), "r");
    ASSERT_NE(file, nullptr);
  };
  stream.call = [&] {
    load_config_from_stream(file);
    return FSIC_OK;
  };
  stream.teardown = [&] {
    fclose(file);
    _ic_log_reset();
  };
  EXPECT_EQ(fault::run(stream).points, 0);
}

TEST_F(FaultLog, LibcsAllocationsOfTheLoader) {
  FAULT_REQUIRE_PROCESS_SCOPE();
  int nothing_applied = 0;
  const operation load = load_op(fault::scope::process, &nothing_applied);
  const fault::outcome o = fault::run(load);
  EXPECT_GT(o.points, 0) << "the stream's FILE is allocated";
  std::printf("  runs that ended with nothing applied (the stream could not be made): %d\n",
              nothing_applied);
  EXPECT_GT(nothing_applied, 0);
}

// A record is laid out in a buffer on the stack and written with write().
TEST_F(FaultLog, WritingARecordAllocatesNothing) {
  _ic_log_set_writer(capture);
  ic_log_set_default_level(IC_LOG_ERROR);
  for (fault::scope sc : {fault::scope::library, fault::scope::process}) {
    if (sc == fault::scope::process && !fault::process_scope_available())
      continue;
    operation op;
    op.name = "ic_log";
    op.sc = sc;
    op.setup = [] { g_record_len = 0; };
    op.call = [] {
      ic_log(&__ic_log_fs, IC_LOG_ERROR, "mount", "run_cmd", 146, "exec '%s': error_code = %d\n",
             "vmfs-fuse", 127);
      return FSIC_OK;
    };
    op.after_success = [](checks &c, const attempt &) {
      const std::string r(g_record, g_record_len);
      c.that(r.find("[fs] ERROR: mount:run_cmd:146 exec 'vmfs-fuse': error_code = 127\n") !=
                 std::string::npos,
             "record: " + r);
    };
    EXPECT_EQ(fault::run(op).points, 0);
  }
}

} // namespace
