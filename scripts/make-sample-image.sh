#!/usr/bin/env bash
# Makes a demonstration OS image: an OVA (tar) of blank VMDK disks, plus a matching OS image
# description and a small hardware profile. There is no Android inside: QEMU boots the blank
# disks to its firmware and waits, which is enough to exercise every device operation.
#
# Usage: scripts/make-sample-image.sh OUTPUT_DIR [RAM_MIB]
# Writes OUTPUT_DIR/demo-image.ova, OUTPUT_DIR/demo-image.json and OUTPUT_DIR/demo-profile.json.
set -euo pipefail

out=${1:?usage: make-sample-image.sh OUTPUT_DIR [RAM_MIB]}
ram=${2:-256}
command -v qemu-img >/dev/null || { echo "qemu-img is missing: run scripts/install-deps.sh" >&2; exit 1; }
mkdir -p "$out"
out=$(cd "$out" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

qemu-img create -q -f vmdk "$work/system.vmdk" 64M
qemu-img create -q -f vmdk "$work/data.vmdk" 32M
cat > "$work/demo-image.ovf" <<'OVF'
<?xml version="1.0" encoding="UTF-8"?>
<!-- Demonstration image: blank disks, no operating system. -->
<Envelope xmlns="http://schemas.dmtf.org/ovf/envelope/1">
  <References>
    <File ovf:id="system" ovf:href="system.vmdk" xmlns:ovf="http://schemas.dmtf.org/ovf/envelope/1"/>
    <File ovf:id="data" ovf:href="data.vmdk" xmlns:ovf="http://schemas.dmtf.org/ovf/envelope/1"/>
  </References>
</Envelope>
OVF
tar -C "$work" -cf "$out/demo-image.ova" demo-image.ovf system.vmdk data.vmdk

cat > "$out/demo-image.json" <<JSON
{
    "version": "1.1.0",
    "name": "Demo image (blank disks, no Android)",
    "uuid": "$(cat /proc/sys/kernel/random/uuid)",
    "build_date": "$(date -u +%Y-%m-%dT%H:%M:%SZ)",
    "source": "USER",
    "supported_form_factors": ["PHONE"],
    "os_version": { "os_version": "11.0.0", "sdk_version": 30 },
    "image_version": "1.0.0",
    "arch": "x86_64",
    "image_uri": "$out/demo-image.ova",
    "image_size_bytes": $(stat -c %s "$out/demo-image.ova"),
    "image_hash": "",
    "is_beta": false
}
JSON

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
echo "$out/demo-image.ova"
