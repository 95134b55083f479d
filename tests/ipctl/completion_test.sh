#!/usr/bin/env bash
# The bash completion of ipctl: sources tools/ipctl/completion/ipctl and checks what it
# offers for command lines typed up to the cursor.
#   completion_test.sh [COMPLETION_SCRIPT]
# Interface names come from a stand-in ipctl on PATH that prints a fixed `-j link show`
# answer and records the arguments it was given, so no device is needed.
set -u
here=$(cd "$(dirname "$0")" && pwd)
script=${1:-$here/../../tools/ipctl/completion/ipctl}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

mkdir -p "$work/bin" "$work/files/saved"
cat >"$work/bin/ipctl" <<'FAKE'
#!/usr/bin/env bash
printf '%s\n' "$*" >>"$IPCTL_FAKE_LOG"
printf '%s\n' '[{"ifindex":2,"ifname":"GigabitEthernet1/0/1","link_type":"ethernet"},{"ifindex":3,"ifname":"GigabitEthernet1/0/2","link_type":"ethernet"},{"ifindex":5,"ifname":"Vlan-interface1","link_type":"vlan-interface"},{"ifindex":7,"ifname":"LoopBack0","link_type":"loopback"}]'
FAKE
chmod +x "$work/bin/ipctl"
: >"$work/files/routes.txt"
export PATH="$work/bin:$PATH"
export IPCTL_FAKE_LOG="$work/calls.log"

# shellcheck source=/dev/null
source "$script" || { echo "cannot source $script"; exit 1; }

passed=0
failed=0

# complete LINE: the words of LINE, the cursor after the last one (a trailing space starts
# an empty word); COMPREPLY sorted into $got.
complete_line() {
    local line=$1
    read -r -a COMP_WORDS <<<"$line"
    [[ $line == *" " ]] && COMP_WORDS+=("")
    COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
    COMP_LINE=$line
    COMP_POINT=${#line}
    COMPREPLY=()
    _ipctl ipctl "${COMP_WORDS[COMP_CWORD]}" "${COMP_WORDS[COMP_CWORD - 1]}"
    got=$(printf '%s\n' "${COMPREPLY[@]}" | LC_ALL=C sort | tr '\n' ' ')
    got=${got% }
}

# expect LINE WANTED: the sorted offers for LINE are exactly WANTED (space separated).
expect() {
    local line=$1 want
    want=$(printf '%s\n' $2 | LC_ALL=C sort | tr '\n' ' ')
    want=${want% }
    complete_line "$line"
    if [[ $got == "$want" ]]; then
        passed=$((passed + 1))
        echo "ok   '$line' -> $got"
    else
        failed=$((failed + 1))
        echo "FAIL '$line': wanted [$want], got [$got]"
    fi
}

# check NAME CONDITION...: a named condition of its own.
check() {
    local name=$1
    shift
    if "$@"; then
        passed=$((passed + 1))
        echo "ok   $name"
    else
        failed=$((failed + 1))
        echo "FAIL $name"
    fi
}

check "the script registers _ipctl for ipctl" bash -c "source '$script'; complete -p ipctl | grep -q -- '-F _ipctl ipctl'"

# Objects, verbs and options.
expect "ipctl ad" "addr"
expect "ipctl " "device addr link neigh route stats monitor status"
expect "ipctl s" "stats status"
expect "ipctl addr " "show add del summary"
expect "ipctl neigh show -" "-4 -6 --help"
expect "ipctl neigh show -4 -" "--help"
expect "ipctl -" "-i --instance -n --node -j --json -p --pretty -br --brief -s --stats -c --color -V --version -h --help"
expect "ipctl -j -p route " "show get save"
expect "ipctl -i lab " "device addr link neigh route stats monitor status"
expect "ipctl -i " ""
expect "ipctl stats " "show ttl ecmp mtu"
expect "ipctl stats show " "ip icmp if"
expect "ipctl stats show icmp " "dev"
expect "ipctl stats mtu " "dev"
expect "ipctl route show " "vrf"
expect "ipctl route show vrf " ""
expect "ipctl route show -" "-4 -6 --help"
expect "ipctl addr add " ""
expect "ipctl addr add 10.9.9.1/24 " "dev secondary"
expect "ipctl addr add 10.9.9.1/24 secondary " "dev"
expect "ipctl monitor " "addr arp nd wlan link route all"
expect "ipctl monitor addr --c" "--count"
expect "ipctl status -" "--wait --help"
expect "ipctl device " "show"

# Interface names come from the device, asked of the same instance and node.
: >"$IPCTL_FAKE_LOG"
# Every interface of the directory, also one without an address (GigabitEthernet1/0/2).
expect "ipctl -i lab -n 2 neigh show dev " "GigabitEthernet1/0/1 GigabitEthernet1/0/2 LoopBack0 Vlan-interface1"
check "the device is asked with the command line's instance and node" \
    grep -qx -- "-i lab -n 2 -j link show" "$IPCTL_FAKE_LOG"
expect "ipctl addr show dev L" "LoopBack0"
expect "ipctl link " "show"
expect "ipctl link show " "dev"
expect "ipctl link show dev V" "Vlan-interface1"
expect "ipctl stats show if V" "Vlan-interface1"
expect "ipctl neigh resolve 10.1.1.3 dev G" "GigabitEthernet1/0/1 GigabitEthernet1/0/2"
expect "ipctl addr show dev LoopBack0 " ""

# Files for route save.
cd "$work/files" || exit 1
expect "ipctl route save r" "routes.txt"
expect "ipctl route save s" "saved"
expect "ipctl route save routes.txt " ""

echo "$passed passed, $failed failed"
((failed == 0))
