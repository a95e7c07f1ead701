// fsic compare: what changed between two databases (no disk is touched).
#include <cstdio>
#include <ctime>

#include "cli/commands.h"
#include "cli/exit_status.h"
#include "cli/output.h"
#include "cli/report.h"
#include "cli/store.h"

namespace fsic::cli {

namespace {

// Volumes in either list.
uint64_t count_volumes(fs_icl *a, fs_icl *b) {
  uint64_t count = a->count;
  for (fs_icl_volume *e = fs_icl_first_volume(b); e; e = fs_icl_next_volume(b, e)) {
    bool shared = false;
    for (fs_icl_volume *f = fs_icl_first_volume(a); f && !shared; f = fs_icl_next_volume(a, f))
      shared = fs_volume_id_compare(e->id, f->id) == 0;
    count += shared ? 0 : 1;
  }
  return count;
}

} // namespace

int command_compare(const options &o) {
  double started = monotonic_seconds();
  run_report report;
  report.command = "compare";
  report.start_time = static_cast<uint64_t>(time(nullptr));
  report.database = o.operands[0];
  report.new_database = o.operands[1];
  std::string key;
  if (int status = load_key(o.key, &key))
    return status;
  database old_db;
  database new_db;
  if (int status = load_database(report.database, key, &old_db))
    return status;
  if (int status = load_database(report.new_database, key, &new_db))
    return status;
  report.database_created = old_db.created;
  report.new_database_created = new_db.created;
  report.volumes = count_volumes(old_db.list.get(), new_db.list.get());
  fs_check_summary summary{};
  if (fs_icl_compare(old_db.list.get(), new_db.list.get(), collect_change, &report, &summary) !=
          FSIC_OK ||
      report.out_of_memory) {
    return out_of_memory();
  }
  add_summary(&report, summary);
  sort_changes(&report);
  report.run_time_seconds = monotonic_seconds() - started;
  if (!o.quiet) {
    std::string text = o.json ? report_json(report) : report_text(report);
    fwrite(text.data(), 1, text.size(), stdout);
  }
  return report_exit_status(report);
}

} // namespace fsic::cli
