# Talks to the demonstration guest through a device's forwarded ADB port (127.0.0.1:6555 +
# offset -> guest port 5555). Sourced by scripts/demo.sh and scripts/reliability.sh; they set
# $qvctl (the qvctl to ask for ports) and $boot_timeout (seconds a guest may take to answer).

now() { date +%s%N; }
# seconds_since T0: the time since T0 (from now) in seconds.
seconds_since() { awk -v a="$1" -v b="$(now)" 'BEGIN { printf "%.1f", (b - a) / 1e9 }'; }

# fail MESSAGE: says what went wrong and fails the check it is called from.
fail() { echo "FAILED: $*"; return 1; }

# port_of NAME: the host port that forwards to the guest's port 5555, as qvctl reports it.
port_of() {
    "$qvctl" info "$1" | sed -n 's/^adbSerial: *127\.0\.0\.1:\([0-9][0-9]*\)$/\1/p'
}

# ask TIMEOUT PORT REQUEST...: sends the requests on one connection to the guest and prints
# one answer line per request; fails when an answer takes more than TIMEOUT seconds.
ask() {
    local timeout=$1 port=$2 fd line
    shift 2
    exec {fd}<>"/dev/tcp/127.0.0.1/$port" || return 1
    printf '%s\n' "$@" >&"$fd" || { exec {fd}<&-; return 1; }
    for _ in "$@"; do
        IFS= read -r -t "$timeout" line <&"$fd" || { exec {fd}<&-; return 1; }
        printf '%s\n' "$line"
    done
    exec {fd}<&-
}

# expect REQUEST WANTED PORT: asks the guest and checks the answer word for word.
expect() {
    local answer
    answer=$(ask 60 "$3" "$1" 2>/dev/null) || fail "no answer to '$1' on 127.0.0.1:$3" || return
    [ "$answer" = "$2" ] || fail "'$1' answered '$answer', expected '$2'" || return
    echo "$1 -> '$answer'"
}

# wait_for_guest NAME T0: waits until the guest of NAME answers ping on its forwarded port,
# and tells how long that took since T0. Until the guest listens, the forward takes the
# connection but never answers, so each try is short.
wait_for_guest() {
    local port t0=$2 answer
    port=$(port_of "$1")
    [ -n "$port" ] || fail "qvctl info $1 shows no ADB serial" || return
    while :; do
        if answer=$(ask 2 "$port" ping 2>/dev/null) && [[ $answer == "pong "* ]]; then
            echo "127.0.0.1:$port answered '$answer' $(seconds_since "$t0") s after the start command"
            return 0
        fi
        # A guest that KVM could not run never answers: say why instead of waiting it out.
        if "$qvctl" log "$1" 2>/dev/null | grep -q '^KVM internal error'; then
            "$qvctl" log "$1" | head -n 12
            fail "QEMU stopped the guest of $1 with a KVM internal error: this host's KVM cannot run it (see \"KVM that cannot boot the guest\" in the README)" || return
        fi
        if [ $(( ($(now) - t0) / 1000000000 )) -ge "$boot_timeout" ]; then
            "$qvctl" log "$1" | tail -n 12
            fail "the guest of $1 did not answer on 127.0.0.1:$port within $boot_timeout s" || return
        fi
        sleep 0.5
    done
}

# start_and_wait NAME: starts NAME and waits for its guest.
start_and_wait() {
    local t0
    t0=$(now)
    "$qvctl" start "$1" || return
    wait_for_guest "$1" "$t0"
}

# snapshot_on_disk NAME SNAPSHOT: qemu-img shows SNAPSHOT on the system disk of the stopped
# NAME with the machine's state in it.
snapshot_on_disk() {
    local dir listing size
    dir=$("$qvctl" info "$1" | sed -n 's/^path: *//p')
    listing=$(qemu-img snapshot -l "$dir/system.qcow2" | sed 's/ *$//') || fail "qemu-img cannot read $dir/system.qcow2" || return
    echo "\$ qemu-img snapshot -l .../$1/system.qcow2"
    echo "$listing"
    size=$(awk -v tag="$2" '$2 == tag { print $3, $4 }' <<<"$listing")
    [ -n "$size" ] || fail "no snapshot $2 on the system disk" || return
    awk -v s="${size%% *}" 'BEGIN { exit !(s + 0 > 0) }' ||
        fail "snapshot $2 holds no machine state (VM size $size)" || return
    echo "snapshot $2 holds $size of machine state"
}

# side_by_side NAME=HOST...: every guest answers ping, with its host name, while all of them
# run. The guest names itself after the disk bus that the library gave it.
side_by_side() {
    local name host port fds=() ports=() fd answer pair
    for pair in "$@"; do
        name=${pair%%=*}
        port=$(port_of "$name")
        [ -n "$port" ] || fail "qvctl info $name shows no ADB serial" || return
        [[ " ${ports[*]} " != *" $port "* ]] || fail "$name shares port $port with another device" || return
        exec {fd}<>"/dev/tcp/127.0.0.1/$port" || fail "cannot connect to 127.0.0.1:$port" || return
        fds+=("$fd") ports+=("$port")
    done
    for fd in "${fds[@]}"; do echo ping >&"$fd"; done
    local i=0
    for pair in "$@"; do
        name=${pair%%=*} host=${pair#*=}
        IFS= read -r -t 60 answer <&"${fds[$i]}" || answer=
        [ "$answer" = "pong $host" ] ||
            fail "$name answered '$answer' on 127.0.0.1:${ports[$i]}, expected 'pong $host'" || return
        echo "$name on 127.0.0.1:${ports[$i]}: ping -> '$answer'"
        i=$((i + 1))
    done
    for fd in "${fds[@]}"; do exec {fd}<&-; done
}
