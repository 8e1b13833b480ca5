# What the stories share: a folder of their own, children that end with it, commands and what is expected of them.
# shellcheck shell=bash

work=$(mktemp -d)
cd "$work" || exit
children=()
cleanup() {
    for child in "${children[@]}"; do kill "$child" 2>/dev/null || true; done
    wait 2>/dev/null || true
    rm -rf "$work"
}
trap cleanup EXIT

fail() { echo "FAILED: $*" >&2; cat ./*.log >&2; exit 1; }
trap 'fail "line $LINENO"' ERR
# A log gets a text; the limit is reached only by a fault.
await() {
    timeout 60 grep -qm1 -- "$2" <(tail --pid=$$ -n +1 -F "$1" 2>/dev/null) || fail "no \"$2\" in $1"
}
# A command prints a text, and ends with the code.
expect() {
    local code=$1 text=$2 actual=0
    shift 2
    "$@" >output.log 2>&1 || actual=$?
    [ "$actual" = "$code" ] || fail "$* ended with $actual, not $code"
    grep -q -- "$text" output.log || fail "$* does not say: $text"
}
ctl() { certmgrctl --socket "$work/daemon.sock" "$@"; }
secret() { (umask 077; openssl rand -hex 8 >"$1"); }

# Starts the daemon on daemon.toml.
start_daemon() {
    certmgrd --config daemon.toml 2>daemon.log &
    children+=($!)
    await daemon.log "certmgrd runs"
}
