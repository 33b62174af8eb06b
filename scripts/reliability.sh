#!/usr/bin/env bash
# Reliability suite (not part of the default test run; bounded runtime). It runs in a network
# namespace of its own, so that the user's running devices do not take port offsets from it.
#  - starts 100 devices one after another with the real QEMU through qvctl on a temporary
#    QV_HOME. The fixed port table lets only some of them run side by side: offset o + 504
#    needs port 24296 + o + 504 = 24800 + o, which the device at offset o holds, so 72 fit.
#    Those get exactly the offsets the plan gives and answer QMP on their socket; every later
#    start fails with "Failed to determine a port offset" and launches nothing; all stop
#    gracefully leaving no lock file and no QEMU process;
#  - boots five demonstration guests side by side: each answers ping on its forwarded port,
#    all at once;
#  - kills a running QEMU with SIGKILL: the device then reads stopped and the next start works;
#  - starts two devices from two processes at once, 20 times: both start, at different offsets;
#  - saves a snapshot of a 4 GiB guest whose memory holds 2.75 GiB of random data, which
#    QEMU needs well over 10 s to write: the save succeeds and qemu-img lists the snapshot;
#  - runs every row of scripts/data-safety.sh (kills, full disk, races);
#  - runs every fuzz target for five minutes (scripts/fuzz.sh 300).
# Prints tables of figures; exits non-zero when any check fails or is skipped.
#
# Usage: scripts/reliability.sh [--no-build] [--fuzz-seconds N] [BUILD_DIR]
#   BUILD_DIR defaults to build; --fuzz-seconds 0 skips the fuzzing (and so fails the suite).
#   QV_RELIABILITY_DEVICES changes the number of devices; a number the port plan can hold side
#   by side skips the check of the starts beyond it.
set -uo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)

dir=build
build=1
fuzz_seconds=300
devices=${QV_RELIABILITY_DEVICES:-100}
while (($#)); do
    case "$1" in
        --no-build) build=0 ;;
        --fuzz-seconds) fuzz_seconds=${2:?}; shift ;;
        *) dir=$1 ;;
    esac
    shift
done

if [ -z "${QV_RELIABILITY_IN_NETNS:-}" ]; then
    if ((build)); then
        scripts/build.sh "$dir" >/dev/null || { echo "reliability: build failed" >&2; exit 1; }
    fi
    # The images first: the namespace has no way out to Debian's mirrors for the guest's parts.
    images=$(mktemp -d)
    if ! scripts/make-sample-image.sh --blank "$images/blank" 128 >"$images/make.log" 2>&1 ||
        ! scripts/make-sample-image.sh "$images/guest" >>"$images/make.log" 2>&1; then
        cat "$images/make.log" >&2
        echo "reliability: cannot make the images" >&2
        rm -rf "$images"
        exit 1
    fi
    # Without a namespace of its own the suite fails rather than skip its device checks.
    QV_RELIABILITY_IMAGES=$images QV_RELIABILITY_IN_NETNS=1 QV_REQUIRE_QEMU=1 exec sh tests/support/netns-run.sh \
        bash "$root/scripts/reliability.sh" --no-build --fuzz-seconds "$fuzz_seconds" "$dir"
fi
qvctl=$root/$dir/tools/qvctl/qvctl
[ -x "$qvctl" ] || qvctl=$dir/tools/qvctl/qvctl
[ -x "$qvctl" ] || { echo "reliability: no qvctl in $dir" >&2; exit 1; }

work=$(mktemp -d)
images=${QV_RELIABILITY_IMAGES:?}
export QV_HOME=$work/home
mkdir -p "$QV_HOME"
unset QV_TRIGGER_ERROR QV_QEMU_START_ARGS QV_OSIMAGE_ARCH_LIST

# Pids of the QEMU processes that the lock files name.
locked_pids() {
    find "$QV_HOME" -name qemu.lock -exec sed -n 's/^pid=//p' {} + 2>/dev/null
}
cleanup() {
    for pid in $(locked_pids); do kill -9 "$pid" 2>/dev/null || true; done
    rm -rf "$work" "$images"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

boot_timeout=${QV_RELIABILITY_BOOT_TIMEOUT:-300}
# shellcheck source=guest-client.sh
source scripts/guest-client.sh
ms_since() { echo $((($(now) - $1) / 1000000)); }

declare -a figures
failures=0
figure() {  # figure NAME VALUE EXPECTED VERDICT
    figures+=("$1|$2|$3|$4")
    [ "$4" = ok ] || failures=$((failures + 1))
}
verdict() { [ "$1" = "$2" ] && echo ok || echo FAILED; }

json_field() {  # json_field PYTHON_EXPRESSION_ON_d < json
    python3 -c "import json,sys; d=json.load(sys.stdin); print($1)"
}

qmp_answers() {  # qmp_answers DEVICE [SECONDS]: true when its QMP socket greets and takes
                 # qmp_capabilities, each within SECONDS (default 5)
    python3 - "$QV_HOME/.Lumarik/Quorvel/deployed/$1/qmp.sock" "${2:-5}" <<'PY'
import socket, sys
def line(s):
    data = b""
    while b"\n" not in data:
        chunk = s.recv(4096)
        if not chunk:
            break
        data += chunk
    return data
try:
    with socket.socket(socket.AF_UNIX) as s:
        s.settimeout(float(sys.argv[2]))
        s.connect(sys.argv[1])
        ok = b'"QMP"' in line(s)
        s.sendall(b'{"execute":"qmp_capabilities"}\n')
        sys.exit(0 if ok and b'"return"' in line(s) else 1)
except OSError:
    sys.exit(1)
PY
}

echo "reliability: QV_HOME=$QV_HOME" >&2

# Devices started one after another, more than the port plan holds side by side.
last_offset=693
offset_step=7
names=()
for i in $(seq -w 1 "$devices"); do names+=("r$i"); done
created=0
t0=$(now)
for name in "${names[@]}"; do
    "$qvctl" create "$name" --image "$images/blank/demo-image.json" --profile "$images/blank/demo-profile.json" \
        >/dev/null 2>&1 && created=$((created + 1))
done
figure "devices created" "$created" "$devices" "$(verdict "$created" "$devices")"
figure "creation time per device" "$(($(ms_since "$t0") / devices)) ms" "-" ok

# QEMU processes of this run: alive, not zombies, running the QEMU program on our QV_HOME.
our_qemu_count() {
    local n=0 exe
    for exe in /proc/[0-9]*/exe; do
        [ "$(basename "$(readlink "$exe" 2>/dev/null)")" = qemu-system-x86_64 ] || continue
        grep -qF "$QV_HOME/" "${exe%/exe}/cmdline" 2>/dev/null &&
            ! grep -q '^State:.*Z' "${exe%/exe}/status" 2>/dev/null && n=$((n + 1))
    done
    echo "$n"
}

# The host base ports of the forwards, read from a running QEMU's command line.
forward_bases() {
    local lock p
    lock=$(find "$QV_HOME" -name qemu.lock | head -n1)
    [ -n "$lock" ] || return 0
    tr '\0' '\n' <"/proc/$(sed -n 's/^pid=//p' "$lock")/cmdline" | grep -o 'hostfwd=tcp:[0-9.]*:[0-9]*' |
        cut -d: -f3 | while read -r p; do echo $((p - $(sed -n 's/^offset=//p' "$lock"))); done
}
# plan_offsets N BASES...: the offsets of N devices started one after another, each the lowest
# offset of the plan whose host ports none of the devices before it holds.
plan_offsets() {
    local n=$1; shift
    awk -v n="$n" -v last=$last_offset -v step=$offset_step -v bases="$*" 'BEGIN {
        k = split(bases, b, " ")
        for (o = 0; o <= last && got < n; o += step) {
            free = 1
            for (i = 1; i <= k; i++) if ((b[i] + o) in taken) free = 0
            if (!free) continue
            for (i = 1; i <= k; i++) taken[b[i] + o] = 1
            print o; got++
        }
    }'
}

# Names the port that keeps the lowest untaken offset of the plan from the next start, and the
# running device that holds it.
declare -A device_at  # offset -> device
explain_no_offset() {
    local o p base other bases
    for ((o = 0; o <= last_offset; o += offset_step)); do [ -n "${device_at[$o]:-}" ] || break; done
    bases=$(forward_bases)
    for base in $bases; do
        p=$((base + o))
        ss -Hltn "sport = :$p" | grep -q . || continue
        for other in $bases; do
            [ -n "${device_at[$((p - other))]:-}" ] &&
                echo "reliability: offset $o is not free: its port $p ($base + $o) is $other + $((p - other)), a port of ${device_at[$((p - other))]}" >&2
        done
    done
}

started=0
ran=()
offsets=()
start_ms=()
refused=0
refused_cleanly=0
t0=$(now)
for ((i = 0; i < devices; i++)); do
    s0=$(now)
    before=$(our_qemu_count)
    if reply=$("$qvctl" --json start "${names[$i]}" 2>"$work/start.err"); then
        started=$((started + 1))
        offsets+=("$(json_field 'd["ports"]["offset"]' <<<"$reply")")
        device_at[${offsets[-1]}]=${names[$i]}
        ran[$i]=1
    elif grep -q "Failed to determine a port offset" "$work/start.err"; then
        # A start the plan cannot hold: nothing launched, no lock written.
        ((refused++)) || explain_no_offset
        [ "$(our_qemu_count)" = "$before" ] && [ ! -e "$QV_HOME/.Lumarik/Quorvel/deployed/${names[$i]}/qemu.lock" ] &&
            refused_cleanly=$((refused_cleanly + 1))
    else
        echo "reliability: ${names[$i]} did not start: $(tail -n 2 "$work/start.err")" >&2
    fi
    start_ms+=("$(ms_since "$s0")")
done
total_start=$(ms_since "$t0")
bases=$(forward_bases)
planned=$(plan_offsets "$devices" $bases)
capacity=$(grep -c . <<<"$planned")
figure "forwarded base ports" "$(wc -w <<<"$bases")" 8 "$(verdict "$(wc -w <<<"$bases")" 8)"
figure "devices the plan holds at once" "$capacity" "-" ok
figure "devices started" "$started" "$capacity" "$(verdict "$started" "$capacity")"
figure "start time, total" "$((total_start / 1000)) s" "-" ok
mapfile -t plan <<<"$planned"
differ="none"
for ((i = 0; i < ${#offsets[@]} || i < capacity; i++)); do
    [ "${offsets[$i]:-}" = "${plan[$i]:-}" ] || { differ="device $((i + 1)): ${offsets[$i]:-none}, not ${plan[$i]:-none}"; break; }
done
figure "offsets unlike the plan's" "$differ" none "$(verdict "$differ" none)"
figure "offsets, lowest / highest" "$(printf '%s\n' "${offsets[@]}" | sort -n | sed -n '1p;$p' | paste -sd/)" "-" ok

answered=0
for ((i = 0; i < devices; i++)); do
    ((${ran[$i]:-0})) || continue
    if qmp_answers "${names[$i]}"; then answered=$((answered + 1)); else echo "reliability: ${names[$i]} does not answer QMP" >&2; fi
done
figure "devices answering QMP" "$answered" "$started" "$(verdict "$answered" "$started")"
qemu_running=$(for pid in $(locked_pids); do [ -d /proc/$pid ] && echo "$pid"; done | wc -l)
figure "QEMU processes running" "$qemu_running" "$started" "$(verdict "$qemu_running" "$started")"
rss=$(for pid in $(locked_pids); do awk '/VmRSS/ { print $2 }' /proc/$pid/status 2>/dev/null; done |
      awk '{ s += $1 } END { printf "%d", s / 1024 }')
figure "resident memory of all QEMU" "$rss MiB" "-" ok
figure "resident memory per QEMU" "$((rss / (qemu_running > 0 ? qemu_running : 1))) MiB" "-" ok

# Every start beyond what the plan holds fails in the engine and launches no QEMU.
beyond=$((devices - capacity))
if ((beyond > 0)); then
    figure "starts beyond the plan refused" "$refused" "$beyond" "$(verdict "$refused" "$beyond")"
    figure "  with no QEMU and no lock left" "$refused_cleanly" "$beyond" "$(verdict "$refused_cleanly" "$beyond")"
else
    figure "starts beyond the plan" "skipped: $devices devices fit" "-" SKIPPED
fi

pids=$(locked_pids)
stopped=0
stop_ms=()
t0=$(now)
for ((i = 0; i < devices; i++)); do
    s0=$(now)
    # A device that never ran answers its stop with success too: it does not count.
    "$qvctl" stop "${names[$i]}" >/dev/null 2>&1 && ((${ran[$i]:-0})) && stopped=$((stopped + 1))
    stop_ms+=("$(ms_since "$s0")")
done
figure "devices stopped" "$stopped" "$devices" "$(verdict "$stopped" "$devices")"
figure "stop time, total" "$(($(ms_since "$t0") / 1000)) s" "-" ok
# A QEMU process of ours: alive, not a zombie, and running the QEMU program.
is_qemu() {
    [ -d "/proc/$1" ] && ! grep -q '^State:.*Z' "/proc/$1/status" 2>/dev/null &&
        [ "$(basename "$(readlink "/proc/$1/exe" 2>/dev/null)")" = qemu-system-x86_64 ]
}
locks=$(find "$QV_HOME" -name qemu.lock | wc -l)
figure "lock files left" "$locks" 0 "$(verdict "$locks" 0)"
left=$(for pid in $pids; do is_qemu "$pid" && echo "$pid"; done | wc -l)
figure "QEMU processes left at once" "$left" 0 "$(verdict "$left" 0)"
if ((left)); then
    for pid in $pids; do is_qemu "$pid" && echo "reliability: QEMU $pid still runs: $(tr '\0' ' ' </proc/$pid/cmdline | cut -c1-200)" >&2; done
    sleep 5
    later=$(for pid in $pids; do is_qemu "$pid" && echo "$pid"; done | wc -l)
    figure "QEMU processes left after 5 s" "$later" 0 "$(verdict "$later" 0)"
fi

# Five booted demonstration guests side by side, each answering on its own forwarded port.
# They live in a home of their own: the blank image above has the same versions, and the
# library refuses a second archive for versions it has already prepared.
guests=5
booted=0
boot_times=()
home_of_blank=$QV_HOME
export QV_HOME=$home_of_blank/guests
mkdir -p "$QV_HOME"
if [ -f "$images/guest/demo-image.json" ]; then
    pairs=()
    for i in $(seq "$guests"); do
        answer=
        if "$qvctl" create "g$i" --image "$images/guest/demo-image.json" --profile "$images/guest/demo-profile.json" >>"$work/guest.log" 2>&1 &&
            t0=$(now) && "$qvctl" start "g$i" >>"$work/guest.log" 2>&1 && answer=$(wait_for_guest "g$i" "$t0"); then
            booted=$((booted + 1))
            pairs+=("g$i=qvdemo-virtio")
            boot_times+=("$(sed -n 's/.* \([0-9.]*\) s after the start command$/\1/p' <<<"$answer")")
        else
            echo "reliability: guest g$i: ${answer:-}" >>"$work/guest.log"
        fi
    done
    together=no
    ((booted == guests)) && side_by_side "${pairs[@]}" >>"$work/guest.log" && together=yes
else
    together="no image"
fi
figure "demo guests booted" "$booted" "$guests" "$(verdict "$booted" "$guests")"
figure "  boot to first answer, s" "$(printf '%s\n' "${boot_times[@]}" | paste -sd' ')" "-" ok
figure "  all answer at once" "$together" yes "$(verdict "$together" yes)"
[ "$together" = yes ] || cat "$work/guest.log" >&2
for i in $(seq "$guests"); do "$qvctl" stop "g$i" >/dev/null 2>&1; "$qvctl" delete "g$i" >/dev/null 2>&1; done
export QV_HOME=$home_of_blank

# A QEMU killed behind the library's back.
first=${names[0]}
"$qvctl" start "$first" >/dev/null 2>&1
pid=$(locked_pids | head -n1)
recovered=no
if [ -z "$pid" ]; then
    echo "reliability: $first did not start" >&2
elif kill -9 "$pid"; then
    for _ in $(seq 50); do is_qemu "$pid" || break; sleep 0.1; done
    state=$("$qvctl" --json info "$first" 2>/dev/null | json_field 'd["state"]')
    if [ "$state" != stopped ]; then
        echo "reliability: after SIGKILL the device reads '$state'" >&2
    elif ! restart=$("$qvctl" start "$first" 2>&1); then
        echo "reliability: the start after SIGKILL failed: $restart" >&2
    elif "$qvctl" stop "$first" >/dev/null 2>&1; then
        recovered=yes
    fi
fi
figure "state after SIGKILL, next start" "$recovered" yes "$(verdict "$recovered" yes)"

# Two processes start two devices at once, again and again: both must start, at different
# port offsets, every time.
races=${QV_RELIABILITY_RACES:-20}
if ((devices < 2)); then
    figure "racing starts" "skipped: fewer than 2 devices" "-" SKIPPED
else
    a=${names[0]}
    b=${names[1]}
    race_started=0
    race_distinct=0
    race_table=()
    for try in $(seq "$races"); do
        "$qvctl" --json start "$a" >"$work/race-a" 2>"$work/race-a.err" &
        pa=$!
        "$qvctl" --json start "$b" >"$work/race-b" 2>"$work/race-b.err" &
        pb=$!
        wait $pa; ra=$?
        wait $pb; rb=$?
        oa=$(json_field 'd["ports"]["offset"]' <"$work/race-a" 2>/dev/null || echo -)
        ob=$(json_field 'd["ports"]["offset"]' <"$work/race-b" 2>/dev/null || echo -)
        race_table+=("$try|$ra|$oa|$rb|$ob")
        if ((ra == 0 && rb == 0)); then
            race_started=$((race_started + 1))
            [ "$oa" != "$ob" ] && race_distinct=$((race_distinct + 1))
        else
            tail -n 3 "$work/race-a.err" "$work/race-b.err" >&2
        fi
        "$qvctl" stop "$a" >/dev/null 2>&1
        "$qvctl" stop "$b" >/dev/null 2>&1
    done
    echo
    printf '%-5s  %-11s  %-8s  %-11s  %s\n' try "$a exit" offset "$b exit" offset
    for row in "${race_table[@]}"; do
        IFS='|' read -r try ra oa rb ob <<<"$row"
        printf '%-5s  %-11s  %-8s  %-11s  %s\n' "$try" "$ra" "$oa" "$rb" "$ob"
    done
    figure "racing starts, both started" "$race_started" "$races" "$(verdict "$race_started" "$races")"
    figure "racing starts, distinct offsets" "$race_distinct" "$races" "$(verdict "$race_distinct" "$races")"
fi

for name in "${names[@]}"; do "$qvctl" delete "$name" >/dev/null 2>&1; done

# A slow savevm: QEMU stops the guest at once and answers only when its memory is written.
# Random data fills the guest's memory through QEMU's loader device (below 2 GiB and above
# 4 GiB, where any 4 GiB machine has RAM).
# The same image as above (another archive of the same versions would be refused), 4 GiB of RAM.
mkdir -p "$work/big"
python3 -c 'import json,sys; p=json.load(open(sys.argv[1])); p["ram_size"]=4096; print(json.dumps(p))' \
    "$images/blank/demo-profile.json" >"$work/big/demo-profile.json"
blobs=
for blob in 1024M@0x10000000 768M@0x50000000 1024M@0x100000000; do
    head -c "${blob%@*}" /dev/urandom >"$work/big/${blob#*@}.bin"
    blobs+="&-device[-1]=loader,file=$work/big/${blob#*@}.bin,addr=${blob#*@}"
done
saved=no
if "$qvctl" create big --image "$images/blank/demo-image.json" --profile "$work/big/demo-profile.json" >"$work/savevm.log" 2>&1 \
    && QV_QEMU_START_ARGS=${blobs#&} "$qvctl" start big >>"$work/savevm.log" 2>&1; then
    # QEMU copies the data into the guest's memory before it answers QMP again.
    for _ in $(seq 120); do qmp_answers big 1 && break; sleep 1; done
    t0=$(now)
    "$qvctl" snapshot save big slow >>"$work/savevm.log" 2>&1 && saved=yes
    took=$(ms_since "$t0")
    figure "savevm of a 4 GiB guest" "$took ms" "> 10000 ms" "$( ((took > 10000)) && echo ok || echo FAILED)"
    "$qvctl" stop big >/dev/null 2>&1
    qemu-img snapshot -l "$QV_HOME/.Lumarik/Quorvel/deployed/big/system.qcow2" | grep -qw slow || saved="$saved, not listed"
fi
[ "$saved" = yes ] || cat "$work/savevm.log" >&2
figure "savevm succeeded and listed" "$saved" yes "$(verdict "$saved" yes)"
"$qvctl" delete big >/dev/null 2>&1
rm -f "$work"/big/*.bin

# Kills at each step, a full disk and racing pairs, every row.
if scripts/data-safety.sh "$dir" >"$work/data-safety.log" 2>&1; then safety=passed; else safety=failed; grep -v ' ok' "$work/data-safety.log" >&2; fi
figure "data safety (scripts/data-safety.sh)" "$safety" passed "$(verdict "$safety" passed)"

if ((fuzz_seconds > 0)); then
    t0=$(now)
    if scripts/fuzz.sh "$fuzz_seconds" >"$work/fuzz.log" 2>&1; then fuzz=passed; else fuzz=failed; tail -n 40 "$work/fuzz.log" >&2; fi
    targets=$(ls fuzz/fuzz_*.cpp | wc -l)
    figure "fuzz targets x ${fuzz_seconds}s" "$targets targets $fuzz" passed "$(verdict "$fuzz" passed)"
    figure "fuzzing time" "$(($(ms_since "$t0") / 1000)) s" "-" ok
else
    figure "fuzz targets" "skipped: --fuzz-seconds 0" "-" SKIPPED
fi

# Start and stop times against the device's position in the row of starts.
echo
printf '%-9s  %-19s  %s\n' devices "start ms mean/max" "stop ms mean/max"
for ((p = 0; p < devices; p += 10)); do
    end=$((p + 10 < devices ? p + 10 : devices))
    printf '%-9s  %-19s  %s\n' "$((p + 1))-$end" \
        "$(printf '%s\n' "${start_ms[@]:p:end-p}" | awk '{ s += $1; if ($1 > m) m = $1 } END { printf "%d / %d", s / NR, m }')" \
        "$(printf '%s\n' "${stop_ms[@]:p:end-p}" | awk '{ s += $1; if ($1 > m) m = $1 } END { printf "%d / %d", s / NR, m }')"
done
echo
printf '%-34s  %-20s  %-9s  %s\n' figure value expected verdict
printf '%-34s  %-20s  %-9s  %s\n' ---------------------------------- -------------------- --------- -------
for row in "${figures[@]}"; do
    IFS='|' read -r name value expected result <<<"$row"
    printf '%-34s  %-20s  %-9s  %s\n' "$name" "$value" "$expected" "$result"
done
echo
if ((failures)); then
    skipped=$(printf '%s\n' "${figures[@]}" | grep -c '|SKIPPED$')
    echo "reliability: $failures check(s) failed, $skipped of them skipped"
    exit 1
fi
echo "reliability: all checks passed"
