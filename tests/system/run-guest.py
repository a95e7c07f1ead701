#!/usr/bin/python3
"""Runs a script as root in a qemu guest that has the disks a machine description asks for.

The guest boots Debian's kernel with a tiny initramfs and runs the host's own root file
system, shared read-only over virtio-9p. Disk images are built on the host (no loop
devices). The guest script's stdout, stderr and exit status come back over a writable
9p share; the serial console only ever goes to a log file.

    run-guest.py --machine M.json --script test.sh [--build-dir DIR] [--expect PREFIX]

Without --expect, the guest script's stdout and stderr are copied to ours and its exit
status becomes ours. With --expect PREFIX, they are compared exactly with
PREFIX.stdout, PREFIX.stderr and PREFIX.status; a mismatch prints a unified diff.
A failure of the harness itself (guest did not finish, set-up failed, bad machine
description) exits with status 125 after printing the guest's console log.
"""

import argparse
import ctypes
import difflib
import hashlib
import json
import lzma
import os
import re
import shlex
import shutil
import signal
import stat
import struct
import subprocess
import sys
import tempfile
import time
import uuid

HERE = os.path.dirname(os.path.abspath(__file__))
HARNESS_FAILURE = 125
TMP_PREFIX = "fsic-systest-"
MIB = 1024 * 1024
SECTOR = 512
UUID_NAMESPACE = uuid.UUID("6f1c1f2e-3d5b-4c7a-9e0f-2b8d4a6c8e10")
INITRAMFS_MODULES = ["virtio_pci", "9pnet_virtio", "9p"]

# Where the guest sees the exchange directory (guest/init).
GUEST_IO = "/run/fsic-io"

# Fixed PCI slots, so that sysfs paths are the same on every boot. Disks come first:
# virtio devices are numbered (virtio0, virtio1, ...) in slot order, and the 9p devices
# at the end then do not shift the disks' numbers.
SLOT_SCSI = 0x05
SLOT_XHCI = 0x06
SLOTS_VIRTIO_DISK = range(0x08, 0x18)
SLOTS_9P = range(0x1C, 0x20)  # host root, exchange directory, then shared directories

GPT_LINUX = "0FC63DAF-8483-4772-8E79-3D69D8477DE4"
FS_MKFS = {"ext2", "ext3", "ext4"}


class HarnessError(Exception):
    pass


class Interrupted(Exception):
    pass


def die_on_signal(signum, _frame):
    raise Interrupted(f"interrupted by signal {signum}")


def qemu_escape(value):
    """Commas separate qemu options; a literal comma is written twice."""
    return str(value).replace(",", ",,")


# --------------------------------------------------------------------------- machine


def load_machine(path):
    try:
        with open(path, encoding="utf-8") as f:
            machine = json.load(f)
    except (OSError, ValueError) as e:
        raise HarnessError(f"cannot read machine description {path}: {e}") from e
    check_keys(machine, {"disks", "setup", "memory_mib", "boots", "comment"}, path)
    disks = machine.setdefault("disks", [])
    for i, disk in enumerate(disks):
        where = f"{path}: disks[{i}]"
        check_keys(disk, {"bus", "serial"} | DISK_LAYOUT_KEYS, where)
        if disk.get("bus") not in ("virtio", "scsi", "usb"):
            raise HarnessError(f"{where}: bus must be virtio, scsi or usb")
        check_disk_layout(disk, where)
    if sum(d["bus"] == "virtio" for d in disks) > len(SLOTS_VIRTIO_DISK):
        raise HarnessError(f"{path}: at most {len(SLOTS_VIRTIO_DISK)} virtio disks")
    if not isinstance(machine.get("memory_mib", 1024), int):
        raise HarnessError(f"{path}: memory_mib must be an integer")
    if machine.get("boots", 1) not in (1, 2, 3):
        raise HarnessError(f"{path}: boots must be 1, 2 or 3")
    if "setup" in machine:
        if not isinstance(machine["setup"], str):
            raise HarnessError(f"{path}: setup must be a file name")
        machine["setup"] = os.path.join(os.path.dirname(os.path.abspath(path)), machine["setup"])
    return machine


DISK_LAYOUT_KEYS = {"size_mib", "table", "label_id", "partitions", "fs", "label", "uuid", "files",
                    "comment"}


def check_disk_layout(disk, where):
    """Checks what a machine disk and a disk image inside a file system have in common."""
    if not isinstance(disk.get("size_mib"), int) or disk["size_mib"] < 1:
        raise HarnessError(f"{where}: size_mib (a positive integer) is required")
    if disk.get("table") not in (None, "msdos", "gpt"):
        raise HarnessError(f"{where}: table must be msdos or gpt")
    if disk.get("partitions") and not disk.get("table"):
        raise HarnessError(f"{where}: partitions need a table")
    if disk.get("table") and "fs" in disk:
        raise HarnessError(f"{where}: a disk has either a table or a file system")
    if "fs" not in disk and any(k in disk for k in ("label", "uuid", "files")):
        raise HarnessError(f"{where}: label, uuid and files need fs")
    check_files(disk, where)
    for j, part in enumerate(disk.get("partitions", [])):
        check_keys(part, {"size_mib", "type", "extended", "logical", "fs", "label", "uuid",
                          "files", "comment"}, f"{where}.partitions[{j}]")
        check_files(part, f"{where}.partitions[{j}]")


def check_files(entry, where):
    """A file is a text, or {"image": a disk layout}: a raw disk image built like a disk."""
    files = entry.get("files", {})
    if not isinstance(files, dict):
        raise HarnessError(f"{where}: files must be an object")
    for name, content in files.items():
        if isinstance(content, str):
            continue
        what = f"{where}.files[{name!r}]"
        check_keys(content, {"image", "comment"}, what)
        if name.endswith("/") or "image" not in content:
            raise HarnessError(f"{what}: an image file needs a name and an \"image\" layout")
        check_keys(content["image"], DISK_LAYOUT_KEYS, f"{what}.image")
        check_disk_layout(content["image"], f"{what}.image")


def check_keys(obj, allowed, where):
    if not isinstance(obj, dict):
        raise HarnessError(f"{where}: expected an object")
    unknown = set(obj) - allowed
    if unknown:
        raise HarnessError(f"{where}: unknown keys {sorted(unknown)}")


def layout(disk, name):
    """Partition numbers, starts and sizes (in sectors) for a disk's table."""
    total = disk["size_mib"] * MIB // SECTOR
    gpt = disk["table"] == "gpt"
    last = total - 34 if gpt else total - 1  # last usable sector
    align = MIB // SECTOR
    result = []
    cursor = align
    primary_number = 0
    logical_number = 4
    extended = None
    for j, part in enumerate(disk.get("partitions", [])):
        where = f"{name} partition {j}"
        if part.get("logical"):
            if extended is None:
                raise HarnessError(f"{where}: a logical partition needs an extended one before it")
            logical_number += 1
            number = logical_number
            start = cursor + align  # room for the extended boot record
            end_limit = extended["start"] + extended["size"] - 1
        else:
            if extended is not None:  # a primary after the extended partition
                cursor = extended["start"] + extended["size"]
            primary_number += 1
            if not gpt and primary_number > 4:
                raise HarnessError(f"{where}: an msdos table has at most 4 primary partitions")
            number = primary_number
            start = cursor
            end_limit = last
        if "size_mib" in part:
            size = part["size_mib"] * align
        else:
            size = (end_limit - start + 1) // align * align
        if size <= 0 or start + size - 1 > end_limit:
            raise HarnessError(f"{where}: does not fit")
        if part.get("extended"):
            if gpt or extended is not None:
                raise HarnessError(f"{where}: only one extended partition, on msdos tables")
            ptype = "5"
        elif gpt:
            ptype = part.get("type", GPT_LINUX)
        else:
            ptype = part.get("type", "83")
        entry = {"number": number, "start": start, "size": size, "type": ptype, "part": part}
        if gpt:
            entry["uuid"] = str(uuid.uuid5(UUID_NAMESPACE, f"{name}-part{number}"))
        result.append(entry)
        if part.get("extended"):
            extended = entry
            cursor = start
        else:
            cursor = start + size
    return result


# Files put into file systems get fixed modes, owner and times, so that what a
# scenario prints about them (hashes over attributes, mtimes) is the same every run.
FIXED_MTIME = 1710504000  # 2024-03-15 12:00:00 UTC


def fix_attributes(top):
    for root, dirs, files in os.walk(top):
        for name in files:
            p = os.path.join(root, name)
            os.chown(p, 0, 0)
            os.chmod(p, 0o644)
            os.utime(p, (FIXED_MTIME, FIXED_MTIME))
        for name in dirs:
            os.chmod(os.path.join(root, name), 0o755)
    # Directories last, and deepest first: writing files changes their mtimes.
    for root, dirs, files in os.walk(top, topdown=False):
        os.chown(root, 0, 0)
        os.utime(root, (FIXED_MTIME, FIXED_MTIME))


def make_fs(fs, path, size_bytes, pdesc, what, tmp):
    if fs not in FS_MKFS:
        raise HarnessError(f"{what}: unsupported file system {fs!r} (have {sorted(FS_MKFS)})")
    # A directory of its own: an image file in the tree builds its file systems here too.
    content = tempfile.mkdtemp(prefix="content-", dir=tmp)
    os.chmod(content, 0o755)
    for name, text in pdesc.get("files", {}).items():
        target = os.path.join(content, name)
        if name.endswith("/"):
            os.makedirs(target, exist_ok=True)
            continue
        os.makedirs(os.path.dirname(target), exist_ok=True)
        if isinstance(text, dict):
            build_disk(text["image"], target, tmp, f"{what}:{name}")
            continue
        with open(target, "w", encoding="utf-8") as f:
            f.write(text)
    fix_attributes(content)
    with open(path, "wb") as f:
        f.truncate(size_bytes)
    fs_uuid = pdesc.get("uuid") or str(uuid.uuid5(UUID_NAMESPACE, what))
    cmd = [f"mkfs.{fs}", "-F", "-q", "-U", fs_uuid, "-d", content]
    if "label" in pdesc:
        cmd += ["-L", pdesc["label"]]
    run(cmd + [path])
    shutil.rmtree(content)


def copy_into(src, dst, offset):
    """dd conv=notrunc, skipping zero blocks (the target image is sparse)."""
    chunk = MIB
    zero = bytes(chunk)
    with open(src, "rb") as fin, open(dst, "r+b") as fout:
        pos = offset
        while True:
            data = fin.read(chunk)
            if not data:
                break
            if data != zero[: len(data)]:
                fout.seek(pos)
                fout.write(data)
            pos += len(data)


def scratch_file(tmp):
    """A new empty file in the run's directory, for a file system being built."""
    fd, path = tempfile.mkstemp(prefix="fs-", suffix=".img", dir=tmp)
    os.close(fd)
    return path


def build_disk(disk, image, tmp, name, index=None):
    """Builds a machine disk (index: its position) or a disk image inside a file system
    (index None) as a sparse file; `name` seeds the default identifiers."""
    with open(image, "wb") as f:
        f.truncate(disk["size_mib"] * MIB)
    if "fs" in disk:
        fs_image = scratch_file(tmp)
        make_fs(disk["fs"], fs_image, disk["size_mib"] * MIB, disk, name, tmp)
        copy_into(fs_image, image, 0)
        os.unlink(fs_image)
        return
    if not disk.get("table"):
        return
    parts = layout(disk, name)
    gpt = disk["table"] == "gpt"
    if gpt:
        label_id = disk.get("label_id") or str(uuid.uuid5(UUID_NAMESPACE, name))
    elif index is not None:
        label_id = disk.get("label_id") or f"0x{0x5e571000 + index:08x}"
    else:
        label_id = disk.get("label_id") or f"0x{uuid.uuid5(UUID_NAMESPACE, name).int & 0xffffffff:08x}"
    lines = [f"label: {'gpt' if gpt else 'dos'}", f"label-id: {label_id}", "unit: sectors", ""]
    for p in parts:
        line = f"{image}{p['number']} : start={p['start']}, size={p['size']}, type={p['type']}"
        if gpt:
            line += f", uuid={p['uuid']}"
        lines.append(line)
    run(["sfdisk", "--quiet", "--no-reread", "--no-tell-kernel", image],
        stdin="\n".join(lines) + "\n")
    # Make sure sfdisk numbered and placed the partitions as intended.
    table = json.loads(run(["sfdisk", "--json", image]))["partitiontable"]
    got = sorted((int(re.search(r"(\d+)$", p["node"]).group(1)), p["start"], p["size"])
                 for p in table.get("partitions", []))
    want = sorted((p["number"], p["start"], p["size"]) for p in parts)
    if got != want:
        raise HarnessError(f"{name}: sfdisk made {got}, wanted {want}")
    for p in parts:
        pdesc = p["part"]
        if "fs" in pdesc:
            fs_image = scratch_file(tmp)
            make_fs(pdesc["fs"], fs_image, p["size"] * SECTOR, pdesc,
                    f"{name}-part{p['number']}", tmp)
            copy_into(fs_image, image, p["start"] * SECTOR)
            os.unlink(fs_image)
        elif "files" in pdesc or "label" in pdesc or "uuid" in pdesc:
            raise HarnessError(f"{name} partition {p['number']}: label, uuid and files need fs")


def disk_args(disks, images):
    """qemu options for the disks, and the guest's driver groups in load order."""
    args = []
    virtio_slots = iter(SLOTS_VIRTIO_DISK)
    scsi_id = 0
    usb_port = 0
    buses = {d["bus"] for d in disks}
    if "scsi" in buses:
        args += ["-device", f"virtio-scsi-pci,id=scsi0,addr={SLOT_SCSI:#x}"]
    if "usb" in buses:
        args += ["-device", f"qemu-xhci,id=xhci,addr={SLOT_XHCI:#x}"]
    for i, (disk, image) in enumerate(zip(disks, images)):
        drive = f"disk{i}"
        args += ["-drive", f"file={qemu_escape(image)},if=none,id={drive},format=raw"]
        serial = f",serial={qemu_escape(disk['serial'])}" if "serial" in disk else ""
        if disk["bus"] == "virtio":
            args += ["-device", f"virtio-blk-pci,drive={drive},addr={next(virtio_slots):#x}{serial}"]
        elif disk["bus"] == "scsi":
            args += ["-device", f"scsi-hd,drive={drive},bus=scsi0.0,channel=0,scsi-id={scsi_id},"
                                f"lun=0{serial}"]
            scsi_id += 1
        else:
            usb_port += 1
            args += ["-device", f"usb-storage,drive={drive},bus=xhci.0,port={usb_port},"
                                f"removable=on{serial}"]
    # Virtio and SCSI disks first, USB sticks after them: each group is awaited
    # before the next is loaded.
    groups = []
    early = sum(d["bus"] in ("virtio", "scsi") for d in disks)
    mods = []
    if "virtio" in buses:
        mods.append("virtio_blk")
    if "scsi" in buses:
        mods += ["virtio_scsi", "sd_mod"]
    if mods:
        groups.append(f"{early}:{' '.join(mods)}")
    if "usb" in buses:
        groups.append(f"{len(disks)}:xhci_pci usb_storage sd_mod")
    return args, groups


# --------------------------------------------------------------------------- kernel


def find_kernel():
    """The newest /boot/vmlinuz-* that has its modules installed."""
    def version_key(v):
        return [int(x) if x.isdigit() else x for x in re.split(r"(\d+)", v)]
    versions = []
    for name in os.listdir("/boot"):
        if name.startswith("vmlinuz-"):
            v = name[len("vmlinuz-"):]
            if os.path.isdir(f"/lib/modules/{v}/kernel"):
                versions.append(v)
    if not versions:
        raise HarnessError("no /boot/vmlinuz-<version> with /lib/modules/<version>: "
                           "install linux-image-amd64 (scripts/install-deps.sh --guest)")
    v = max(versions, key=version_key)
    return v, f"/boot/vmlinuz-{v}"


def cache_key(kernel, extra=b""):
    """Changes when the kernel package is reinstalled, even with the same version."""
    st = os.stat(kernel)
    return hashlib.sha256(f"{st.st_size}:{st.st_mtime_ns}:".encode() + extra).hexdigest()[:12]


def store(target, data):
    """Writes a cached file atomically and removes older versions of it."""
    os.makedirs(os.path.dirname(target), exist_ok=True)
    part = f"{target}.{os.getpid()}.part"
    with open(part, "wb") as f:
        f.write(data)
    os.replace(part, target)
    kind = os.path.basename(target).split("-")[0]
    for name in os.listdir(os.path.dirname(target)):
        if name.startswith(kind + "-") and name != os.path.basename(target) and not name.endswith(".part"):
            try:
                os.unlink(os.path.join(os.path.dirname(target), name))
            except OSError:
                pass


def unpack_kernel(kver, kernel, cache_dir, tmp):
    """The kernel as an ELF image with a PVH entry point, if it can be unpacked.

    Decompressing the kernel (xz) takes the emulated machine several seconds on every
    boot; qemu starts an unpacked kernel through its PVH entry point directly.
    Falls back to the compressed image.
    """
    target = os.path.join(cache_dir or tmp, f"vmlinux-{kver}-{cache_key(kernel)}")
    if os.path.exists(target):
        return target
    with open(kernel, "rb") as f:
        image = f.read()
    start = image.find(b"\xfd7zXZ\x00")
    if start < 0:
        return kernel
    try:
        elf = lzma.LZMADecompressor().decompress(image[start:])
    except lzma.LZMAError:
        return kernel
    pvh_note = [struct.pack("<III", 4, size, 18) + b"Xen\0" for size in (4, 8)]
    if elf[:4] != b"\x7fELF" or not any(n in elf for n in pvh_note):
        return kernel
    store(target, elf)
    return target


def cpio_newc(entries):
    """An uncompressed newc cpio archive; entries are (name, mode, data, rdev)."""
    out = bytearray()

    def pad():
        out.extend(b"\0" * (-len(out) % 4))

    for ino, (name, mode, data, rdev) in enumerate(entries + [("TRAILER!!!", 0, b"", (0, 0))], 1):
        raw = name.encode() + b"\0"
        fields = [ino, mode, 0, 0, 1, 0, len(data), 0, 0, rdev[0], rdev[1], len(raw), 0]
        out.extend(b"070701" + b"".join(b"%08X" % f for f in fields))
        out.extend(raw)
        pad()
        out.extend(data)
        pad()
    return bytes(out)


def initramfs_modules(kver):
    paths = []
    for m in INITRAMFS_MODULES:
        text = run(["modprobe", "-S", kver, "--show-depends", m])
        for line in text.splitlines():
            words = line.split()
            if words and words[0] == "insmod" and words[1] not in paths:
                paths.append(words[1])
    return paths


def build_initramfs(kver, kernel, cache_dir, tmp):
    """Returns the initramfs path, built (once per kernel and init) into cache_dir or tmp."""
    busybox = shutil.which("busybox", path="/bin:/usr/bin")
    if not busybox:
        raise HarnessError("busybox is missing: install busybox-static (scripts/install-deps.sh --guest)")
    with open(os.path.join(HERE, "guest", "initramfs-init"), "rb") as f:
        init = f.read()
    modules = initramfs_modules(kver)
    key = cache_key(kernel, init + "\n".join(modules).encode())
    target = os.path.join(cache_dir or tmp, f"initramfs-{kver}-{key}.cpio")
    if os.path.exists(target):
        return target
    with open(busybox, "rb") as f:
        busybox_data = f.read()
    if busybox_data[:4] != b"\x7fELF":
        raise HarnessError(f"{busybox} is not an executable")
    entries = [(d, stat.S_IFDIR | 0o755, b"", (0, 0)) for d in ("bin", "dev", "modules")]
    entries.append(("dev/console", stat.S_IFCHR | 0o600, b"", (5, 1)))
    entries.append(("bin/busybox", stat.S_IFREG | 0o755, busybox_data, (0, 0)))
    entries.append(("init", stat.S_IFREG | 0o755, init, (0, 0)))
    order = []
    for path in modules:
        with open(path, "rb") as f:
            data = f.read()
        name = os.path.basename(path)
        if name.endswith(".xz"):
            data, name = lzma.decompress(data), name[:-3]
        elif not name.endswith(".ko"):
            raise HarnessError(f"cannot unpack module {path}")
        entries.append((f"modules/{name}", stat.S_IFREG | 0o644, data, (0, 0)))
        order.append(name)
    entries.append(("modules/order", stat.S_IFREG | 0o644, ("\n".join(order) + "\n").encode(), (0, 0)))
    store(target, cpio_newc(entries))
    return target


# --------------------------------------------------------------------------- running


def run(cmd, stdin=None):
    try:
        p = subprocess.run(cmd, input=stdin, capture_output=True, text=True, check=False)
    except OSError as e:
        raise HarnessError(f"cannot run {cmd[0]}: {e}") from e
    if p.returncode != 0:
        raise HarnessError(f"{shlex.join(cmd)} failed ({p.returncode}):\n{p.stderr}{p.stdout}")
    return p.stdout


def set_death_signal():
    """qemu dies with the harness, even if the harness is killed with SIGKILL."""
    libc = ctypes.CDLL(None, use_errno=True)
    libc.prctl(1, signal.SIGKILL)  # PR_SET_PDEATHSIG


def remove_stale_dirs():
    """Removes temporary directories left by harness runs that were killed."""
    base = tempfile.gettempdir()
    for name in os.listdir(base):
        m = re.fullmatch(re.escape(TMP_PREFIX) + r"(\d+)-.*", name)
        if m and not os.path.exists(f"/proc/{m.group(1)}"):
            shutil.rmtree(os.path.join(base, name), ignore_errors=True)


def copy_script(src, dst):
    try:
        with open(src, "rb") as f:
            data = f.read()
    except OSError as e:
        raise HarnessError(f"cannot read {src}: {e}") from e
    if not data.startswith(b"#!"):
        raise HarnessError(f"{src}: a guest script must start with #!")
    with open(dst, "wb") as f:
        f.write(data)
    os.chmod(dst, 0o755)


def write_config(path, shares, groups, env):
    def array(name, values):
        return f"{name}=({' '.join(shlex.quote(v) for v in values)})\n"
    with open(path, "w", encoding="utf-8") as f:
        f.write(array("SHARES", [f"{tag}={d}" for tag, d in shares]))
        f.write(array("MODULE_GROUPS", groups))
        f.write(array("SCRIPT_ENV", env))


def boot(args, machine, tmp, log_path):
    """Builds the machine in tmp, boots it and returns the test script's (status, stdout, stderr)."""
    if os.geteuid() != 0:
        raise HarnessError("must run as root (qemu's 9p share of / and the guest's root user)")
    qemu = shutil.which("qemu-system-x86_64")
    if not qemu:
        raise HarnessError("qemu-system-x86_64 is missing: install qemu-system-x86 "
                           "(scripts/install-deps.sh --guest)")
    for tool in ("sfdisk", "mkfs.ext4", "modprobe"):
        if not shutil.which(tool):
            raise HarnessError(f"{tool} is missing (scripts/install-deps.sh --guest)")
    kver, kernel = (os.path.basename(args.kernel)[len("vmlinuz-"):], args.kernel) if args.kernel \
        else find_kernel()
    initramfs = build_initramfs(kver, kernel, args.cache_dir, tmp)
    kernel = unpack_kernel(kver, kernel, args.cache_dir, tmp)

    io = os.path.join(tmp, "io")
    os.mkdir(io)
    shutil.copy(os.path.join(HERE, "guest", "init"), os.path.join(io, "init"))
    copy_script(args.script, os.path.join(io, "test"))
    if "setup" in machine:
        copy_script(machine["setup"], os.path.join(io, "setup"))

    images = []
    for i, disk in enumerate(machine["disks"]):
        image = os.path.join(tmp, f"disk{i}.img")
        build_disk(disk, image, tmp, f"disk{i}", i)
        images.append(image)

    shares = []
    env = []
    share_dirs = ([args.build_dir] if args.build_dir else []) + args.share
    if len(share_dirs) > len(SLOTS_9P) - 2:
        raise HarnessError(f"at most {len(SLOTS_9P) - 2} shared directories")
    if args.build_dir:
        env.append(f"BUILD_DIR={args.build_dir}")
    os.mkdir(os.path.join(io, "state"))
    env.append(f"FSIC_STATE_DIR={GUEST_IO}/state")
    for i, d in enumerate(share_dirs):
        if not os.path.isdir(d):
            raise HarnessError(f"shared directory {d} does not exist")
        shares.append((f"share{i}", d))
    for e in args.env:
        if "=" not in e:
            raise HarnessError(f"--env wants NAME=VALUE, got {e!r}")
        env.append(e)

    # Every boot sees the same disk images; a second boot attaches them in the opposite
    # order, so that device names and slots change as they may after a real reboot.
    outs, errs = [], []
    status = 0
    for n in range(1, machine.get("boots", 1) + 1):
        order = list(range(len(images)))
        if n % 2 == 0:
            order.reverse()
        dargs, groups = disk_args([machine["disks"][i] for i in order], [images[i] for i in order])
        write_config(os.path.join(io, "config"), shares, groups, env + [f"FSIC_BOOT={n}"])
        for name in ("result", "stdout", "stderr") + (("setup",) if n > 1 else ()):
            if os.path.exists(os.path.join(io, name)):
                os.unlink(os.path.join(io, name))
        status, out, err = run_guest(args, qemu, machine, kernel, initramfs, io, shares, dargs, log_path)
        outs.append(out)
        errs.append(err)
        if status != 0:
            break
    return status, b"".join(outs), b"".join(errs)


def run_guest(args, qemu, machine, kernel, initramfs, io, shares, dargs, log_path):
    """Boots the guest once and returns the test script's (status, stdout, stderr)."""
    slots = iter(SLOTS_9P)
    fsdevs = [("hostroot", "/", True), ("io", io, False)] + [(t, d, False) for t, d in shares]
    cmd = [qemu, "-accel", "tcg", "-machine", "pc", "-cpu", "max", "-smp", "1",
           "-m", str(machine.get("memory_mib", 1024)),
           "-nodefaults", "-no-user-config", "-display", "none", "-monitor", "none",
           "-no-reboot", "-serial", f"file:{qemu_escape(log_path)}",
           "-kernel", kernel, "-initrd", initramfs,
           "-append", "console=ttyS0 panic=-1 quiet loglevel=4 rdinit=/init "
                      "usb_storage.delay_use=0 mitigations=off"]
    for tag, path, ro in fsdevs:
        cmd += ["-fsdev", f"local,id={tag},path={qemu_escape(path)},security_model=none,"
                          f"multidevs=remap{',readonly=on' if ro else ''}",
                "-device", f"virtio-9p-pci,fsdev={tag},mount_tag={tag},addr={next(slots):#x}"]
    cmd += dargs
    if args.verbose:
        print("run-guest:", shlex.join(cmd), file=sys.stderr)

    qemu_log = os.path.join(os.path.dirname(io), "qemu.log")
    started = time.monotonic()
    with open(qemu_log, "wb") as qlog:
        proc = subprocess.Popen(cmd, stdin=subprocess.DEVNULL, stdout=qlog, stderr=qlog,
                                preexec_fn=set_death_signal)
        try:
            proc.wait(timeout=args.timeout)
        except subprocess.TimeoutExpired:
            raise HarnessError(f"the guest did not finish within {args.timeout} s; qemu killed")
        finally:
            if proc.poll() is None:
                proc.kill()
                proc.wait()
            with open(qemu_log, "rb") as f:
                qemu_output = f.read().decode(errors="replace").strip()
            if qemu_output:
                print(f"run-guest: qemu said:\n{qemu_output}", file=sys.stderr)
    if args.verbose:
        print(f"run-guest: guest ran {time.monotonic() - started:.1f} s", file=sys.stderr)

    result_path = os.path.join(io, "result")
    if not os.path.exists(result_path):
        raise HarnessError(f"the guest stopped without a result (qemu exit status {proc.returncode})")
    with open(result_path, encoding="utf-8") as f:
        outcome, status = f.read().split()
    if outcome == "setup-failed":
        raise HarnessError(f"the machine's set-up script failed with status {status}")
    if outcome != "exit":
        raise HarnessError("the guest init failed")

    def read(name):
        with open(os.path.join(io, name), "rb") as f:
            return f.read()
    return int(status), read("stdout"), read("stderr")


def compare(prefix, status, out, err):
    ok = True
    expected = {}
    for what in ("stdout", "stderr", "status"):
        try:
            with open(f"{prefix}.{what}", "rb") as f:
                expected[what] = f.read()
        except OSError as e:
            raise HarnessError(f"cannot read expected {what}: {e}") from e
    actual = {"stdout": out, "stderr": err, "status": f"{status}\n".encode()}
    for what in ("stdout", "stderr", "status"):
        if expected[what] != actual[what]:
            ok = False
            diff = difflib.unified_diff(
                expected[what].decode(errors="replace").splitlines(keepends=True),
                actual[what].decode(errors="replace").splitlines(keepends=True),
                f"{prefix}.{what} (expected)", f"guest {what} (actual)")
            sys.stdout.write("".join(diff))
            if not expected[what].endswith(b"\n") or not actual[what].endswith(b"\n"):
                print(f"\n(differences in {what} may include a missing final newline)")
    if ok:
        print(f"run-guest: stdout, stderr and status {status} as expected")
    return ok


def main():
    p = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    p.add_argument("--machine", required=True, help="machine description (JSON)")
    p.add_argument("--script", required=True, help="the test script to run in the guest")
    p.add_argument("--expect", metavar="PREFIX",
                   help="compare with PREFIX.stdout, PREFIX.stderr and PREFIX.status")
    p.add_argument("--save", metavar="PREFIX",
                   help="also write the guest script's output to PREFIX.stdout/.stderr/.status")
    p.add_argument("--build-dir", help="shared at the same path in the guest; $BUILD_DIR there")
    p.add_argument("--share", action="append", default=[],
                   help="another directory shared at the same path (repeatable)")
    p.add_argument("--env", action="append", default=[], metavar="NAME=VALUE",
                   help="environment of the guest scripts (repeatable)")
    p.add_argument("--cache-dir", help="keep the initramfs here between runs")
    p.add_argument("--log", help="keep the guest's serial console log in this file")
    p.add_argument("--timeout", type=float, default=120, help="seconds the guest may run")
    p.add_argument("--kernel", help="kernel image (default: newest /boot/vmlinuz-*)")
    p.add_argument("-v", "--verbose", action="store_true")
    args = p.parse_args()
    for name in ("build_dir", "cache_dir", "log", "kernel"):
        if getattr(args, name):
            setattr(args, name, os.path.abspath(getattr(args, name)))
    args.share = [os.path.abspath(d) for d in args.share]
    os.environ["PATH"] = os.environ.get("PATH", "/usr/bin:/bin") + ":/usr/sbin:/sbin"

    signal.signal(signal.SIGTERM, die_on_signal)
    signal.signal(signal.SIGINT, die_on_signal)
    signal.signal(signal.SIGHUP, die_on_signal)

    log_path = args.log
    tmp = None
    try:
        remove_stale_dirs()
        tmp = tempfile.mkdtemp(prefix=f"{TMP_PREFIX}{os.getpid()}-")
        if not log_path:
            log_path = os.path.join(tmp, "console.log")
        elif os.path.exists(log_path):
            os.unlink(log_path)
        machine = load_machine(args.machine)
        status, out, err = boot(args, machine, tmp, log_path)
        if args.save:
            for what, data in (("stdout", out), ("stderr", err), ("status", f"{status}\n".encode())):
                with open(f"{args.save}.{what}", "wb") as f:
                    f.write(data)
        if args.expect:
            if compare(args.expect, status, out, err):
                return 0
            print_log(log_path)
            return 1
        sys.stdout.buffer.write(out)
        sys.stdout.flush()
        sys.stderr.buffer.write(err)
        sys.stderr.flush()
        return status
    except (HarnessError, Interrupted) as e:
        print(f"run-guest: error: {e}", file=sys.stderr)
        print_log(log_path)
        return HARNESS_FAILURE
    finally:
        signal.signal(signal.SIGTERM, signal.SIG_IGN)
        signal.signal(signal.SIGINT, signal.SIG_IGN)
        if tmp:
            shutil.rmtree(tmp, ignore_errors=True)


def print_log(path):
    if not path or not os.path.exists(path):
        return
    with open(path, "rb") as f:
        text = f.read().decode(errors="replace")
    text = text.replace("\r\n", "\n").rstrip() or "(empty)"
    print(f"run-guest: guest console log ({path}):\n{text}", file=sys.stderr)


if __name__ == "__main__":
    sys.exit(main())
