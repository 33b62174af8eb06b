#!/bin/sh
# Runs a test in a private network namespace with loopback up, so that the fixed device ports
# meet neither the user's running devices nor another run. Exit 77 tells CTest it skipped.
flags=-n
[ "$(id -u)" -eq 0 ] || flags=-rn
if unshare $flags sh -c 'ip link set lo up' 2>/dev/null; then
    exec unshare $flags sh -c 'ip link set lo up && exec "$@"' sh "$@"
fi
if [ "${QV_REQUIRE_QEMU:-}" = 1 ]; then
    echo "FAIL: no private network namespace here (unshare $flags), and QV_REQUIRE_QEMU=1" >&2
    exit 1
fi
echo "SKIP: no private network namespace here (unshare $flags failed); this test uses the fixed device ports" >&2
exit 77
