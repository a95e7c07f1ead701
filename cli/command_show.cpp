// fsic show: the database's contents, as text or JSON.
#include <algorithm>
#include <cstdio>

#include "cli/commands.h"
#include "cli/exit_status.h"
#include "cli/json.h"
#include "cli/output.h"
#include "cli/report.h"
#include "cli/store.h"
#include "cli/volume_name.h"

namespace fsic::cli {

namespace {

std::string flag_words(uint32_t flags) {
  std::string out;
  const std::pair<uint32_t, const char *> words[] = {{EACH_FILE, "each-file"},
                                                     {RECURSIVE, "recursive"},
                                                     {CONTROL_DATA, "data"},
                                                     {CONTROL_ATTRS, "attrs"}};
  for (const auto &[bit, word] : words)
    if (flags & bit)
      out += std::string(out.empty() ? "" : " ") + word;
  uint32_t other = flags & ~(EACH_FILE | RECURSIVE | CONTROL_DATA | CONTROL_ATTRS);
  if (other)
    out += (out.empty() ? "flags=" : " flags=") + std::to_string(other);
  return out;
}

std::string join(const std::string &dir, const std::string &name) {
  return dir.back() == '/' ? dir + name : dir + "/" + name;
}

std::string file_attrs_text(const fs_ocl_file_attrs &a) {
  char text[128];
  snprintf(text, sizeof text, "[mode: %04o, uid: %u, gid: %u, size: %u, mtime: %u]", a.mode & 07777,
           a.uid, a.gid, a.size, a.mtime);
  return text;
}

std::string dir_attrs_text(const fs_ocl_dir_attrs &a) {
  char text[64];
  snprintf(text, sizeof text, "[mode: %04o, uid: %u, gid: %u]", a.mode & 07777, a.uid, a.gid);
  return text;
}

// The volumes in name order.
std::vector<fs_icl_volume *> sorted_volumes(fs_icl *list) {
  std::vector<std::pair<std::string, fs_icl_volume *>> named;
  for (fs_icl_volume *e = fs_icl_first_volume(list); e; e = fs_icl_next_volume(list, e))
    named.emplace_back(volume_name(e->id), e);
  std::stable_sort(named.begin(), named.end(),
                   [](const auto &a, const auto &b) { return a.first < b.first; });
  std::vector<fs_icl_volume *> out;
  for (auto &n : named)
    out.push_back(n.second);
  return out;
}

void text_info(std::string *out, int depth, const fs_ocl_dir_info *info) {
  std::string indent(static_cast<size_t>(2 * depth), ' ');
  for (int32_t i = 0; i < info->subdir_count; i++) {
    out->append(indent).append("+").append(text_escape(info->subdir_names[i]));
    if (info->subdir_attrs)
      out->append(" ").append(dir_attrs_text(info->subdir_attrs[i]));
    out->append("\n");
    text_info(out, depth + 1, info->subdir_infos[i]);
  }
  for (int32_t i = 0; i < info->file_count; i++) {
    out->append(indent).append(" ").append(text_escape(info->file_names[i]));
    if (info->file_hashes)
      out->append(" [").append(hex_digest(info->file_hashes[i])).append("]");
    if (info->file_attrs)
      out->append(" ").append(file_attrs_text(info->file_attrs[i]));
    out->append("\n");
  }
}

std::string show_text(const std::string &path, const database &db) {
  std::string out = "Database " + text_escape(path) + ", written " + iso_time(db.created) + " on " +
                    (db.host.empty() ? "an unnamed host" : text_escape(db.host)) + ", " +
                    (db.authentication == db_auth_hmac ? "keyed (HMAC)" : "not keyed (digest)") +
                    "\n";
  for (const db_image &image : db.images)
    out += "Image " + text_escape(image.name) + ": " + text_escape(image.path) + " on " +
           text_escape(volume_name(image.volume.get())) + "\n";
  for (fs_icl_volume *e : sorted_volumes(db.list.get())) {
    out += "Volume " + text_escape(volume_name(e->id)) + "\n";
    for (fs_ocl_object *o = fs_icl_volume_first_object(e); o; o = fs_icl_volume_next_object(o)) {
      out += std::string("  ") + (o->type == FS_OCL_DIR ? "D " : "F ") + text_escape(o->path) +
             " [" + flag_words(o->flags) + "]";
      if (o->type == FS_OCL_FILE) {
        auto *f = reinterpret_cast<fs_ocl_file_object *>(o);
        out += "\n";
        if (f->hash || f->attrs) {
          out += "   ";
          if (f->hash)
            out.append(" [").append(hex_digest(f->hash)).append("]");
          if (f->attrs)
            out.append(" ").append(file_attrs_text(*f->attrs));
          out += "\n";
        }
        continue;
      }
      auto *d = reinterpret_cast<fs_ocl_dir_object *>(o);
      out += " [";
      for (char **m = d->masks; m && *m; m++)
        out += std::string(m == d->masks ? "" : " ") + "'" + text_escape(*m) + "'";
      out += "]\n";
      if (o->flags & EACH_FILE) {
        if (d->attrs)
          out += "    <root> " + dir_attrs_text(*d->attrs) + "\n";
        text_info(&out, 3, d->info);
      } else {
        out += "    [" + hex_digest(d->hash) + "]\n";
      }
    }
  }
  return out;
}

void json_owner_attrs(json_writer &j, uint32_t mode_bits, uint16_t uid, uint16_t gid) {
  char mode[8];
  snprintf(mode, sizeof mode, "%04o", mode_bits & 07777);
  j.key("mode");
  j.string(mode);
  j.key("uid");
  j.number(uint64_t{uid});
  j.key("gid");
  j.number(uint64_t{gid});
}

void json_dir_attrs(json_writer &j, const fs_ocl_dir_attrs &a) {
  json_owner_attrs(j, a.mode, a.uid, a.gid);
}

void json_file_attrs(json_writer &j, const fs_ocl_file_attrs &a) {
  json_owner_attrs(j, a.mode, a.uid, a.gid);
  j.key("size");
  j.number(uint64_t{a.size});
  j.key("mtime");
  j.number(uint64_t{a.mtime});
}

void json_entries(json_writer &j, const std::string &dir, const fs_ocl_dir_info *info) {
  for (int32_t i = 0; i < info->subdir_count; i++) {
    std::string path = join(dir, info->subdir_names[i]);
    j.begin_object();
    j.key("path");
    j.string(path);
    j.key("type");
    j.string("directory");
    if (info->subdir_attrs)
      json_dir_attrs(j, info->subdir_attrs[i]);
    j.end_object();
    json_entries(j, path, info->subdir_infos[i]);
  }
  for (int32_t i = 0; i < info->file_count; i++) {
    j.begin_object();
    j.key("path");
    j.string(join(dir, info->file_names[i]));
    j.key("type");
    j.string("file");
    if (info->file_hashes) {
      j.key("hash");
      j.string(hex_digest(info->file_hashes[i]));
    }
    if (info->file_attrs)
      json_file_attrs(j, info->file_attrs[i]);
    j.end_object();
  }
}

void json_object(json_writer &j, fs_ocl_object *o) {
  j.begin_object();
  j.key("path");
  j.string(o->path);
  j.key("type");
  j.string(o->type == FS_OCL_DIR ? "directory" : "file");
  j.key("flags");
  j.number(uint64_t{o->flags});
  if (o->type == FS_OCL_FILE) {
    auto *f = reinterpret_cast<fs_ocl_file_object *>(o);
    if (f->hash) {
      j.key("hash");
      j.string(hex_digest(f->hash));
    }
    if (f->attrs)
      json_file_attrs(j, *f->attrs);
  } else {
    auto *d = reinterpret_cast<fs_ocl_dir_object *>(o);
    j.key("masks");
    j.begin_array();
    for (char **m = d->masks; m && *m; m++)
      j.string(*m);
    j.end_array();
    if (o->flags & EACH_FILE) {
      if (d->attrs)
        json_dir_attrs(j, *d->attrs);
      j.key("entries");
      j.begin_array();
      json_entries(j, o->path, d->info);
      j.end_array();
    } else {
      j.key("hash");
      j.string(hex_digest(d->hash));
    }
  }
  j.end_object();
}

std::string show_json(const std::string &path, const database &db) {
  std::string out;
  json_writer j(&out);
  json_document_head(j, "show", path, db.created);
  j.key("host");
  j.string(db.host);
  j.key("authentication");
  j.string(db.authentication == db_auth_hmac ? "hmac" : "digest");
  j.key("images");
  j.begin_array();
  for (const db_image &image : db.images) {
    j.begin_object();
    j.key("name");
    j.string(image.name);
    j.key("volume");
    j.string(volume_name(image.volume.get()));
    j.key("path");
    j.string(image.path);
    j.end_object();
  }
  j.end_array();
  j.key("volumes");
  j.begin_array();
  for (fs_icl_volume *e : sorted_volumes(db.list.get())) {
    j.begin_object();
    j.key("volume");
    j.string(volume_name(e->id));
    j.key("objects");
    j.begin_array();
    for (fs_ocl_object *o = fs_icl_volume_first_object(e); o; o = fs_icl_volume_next_object(o))
      json_object(j, o);
    j.end_array();
    j.end_object();
  }
  j.end_array();
  j.end_object();
  out += '\n';
  return out;
}

} // namespace

int command_show(const options &o) {
  std::string key;
  if (int status = load_key(o.key, &key))
    return status;
  database db;
  if (int status = load_database(o.db, key, &db))
    return status;
  if (!o.quiet) {
    std::string text = o.json ? show_json(o.db, db) : show_text(o.db, db);
    fwrite(text.data(), 1, text.size(), stdout);
  }
  return EXIT_OK;
}

} // namespace fsic::cli
