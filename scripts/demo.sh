#!/usr/bin/env bash
# The whole life of one virtual device, from a fresh Debian 12 machine:
# installs the dependencies, builds, makes two demonstration images (a tiny Linux guest, no
# Android: one with virtio disks, one with IDE disks), then creates a device, starts it under
# QEMU (KVM when available, TCG otherwise) and checks each step through the guest's answers on
# the forwarded ADB port: a stored text survives a snapshot, a stop and a clone, a factory
# reset wipes it, and a second device answers beside the first. Deletes every device at the end.
#
# Usage: scripts/demo.sh [--no-build] [HOME_DIR]
#   HOME_DIR (or QV_DEMO_HOME): the QV_HOME to use; a temporary one, removed at the end, by default.
#   --no-build: use the qvctl already built in build/ (or the one named by QVCTL).
#   QV_DEMO_BOOT_TIMEOUT: seconds a guest may take to answer after its start (default 180).
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)

build=1
home=${QV_DEMO_HOME:-}
for arg in "$@"; do
    case "$arg" in
        --no-build) build=0 ;;
        -h|--help) sed -n '2,13p' "$0"; exit 0 ;;
        *) home=$arg ;;
    esac
done
boot_timeout=${QV_DEMO_BOOT_TIMEOUT:-180}
# shellcheck source=guest-client.sh
source scripts/guest-client.sh

demo_start=$(now)
step_no=0
step_label=
# step LABEL COMMAND...: runs one step, prints its output indented and its time.
step() {
    local label=$1; shift
    step_no=$((step_no + 1))
    step_label=$label
    printf '\n[%d] %s\n' "$step_no" "$label"
    local t0 rc=0
    t0=$(now)
    "$@" 2>&1 | sed 's/^/    /' || rc=${PIPESTATUS[0]}
    printf '    -> %s (%s s)\n' "$([ "$rc" -eq 0 ] && echo ok || echo "FAILED, exit $rc")" "$(seconds_since "$t0")"
    return "$rc"
}

if ((build)); then
    step "Install the dependencies" scripts/install-deps.sh
    step "Build" scripts/build.sh build
fi
qvctl=${QVCTL:-$root/build/tools/qvctl/qvctl}
[ -x "$qvctl" ] || { echo "qvctl not found at $qvctl: run without --no-build" >&2; exit 1; }

work=$(mktemp -d)
own_home=0
if [ -z "$home" ]; then
    home=$work/home
    own_home=1
fi
mkdir -p "$home"
export QV_HOME=$home

cleanup() {
    local rc=$? name
    # Never leave a QEMU behind, whatever failed.
    for name in demo demo-clone demo-ide; do
        "$qvctl" stop "$name" >/dev/null 2>&1 || true
    done
    rm -rf "$work"
    if [ "$rc" -ne 0 ]; then
        printf '\nDemo FAILED at step %d (%s), exit %d\n' "$step_no" "$step_label" "$rc" >&2
    fi
}
trap cleanup EXIT

echo
echo "QV_HOME=$QV_HOME"
# QEMU needs to open the node read-write; root passes any permission test, so try the open.
if ( : <>/dev/kvm ) 2>/dev/null; then
    echo "Accelerator: KVM"
else
    echo "Accelerator: TCG (no usable /dev/kvm; slower, but the demo works the same)"
fi

image=$work/image
export QV_DEMO_DEB_CACHE=${QV_DEMO_DEB_CACHE:-$work/debs}
step "Make the demonstration OS images (a tiny Linux guest with virtio disks, and with IDE disks)" \
    scripts/make-sample-image.sh --both "$image"
step "Check the QEMU installation" "$qvctl" check
step "Create device 'demo' (virtio disks)" "$qvctl" create demo --image "$image/demo-image.json" \
    --profile "$image/demo-profile.json"
step "Start 'demo' and wait for its guest" start_and_wait demo
port=$(port_of demo)
step "Store 'hello' on the data disk of 'demo'" expect "put hello" ok "$port"
step "Save snapshot 'demo_snapshot' while 'demo' runs" "$qvctl" snapshot save demo demo_snapshot
step "Stop 'demo'" "$qvctl" stop demo
step "The snapshot holds the running machine" snapshot_on_disk demo demo_snapshot
step "Start 'demo' again and wait for its guest" start_and_wait demo
step "The data disk of 'demo' kept 'hello'" expect get hello "$(port_of demo)"
step "Stop 'demo'" "$qvctl" stop demo
step "Clone 'demo' to 'demo-clone'" "$qvctl" clone demo demo-clone
step "Start 'demo-clone' and wait for its guest" start_and_wait demo-clone
step "The clone has 'hello' too" expect get hello "$(port_of demo-clone)"
step "Stop 'demo-clone'" "$qvctl" stop demo-clone
step "Factory-reset 'demo-clone'" "$qvctl" reset demo-clone
step "Start 'demo-clone' and wait for its guest" start_and_wait demo-clone
step "The reset clone's data disk is blank (an empty answer)" expect get "" "$(port_of demo-clone)"
step "Stop 'demo-clone'" "$qvctl" stop demo-clone
step "Create device 'demo-ide' (IDE disks)" "$qvctl" create demo-ide --image "$image/demo-image-ide.json" \
    --profile "$image/demo-profile.json"
step "Start 'demo' and wait for its guest" start_and_wait demo
step "Start 'demo-ide' beside it and wait for its guest" start_and_wait demo-ide
step "Both answer at the same time, each on its own port" side_by_side demo=qvdemo-virtio demo-ide=qvdemo-ide
step "List the devices" "$qvctl" list
step "Stop 'demo-ide'" "$qvctl" stop demo-ide
step "Stop 'demo'" "$qvctl" stop demo
step "Delete 'demo-ide'" "$qvctl" delete demo-ide
step "Delete 'demo-clone'" "$qvctl" delete demo-clone
step "Delete 'demo'" "$qvctl" delete demo
step "List the devices" "$qvctl" list

if ((own_home)); then
    echo
    echo "Removed the temporary QV_HOME."
fi
printf '\nDemo finished in %s s\n' "$(seconds_since "$demo_start")"
