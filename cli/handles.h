// Owners of the library's records, each with its destroy function.
#ifndef FSIC_CLI_HANDLES_H
#define FSIC_CLI_HANDLES_H

#include <fsic/check.h>
#include <fsic/disk_list.h>
#include <fsic/icl.h>
#include <fsic/volume_id.h>

#include <memory>

namespace fsic::cli {

template <typename T, void (*destroy)(T *)>
struct destroyer {
  void operator()(T *p) const noexcept { destroy(p); }
};

using icl_ptr = std::unique_ptr<fs_icl, destroyer<fs_icl, fs_icl_destroy>>;
using volume_id_ptr = std::unique_ptr<fs_volume_id, destroyer<fs_volume_id, fs_volume_id_destroy>>;
using disk_list_ptr = std::unique_ptr<fs_disk_list, destroyer<fs_disk_list, fs_disk_list_destroy>>;

} // namespace fsic::cli

#endif // FSIC_CLI_HANDLES_H
