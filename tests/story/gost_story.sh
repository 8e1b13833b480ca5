#!/usr/bin/env bash
# The same day with each kind of GOST key: a new token of the GOST module, a request, an authority that is openssl with
# its engine, import, verification, export and revocation.
#
#     gost_story.sh FOLDER_OF_THE_PROGRAMS GOST_MODULE
set -Eeuo pipefail

PATH=$1:$PATH
module=$2
here=$(dirname "$(readlink -f "$0")")
# shellcheck source=tests/story/common.sh
. "$here/common.sh"
# shellcheck source=scripts/pki
. "$here/../../scripts/pki"

for name in pin so password; do secret $name; done
cat >daemon.toml <<END
[bridge]
socket = "daemon.sock"
[[tokens.provider]]
name = "gost"
module = "$module"
init_args = "directory=$work/state"
[tokens]
poll_interval_milliseconds = 100
END
start_daemon

# ALG KEY HASH: names of scripts/pki and of certmgrctl. Everything is named by ALG.
story() {
    local alg=$1 key=$2 hash=$3
    mkdir "$alg"
    pki_new "$work/$alg" http://127.0.0.1:1  # where nobody answers: CRLs come by hand
    pki_root "$work/$alg" root "$alg"
    expect 0 "Initialised token \"$alg\"" ctl token init "$alg" --pin-file pin --so-pin-file so
    expect 0 "Logged in" ctl token login "$alg" --pin-file pin
    expect 0 "Wrote" ctl request make "CN=$alg, O=Story" -t "$alg" --key "$key" --hash "$hash" --dns host.example \
        --exportable -o "$alg/host.csr"
    openssl req -engine gost -in "$alg/host.csr" -verify -noout 2>verify.log
    grep -q "verify OK" verify.log || fail "openssl refuses the request"
    pki_certify "$work/$alg" host "$alg" root host
    cat "$alg/host.pem" "$alg/root.pem" >"$alg/bundle.pem"
    expect 0 "imported" ctl import "$alg/bundle.pem" -t "$alg" --yes --so-pin-file so
    expect 0 "Logged in" ctl token login "$alg" --pin-file pin
    expect 0 "$key" ctl show "CN=$alg" -t "$alg"
    expect 0 "good" ctl verify "CN=$alg" -t "$alg"
    # The key leaves as openssl's, and is the certified one.
    expect 0 "Wrote" ctl export "CN=$alg" -t "$alg" -o "$alg/host.p12" --with-key --password-file password
    openssl pkcs12 -engine gost -in "$alg/host.p12" -passin file:password -nodes >"$alg/from-p12.pem" 2>/dev/null
    openssl pkey -engine gost -in "$alg/from-p12.pem" -pubout 2>/dev/null |
        cmp - <(openssl req -engine gost -in "$alg/host.csr" -noout -pubkey 2>/dev/null)
    pki_revoke "$work/$alg" host root keyCompromise
    pki_crl "$work/$alg" root "$alg"
    expect 0 "" ctl crl import "$alg/root.crl" -t "$alg"
    expect 1 "[Rr]evoked" ctl verify "CN=$alg" -t "$alg" --crl strict
}

story gost2001 "GOST R 34.10-2001" "GOST R 34.11-94"
story gost2012_256 "GOST R 34.10-2012-256" "GOST R 34.11-2012-256"
story gost2012_512 "GOST R 34.10-2012-512" "GOST R 34.11-2012-512"
echo "The story went as it should."
