#!/bin/sh
# The service as systemd starts it: a child of process 1, with a real systemd-journald behind the journal's socket.
#
#     tests/process_1_test.sh BUILD_FOLDER
#
# Runs itself again as process 1 of a PID namespace with a /run of its own. Status 77: cannot be tried here.
set -eu
build=$1
journald=/lib/systemd/systemd-journald

if [ "${2:-}" != inside ]; then
    [ "$(id -u)" -eq 0 ] && [ -x $journald ] && [ -e /etc/machine-id ] && unshare --mount --pid --fork true 2>/dev/null || {
        echo "needs root, namespaces and systemd-journald"
        exit 77
    }
    place=$(mktemp -d /tmp/kxtest-XXXXXX)
    status=0
    PLACE=$place unshare --mount --pid --fork --kill-child sh "$0" "$build" inside || status=$?
    rm -rf "$place"
    exit $status
fi

mount --make-rprivate /
mount -t proc proc /proc
mount -t tmpfs tmpfs /run
mkdir -p /run/log/journal "$PLACE/etc/default" "$PLACE/etc/brisal/amazon" "$PLACE/var/log/brisal" "$PLACE/data"
cat /proc/sys/kernel/random/uuid | tr -d - >"$PLACE/machine-id"
mount --bind "$PLACE/machine-id" /etc/machine-id

fail() {
    echo "FAILED: $*"
    journalctl --no-pager -q -o short-monotonic | tail -n 20
    exit 1
}
until_true() { # words, command...
    words=$1
    shift
    tries=0
    until "$@" >/dev/null 2>&1; do
        tries=$((tries + 1))
        [ $tries -lt 150 ] || fail "$words"
        sleep 0.2
    done
}
# An entry with this text, level, and source file.
told() { journalctl --no-pager -q -o cat "CODE_FILE=$2" "PRIORITY=$3" | grep -qF "$1"; }

$journald 2>"$PLACE/journald.log" &
until_true "journald does not listen" test -S /run/systemd/journal/socket

export KXTEST_SYSROOT="$PLACE"
# The test program's places and waits; else it is the shipped one.
service=$build/tests/kxamazon

status=0
sh -c '"$1"; exit $?' sh "$service" >"$PLACE/out" || status=$?
[ $status -eq 1 ] && grep -q "should be started by systemd" "$PLACE/out" || fail "a grandchild may run the service"

status=0
"$service" || status=$?
[ $status -eq 255 ] || fail "status $status when not linked"
until_true "no entry by field" told "Not provisioned" service.cpp 3

"$build/bin/kxcloud" --listen 127.0.0.1:0 >"$PLACE/cloud" &
until_true "kxcloud does not listen" grep -q . "$PLACE/cloud"
KXTEST_CLOUD_URL=$(head -n 1 "$PLACE/cloud")
export KXTEST_CLOUD_URL
{
    echo "AMAZONDRIVE_PROVISION=$(printf state=authorized | "$build/bin/kxseal" 1)"
    echo "AMAZONDRIVE_ACCESS_TOKEN=a"
    echo "AMAZONDRIVE_REFRESH_TOKEN=b"
} >"$PLACE/etc/default/services"
echo "<config><ShareId>${PLACE#/}/data</ShareId></config>" >"$PLACE/etc/brisal/amazon/config.xml"

"$service" -v 3 &
pid=$!
until_true "no initial sync" told "Initial sync complete" sync.cpp 6
kill -USR1 $pid
status=0
wait $pid || status=$?
[ $status -eq 0 ] || fail "status $status after the stop"
until_true "the last entry is lost" told "Exit from service()" service.cpp 7
echo "The journal has $(journalctl --no-pager -q -o cat CODE_FILE=service.cpp | wc -l) entries of service.cpp"
