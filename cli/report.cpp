// Change records, their text and JSON forms, and the exit status they make.
#include "cli/report.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <ctime>

#include "cli/exit_status.h"
#include "cli/json.h"
#include "cli/output.h"
#include "cli/volume_name.h"

namespace fsic::cli {

namespace {

side_values copy_side(const fs_entry_values &v) {
  side_values s;
  s.present = v.present != 0;
  s.type = v.type;
  if (v.hash) {
    s.has_hash = true;
    std::copy(v.hash, v.hash + FS_OCL_HASH_SIZE, s.hash.begin());
  }
  s.has_attrs = v.has_attrs != 0;
  s.mode = v.mode;
  s.uid = v.uid;
  s.gid = v.gid;
  s.size = v.size;
  s.mtime = v.mtime;
  return s;
}

const char *kind_name(uint32_t kind) {
  switch (kind) {
    case FS_CHANGE_ADDED:
      return "added";
    case FS_CHANGE_REMOVED:
      return "removed";
    case FS_CHANGE_CHANGED:
      return "changed";
    case FS_CHANGE_TYPE_CHANGED:
      return "type_changed";
    case FS_CHANGE_SETTINGS_CHANGED:
      return "settings_changed";
    case FS_CHANGE_UNREADABLE:
      return "unreadable";
    case FS_CHANGE_VOLUME_MISSING:
      return "volume_missing";
    default:
      return "unknown";
  }
}

const char *type_name(uint32_t type) { return type == FS_OCL_DIR ? "directory" : "file"; }

const char *mode_type_name(uint32_t mode) { return S_ISDIR(mode) ? "directory" : "file"; }

std::string octal_mode(uint32_t mode) {
  char text[8];
  snprintf(text, sizeof text, "%04o", mode & 07777);
  return text;
}

// The fields of a changed entry: name, old and new text (numbers as JSON numbers).
struct field_value {
  const char *name;
  std::string old_text;
  std::string new_text;
  bool quoted; // a string in JSON
};

std::vector<field_value> changed_fields(const change_record &c, bool for_people) {
  std::vector<field_value> out;
  const side_values &o = c.old_values;
  const side_values &n = c.new_values;
  auto time_text = [&](uint32_t t) {
    return for_people ? iso_time(t) + " (" + std::to_string(t) + ")" : std::to_string(t);
  };
  if (c.kind == FS_CHANGE_TYPE_CHANGED) {
    out.push_back({"type", type_name(o.type), type_name(n.type), true});
    return out;
  }
  if (c.fields & FS_FIELD_HASH)
    out.push_back({"hash", hex_digest(o.hash.data()), hex_digest(n.hash.data()), true});
  if (c.fields & FS_FIELD_MODE) {
    if ((o.mode & S_IFMT) != (n.mode & S_IFMT))
      out.push_back({"type", mode_type_name(o.mode), mode_type_name(n.mode), true});
    if ((o.mode & 07777) != (n.mode & 07777))
      out.push_back({"mode", octal_mode(o.mode), octal_mode(n.mode), true});
  }
  if (c.fields & FS_FIELD_UID)
    out.push_back({"uid", std::to_string(o.uid), std::to_string(n.uid), false});
  if (c.fields & FS_FIELD_GID)
    out.push_back({"gid", std::to_string(o.gid), std::to_string(n.gid), false});
  if (c.fields & FS_FIELD_SIZE)
    out.push_back({"size", std::to_string(o.size), std::to_string(n.size), false});
  if (c.fields & FS_FIELD_MTIME)
    out.push_back({"mtime", time_text(o.mtime), time_text(n.mtime), false});
  return out;
}

// "part:S:1 /etc/passwd", or the volume alone for a record of the whole volume.
std::string where(const change_record &c) {
  std::string text = text_escape(c.volume);
  if (c.has_path) {
    if (!text.empty())
      text += ' ';
    text += text_escape(c.path);
  }
  return text;
}

void text_section(std::string *out, const run_report &report, const char *title,
                  bool (*member)(uint32_t kind)) {
  bool any = false;
  for (const change_record &c : report.changes) {
    if (!member(c.kind))
      continue;
    if (!any)
      *out += std::string("\n") + title + ":\n";
    any = true;
    *out += "  " + where(c);
    switch (c.kind) {
      case FS_CHANGE_ADDED:
        *out += std::string(" (") + type_name(c.new_values.type) + ")\n";
        break;
      case FS_CHANGE_REMOVED:
        *out += std::string(" (") + type_name(c.old_values.type) + ")\n";
        break;
      case FS_CHANGE_SETTINGS_CHANGED:
        *out += " (flags or masks changed)\n";
        break;
      case FS_CHANGE_UNREADABLE:
        *out += std::string(": ") + (c.has_path ? "unreadable: " : "cannot be mounted: ") +
                status_text(c.status) + "\n";
        break;
      case FS_CHANGE_VOLUME_MISSING:
        *out += ": volume missing\n";
        break;
      default:
        *out += '\n';
        for (const field_value &f : changed_fields(c, true))
          *out += std::string("    ") + f.name + ": " + f.old_text + " | " + f.new_text + "\n";
    }
  }
}

} // namespace

void collect_change(const fs_change *change, void *ctx) {
  auto *report = static_cast<run_report *>(ctx);
  try {
    change_record c;
    if (change->volume)
      c.volume = volume_name(change->volume);
    if (change->object_path) {
      c.has_object = true;
      c.object = change->object_path;
    }
    if (change->entry_path) {
      c.has_path = true;
      c.path = change->entry_path;
    }
    c.kind = change->kind;
    c.fields = change->fields;
    c.status = change->status;
    c.old_values = copy_side(change->old_values);
    c.new_values = copy_side(change->new_values);
    report->changes.push_back(std::move(c));
    if (change->kind == FS_CHANGE_VOLUME_MISSING)
      report->volumes_missing++;
  } catch (...) {
    report->out_of_memory = true;
  }
}

void add_summary(run_report *report, const fs_check_summary &s) {
  report->summary.objects += s.objects;
  report->summary.entries += s.entries;
  report->summary.added += s.added;
  report->summary.removed += s.removed;
  report->summary.changed += s.changed;
  report->summary.errors += s.errors;
}

void sort_changes(run_report *report) {
  std::stable_sort(
      report->changes.begin(), report->changes.end(),
      [](const change_record &a, const change_record &b) { return a.volume < b.volume; });
}

int report_exit_status(const run_report &report) {
  int status = EXIT_OK;
  if (report.summary.added)
    status |= EXIT_ADDED;
  if (report.summary.removed)
    status |= EXIT_REMOVED;
  if (report.summary.changed)
    status |= EXIT_CHANGED;
  if (report.summary.errors)
    status |= EXIT_UNCHECKED;
  return status;
}

std::string report_text(const run_report &report) {
  const fs_check_summary &s = report.summary;
  char line[512];
  snprintf(line, sizeof line,
           "fsic %s: %llu added, %llu removed, %llu changed, %llu not checked; "
           "%llu volumes (%llu missing), %llu objects, %llu entries, %llu bytes hashed\n",
           report.command.c_str(), static_cast<unsigned long long>(s.added),
           static_cast<unsigned long long>(s.removed), static_cast<unsigned long long>(s.changed),
           static_cast<unsigned long long>(s.errors),
           static_cast<unsigned long long>(report.volumes),
           static_cast<unsigned long long>(report.volumes_missing),
           static_cast<unsigned long long>(s.objects), static_cast<unsigned long long>(s.entries),
           static_cast<unsigned long long>(report.bytes_hashed));
  std::string out = line;
  text_section(&out, report, "Added", [](uint32_t k) { return k == FS_CHANGE_ADDED; });
  text_section(&out, report, "Removed", [](uint32_t k) { return k == FS_CHANGE_REMOVED; });
  text_section(&out, report, "Changed", [](uint32_t k) {
    return k == FS_CHANGE_CHANGED || k == FS_CHANGE_TYPE_CHANGED || k == FS_CHANGE_SETTINGS_CHANGED;
  });
  text_section(&out, report, "Not checked", [](uint32_t k) {
    return k == FS_CHANGE_UNREADABLE || k == FS_CHANGE_VOLUME_MISSING;
  });
  return out;
}

void json_document_head(json_writer &j, const std::string &command, const std::string &database,
                        uint64_t created) {
  j.begin_object();
  j.key("fsic_version");
  j.string(FSIC_CLI_VERSION);
  j.key("command");
  j.string(command);
  j.key("database");
  j.string(database);
  j.key("database_created");
  j.string(iso_time(created));
}

std::string report_json(const run_report &report) {
  std::string out;
  json_writer j(&out);
  json_document_head(j, report.command, report.database, report.database_created);
  if (!report.new_database.empty()) {
    j.key("new_database");
    j.string(report.new_database);
    j.key("new_database_created");
    j.string(iso_time(report.new_database_created));
  }
  j.key("start_time");
  j.string(iso_time(report.start_time));
  j.key("run_time_seconds");
  j.number(report.run_time_seconds, 3);
  const fs_check_summary &s = report.summary;
  j.key("summary");
  j.begin_object();
  const std::pair<const char *, uint64_t> counts[] = {{"volumes", report.volumes},
                                                      {"volumes_missing", report.volumes_missing},
                                                      {"objects", s.objects},
                                                      {"entries", s.entries},
                                                      {"bytes_hashed", report.bytes_hashed},
                                                      {"added", s.added},
                                                      {"removed", s.removed},
                                                      {"changed", s.changed},
                                                      {"errors", s.errors}};
  for (const auto &[name, value] : counts) {
    j.key(name);
    j.number(value);
  }
  j.end_object();
  j.key("changes");
  j.begin_array();
  for (const change_record &c : report.changes) {
    j.begin_object();
    j.key("volume");
    if (c.volume.empty())
      j.null();
    else
      j.string(c.volume);
    j.key("object");
    if (c.has_object)
      j.string(c.object);
    else
      j.null();
    j.key("path");
    if (c.has_path)
      j.string(c.path);
    else
      j.null();
    j.key("change");
    j.string(kind_name(c.kind));
    if (c.kind == FS_CHANGE_ADDED || c.kind == FS_CHANGE_REMOVED) {
      j.key("type");
      j.string(type_name(c.kind == FS_CHANGE_ADDED ? c.new_values.type : c.old_values.type));
    } else if (c.kind == FS_CHANGE_UNREADABLE) {
      j.key("error");
      j.string(status_text(c.status));
    } else if (c.kind == FS_CHANGE_CHANGED || c.kind == FS_CHANGE_TYPE_CHANGED) {
      j.key("fields");
      j.begin_object();
      for (const field_value &f : changed_fields(c, false)) {
        j.key(f.name);
        j.begin_object();
        j.key("old");
        if (f.quoted)
          j.string(f.old_text);
        else
          j.raw(f.old_text);
        j.key("new");
        if (f.quoted)
          j.string(f.new_text);
        else
          j.raw(f.new_text);
        j.end_object();
      }
      j.end_object();
    }
    j.end_object();
  }
  j.end_array();
  j.end_object();
  out += '\n';
  return out;
}

std::string hex_digest(const uint8_t *bytes) {
  static const char digits[] = "0123456789abcdef";
  std::string out;
  for (int i = 0; i < 32; i++) {
    out += digits[bytes[i] >> 4];
    out += digits[bytes[i] & 15];
  }
  return out;
}

double monotonic_seconds() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

std::string iso_time(uint64_t seconds) {
  time_t t = static_cast<time_t>(seconds);
  struct tm tm {};
  gmtime_r(&t, &tm);
  char text[32];
  strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &tm);
  return text;
}

const char *status_text(fsic_status status) {
  switch (status) {
    case FSIC_ERR_FAILED:
      return "cannot be read";
    case FSIC_ERR_RELATIVE_PATH:
      return "the path is not absolute";
    case FSIC_ERR_NO_MEMORY:
      return "out of memory";
    case FSIC_ERR_UNAVAILABLE:
      return "missing, or not of the kind expected";
    case FSIC_ERR_UDEV_TIMEOUT:
      return "udev did not settle in time";
    case FSIC_ERR_BUSY:
      return "busy";
    case FSIC_ERR_EXISTS:
      return "already exists";
    case FSIC_ERR_LINK_LOOP:
      return "a symbolic-link loop";
    case FSIC_ERR_NAME_TOO_LONG:
      return "a path too long";
    case FSIC_ERR_CHANGED:
      return "kept changing while it was read";
    default:
      return "failed";
  }
}

} // namespace fsic::cli
