// fsic check and fsic update: the database's volumes measured again and compared with
// it, volume by volume; update then accepts what was found (all of it, or the paths and
// volumes named) and replaces the database.
#include <fsic/list.h>

#include <algorithm>
#include <cstdio>
#include <ctime>

#include "cli/commands.h"
#include "cli/exit_status.h"
#include "cli/file_io.h"
#include "cli/inventory.h"
#include "cli/isolation.h"
#include "cli/output.h"
#include "cli/progress.h"
#include "cli/report.h"
#include "cli/store.h"
#include "cli/volume_name.h"

namespace fsic::cli {

namespace {

// Lends one entry of a list as a list of its own, and puts it back in its place: each
// volume is checked (and accepted) on its own, with its own progress line.
class entry_view {
public:
  entry_view(fs_icl *list, fs_icl_volume *entry) : list_(list), entry_(entry) {
    prev_ = entry->link.prev;
    list_del(&entry->link);
    list_->count--;
    INIT_LIST_HEAD(&view_.volumes);
    list_add(&entry->link, &view_.volumes);
    view_.count = 1;
  }
  entry_view(const entry_view &) = delete;
  entry_view &operator=(const entry_view &) = delete;
  ~entry_view() {
    list_del(&entry_->link);
    __list_add(&entry_->link, prev_, prev_->next);
    list_->count++;
  }
  fs_icl *get() { return &view_; }

private:
  fs_icl *list_;
  fs_icl_volume *entry_;
  list_head *prev_;
  fs_icl view_{};
};

// Moves every entry of `from` to the end of `to`.
void move_entries(fs_icl *from, fs_icl *to) {
  list_head *pos = nullptr;
  list_head *next = nullptr;
  list_for_each_safe(pos, next, &from->volumes) {
    list_del(pos);
    list_add_tail(pos, &to->volumes);
    from->count--;
    to->count++;
  }
}

struct check_run {
  const options &o;
  const std::string &key;
  bool update;
  fs_disk_list *given = nullptr; // the machine's volumes when null
  database db{};
  run_report report{};
  std::vector<volume_id_ptr> accepted_volumes{}; // --volume
  icl_ptr accepted{};                            // update: the new list

  // --volume names of volumes of the database: 0 or 16.
  int read_volume_options() {
    for (const std::string &name : o.volumes) {
      selector sel;
      std::string why;
      volume_id_ptr id;
      if (!parse_selector(name, &sel, &why) || selector_id(sel, &id) != FSIC_OK) {
        fprintf(stderr, "fsic: --volume %s: not a volume name (part:, image:, lvm: or uuid:)\n",
                name.c_str());
        return EXIT_USAGE;
      }
      bool found = false;
      for (fs_icl_volume *e = fs_icl_first_volume(db.list.get()); e && !found;
           e = fs_icl_next_volume(db.list.get(), e))
        found = fs_volume_id_compare(e->id, id.get()) == 0;
      if (!found) {
        fprintf(stderr, "fsic: --volume %s: the database has no such volume\n", name.c_str());
        return EXIT_USAGE;
      }
      accepted_volumes.push_back(std::move(id));
    }
    for (const std::string &path : o.accept) {
      if (path[0] != '/') {
        fprintf(stderr, "fsic: --accept %s: a path inside the volumes begins with /\n",
                path.c_str());
        return EXIT_USAGE;
      }
    }
    return EXIT_OK;
  }

  bool accepts_volume(const fs_volume_id *id) const {
    if (accepted_volumes.empty())
      return true;
    for (const volume_id_ptr &v : accepted_volumes)
      if (fs_volume_id_compare(v.get(), id) == 0)
        return true;
    return false;
  }

  // Accepts what the check of one volume found: 0, 16 or 23.
  int accept(fs_icl *baseline, fs_icl *live) {
    std::vector<char *> paths;
    for (const std::string &p : o.accept)
      paths.push_back(const_cast<char *>(p.c_str()));
    paths.push_back(nullptr);
    fs_icl *out = nullptr;
    fsic_status status =
        fs_icl_accept(baseline, live, nullptr, o.accept.empty() ? nullptr : paths.data(), &out);
    if (status == FSIC_ERR_NO_MEMORY)
      return out_of_memory();
    if (status == FSIC_ERR_RELATIVE_PATH) {
      fprintf(stderr, "fsic: --accept: a path is not absolute or has a . or .. component\n");
      return EXIT_USAGE;
    }
    if (status != FSIC_OK) {
      fprintf(stderr, "fsic: --accept: a path lies inside an object that is accepted whole "
                      "(a file, a directory kept as one hash, or one whose type or settings "
                      "changed): accept the object's own path\n");
      return EXIT_USAGE;
    }
    icl_ptr owner(out);
    move_entries(out, accepted.get());
    return EXIT_OK;
  }

  // Checks (and accepts) each volume in turn: 0, 16 or 23.
  int check_volumes(fs_disk_list *disks) {
    progress_line progress(want_progress(o.progress));
    std::vector<fs_icl_volume *> entries;
    for (fs_icl_volume *e = fs_icl_first_volume(db.list.get()); e;
         e = fs_icl_next_volume(db.list.get(), e))
      entries.push_back(e);
    int status = EXIT_OK;
    for (size_t i = 0; i < entries.size() && status == EXIT_OK; i++) {
      fs_icl_volume *entry = entries[i];
      bool accepting = update && accepts_volume(entry->id);
      fs_icl *live = nullptr;
      {
        entry_view view(db.list.get(), entry);
        progress.start_volume(volume_name(entry->id), i + 1, entries.size());
        fs_icl_set_progress(view.get(), progress_line::callback, &progress);
        fs_check_summary summary{};
        fsic_status checked = fs_icl_check(view.get(), disks, collect_change, &report, &summary,
                                           accepting ? &live : nullptr);
        icl_ptr live_owner(live);
        if (checked != FSIC_OK || report.out_of_memory) {
          status = out_of_memory();
          break;
        }
        add_summary(&report, summary);
        if (accepting)
          status = accept(view.get(), live);
      }
      // A volume that is not accepted keeps its entry as it is.
      if (update && !accepting) {
        list_del(&entry->link);
        db.list->count--;
        list_add_tail(&entry->link, &accepted->volumes);
        accepted->count++;
      }
    }
    report.bytes_hashed = progress.bytes();
    progress.clear();
    return status;
  }

  // An --accept path that no change of the accepted volumes lies at or under is most
  // likely a typing error.
  void warn_unused_accepts() const {
    std::vector<std::string> names;
    for (const volume_id_ptr &v : accepted_volumes)
      names.push_back(volume_name(v.get()));
    for (const std::string &path : o.accept) {
      bool used = false;
      for (const change_record &c : report.changes) {
        if (!c.has_path ||
            (!names.empty() && std::find(names.begin(), names.end(), c.volume) == names.end()))
          continue;
        const std::string &p = c.path;
        if (path == "/" || p == path ||
            (p.size() > path.size() && p.compare(0, path.size(), path) == 0 &&
             (p[path.size()] == '/' || path.back() == '/'))) {
          used = true;
          break;
        }
      }
      if (!used)
        fprintf(stderr, "fsic: --accept %s: nothing changed there\n", path.c_str());
    }
  }

  int run() {
    double started = monotonic_seconds();
    report.start_time = static_cast<uint64_t>(time(nullptr));
    report.command = update ? "update" : "check";
    report.database = o.db;
    file_lock lock;
    if (update)
      if (int status = lock_database(o.db, &lock))
        return status;
    if (int status = load_database(o.db, key, &db))
      return status;
    report.database_created = db.created;
    report.volumes = db.list->count;
    if (update) {
      if (int status = read_volume_options())
        return status;
      fs_icl *list = nullptr;
      if (fs_icl_create(&list) != FSIC_OK)
        return out_of_memory();
      accepted.reset(list);
    }
    disk_list_ptr owner;
    fs_disk_list *disks = given;
    if (!disks) {
      if (int status = open_inventory(&owner))
        return status;
      disks = owner.get();
    }
    if (int status = attach_images(disks, db.images))
      return status;
    if (int status = check_volumes(disks))
      return status;
    sort_changes(&report);
    if (update) {
      warn_unused_accepts();
      database next;
      next.images = std::move(db.images);
      next.list = std::move(accepted);
      if (int status = save_database(o.db, key, &next))
        return status;
    }
    report.run_time_seconds = monotonic_seconds() - started;
    if (!o.quiet) {
      std::string text = o.json ? report_json(report) : report_text(report);
      fwrite(text.data(), 1, text.size(), stdout);
    }
    return report_exit_status(report);
  }
};

} // namespace

int command_check(const options &o) {
  std::string key;
  if (int status = load_key(o.key, &key))
    return status;
  bool update = o.command == "update";
  return run_isolated([&] { return check_run{o, key, update}.run(); }, update ? o.db : "");
}

int check_on(const options &o, fs_disk_list *disks) {
  std::string key;
  if (int status = load_key(o.key, &key))
    return status;
  return check_run{o, key, o.command == "update", disks}.run();
}

} // namespace fsic::cli
