#!/usr/bin/env bash
# Data safety through qvctl with the real qemu-img and QEMU, as three tables:
#  kills     qvctl is SIGKILLed at a step of create, clone or reset (or at a random moment);
#            the same command again must succeed and give disks that qemu-img compare finds
#            equal to the image (a clone: to its source), with nothing left in TMPDIR.
#  full disk QV_HOME on a small tmpfs, filled to a given free space before create, clone and
#            reset: the other device's files keep their hashes; the target is whole or absent.
#  races     two qvctl processes on one device at once: one wins, the other wins in turn or is
#            told the device runs, is busy or is gone, and no QEMU ever runs for a device that
#            reads stopped.
# Every row prints one line; the exit status is 1 when any row failed.
#
# Usage: scripts/data-safety.sh [--quick] BUILD_DIR
#   --quick runs one row of each table (the default test run does); otherwise every row, and
#   each race 20 times. The races start QEMU on the fixed ports: run it in a network namespace
#   of its own (tests/support/netns-run.sh does).
set -uo pipefail
quick=0
[ "${1:-}" = --quick ] && { quick=1; shift; }
root=$(cd "$(dirname "$0")/.." && pwd)
qvctl=$(cd "${1:?usage: data-safety.sh [--quick] BUILD_DIR}" && pwd)/tools/qvctl/qvctl
img=$(command -v qemu-img) && qemu=$(command -v qemu-system-x86_64) || { echo "data-safety: QEMU is missing" >&2; exit 1; }
work=$(mktemp -d)
trap 'pkill -9 -f "$work/" 2>/dev/null; [ -n "${QV_KEEP:-}" ] || rm -rf "$work"' EXIT
failures=0
report() {  # report TABLE ROW VERDICT [DETAIL]
    printf '%-9s %-44s %s %s\n' "$1" "$2" "$3" "${4:-}"
    [ "$3" = ok ] || failures=$((failures + 1))
}

# The image: disks of random data, so that a cut-short copy never compares equal by chance.
mkdir -p "$work/parts" "$work/bin"
head -c 6M /dev/urandom >"$work/system.raw" && head -c 3M /dev/urandom >"$work/data.raw"
"$img" convert -O vmdk -o subformat=streamOptimized "$work/system.raw" "$work/parts/system.vmdk"
"$img" convert -O vmdk -o subformat=streamOptimized "$work/data.raw" "$work/parts/data.vmdk"
echo '<Envelope/>' >"$work/parts/image.ovf"
tar -C "$work/parts" -cf "$work/image.ova" image.ovf system.vmdk data.vmdk
profile=$root/tests/data/tools/profile.json

# qemu-img stand-in: kills qvctl (its parent) before, during or after the call that matches
# QV_KILL_AT; QEMU itself is the real program under the engine's own path.
cat >"$work/bin/qemu-img" <<EOF
#!/usr/bin/env bash
[ -n "\${QV_KILL_AT:-}" ] && [[ "\$*" =~ \$QV_KILL_AT ]] || exec "$img" "\$@"
case "\$QV_KILL_WHEN" in
    before) kill -9 \$PPID ;;
    during) "$img" "\$@" & sleep 0.02; kill -9 \$PPID; wait ;;
    after) "$img" "\$@"; kill -9 \$PPID ;;
esac
exit 1
EOF
chmod +x "$work/bin/qemu-img"
ln -s "$qemu" "$work/bin/qemu-system-x86_64"
export QV_QEMU_BIN_DIR=$work/bin TMPDIR=$work/tmp
unset QV_TRIGGER_ERROR QV_QEMU_START_ARGS
mkdir -p "$TMPDIR"

home() { export QV_HOME=$work/home$1; mkdir -p "$QV_HOME"; devices=$QV_HOME/.Lumarik/Quorvel/deployed; }
q() { "$qvctl" ${verbose:-} "$@" >>"${qlog:-$work/qvctl.log}" 2>&1; }
create() { q create "$1" --image "${image:-$work/image.ova}" --profile "$profile" --sdcard 8; }
op() { if [ "$1" = create ]; then create "$2"; else q "$@"; fi; }
same() { "$img" compare -q "$1" "$2" 2>/dev/null; }
# A device whose disks hold the image's data and whose SD card is 8 MiB.
whole() {
    same "$work/parts/system.vmdk" "$devices/$1/system.qcow2" && same "$work/parts/data.vmdk" "$devices/$1/data.qcow2" \
        && "$img" info "$devices/$1/sdcard.qcow2" 2>/dev/null | grep -q '^virtual size: 8 MiB'
}
hashes() { (cd "$devices/$1" 2>/dev/null && find . -type f -print0 | sort -z | xargs -0 -r sha1sum); }
# QEMU processes whose command line names a device folder.
qemus() { pgrep -f -- "file=$devices/$1/system.qcow2" | wc -l; }
state() { "$qvctl" --json info "$1" 2>/dev/null | python3 -c 'import json,sys; print(json.load(sys.stdin)["state"])' 2>/dev/null || echo absent; }

# --- kills -------------------------------------------------------------------------------
# A row: operation, the call of qemu-img to kill at (or a delay in ms), and when.
kill_rows=(
    "create|^convert .*system.vmdk|during" "create|^convert .*data.vmdk|after" "create|^info .*system.vmdk|before"
    "create|^create -f qcow2 -b|after" "create|sdcard.qcow2 8M|before" "create|sdcard.qcow2 8M|after"
    "clone|delay|" "reset|^create -f qcow2 -b|before" "reset|^create -f qcow2 -b|during" "reset|^create -f qcow2 -b|after"
)
for i in $(seq 1 10); do kill_rows+=("$(shuf -n1 -e create clone reset)|delay|"); done
((quick)) && kill_rows=("${kill_rows[1]}")
n=0
for row in "${kill_rows[@]}"; do
    IFS='|' read -r op at when <<<"$row"
    n=$((n + 1)); home "k$n"
    [ "$op" = create ] || create a || { report kills "$row" FAILED "(setup)"; continue; }
    [ "$op" = reset ] && "$img" create -q -f qcow2 "$devices/a/data.qcow2.new" 3M && mv "$devices/a/data.qcow2.new" "$devices/a/data.qcow2"
    case $op in
        create) cmd=("$qvctl" create a --image "$work/image.ova" --profile "$profile" --sdcard 8) ;;
        clone) cmd=("$qvctl" clone a b) ;;
        reset) cmd=("$qvctl" reset a) ;;
    esac
    # The shell's own "Killed" notice goes with the rest of the first run's output.
    { if [ "$at" = delay ]; then
        when=$((RANDOM % 400))ms
        timeout -s KILL "0.$(printf %03d "${when%ms}")" "${cmd[@]}"
    else
        QV_KILL_AT=$at QV_KILL_WHEN=$when "${cmd[@]}"
    fi; } >>"$work/qvctl.log" 2>&1
    "${cmd[@]}" >>"$work/qvctl.log" 2>&1
    target=a; [ "$op" = clone ] && target=b
    if whole "$target" && [ -z "$(ls -A "$TMPDIR")" ]; then report kills "$op at ${at} $when" ok
    else report kills "$op at ${at} $when" FAILED "(disks differ or TMPDIR not empty)"; fi
done

# --- full disk ---------------------------------------------------------------------------
full_disk() {  # runs in a mount namespace of its own
    home f && mount -t tmpfs -o size=40m tmpfs "$QV_HOME" && devices=$QV_HOME/.Lumarik/Quorvel/deployed || return 1
    # One file system for everything, as on most machines: the temporary folder fills up too.
    export TMPDIR=$QV_HOME/tmp && mkdir -p "$TMPDIR"
    create a || { report "full disk" "setup" FAILED; return; }
    local free ops=(create clone reset) frees=(0 64 512 1024 2048 3072 4096 6144 8192 16384)
    ((quick)) && frees=(2048)
    for free in "${frees[@]}"; do
        for op in "${ops[@]}"; do
            local before; before=$(hashes a)
            local avail=$(($(stat -f -c '%a*%S' "$QV_HOME") / 1024 - free))
            ((avail > 0)) && fallocate -l "${avail}K" "$QV_HOME/filler"
            case $op in create) create b ;; clone) q clone a b ;; reset) q reset a ;; esac
            rm -f "$QV_HOME/filler"
            local verdict=ok
            [ -z "$(ls -A "$TMPDIR")" ] || verdict=FAILED
            if [ "$op" = reset ]; then { [ "$(hashes a)" = "$before" ] || whole a; } || verdict=FAILED
            else { [ "$(hashes a)" = "$before" ] && { [ ! -e "$devices/b" ] || whole b; }; } || verdict=FAILED; fi
            report "full disk" "$op with $free KiB free" $verdict
            q delete b
        done
    done
}
if ((!quick)) || unshare -m true 2>/dev/null; then
    export -f full_disk report home create q whole same hashes
    export quick work qvctl img profile
    unshare -m bash -c 'failures=0; full_disk; exit $failures' || failures=$((failures + $?))
else
    echo "data-safety: no mount namespace here; the full-disk table is skipped" >&2
fi

# --- races -------------------------------------------------------------------------------
# A row: the two commands, and whether one of them must lose (otherwise both may win in turn).
race_rows=("start a|start a|loser" "start a|delete a|loser" "create b|create c|" "clone a d|delete a|" "reset a|start a|")
# What a loser may say (its log shown with -v): the device runs, is busy, or is gone already.
lost='Nothing to do|already running|busy with another operation|is running[:;] stop it first|no device named|no longer exists'
# One side of a race: its exit status and output go to race-N.out.
side() { local qlog=$work/race-$1.out verbose=-v; shift; : >"$qlog"; op "$@"; echo "exit $?" >>"$qlog"; }
rounds=20
((quick)) && rounds=1
for row in "${race_rows[@]}"; do
    bad=0
    IFS='|' read -r first second loser <<<"$row"
    for r in $(seq 1 $rounds); do
        n=$((n + 1)); home "r$n"
        # Two first creates need an image nobody prepared yet: a copy is an image of its own.
        image=
        if [ "$first" = "create b" ]; then image=$work/image$n.ova && cp "$work/image.ova" "$image"; else create a || { bad=$((bad + 1)); echo "  round $r: set-up failed" >&2; continue; }; fi
        (side 1 $first) & (side 2 $second) & wait
        cat "$work"/race-[12].out >>"$work/qvctl.log"
        # Each side wins (exit 0) or says why it lost; one side always wins.
        won=0 told=0
        for k in 1 2; do
            grep -q '^exit 0$' "$work/race-$k.out" && won=$((won + 1))
            grep -Eq "$lost" "$work/race-$k.out" && told=$((told + 1))
            grep -q '^exit 0$' "$work/race-$k.out" || grep -Eq "$lost" "$work/race-$k.out" \
                || { bad=$((bad + 1)); echo "  round $r: side $k failed without saying why: $(tail -n 3 "$work/race-$k.out" | tr '\n' ' ')" >&2; }
        done
        ((won >= 1)) || { bad=$((bad + 1)); echo "  round $r: neither side won" >&2; }
        [ -z "$loser" ] || ((told >= 1)) || { bad=$((bad + 1)); echo "  round $r: no side was told it lost" >&2; }
        for dev in a b c d; do
            s=$(state $dev) running=$(qemus $dev)
            { [ "$s" = running ] && [ "$running" = 1 ]; } || { [ "$s" != running ] && [ "$running" = 0 ]; } \
                || { bad=$((bad + 1)); echo "  round $r: $dev reads $s with $running QEMU" >&2; }
            case $dev:$first in
                b:create* | c:create* | d:clone*) { [ "$s" = absent ] && [ "$dev" = d ]; } || whole $dev \
                    || { bad=$((bad + 1)); echo "  round $r: $dev is not whole" >&2; } ;;
            esac
            [ "$s" != running ] || q stop $dev
        done
    done
    if ((bad == 0)); then report races "$first & $second x$rounds" ok; else report races "$first & $second x$rounds" FAILED "($bad broken)"; fi
done

echo "data-safety: $failures failed row(s)"
((failures == 0))
