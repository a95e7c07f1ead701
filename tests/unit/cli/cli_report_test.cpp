// Reports: the exit status sums, the text form of every kind of change, and the JSON
// form exactly and against the published schema.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include "cli/exit_status.h"
#include "cli/report.h"
#include "tests/support/files.h"
#include "tests/support/process.h"
#include "tests/support/temp_dir.h"
#include "tests/unit/icl/icl_test_util.h"

namespace {

using namespace fsic::cli;

uint8_t hash_a[32];
uint8_t hash_b[32];

fs_entry_values file_values(const uint8_t *hash, uint32_t mode, uint16_t uid, uint32_t size,
                            uint32_t mtime) {
  fs_entry_values v{};
  v.present = 1;
  v.type = FS_OCL_FILE;
  v.hash = hash;
  v.has_attrs = 1;
  v.mode = S_IFREG | mode;
  v.uid = uid;
  v.gid = 0;
  v.size = size;
  v.mtime = mtime;
  return v;
}

// One change of every kind, as the library hands them out.
run_report every_kind() {
  std::fill(std::begin(hash_a), std::end(hash_a), 0xab);
  std::fill(std::begin(hash_b), std::end(hash_b), 0x01);
  icltest::IdPtr part = icltest::partition_id("SER-1", 5);
  icltest::IdPtr lvm = icltest::lvm_id("vg0", "data");
  run_report r;
  r.command = "check";
  r.database = "/var/lib/fsic/db";
  r.database_created = 1795576789;
  r.start_time = 1795580000;
  r.run_time_seconds = 1.5;
  r.volumes = 2;
  r.bytes_hashed = 12345;
  auto send = [&](fs_change c) { collect_change(&c, &r); };
  fs_change c{};
  c.volume = part.get();
  c.object_path = "/etc";
  c.entry_path = "/etc/new.conf";
  c.kind = FS_CHANGE_ADDED;
  c.new_values = file_values(hash_a, 0644, 0, 10, 100);
  send(c);
  c = fs_change{};
  c.volume = part.get();
  c.object_path = "/etc";
  c.entry_path = "/etc/sub";
  c.kind = FS_CHANGE_REMOVED;
  c.old_values.present = 1;
  c.old_values.type = FS_OCL_DIR;
  send(c);
  c = fs_change{};
  c.volume = part.get();
  c.object_path = "/etc";
  c.entry_path = "/etc/passwd";
  c.kind = FS_CHANGE_CHANGED;
  c.fields = FS_FIELD_HASH | FS_FIELD_MODE | FS_FIELD_UID | FS_FIELD_SIZE | FS_FIELD_MTIME;
  c.old_values = file_values(hash_a, 0644, 0, 10, 1795576789);
  c.new_values = file_values(hash_b, 0600, 1000, 12, 1795576790);
  send(c);
  c = fs_change{};
  c.volume = part.get();
  c.object_path = "/etc";
  c.entry_path = "/etc/x";
  c.kind = FS_CHANGE_TYPE_CHANGED;
  c.old_values.present = c.new_values.present = 1;
  c.old_values.type = FS_OCL_FILE;
  c.new_values.type = FS_OCL_DIR;
  send(c);
  c = fs_change{};
  c.volume = part.get();
  c.object_path = "/usr/bin";
  c.entry_path = "/usr/bin";
  c.kind = FS_CHANGE_SETTINGS_CHANGED;
  send(c);
  c = fs_change{};
  c.volume = part.get();
  c.object_path = "/etc";
  c.entry_path = "/etc/shadow";
  c.kind = FS_CHANGE_UNREADABLE;
  c.status = FSIC_ERR_FAILED;
  send(c);
  c = fs_change{};
  c.volume = lvm.get();
  c.kind = FS_CHANGE_VOLUME_MISSING;
  send(c);
  r.summary = {7, 40, 1, 1, 3, 2};
  sort_changes(&r);
  return r;
}

TEST(Report, TheExitStatusIsTheSumOfWhatWasFound) {
  run_report r;
  EXPECT_EQ(report_exit_status(r), 0);
  const std::pair<fs_check_summary, int> cases[] = {
      {{5, 5, 1, 0, 0, 0}, 1},  {{5, 5, 0, 2, 0, 0}, 2},  {{5, 5, 0, 0, 3, 0}, 4},
      {{5, 5, 0, 0, 0, 1}, 8},  {{5, 5, 1, 1, 0, 0}, 3},  {{5, 5, 4, 0, 9, 0}, 5},
      {{5, 5, 0, 1, 1, 1}, 14}, {{5, 5, 7, 7, 7, 7}, 15}, {{5, 5, 0, 0, 0, 0}, 0}};
  for (const auto &[summary, status] : cases) {
    r.summary = summary;
    EXPECT_EQ(report_exit_status(r), status);
  }
  EXPECT_EQ(report_exit_status(every_kind()),
            EXIT_ADDED | EXIT_REMOVED | EXIT_CHANGED | EXIT_UNCHECKED);
}

std::string repeat(const char *pair, int n) {
  std::string s;
  for (int i = 0; i < n; i++)
    s += pair;
  return s;
}

TEST(Report, TextListsEachKindInItsSection) {
  EXPECT_EQ(report_text(every_kind()),
            "fsic check: 1 added, 1 removed, 3 changed, 2 not checked; 2 volumes (1 missing), "
            "7 objects, 40 entries, 12345 bytes hashed\n"
            "\n"
            "Added:\n"
            "  part:SER-1:5 /etc/new.conf (file)\n"
            "\n"
            "Removed:\n"
            "  part:SER-1:5 /etc/sub (directory)\n"
            "\n"
            "Changed:\n"
            "  part:SER-1:5 /etc/passwd\n"
            "    hash: " +
                repeat("ab", 32) + " | " + repeat("01", 32) +
                "\n"
                "    mode: 0644 | 0600\n"
                "    uid: 0 | 1000\n"
                "    size: 10 | 12\n"
                "    mtime: 2026-11-25T03:19:49Z (1795576789) | 2026-11-25T03:19:50Z "
                "(1795576790)\n"
                "  part:SER-1:5 /etc/x\n"
                "    type: file | directory\n"
                "  part:SER-1:5 /usr/bin (flags or masks changed)\n"
                "\n"
                "Not checked:\n"
                "  lvm:vg0/data: volume missing\n"
                "  part:SER-1:5 /etc/shadow: unreadable: cannot be read\n");
}

TEST(Report, NamesInTheTextCannotForgeLines) {
  run_report r;
  r.command = "check";
  change_record c;
  c.volume = "part:S:1";
  c.has_path = true;
  c.path = "/etc/x\n\nChanged:\n  part:S:1 /etc/\x1b[2K";
  c.kind = FS_CHANGE_ADDED;
  r.changes.push_back(c);
  std::string text = report_text(r);
  EXPECT_NE(text.find("  part:S:1 /etc/x\\n\\nChanged:\\n  part:S:1 /etc/\\x1b[2K (file)\n"),
            std::string::npos)
      << text;
}

TEST(Report, NothingFoundIsTheSummaryLineAlone) {
  run_report r;
  r.command = "compare";
  EXPECT_EQ(report_text(r), "fsic compare: 0 added, 0 removed, 0 changed, 0 not checked; "
                            "0 volumes (0 missing), 0 objects, 0 entries, 0 bytes hashed\n");
}

TEST(Report, JsonHasTheDocumentedKeysAndValues) {
  std::string json = report_json(every_kind());
  std::string ab = repeat("ab", 32);
  std::string one = repeat("01", 32);
  std::string expected =
      std::string("{\"fsic_version\": \"") + FSIC_CLI_VERSION_FOR_TESTS +
      "\", \"command\": \"check\", \"database\": \"/var/lib/fsic/db\", "
      "\"database_created\": \"2026-11-25T03:19:49Z\", \"start_time\": \"2026-11-25T04:13:20Z\", "
      "\"run_time_seconds\": 1.500, "
      "\"summary\": {\"volumes\": 2, \"volumes_missing\": 1, \"objects\": 7, \"entries\": 40, "
      "\"bytes_hashed\": 12345, \"added\": 1, \"removed\": 1, \"changed\": 3, \"errors\": 2}, "
      "\"changes\": ["
      "{\"volume\": \"lvm:vg0/data\", \"object\": null, \"path\": null, \"change\": "
      "\"volume_missing\"}, "
      "{\"volume\": \"part:SER-1:5\", \"object\": \"/etc\", \"path\": \"/etc/new.conf\", "
      "\"change\": \"added\", \"type\": \"file\"}, "
      "{\"volume\": \"part:SER-1:5\", \"object\": \"/etc\", \"path\": \"/etc/sub\", "
      "\"change\": \"removed\", \"type\": \"directory\"}, "
      "{\"volume\": \"part:SER-1:5\", \"object\": \"/etc\", \"path\": \"/etc/passwd\", "
      "\"change\": \"changed\", \"fields\": {\"hash\": {\"old\": \"" +
      ab + "\", \"new\": \"" + one +
      "\"}, \"mode\": {\"old\": \"0644\", \"new\": \"0600\"}, \"uid\": {\"old\": 0, \"new\": "
      "1000}, \"size\": {\"old\": 10, \"new\": 12}, \"mtime\": {\"old\": 1795576789, \"new\": "
      "1795576790}}}, "
      "{\"volume\": \"part:SER-1:5\", \"object\": \"/etc\", \"path\": \"/etc/x\", \"change\": "
      "\"type_changed\", \"fields\": {\"type\": {\"old\": \"file\", \"new\": \"directory\"}}}, "
      "{\"volume\": \"part:SER-1:5\", \"object\": \"/usr/bin\", \"path\": \"/usr/bin\", "
      "\"change\": \"settings_changed\"}, "
      "{\"volume\": \"part:SER-1:5\", \"object\": \"/etc\", \"path\": \"/etc/shadow\", "
      "\"change\": \"unreadable\", \"error\": \"cannot be read\"}"
      "]}\n";
  EXPECT_EQ(json, expected);
}

TEST(Report, JsonMeetsThePublishedSchema) {
  support::temp_dir dir;
  run_report r = every_kind();
  support::write_file(dir.path() + "/every.json", report_json(r));
  run_report empty;
  empty.command = "compare";
  empty.database = "a";
  empty.new_database = "b";
  support::write_file(dir.path() + "/empty.json", report_json(empty));
  // A name that is not UTF-8 keeps its bytes as \udcXX escapes.
  r.changes[1].path = "/etc/\xff\xfe name";
  support::write_file(dir.path() + "/bytes.json", report_json(r));
  support::proc_result p = support::run({"/usr/bin/python3", FSIC_TEST_SCHEMA_CHECKER,
                                         FSIC_TEST_REPORT_SCHEMA, dir.path() + "/every.json",
                                         dir.path() + "/empty.json", dir.path() + "/bytes.json"});
  EXPECT_EQ(p.status, 0) << p.describe();
  EXPECT_NE(report_json(r).find("/etc/\\udcff\\udcfe name"), std::string::npos);
  // The checker refuses what the schema does not allow.
  std::string bad = report_json(every_kind());
  bad.replace(bad.find("\"added\", \"type\""), 7, "\"modified\"");
  support::write_file(dir.path() + "/bad.json", bad);
  p = support::run({"/usr/bin/python3", FSIC_TEST_SCHEMA_CHECKER, FSIC_TEST_REPORT_SCHEMA,
                    dir.path() + "/bad.json"});
  EXPECT_EQ(p.status, 1) << p.describe();
}

TEST(Report, ChangesAreInVolumeNameOrderKeepingTheLibrarysOrderWithin) {
  run_report r = every_kind();
  ASSERT_EQ(r.changes.size(), 7u);
  EXPECT_EQ(r.changes[0].volume, "lvm:vg0/data");
  EXPECT_EQ(r.changes[1].path, "/etc/new.conf");
  EXPECT_EQ(r.changes[6].path, "/etc/shadow");
}

} // namespace
