# shellcheck shell=bash
# What the tests of client programs share; each sources it with the build's bin folder as $1. Leaves the script in a
# folder of its own, removed at the end, with a store, a log, a home and a token, cheap to unlock, of its own.

if [ $# != 1 ] || [ "$1" = --help ]; then
    echo "Usage: tests/system/$(basename "$0") FOLDER    (the build's bin folder)" >&2
    exit 2
fi
bin=$(readlink -f "$1")
# shellcheck disable=SC2034 # for the scripts
module=$bin/libZentakPKCS11.so

work=$(mktemp -d)
background=()
cleanup() {
    if [ ${#background[@]} != 0 ]; then kill "${background[@]}" 2>/dev/null || true; fi
    rm -rf "$work"
}
trap cleanup EXIT
cd "$work"
mkdir tokens tmp config home
export ZENTAK_TOKENS=$work/tokens TMPDIR=$work/tmp ZENTAK_CONFIG=$work/config HOME=$work/home
unset XDG_CONFIG_HOME XDG_RUNTIME_DIR
export ZENTAK_PIN=1234567890

failures=0
checks=0
passed() {
    checks=$((checks + 1))
    echo "ok: $1"
}
failed() {
    checks=$((checks + 1))
    failures=$((failures + 1))
    echo "FAILED: $1"
    if [ -n "${2:-}" ]; then sed 's/^/    /' "$2"; fi
}
# finish: ends the script by what was found.
finish() {
    echo "$checks checks, $failures failures"
    [ $failures = 0 ]
}

# run NAME COMMAND...: the command must succeed; its output is in NAME.out.
run() {
    local name=$1 status=0
    shift
    timeout 30 "$@" >"$name.out" 2>&1 </dev/null || status=$?
    if [ $status = 0 ]; then passed "$name: $1"; else failed "$name: $* ended with $status" "$name.out"; fi
}

# refused NAME TEXT COMMAND...: the command must fail and say TEXT; its output is in NAME.out.
refused() {
    local name=$1 text=$2 status=0
    shift 2
    timeout 30 "$@" >"$name.out" 2>&1 </dev/null || status=$?
    if [ $status = 0 ] || [ $status = 124 ]; then
        failed "$name: $* ended with $status" "$name.out"
    elif grep -qaF -- "$text" "$name.out"; then
        passed "$name: refused with \"$text\""
    else
        failed "$name: refused, but without \"$text\"" "$name.out"
    fi
}

# says NAME TEXT: NAME.out has TEXT in it.
says() {
    if grep -qaF -- "$2" "$1.out"; then
        passed "$1 says \"$2\""
    else
        failed "$1 should say \"$2\" but is" "$1.out"
    fi
}

# counts NAME NUMBER TEXT: NUMBER lines of NAME.out hold TEXT.
counts() {
    local count
    count=$(grep -caF -- "$3" "$1.out" || true)
    if [ "$count" = "$2" ]; then
        passed "$1 has $2 of \"$3\""
    else
        failed "$1 should have $2 of \"$3\" but has $count" "$1.out"
    fi
}

# same NAME FILE FILE: the files are the same, byte for byte.
same() {
    if cmp "$2" "$3" >cmp.out 2>&1; then passed "$1 is the same"; else failed "$1 is another one" cmp.out; fi
}

# wait_for NAME COMMAND...: the command must succeed within ten seconds.
wait_for() {
    local name=$1 _
    shift
    for _ in {1..100}; do
        if "$@" >/dev/null 2>&1; then return; fi
        sleep 0.1
    done
    failed "$name doesn't come up" "$([ -e "$name.out" ] && echo "$name.out")"
}
# wait_for_port NAME NUMBER: somebody listens on the port of 127.0.0.1; without connecting, which would use up a server.
listens() { grep -qi "^ *[0-9]*: 0100007F:$(printf %04X "$1") 00000000:0000 0A" /proc/net/tcp; }
wait_for_port() { wait_for "$1" listens "$2"; }

# free_port: the number of a TCP port that nobody listens on.
free_port() {
    local port
    while port=$((20000 + RANDOM % 10000)) && listens "$port"; do :; done
    echo "$port"
}

# make_key NAME OPENSSL-REQ-ARGUMENT...: NAME.key.pem, NAME.certificate.pem and NAME.public.pem, self-signed.
make_key() {
    local name=$1
    shift
    openssl req -x509 -newkey "$@" -noenc -sha256 -days 2 -subj "/CN=System $name/O=Zentak" \
        -keyout "$name.key.pem" -out "$name.certificate.pem" 2>openssl.log || { cat openssl.log && exit 1; }
    openssl x509 -in "$name.certificate.pem" -noout -pubkey >"$name.public.pem"
}
# add_key NAME ID OPENSSL-REQ-ARGUMENT...: the same, and on the token as "System NAME".
add_key() {
    local name=$1 id=$2
    shift 2
    make_key "$name" "$@"
    "$bin/zentak-token" import --key "$name.key.pem" --certificate "$name.certificate.pem" --label "System $name" \
        --id "$id" >import.out || { cat import.out && exit 1; }
}
# add_three_keys: RSA-2048 (A1), P-256 (B1) and P-384 (B2).
add_three_keys() {
    add_key rsa2048 A1 rsa:2048
    add_key p256 B1 ec -pkeyopt ec_paramgen_curve:P-256
    add_key p384 B2 ec -pkeyopt ec_paramgen_curve:P-384
}

# shellcheck disable=SC2034 # for the scripts
serial_number=$("$bin/zentak-token" create --label "System token" --kdf-iterations 1000 |
    sed -n 's/^Serial number: //p')
openssl rand -out data 1000
