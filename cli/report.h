// Reports of check, update and compare: the changes found, as text for people or one
// JSON object for programs, and the exit status they make.
#ifndef FSIC_CLI_REPORT_H
#define FSIC_CLI_REPORT_H

#include <fsic/check.h>

#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace fsic::cli {

class json_writer;

// One side of a change, copied out of the library's record.
struct side_values {
  bool present = false;
  uint32_t type = 0;
  bool has_hash = false;
  std::array<uint8_t, 32> hash{};
  bool has_attrs = false;
  uint32_t mode = 0;
  uint16_t uid = 0;
  uint16_t gid = 0;
  uint32_t size = 0;
  uint32_t mtime = 0;
};

struct change_record {
  std::string volume; // the volume's name; empty when two bare lists are compared
  bool has_object = false;
  std::string object;
  bool has_path = false;
  std::string path;
  uint32_t kind = 0;
  uint32_t fields = 0;
  fsic_status status = 0;
  side_values old_values;
  side_values new_values;
};

struct run_report {
  std::string command;
  std::string database;
  uint64_t database_created = 0;
  std::string new_database; // compare: the second database
  uint64_t new_database_created = 0;
  uint64_t start_time = 0;
  double run_time_seconds = 0;
  uint64_t volumes = 0;
  uint64_t volumes_missing = 0;
  uint64_t bytes_hashed = 0;
  fs_check_summary summary{};
  std::vector<change_record> changes;
  // A change that could not be kept for lack of memory: the report is incomplete.
  bool out_of_memory = false;
};

// The library's change callback: appends a copy of the change to the run_report `ctx`
// (or sets its out_of_memory: no exception leaves it into the library).
void collect_change(const fs_change *change, void *ctx);

// Adds one comparison's summary into the report's.
void add_summary(run_report *report, const fs_check_summary &summary);

// Puts the changes in volume-name order, keeping the library's order within a volume.
void sort_changes(run_report *report);

// 0, or the sum of 1 (added), 2 (removed), 4 (changed), 8 (not checked).
int report_exit_status(const run_report &report);

std::string report_text(const run_report &report);
std::string report_json(const run_report &report);

// Opens a JSON document of the command's (check, update, compare, show) and writes its
// first keys: fsic_version, command, database and database_created.
void json_document_head(json_writer &j, const std::string &command, const std::string &database,
                        uint64_t created);

// Seconds since the epoch as ISO 8601 UTC: 2026-11-25T04:25:18Z.
std::string iso_time(uint64_t seconds);

// 32 bytes as 64 lower-case hex digits.
std::string hex_digest(const uint8_t *bytes);

// Seconds of CLOCK_MONOTONIC, for run times and speeds.
double monotonic_seconds();

// What a library status means, for messages.
const char *status_text(fsic_status status);

} // namespace fsic::cli

#endif // FSIC_CLI_REPORT_H
