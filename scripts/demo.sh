#!/usr/bin/env bash
# The whole life of one virtual device, from a fresh Debian 12 machine:
# installs the dependencies, builds, makes a demonstration image (blank disks, no Android),
# then creates a device, starts it under QEMU (KVM when available, TCG otherwise), shows its
# ports and ADB serial, saves a snapshot, stops it, lists the snapshots, clones it,
# factory-resets the clone and deletes both.
#
# Usage: scripts/demo.sh [--no-build] [HOME_DIR]
#   HOME_DIR (or QV_DEMO_HOME): the QV_HOME to use; a temporary one, removed at the end, by default.
#   --no-build: use the qvctl already built in build/ (or the one named by QVCTL).
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)

build=1
home=${QV_DEMO_HOME:-}
for arg in "$@"; do
    case "$arg" in
        --no-build) build=0 ;;
        -h|--help) sed -n '2,12p' "$0"; exit 0 ;;
        *) home=$arg ;;
    esac
done

now() { date +%s%N; }
# seconds_since T0: the time since T0 (from now) in seconds.
seconds_since() { awk -v a="$1" -v b="$(now)" 'BEGIN { printf "%.1f", (b - a) / 1e9 }'; }
demo_start=$(now)
step_no=0
# step LABEL COMMAND...: runs one step, prints its output indented and its time.
step() {
    local label=$1; shift
    step_no=$((step_no + 1))
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
    # Never leave a QEMU behind, whatever failed.
    "$qvctl" stop demo >/dev/null 2>&1 || true
    "$qvctl" stop demo-clone >/dev/null 2>&1 || true
    rm -rf "$work"
}
trap cleanup EXIT

echo
echo "QV_HOME=$QV_HOME"
if [ -r /dev/kvm ] && [ -w /dev/kvm ]; then
    echo "Accelerator: KVM"
else
    echo "Accelerator: TCG (no usable /dev/kvm; slower, but the demo works the same)"
fi

step "Make a demonstration OS image (blank VMDK disks in an OVA, no Android inside)" \
    scripts/make-sample-image.sh "$work/image"
step "Check the QEMU installation" "$qvctl" check
step "Create device 'demo'" "$qvctl" create demo --image "$work/image/demo-image.json" \
    --profile "$work/image/demo-profile.json"
step "Start 'demo' under QEMU" "$qvctl" start demo
step "Show 'demo'" "$qvctl" info demo
step "Save snapshot 'demo_snapshot'" "$qvctl" snapshot save demo demo_snapshot
step "Stop 'demo'" "$qvctl" stop demo
step "List the snapshots of 'demo'" "$qvctl" snapshot list demo
step "Clone 'demo' to 'demo-clone'" "$qvctl" clone demo demo-clone
step "Factory-reset 'demo-clone'" "$qvctl" reset demo-clone
step "List the devices" "$qvctl" list
step "Delete 'demo-clone'" "$qvctl" delete demo-clone
step "Delete 'demo'" "$qvctl" delete demo
step "List the devices" "$qvctl" list

if ((own_home)); then
    echo
    echo "Removed the temporary QV_HOME."
fi
printf '\nDemo finished in %s s\n' "$(seconds_since "$demo_start")"
