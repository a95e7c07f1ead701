// fsic init: resolves the policy's volumes, measures its objects and writes the
// database.
#include <fsic/mount.h>

#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>

#include "cli/commands.h"
#include "cli/exit_status.h"
#include "cli/file_io.h"
#include "cli/inventory.h"
#include "cli/isolation.h"
#include "cli/key_file.h"
#include "cli/output.h"
#include "cli/policy.h"
#include "cli/progress.h"
#include "cli/report.h"
#include "cli/store.h"
#include "cli/volume_name.h"

namespace fsic::cli {

namespace {

struct init_run {
  const options &o;
  const policy &p;
  const std::string &key;
  fs_disk_list *disks = nullptr;
  database db{};

  int fail(int line, const std::string &message) const {
    fprintf(stderr, "fsic: %s:%d: %s\n", o.policy.c_str(), line, message.c_str());
    return EXIT_POLICY;
  }

  // The volume that a selector picks, with its identifier: 0, 17 or 23.
  int resolve(int line, const std::string &text, const selector &sel, fs_volume **volume,
              volume_id_ptr *id) {
    if (find_selected_volume(disks, sel, volume) == FSIC_ERR_NO_MEMORY)
      return out_of_memory();
    if (!*volume)
      return fail(line, "no volume " + text + " on this machine (see fsic volumes)");
    fs_volume_id *made = nullptr;
    fsic_status status = fs_volume_create_id(*volume, &made);
    if (status == FSIC_ERR_NO_MEMORY)
      return out_of_memory();
    if (status != FSIC_OK)
      return fail(line, text + " (" + (*volume)->devnode +
                            ") has no name that survives a reboot: its disk has no serial "
                            "and its file system no UUID");
    id->reset(made);
    return EXIT_OK;
  }

  int attach(const policy_image &image) {
    fs_volume *volume = nullptr;
    volume_id_ptr id;
    if (int status = resolve(image.line, image.volume_text, image.volume, &volume, &id))
      return status;
    fsic_status status =
        fs_disk_list_add_image_disk(disks, volume, image.path.c_str(), image.name.c_str(), nullptr);
    if (status == FSIC_ERR_NO_MEMORY)
      return out_of_memory();
    if (status != FSIC_OK)
      return fail(image.line, "image " + image.name + " (" + image.path + " on " +
                                  image.volume_text +
                                  ") cannot be attached: " + status_text(status));
    db.images.push_back({image.name, std::move(id), image.path});
    return EXIT_OK;
  }

  int add(fs_volume *volume, const std::string &name, const policy_object &obj) {
    std::vector<char *> masks;
    for (const std::string &m : obj.masks)
      masks.push_back(const_cast<char *>(m.c_str()));
    masks.push_back(nullptr);
    fsic_status status =
        obj.dir ? fs_icl_add_dir(db.list.get(), volume, obj.path.c_str(),
                                 obj.masks.empty() ? nullptr : masks.data(), obj.flags, nullptr)
                : fs_icl_add_file(db.list.get(), volume, obj.path.c_str(), obj.flags, nullptr);
    if (status == FSIC_ERR_NO_MEMORY)
      return out_of_memory();
    if (status != FSIC_OK)
      return fail(obj.line, std::string(obj.dir ? "directory " : "file ") + obj.path + " on " +
                                name + " cannot be added: " + status_text(status));
    return EXIT_OK;
  }

  int run() {
    file_lock lock;
    if (int status = lock_database(o.db, &lock))
      return status;
    struct stat st {};
    if (!o.force && lstat(o.db.c_str(), &st) == 0) {
      fprintf(stderr, "fsic: database %s exists; --force replaces it\n", o.db.c_str());
      return EXIT_USAGE;
    }
    disk_list_ptr owner;
    if (!disks) {
      if (int status = open_inventory(&owner))
        return status;
      disks = owner.get();
    }
    fs_icl *list = nullptr;
    if (fs_icl_create(&list) != FSIC_OK)
      return out_of_memory();
    db.list.reset(list);
    for (const policy_image &image : p.images)
      if (int status = attach(image))
        return status;

    progress_line progress(want_progress(o.progress));
    fs_icl_set_progress(list, progress_line::callback, &progress);
    std::map<std::string, int> listed; // volume name and path -> line
    size_t index = 0;
    for (const policy_section &section : p.sections) {
      fs_volume *volume = nullptr;
      if (section.optional) {
        if (find_selected_volume(disks, section.volume, &volume) == FSIC_ERR_NO_MEMORY)
          return out_of_memory();
        if (!volume) {
          if (!o.quiet)
            fprintf(stderr, "fsic: %s:%d: no volume %s on this machine; the section is optional\n",
                    o.policy.c_str(), section.line, section.volume_text.c_str());
          continue;
        }
      }
      volume_id_ptr id;
      if (int status = resolve(section.line, section.volume_text, section.volume, &volume, &id))
        return status;
      std::string name = volume_name(id.get());
      progress.start_volume(name, ++index, p.sections.size());
      for (const policy_object &obj : section.objects) {
        auto [it, fresh] = listed.emplace(name + '\0' + obj.path, obj.line);
        if (!fresh)
          return fail(obj.line, obj.path + " on " + name + " is already listed on line " +
                                    std::to_string(it->second));
      }
      // One mount for all the section's objects.
      const char *mount_point = nullptr;
      if (!section.objects.empty()) {
        fsic_status mounted = fs_volume_get_mount_point(volume, &mount_point);
        if (mounted == FSIC_ERR_NO_MEMORY)
          return out_of_memory();
        if (mounted != FSIC_OK)
          return fail(section.line,
                      section.volume_text + " (" + volume->devnode + ") cannot be mounted");
      }
      int status = EXIT_OK;
      for (const policy_object &obj : section.objects)
        if ((status = add(volume, name, obj)) != EXIT_OK)
          break;
      if (mount_point)
        fs_volume_release_mount_point(volume);
      if (status != EXIT_OK) {
        progress.clear();
        return status;
      }
    }
    progress.clear();
    if (int status = save_database(o.db, key, &db))
      return status;
    if (!o.quiet)
      printf("fsic init: %u volumes, %llu files (%llu bytes) measured; database %s written\n",
             list->count, static_cast<unsigned long long>(progress.files()),
             static_cast<unsigned long long>(progress.bytes()), o.db.c_str());
    return EXIT_OK;
  }
};

// Makes the directories above `path` that are missing: the last one with `mode`, those
// above it with 0755. 0, or 22.
int make_parent_dirs(const std::string &path, mode_t mode) {
  const size_t last = path.rfind('/');
  if (last == std::string::npos || last == 0)
    return EXIT_OK;
  for (size_t slash = path.find('/', 1); slash != std::string::npos && slash <= last;
       slash = path.find('/', slash + 1)) {
    const std::string dir = path.substr(0, slash);
    if (mkdir(dir.c_str(), slash == last ? mode : 0755) != 0 && errno != EEXIST) {
      fprintf(stderr, "fsic: cannot make %s: %s\n", dir.c_str(), strerror(errno));
      return EXIT_WRITE;
    }
  }
  return EXIT_OK;
}

// The default files on the first init: the database's directory (private to root) and
// the key, made when it is missing (with its directory). A key is only made for a new
// database (or one that --force replaces): a missing key beside an existing database
// is said as such, never replaced by one that would not match it. 0, 16 or 22.
int prepare_default_files(const options &o) {
  if (o.db == FSIC_DEFAULT_DB)
    if (int status = make_parent_dirs(o.db, 0700))
      return status;
  struct stat st {};
  if (!o.key_is_default || lstat(o.key.c_str(), &st) == 0 || errno != ENOENT)
    return EXIT_OK; // reading the key says what is wrong with it
  if (!o.force && lstat(o.db.c_str(), &st) == 0)
    return EXIT_OK;
  if (int status = make_parent_dirs(o.key, 0755))
    return status;
  if (int status = generate_key_file(o.key))
    return status;
  if (!o.quiet)
    printf("fsic init: new key %s; keep a copy away from this machine\n", o.key.c_str());
  return EXIT_OK;
}

// The policy and the key: 0, 16, 17, 19 or 22.
int read_inputs(const options &o, policy *p, std::string *key) {
  std::string message;
  if (!read_policy(o.policy, p, &message)) {
    fprintf(stderr, "fsic: %s\n", message.c_str());
    return EXIT_POLICY;
  }
  if (int status = prepare_default_files(o))
    return status;
  return load_key(o.key, key);
}

} // namespace

int command_init(const options &o) {
  policy p;
  std::string key;
  if (int status = read_inputs(o, &p, &key))
    return status;
  return run_isolated([&] { return init_run{o, p, key}.run(); }, o.db);
}

int init_on(const options &o, fs_disk_list *disks) {
  policy p;
  std::string key;
  if (int status = read_inputs(o, &p, &key))
    return status;
  return init_run{o, p, key, disks}.run();
}

} // namespace fsic::cli
