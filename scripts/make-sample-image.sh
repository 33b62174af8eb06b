#!/usr/bin/env bash
# Makes a demonstration OS image: an OVA (tar) whose system.vmdk boots a tiny Linux guest and
# whose data.vmdk is blank, plus a matching OS image description and a small hardware profile.
# There is no Android inside. The guest (scripts/demo-guest/) serves a line protocol on port
# 5555, the guest side of the ADB forward: ping, put TEXT, get, fill MIB.
#
# The guest is built from Debian's packages alone: the kernel of linux-image-amd64 with its
# virtio and ATA modules, and busybox-static in an initramfs, fetched with `apt-get download`
# and unpacked into a scratch folder (nothing is installed on the host). syslinux, mtools,
# dosfstools and fdisk make the system disk bootable without root or loop devices.
#
# Usage: scripts/make-sample-image.sh [--ide|--both] [--blank] OUTPUT_DIR [RAM_MIB]
# Writes OUTPUT_DIR/demo-image.ova, OUTPUT_DIR/demo-image.json and OUTPUT_DIR/demo-profile.json.
# --ide: the image says Android 8.0.0, so the library attaches its disks through IDE, not
# virtio; writes demo-image-ide.ova and demo-image-ide.json instead (and the same profile).
# --both: both images from one build of the guest. The guest answers ping with
# "pong qvdemo-virtio" or "pong qvdemo-ide", after the disks it finds.
# --blank: a blank system disk instead of the guest (no downloads), for runs of many idle devices.
# QV_DEMO_DEB_CACHE=DIR keeps the downloaded packages in DIR for the next run.
set -euo pipefail

variants=(virtio)
blank=0
args=()
for arg in "$@"; do
    case "$arg" in
        --ide) variants=(ide) ;;
        --both) variants=(virtio ide) ;;
        --blank) blank=1 ;;
        -h|--help) sed -n '2,20p' "$0"; exit 0 ;;
        *) args+=("$arg") ;;
    esac
done
out=${args[0]:?usage: make-sample-image.sh [--ide|--both] [--blank] OUTPUT_DIR [RAM_MIB]}
ram=${args[1]:-256}
guest_src=$(cd "$(dirname "$0")/demo-guest" && pwd)
tools=(qemu-img)
((blank)) || tools+=(apt-get dpkg-deb cpio gzip sfdisk mkfs.vfat mcopy syslinux)
for tool in "${tools[@]}"; do
    command -v "$tool" >/dev/null || { echo "$tool is missing: run scripts/install-deps.sh" >&2; exit 1; }
done
mbr=/usr/lib/syslinux/mbr/mbr.bin
((blank)) || [ -r "$mbr" ] || { echo "$mbr is missing: run scripts/install-deps.sh" >&2; exit 1; }

mkdir -p "$out"
out=$(cd "$out" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

if ((blank)); then
    # No guest at all: QEMU waits in its firmware, which costs the host next to nothing.
    qemu-img create -q -f vmdk "$work/system.vmdk" 64M
else
    # --- The guest's parts, unpacked into the scratch folder ---
    debs=${QV_DEMO_DEB_CACHE:-$work/debs}
    mkdir -p "$debs"
    # As root, apt downloads as its sandbox user, who cannot enter a private scratch folder.
    apt_options=()
    [ "$(id -u)" -ne 0 ] || apt_options=(-o APT::Sandbox::User=root)
    kernel_pkg=$(apt-cache depends linux-image-amd64 2>/dev/null | awk '/Depends: linux-image-[0-9]/ { print $2; exit }')
    [ -n "$kernel_pkg" ] || { echo "linux-image-amd64 is unknown to apt: run apt-get update" >&2; exit 1; }
    for pkg in "$kernel_pkg" busybox-static; do
        if ! compgen -G "$debs/${pkg}_*.deb" >/dev/null; then
            (cd "$debs" && apt-get download -qq "${apt_options[@]}" "$pkg") || { echo "cannot download $pkg" >&2; exit 1; }
        fi
        dpkg-deb -x "$(compgen -G "$debs/${pkg}_*.deb" | sort | tail -n 1)" "$work/root"
    done
    kroot=$work/root
    kver=${kernel_pkg#linux-image-}
    moddir=$kroot/lib/modules/$kver
    vmlinuz=$kroot/boot/vmlinuz-$kver
    busybox=$kroot/bin/busybox
    [ -r "$vmlinuz" ] && [ -d "$moddir" ] && [ -x "$busybox" ] || { echo "unexpected package contents" >&2; exit 1; }

    # --- The initramfs: busybox, the guest's scripts, the drivers in load order ---
    rd=$work/initramfs
    mkdir -p "$rd/bin" "$rd/etc" "$rd/lib/modules"
    cp "$busybox" "$rd/bin/busybox"
    ln -s busybox "$rd/bin/sh"
    cp "$guest_src/init" "$rd/init"
    cp "$guest_src/qv-handler" "$rd/bin/qv-handler"
    chmod 755 "$rd/init" "$rd/bin/qv-handler"

    # The package leaves modules.dep to depmod at install time, and depmod reads every module;
    # each module names its own dependencies in its .modinfo section, which is all we need.
    declare -A module_file=() loaded=()
    while IFS= read -r file; do
        name=${file##*/}
        name=${name%%.ko*}
        module_file[${name//-/_}]=$file
    done < <(find "$moddir" -name '*.ko*')
    # module_data FILE: the module's ELF, whatever it was compressed with.
    module_data() {
        case "$1" in
            *.ko.xz) xz -dc "$1" ;;
            *.ko.zst) zstd -qdc "$1" ;;
            *.ko.gz) gzip -dc "$1" ;;
            *) cat "$1" ;;
        esac
    }
    # add_module NAME: NAME after everything it depends on, uncompressed (busybox insmod loads ELF).
    add_module() {
        local name=${1//-/_} file dep
        [ -z "${loaded[$name]:-}" ] || return 0
        loaded[$name]=1
        file=${module_file[$name]:-}
        [ -n "$file" ] || { echo "module $name not found in $kernel_pkg" >&2; return 1; }
        module_data "$file" > "$rd/lib/modules/$name.ko"
        for dep in $(tr '\0' '\n' < "$rd/lib/modules/$name.ko" | LC_ALL=C sed -n 's/^depends=//p' | tr ',' ' '); do
            add_module "$dep" || return
        done
        echo "$name" >> "$rd/etc/modules"
    }
    for module in virtio_pci virtio_blk virtio_net ata_piix sd_mod; do
        add_module "$module"
    done
    (cd "$rd" && find . | LC_ALL=C sort | cpio -o -H newc -R 0:0 --quiet) | gzip -9 > "$work/initrd.gz"

    # --- The system disk: one active FAT partition from 1 MiB on, syslinux in it and the MBR ---
    cat > "$work/syslinux.cfg" <<CFG
DEFAULT demo
PROMPT 0
TIMEOUT 0
LABEL demo
    LINUX /vmlinuz
    INITRD /initrd.gz
    APPEND quiet loglevel=3
CFG
    disk=$work/system.raw
    disk_mib=24
    truncate -s "${disk_mib}M" "$disk"
    echo 'start=2048, type=6, bootable' | sfdisk -q "$disk"
    mkfs.vfat -n QVDEMO --offset 2048 "$disk" $(((disk_mib - 1) * 1024)) >/dev/null
    mcopy -i "$disk@@1M" "$vmlinuz" ::vmlinuz
    mcopy -i "$disk@@1M" "$work/initrd.gz" ::initrd.gz
    mcopy -i "$disk@@1M" "$work/syslinux.cfg" ::syslinux.cfg
    syslinux --offset $((1024 * 1024)) --install "$disk"
    dd if="$mbr" of="$disk" bs=440 count=1 conv=notrunc status=none

    qemu-img convert -q -f raw -O vmdk -o subformat=streamOptimized "$disk" "$work/system.vmdk"
fi
qemu-img create -q -f vmdk -o subformat=streamOptimized "$work/data.vmdk" 32M
for variant in "${variants[@]}"; do
    if [ "$variant" = ide ]; then
        base=demo-image-ide os_version=8.0.0 sdk=26 title="Demo guest (IDE disks, no Android)"
    else
        base=demo-image os_version=11.0.0 sdk=30 title="Demo guest (virtio disks, no Android)"
    fi
    ((!blank)) || title="Demo image (blank disks, no Android)"
    cat > "$work/$base.ovf" <<'OVF'
<?xml version="1.0" encoding="UTF-8"?>
<!-- Demonstration image: no Android inside. -->
<Envelope xmlns="http://schemas.dmtf.org/ovf/envelope/1">
  <References>
    <File ovf:id="system" ovf:href="system.vmdk" xmlns:ovf="http://schemas.dmtf.org/ovf/envelope/1"/>
    <File ovf:id="data" ovf:href="data.vmdk" xmlns:ovf="http://schemas.dmtf.org/ovf/envelope/1"/>
  </References>
</Envelope>
OVF
    tar -C "$work" -cf "$out/$base.ova" "$base.ovf" system.vmdk data.vmdk
    cat > "$out/$base.json" <<JSON
{
    "version": "1.1.0",
    "name": "$title",
    "uuid": "$(cat /proc/sys/kernel/random/uuid)",
    "build_date": "$(date -u +%Y-%m-%dT%H:%M:%SZ)",
    "source": "USER",
    "supported_form_factors": ["PHONE"],
    "os_version": { "os_version": "$os_version", "sdk_version": $sdk },
    "image_version": "1.0.0",
    "arch": "x86_64",
    "image_uri": "$out/$base.ova",
    "image_size_bytes": $(stat -c %s "$out/$base.ova"),
    "image_hash": "",
    "is_beta": false
}
JSON
    echo "$out/$base.ova ($(( ($(stat -c %s "$out/$base.ova") + 1048575) / 1048576 )) MiB)"
done

cat > "$out/demo-profile.json" <<JSON
{
    "version": "1.0.0",
    "uuid": "$(cat /proc/sys/kernel/random/uuid)",
    "source": "USER",
    "sharer_email": "",
    "form_factor": "PHONE",
    "cpu_count": 1,
    "ram_size": $ram,
    "data_disk_size": 32,
    "sd_card_size": 0,
    "skin": "",
    "display_settings": {
        "display_mode": "REGULAR",
        "hw_navigation_keys": false,
        "displays": [ { "width": 720, "height": 1280, "density": 320, "physical_size": 5.0,
                        "bottom_corner_radius": 0, "top_corner_radius": 0, "content_padding": 0 } ]
    },
    "device_properties": {
        "product_model": "Demo", "product_brand": "Demo", "product_name": "demo",
        "product_manufacturer": "Demo", "product_board": "demo", "product_device": "demo",
        "build_display_id": "demo", "build_type": "user", "build_fingerprint": "demo/demo:11/user",
        "build_tags": "release-keys", "serialno": "DEMO0001", "vm_heap_size": 256
    }
}
JSON
