#!/usr/bin/env bash
# A person's day with the programs alone: from an empty token to certificates, exports and keys, and back to an empty
# store; then two certificates fit a connection, and the agent is asked.
#
#     story.sh FOLDER_OF_THE_PROGRAMS
set -Eeuo pipefail

PATH=$1:$PATH
# shellcheck source=tests/story/common.sh
. "$(dirname "$(readlink -f "$0")")/common.sh"

for name in pin so wrong password key; do secret $name; done
openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout ca.key -out ca.pem -days 365 \
    -subj "/O=Story/CN=Story Root" -addext keyUsage=critical,keyCertSign,cRLSign 2>/dev/null
cat >daemon.toml <<END
[bridge]
socket = "daemon.sock"
[tokens]
softhsm_directory = "tokens"
poll_interval_milliseconds = 100
END
expect 3 "no daemon" ctl status
start_daemon

# --- The story ---
expect 0 'Initialised token "alice"' ctl token init alice --pin-file pin --so-pin-file so
expect 6 "" ctl token login alice --pin-file wrong
expect 6 "try-anyway" ctl token login alice --pin-file pin
expect 0 "Logged in" ctl token login alice --pin-file pin --try-anyway
# A pipe is waited for, whenever its writer comes.
mkfifo -m 600 pipe
cat pin >pipe &
expect 0 "Logged in" ctl token login alice --pin-file pipe
expect 0 "256, 384, 521 bits" ctl request mechanisms
# What the CA gives out for a request: its name, and the serial number.
certify() {
    openssl x509 -req -in "$1.csr" -CA ca.pem -CAkey ca.key -set_serial "$2" -days "$3" -out "$1.pem" \
        -extfile <(printf 'keyUsage=digitalSignature\nextendedKeyUsage=1.3.6.1.5.5.7.3.17\nsubjectAltName=DNS:alice.example\n') \
        2>/dev/null
}
expect 0 "Wrote alice.csr" ctl request make "CN=alice, O=Story" --dns alice.example --exportable -o alice.csr
expect 1 "alice.csr is there already" ctl request make "CN=alice, O=Story" -o alice.csr
openssl req -in alice.csr -verify -noout 2>/dev/null
expect 0 "key pair" ctl list
certify alice 0xA11CE1 10
cat alice.pem ca.pem >bundle.pem
expect 0 "Story Root, O=Story\|O=Story, CN=Story Root" ctl import bundle.pem --yes --so-pin-file so
expect 0 "Logged in" ctl token login alice --pin-file pin
expect 0 "already" ctl import alice.pem --as personal
expect 0 "personal .* (\(9\|10\) days)" ctl list personal
expect 0 "DNS.*alice.example" ctl show alice
expect 0 "Digital Signature\|digitalSignature" ctl show "$(openssl x509 -in alice.pem -noout -fingerprint -sha1 | cut -d= -f2 | cut -c1-12)"
expect 0 "trusted root" ctl chain alice
expect 0 "c1 -> c0" ctl chain a11c --dot
expect 0 "good" ctl verify alice
expect 5 "can be any of 2" ctl show O=Story
expect 4 "certmgrctl list" ctl show bob
expect 0 "Wrote alice.p12" ctl export alice -o alice.p12 --chain --with-key --password-file password
[ "$(stat -c %a alice.p12)" = 600 ] || fail "others can read alice.p12"
openssl pkcs12 -in alice.p12 -passin file:password -nodes 2>/dev/null | openssl pkey -pubout >from-p12.pem
openssl x509 -in alice.pem -noout -pubkey | cmp - from-p12.pem
expect 0 "Added" ctl psk add office --key-file key
expect 0 "office" ctl psk list
expect 2 "nobody to ask" ctl delete alice
[ "$(ctl list --json | grep -c '"subject"')" = 2 ] || fail "list --json"

printf -- '-----BEGIN CERTIFICATE-----\nAAAA\n-----END CERTIFICATE-----\n' | cat alice.pem - >broken.pem
while IFS='|' read -r code text command; do
    # shellcheck disable=SC2086
    expect "$code" "$text" ctl $command
done <<END
0|alice, logged in|status
0|"tokens": 1|status --json
0|alice|token list
0|read anew|reload
0|good|verify alice --crl soft
0|Wrote a.der|export alice -o a.der
0|Wrote a.p7b|export alice -o a.p7b --chain
0|BEGIN CERT|export alice
0|"base64": "MII|export alice -f der --json
1|It makes 256, 384, 521|request make CN=x --key ECDSA --bits 300
1|could not be read|import broken.pem --yes
0|no CRL|crl list
4|crl list|crl delete Story --yes
0|complete -F|completion bash
END

# What comes and goes is watched meanwhile.
ctl watch >watch.log 2>&1 &
children+=($!)
await watch.log "Watching"
openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout x.key -out x.pem -subj /CN=x 2>/dev/null
touch index.txt
printf '[ca]\ndefault_ca=d\n[d]\ndatabase=index.txt\n' >ca.cnf
openssl ca -config ca.cnf -gencrl -cert ca.pem -keyfile ca.key -md sha256 -crldays 9 -out root.crl 2>/dev/null
expect 1 "certmgrctl import" ctl crl import alice.pem
expect 0 "Imported.*Story Root" ctl crl import root.crl
await watch.log "UTC  + CRL .*Story Root"
while IFS='|' read -r code text command; do
    # shellcheck disable=SC2086
    expect "$code" "$text" ctl $command
done <<END
0|Story Root.*alice$|crl list
0|"downloaded": false|crl list --json
0|Deleted.*Story Root|crl delete Story --yes
0|no CRL|crl list
0|imported|import x.pem --as other
0|Deleted|delete CN=x --yes
0|Changed the PIN|token pin --pin-file pin --new-pin-file wrong
6|wrong|token pin --pin-file password --new-pin-file pin
0|Changed the PIN|token pin --reset --pin-file so --new-pin-file pin
6|token pin --so --try-anyway|import x.pem --as trusted --so-pin-file password
6|security officer|import x.pem --as trusted --so-pin-file so
0|Changed the PIN|token pin --so --try-anyway --pin-file so --new-pin-file so
0|imported|import x.pem --as trusted --so-pin-file so
0|Logged out|token logout
0|Logged in|token login --pin-file pin
0|Deleted|delete CN=x --yes
END
for line in "- CRL .*Story Root" "+ intermediate .*CN=x" "- intermediate .*CN=x" "- token .*logged in" \
    "+ token .*logged in"; do
    await watch.log "UTC  $line"
done

# --- The choice ---
expect 0 "Wrote second.csr" ctl request make "CN=second, O=Story" --dns alice.example -o second.csr
certify second 0x5EC02D 365
expect 0 "imported" ctl import second.pem --as personal
openssl req -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout bob.key -out bob.csr -subj /O=Story/CN=bob 2>/dev/null
certify bob 0xB0B 365
ikeauth provision --state bob.tokens --label bob --pin-file bob.pin --so-pin-file bob.so --trusted ca.pem \
    --key bob.key --cert bob.pem >provision.log 2>&1
for host in alice bob; do
    cat >$host.toml <<END
[tokens]
softhsm_directory = "$host.tokens"
[[tokens.pin_file]]
token = "$host"
path = "$host.pin"
[[rule]]
name = "office"
id_local = [{any = "dn"}]
cert_local = [{subject_attrs = "O=Story"}]
cert_remote = [{subject_attrs = "O=Story"}]
END
done
ln -s tokens alice.tokens
cp -p pin alice.pin
agent() { certmgrctl --socket "$work/ask.sock" agent --once; }
# Starts an exchange that will ask.
ask() {
    rm -f exchange.log  # its first lines are waited for
    ikeauth exchange --initiator alice.toml --responder bob.toml --rule office --ask "$work/ask.sock" >exchange.log 2>&1 &
    exchange=$!
    children+=($exchange)
    await exchange.log "waiting for a client"
}
# The exchange ends with the code and says the text.
ends() {
    local code=0
    wait $exchange || code=$?
    [ $code = "$1" ] || fail "the exchange ended with $code, not $1"
    grep -q -- "$2" exchange.log || fail "the exchange does not say: $2"
}
ask
agent <<<1 >first.log
chosen=$(sed -n 's/^Chosen: \(.*\)\.$/\1/p' first.log)
ends 0 "initiator: success: authenticated as $chosen"
ask
agent <<<2 >second.log
grep -q "^Chosen: " second.log || fail "no choice"
! grep -q "^Chosen: $chosen\.$" second.log || fail "both numbers mean one certificate"
ends 0 "initiator: success: authenticated as $(sed -n 's/^Chosen: \(.*\)\.$/\1/p' second.log)"
ask
agent <<<c >cancel.log
ends 1 "cancel pressed"
# The only agent is killed with the question before it.
ask
mkfifo keyboard
certmgrctl --socket "$work/ask.sock" agent <keyboard >killed.log 2>&1 &
killed=$!
exec 7>keyboard
await killed.log "Which one"
kill -9 $killed
ends 1 "failed to send notification"
# Two agents are asked; the answer of the slower one is stale.
ask
certmgrctl --socket "$work/ask.sock" agent --once <keyboard >slow.log 2>&1 &
slow=$!
await slow.log "Which one"
agent <<<1 >fast.log
ends 0 "initiator: success"
wait $slow || fail "the slower agent"
grep -q "Another client has answered" slow.log || fail "the slower agent was not told"

# --- Everything goes ---
expect 0 "Deleted" ctl psk delete office --yes
expect 0 "Deleted" ctl delete alice second "Story Root" --yes
expect 0 "no such certificate" ctl list
expect 0 "no preshared key" ctl psk list
expect 0 "Logged out" ctl token logout alice

# --- PINs ---
mkfifo keys
exec 8<>keys
# The agent asks for the PIN on a terminal and gets those keys, which are not seen; then it says the text.
types() {
    rm -f terminal.log
    script -qefc "certmgrctl --socket '$work/daemon.sock' agent" /dev/null <keys >terminal.log 2>&1 &
    local agent=$!
    children+=("$agent")
    # A prompt ends no line.
    timeout 60 grep -qm1 PIN <(tail --pid=$$ -n +1 -F terminal.log 2>/dev/null | stdbuf -o0 tr : '\n') || fail "no prompt"
    printf %s "$1" >&8
    await terminal.log "$2"
    kill $agent 2>/dev/null || true
    wait $agent || true
    ! grep -qF -- "${1%?}" terminal.log || fail "the PIN is seen"
}
types "$(cat pin)"$'\n' 'Logged in to token "alice"'
expect 0 "Logged out" ctl token logout alice
types "$(cat password)"$'\n' "Not logged in"
types "$(cat pin)"$'\003' "certmgrctl: cancelled"
echo "The story went as it should."
