#!/bin/sh
# Hands an interface to the daemon, waits for an address from DHCP, and prints the lease as JSON.
#
#     get-lease.sh IFACE [SECONDS]
#
# Exit status: 0 with a lease, 1 when the daemon refused or the time (60 seconds) is over, 2 for wrong usage, 3 without
# a daemon or a bus.
#
# Every call of busctl is a connection of its own, and a subscription ends with its connection. So a script asks, once a
# second, until the address is held: checked, and not given up.
set -u

interface=${1:-}
left=${2:-60}
if [ -z "$interface" ] || [ $# -gt 2 ]; then
    echo "usage: get-lease.sh IFACE [SECONDS]" >&2
    exit 2
fi

# Prints the reply to a request. busctl packs it into JSON of its own, where quotes and backslashes have a backslash.
ask() { # object, interface, method, request
    reply=$(busctl --json=short call org.ostrel.dhcp "$1" "$2" "$3" s "$4") || {
        echo "get-lease.sh: no answer from the daemon; is it installed, and may you call it?" >&2
        exit 3
    }
    printf '%s\n' "$reply" | sed -e 's/^[^[]*\["//' -e 's/"\]}$//' -e 's/\\\(["\\]\)/\1/g'
}

must() { # as above, and the daemon has to agree
    case $(ask "$@") in
        '{"returnValue":true'*) ;;
        '') exit 3 ;;
        *)
            echo "get-lease.sh: $3 refused for $interface; the daemon's log says why" >&2
            exit 1
            ;;
    esac
}

start() {
    must / org.ostrel.dhcp interfaceInitialize '{"interface":"'"$interface"'","mode":"client","ipv4Config":"dhcp",
        "ipv4Address":"0.0.0.0","ipv4Subnet":"0.0.0.0","ipv4Router":"0.0.0.0","ipv4RangeStart":"0.0.0.0"}'
    must /client org.ostrel.dhcp.client leaseAction '{"interface":"'"$interface"'","leaseAction":"init"}'
}

while [ "$left" -gt 0 ]; do
    state=$(ask / org.ostrel.dhcp interfaceState '{"interface":"'"$interface"'"}') || exit
    case $state in
        *'"interfaceList":[]'*) start ;; # not managed: not yet, or the daemon has been restarted and knows nothing
        *'"client":{"state":'*'"held":true,"server":'*) # of the client: a selector has no server
            ask /client org.ostrel.dhcp.client leaseInformation '{"interface":"'"$interface"'"}'
            exit
            ;;
    esac
    left=$((left - 1))
    sleep 1
done
echo "get-lease.sh: no lease on $interface yet; the daemon goes on trying" >&2
exit 1
