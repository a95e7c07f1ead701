// LVM adapter on libblockdev's LVM plugin. See lvm_backend.h for the call sequence.
//
// How the steps map onto the plugin:
//   init           bd_ensure_init() with only the LVM plugin (libbd_lvm.so.2, the one that
//                  runs the `lvm` program; the D-Bus variant would start GDBus threads),
//                  then bd_utils_check_util_version("lvm", ...) which runs `lvm version`.
//   scan           bd_lvm_pvscan(nullptr, FALSE): `lvm pvscan`, a fresh scan of all devices
//                  that the LVM configuration lets it see. Without lvmetad every LVM
//                  command scans on its own, so this keeps no cache warm; what it gives
//                  is a real scan whose failure is reported as the scan status instead
//                  of surfacing later as an empty or failed listing. `pvscan --cache`
//                  is not used: it records devices for autoactivation in /run/lvm.
//   list_vg_names  bd_lvm_vgs(): `lvm vgs`, sorted by name as LVM reports it.
//   vg_open        bd_lvm_vginfo(name): `lvm vgs <name>`, a read-only report of the one
//                  group. It fails when the group is gone or its name is ambiguous.
//   vg_list_lvs    bd_lvm_lvs(group): `lvm lvs <group>`. Always one group at a time:
//                  the all-groups listing keeps only one of the volumes that share a
//                  name across groups.
//   vg_close/quit  free what was returned. libblockdev has no tear-down, so the plugin
//                  stays loaded for the life of the process and the next init reuses it.
//
// libblockdev runs `lvm` through g_spawn with stdout and stderr on pipes (its output
// only reaches libblockdev's log function) and waits with waitpid(); there is no
// child watch and so no GLib worker thread. Descriptors above 2 are closed in the
// child and stdin is /dev/null. The environment, LVM_SYSTEM_DIR included, is passed on
// with LC_ALL=C added.
#include "fs/lvm_internal.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <new>

// GLib and libdevmapper come first with their own C++ handling; libblockdev's headers
// lack extern "C" and find them already included.
#include <glib-object.h>
#include <glib.h>
#include <libdevmapper.h>
extern "C" {
#include <blockdev/blockdev.h>
#include <blockdev/lvm.h>
#include <blockdev/utils.h>
}

namespace fsic::detail::lvm {

struct handle {};

struct group {
  BDLVMVGdata *info; // from bd_lvm_vginfo(); info->name is the group's name
};

namespace {

// The plugin that runs `lvm` itself (libblockdev 2.x ABI).
constexpr const char *plugin_soname = "libbd_lvm.so.2";

// The check the plugin applies when it is loaded.
constexpr const char *lvm_version_regex = "LVM version:\\s+([\\d\\.]+)";

void silent_log(gint, const gchar *) {}

// ---- GLib message guard state ----------------------------------------------------

// Domains that libblockdev (no domain of its own) and the GLib code under it log in.
constexpr const char *quiet_domains[] = {"", "GLib", "GLib-GObject", "GLib-GIO", "GModule"};
constexpr std::size_t quiet_domain_count = sizeof quiet_domains / sizeof quiet_domains[0];
constexpr auto all_levels =
    static_cast<GLogLevelFlags>(G_LOG_LEVEL_MASK | G_LOG_FLAG_FATAL | G_LOG_FLAG_RECURSION);

GMutex quiet_lock; // guards quiet_users and quiet_handler_ids
int quiet_users = 0;
guint quiet_handler_ids[quiet_domain_count];
std::atomic<unsigned> saved_always_fatal{0}; // the mask in force before the first guard
thread_local int quiet_depth = 0;            // guards alive on this thread

void quiet_handler(const gchar *domain, GLogLevelFlags level, const gchar *message, gpointer) {
  if (quiet_depth > 0)
    return;
  // Another thread of the host program. Deliver the message the way GLib would without
  // our handler in place, including the fatality that G_DEBUG or the host asked for.
  const unsigned fatal = saved_always_fatal.load(std::memory_order_relaxed);
  const bool make_fatal = (level & fatal & G_LOG_LEVEL_MASK) != 0;
  const auto delivered =
      static_cast<GLogLevelFlags>(make_fatal ? (level | G_LOG_FLAG_FATAL) : level);
  g_log_default_handler(domain, delivered, message, nullptr);
  if (make_fatal && !(level & G_LOG_FLAG_FATAL))
    std::abort();
}

// Runs libblockdev calls quietly: one per adapter call.
using quiet = impl::quiet_glib_log;

void drop_error(GError *&error) noexcept { g_clear_error(&error); }

} // namespace

namespace impl {

quiet_glib_log::quiet_glib_log() noexcept {
  g_mutex_lock(&quiet_lock);
  if (quiet_users++ == 0) {
    for (std::size_t i = 0; i < quiet_domain_count; ++i)
      quiet_handler_ids[i] =
          g_log_set_handler(quiet_domains[i], all_levels, quiet_handler, nullptr);
    // Warnings expected on failure paths must not abort under G_DEBUG=fatal-warnings.
    // GLib always keeps errors fatal.
    saved_always_fatal.store(g_log_set_always_fatal(static_cast<GLogLevelFlags>(0)),
                             std::memory_order_relaxed);
  }
  ++quiet_depth;
  g_mutex_unlock(&quiet_lock);
}

quiet_glib_log::~quiet_glib_log() {
  g_mutex_lock(&quiet_lock);
  --quiet_depth;
  if (--quiet_users == 0) {
    g_log_set_always_fatal(
        static_cast<GLogLevelFlags>(saved_always_fatal.load(std::memory_order_relaxed)));
    for (std::size_t i = 0; i < quiet_domain_count; ++i)
      g_log_remove_handler(quiet_domains[i], quiet_handler_ids[i]);
  }
  g_mutex_unlock(&quiet_lock);
}

} // namespace impl

handle *init() noexcept {
  quiet q;
  // Our log function replaces any earlier one (libblockdev keeps a single one and has
  // no getter); bd_ensure_init() only installs it when it actually loads something.
  bd_utils_init_logging(silent_log, nullptr);

  BDPluginSpec lvm_plugin{BD_PLUGIN_LVM, plugin_soname};
  BDPluginSpec *request[] = {&lvm_plugin, nullptr};
  GError *error = nullptr;
  if (!bd_ensure_init(request, silent_log, &error)) {
    drop_error(error);
    return nullptr;
  }
  // A host program may have loaded another LVM plugin (the D-Bus one) into the same
  // libblockdev; that one would start threads, so refuse rather than use it.
  gchar *loaded = bd_get_plugin_soname(BD_PLUGIN_LVM);
  const bool ours = loaded != nullptr && std::strcmp(loaded, plugin_soname) == 0;
  g_free(loaded);
  if (!ours)
    return nullptr;

  // The plugin checks for `lvm` only when it is loaded; check on every init so that a
  // later session notices when LVM has become unusable.
  if (!bd_utils_check_util_version("lvm", LVM_MIN_VERSION, "version", lvm_version_regex, &error)) {
    drop_error(error);
    return nullptr;
  }
  return new (std::nothrow) handle{};
}

int scan(handle *h) noexcept {
  if (h == nullptr)
    return -1;
  quiet q;
  GError *error = nullptr;
  if (!bd_lvm_pvscan(nullptr, FALSE, nullptr, &error)) {
    drop_error(error);
    return -1;
  }
  return 0;
}

// ---- listings -----------------------------------------------------------------------

namespace impl {

void free_rows(BDLVMVGdata **rows, std::size_t size) noexcept {
  for (std::size_t i = 0; i < size; ++i)
    bd_lvm_vgdata_free(rows[i]);
  g_free(rows);
}

void free_rows(BDLVMLVdata **rows, std::size_t size) noexcept {
  for (std::size_t i = 0; i < size; ++i)
    bd_lvm_lvdata_free(rows[i]);
  g_free(rows);
}

} // namespace impl

// ---- name_list ----------------------------------------------------------------------

template <>
const char *name_list::operator[](std::size_t i) const noexcept {
  const BDLVMVGdata *row = rows_.at(i);
  return row != nullptr ? row->name : nullptr;
}

name_list list_vg_names(handle *h) noexcept {
  if (h == nullptr)
    return {};
  quiet q;
  GError *error = nullptr;
  BDLVMVGdata **rows = bd_lvm_vgs(&error);
  if (rows == nullptr) {
    drop_error(error);
    return {};
  }
  std::size_t n = 0;
  while (rows[n] != nullptr)
    ++n;
  return name_list(impl::row_array<BDLVMVGdata>(rows, n));
}

// ---- groups -------------------------------------------------------------------------

group *vg_open(handle *h, const char *name) noexcept {
  if (h == nullptr || name == nullptr || *name == '\0')
    return nullptr;
  quiet q;
  GError *error = nullptr;
  BDLVMVGdata *info = bd_lvm_vginfo(name, &error);
  if (info == nullptr) {
    drop_error(error);
    return nullptr;
  }
  // The report names the group we asked for; anything else means we did not get it.
  if (info->name == nullptr || std::strcmp(info->name, name) != 0) {
    bd_lvm_vgdata_free(info);
    return nullptr;
  }
  group *g = new (std::nothrow) group{info};
  if (g == nullptr)
    bd_lvm_vgdata_free(info);
  return g;
}

void vg_close(group *g) noexcept {
  if (g == nullptr)
    return;
  bd_lvm_vgdata_free(g->info);
  delete g;
}

// ---- lv_list ------------------------------------------------------------------------

// An lv is libblockdev's record seen through an opaque type.
template <>
const lv *lv_list::operator[](std::size_t i) const noexcept {
  return reinterpret_cast<const lv *>(rows_.at(i));
}

lv_list vg_list_lvs(group *g) noexcept {
  if (g == nullptr)
    return {};
  quiet q;
  GError *error = nullptr;
  BDLVMLVdata **rows = bd_lvm_lvs(g->info->name, &error);
  if (rows == nullptr) {
    drop_error(error);
    return {};
  }
  // Keep only this group's volumes (the report is already limited to it) and drop
  // unnamed rows, compacting the array in place.
  std::size_t kept = 0;
  for (std::size_t i = 0; rows[i] != nullptr; ++i) {
    BDLVMLVdata *row = rows[i];
    if (row->lv_name != nullptr && row->vg_name != nullptr &&
        std::strcmp(row->vg_name, g->info->name) == 0)
      rows[kept++] = row;
    else
      bd_lvm_lvdata_free(row);
  }
  rows[kept] = nullptr;
  if (kept == 0) {
    g_free(rows);
    return {};
  }
  return lv_list(impl::row_array<BDLVMLVdata>(rows, kept));
}

const char *lv_get_name(const lv *v) noexcept {
  return v == nullptr ? nullptr : reinterpret_cast<const BDLVMLVdata *>(v)->lv_name;
}

void quit(handle *h) noexcept { delete h; }

} // namespace fsic::detail::lvm
