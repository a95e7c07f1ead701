// LVM internals of the inventory: the device-mapper names of logical volumes, and the
// adapter that lists volume groups and their logical volumes. The adapter runs on
// libblockdev's LVM plugin, which drives the `lvm` program.
//
// Call sequence (each step maps to one status of the inventory code):
//   init -> scan -> list_vg_names -> for each name: vg_open -> vg_list_lvs ->
//   lv_get_name for each volume -> vg_close; quit at the end.
//
// Nothing here throws. Nothing here starts a thread, and nothing that the adapter or the
// libraries under it do reaches the process's standard error: the `lvm` child's output
// is captured, libblockdev's log goes to a silent function and GLib messages are dropped
// while an adapter call runs (see impl::quiet_glib_log). LVM_SYSTEM_DIR and the
// rest of the environment are passed on to `lvm` unchanged.
//
// Meant to be used from one thread at a time (the inventory's); concurrent use is not
// something it has been tested for.
#ifndef FSIC_FS_LVM_INTERNAL_H
#define FSIC_FS_LVM_INTERNAL_H

#include <cstddef>
#include <memory>
#include <utility>

// libblockdev's record types, kept opaque so that users of this header need neither
// GLib nor libblockdev headers.
struct BDLVMVGdata;
struct BDLVMLVdata;

namespace fsic::detail {

// ---- device-mapper names ------------------------------------------------------------

// The length of `name` with every '-' counted twice.
size_t quote_hyphens_len(const char *name) noexcept;

// Writes `name` at *cursor with every '-' doubled and advances the cursor; no NUL.
void quote_hyphens(char **cursor, const char *name) noexcept;

// The device-mapper name of volume `lv` in group `vg`: both names with their hyphens
// doubled, joined by one '-' (vg-data, lv_home: "vg--data-lv_home"). A new string of
// exactly the needed size, or null when memory is exhausted.
char *alloc_name(const char *vg, const char *lv) noexcept;

} // namespace fsic::detail

// ---- the adapter ----------------------------------------------------------------------

namespace fsic::detail::lvm {

namespace impl {

// Free a listing's first `size` records and the array itself.
void free_rows(BDLVMVGdata **rows, std::size_t size) noexcept;
void free_rows(BDLVMLVdata **rows, std::size_t size) noexcept;

// Owns an array of libblockdev records as a listing call returns it. Null (operator
// bool false) when nothing is owned; moving hands the array over.
template <typename Row>
class row_array {
public:
  row_array() noexcept = default;
  row_array(Row **rows, std::size_t size) noexcept : rows_(rows), size_(size) {}
  row_array(row_array &&other) noexcept
      : rows_(std::exchange(other.rows_, nullptr)), size_(std::exchange(other.size_, 0)) {}
  row_array &operator=(row_array &&other) noexcept {
    if (this != &other) {
      reset();
      rows_ = std::exchange(other.rows_, nullptr);
      size_ = std::exchange(other.size_, 0);
    }
    return *this;
  }
  row_array(const row_array &) = delete;
  row_array &operator=(const row_array &) = delete;
  ~row_array() { reset(); }

  explicit operator bool() const noexcept { return rows_ != nullptr; }
  std::size_t size() const noexcept { return size_; }
  // Null past the end.
  Row *at(std::size_t i) const noexcept { return i < size_ ? rows_[i] : nullptr; }

private:
  void reset() noexcept {
    if (rows_ != nullptr)
      free_rows(rows_, size_);
    rows_ = nullptr;
    size_ = 0;
  }

  Row **rows_ = nullptr;
  std::size_t size_ = 0;
};

} // namespace impl

struct handle; // a usable LVM session, from init() to quit()
struct group;  // an opened volume group, from vg_open() to vg_close()
struct lv;     // one logical volume inside an lv_list

// Loads libblockdev with only its LVM plugin and checks that the `lvm` program runs.
// Returns null when LVM is unusable (no `lvm` on PATH, plugin missing, ...).
handle *init() noexcept;

// Rescans the devices for physical volumes. 0 on success, -1 on failure.
int scan(handle *h) noexcept;

namespace impl {

// An owned listing of libblockdev records, each seen as an Item. Null (operator bool
// false) when nothing is owned.
template <typename Row, typename Item>
class listing {
public:
  listing() noexcept = default;
  explicit listing(row_array<Row> rows) noexcept : rows_(std::move(rows)) {}

  explicit operator bool() const noexcept { return static_cast<bool>(rows_); }
  std::size_t size() const noexcept { return rows_.size(); }
  // Valid while the listing lives; i < size().
  Item operator[](std::size_t i) const noexcept;

private:
  row_array<Row> rows_;
};

} // namespace impl

// Owned list of volume-group names in LVM's order. A null list (operator bool false)
// means the listing failed; an empty, non-null list means there are no groups.
using name_list = impl::listing<BDLVMVGdata, const char *>;
template <>
const char *name_list::operator[](std::size_t i) const noexcept;

name_list list_vg_names(handle *h) noexcept;

// Opens the named group read-only (only reports are run, never a change). Null when the
// group cannot be read under that name, e.g. it is gone or the name is ambiguous.
group *vg_open(handle *h, const char *name) noexcept;

// Owned list of a group's logical volumes. Null when the group has no volumes or the
// listing failed; the inventory treats both as "no volumes".
using lv_list = impl::listing<BDLVMLVdata, const lv *>;
template <>
const lv *lv_list::operator[](std::size_t i) const noexcept;

// Lists the logical volumes of this one group (asked for by the group's name alone).
lv_list vg_list_lvs(group *g) noexcept;

// The volume's name, valid while its list lives. Null for a null volume.
const char *lv_get_name(const lv *v) noexcept;

// Both accept null.
void vg_close(group *g) noexcept;
void quit(handle *h) noexcept;

struct quit_deleter {
  void operator()(handle *h) const noexcept { quit(h); }
};
struct close_deleter {
  void operator()(group *g) const noexcept { vg_close(g); }
};
using handle_ptr = std::unique_ptr<handle, quit_deleter>;
using group_ptr = std::unique_ptr<group, close_deleter>;

namespace impl {

// While at least one of these is alive, GLib messages that a thread holding one logs in
// the covered domains (the default one, where libblockdev logs, and GLib, GLib-GObject,
// GLib-GIO, GModule) are dropped: during adapter calls they come from libblockdev and
// GLib and would otherwise reach standard error or the host program's handlers. Warnings
// and criticals are not made fatal for that thread, even under G_DEBUG=fatal-warnings.
//
// It only adds domain handlers and lowers the always-fatal mask, and undoes both exactly
// when the last guard ends: the host program's default handler, writer function and own
// domain handlers are never replaced. Messages that other threads log meanwhile in the covered
// domains are passed to g_log_default_handler (so to the host's writer function, but
// past any handler the host set for those domains or as default), and stay fatal if
// G_DEBUG or g_log_set_always_fatal() made them so.
class quiet_glib_log {
public:
  quiet_glib_log() noexcept;
  ~quiet_glib_log();
  quiet_glib_log(const quiet_glib_log &) = delete;
  quiet_glib_log &operator=(const quiet_glib_log &) = delete;
};

} // namespace impl

} // namespace fsic::detail::lvm

#endif // FSIC_FS_LVM_INTERNAL_H
