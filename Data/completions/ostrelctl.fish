# Completion of ostrelctl for fish.

function __ostrelctl_interfaces
    for path in /sys/class/net/*
        string match --invert lo (string replace --regex '.*/' '' $path)
    end
end

# Offers something behind some commands: their names, then what `complete` takes.
function __ostrelctl_behind
    complete --command ostrelctl --condition "__fish_seen_subcommand_from $argv[1]" $argv[2..]
end

complete --command ostrelctl --no-files
complete --command ostrelctl --long-option json --description "Print replies and posts as they came"
complete --command ostrelctl --long-option help --description "Show help with examples"

set --local commands \
    client "Get an address for an interface" \
    server "Hand out addresses on an interface" \
    release "Stop managing an interface" \
    renew "Extend the lease now, at its server" \
    rebind "Extend the lease now, at any server" \
    init "Start a client, or start it over" \
    halt "Stop a client, and keep it configured" \
    status "Show what is managed, and what it has" \
    leases "Show what the servers have handed out" \
    config "Show how interfaces are configured" \
    debug "Set how much the daemon writes to its log" \
    watch "Print each change as it comes" \
    wait "Wait for an address" \
    apply "Keep the kernel at what is published" \
    run "Make the interfaces what files say" \
    reload "Have run read its files again" \
    log "Show what happened" \
    trace "Show frames, and why one was dropped" \
    stats "Show what the daemon has counted"
for i in (seq 1 2 (count $commands))
    complete --command ostrelctl --condition __fish_use_subcommand --arguments $commands[$i] \
        --description $commands[(math $i + 1)]
end
complete --command ostrelctl --condition __fish_use_subcommand --long-option version --description "Show the version"

__ostrelctl_behind "client server release renew rebind init halt status leases config watch wait apply log trace stats" \
    --arguments "(__ostrelctl_interfaces)"
__ostrelctl_behind debug --arguments \
    "chatty verbose trace info notice warning assert require error critical alert emergency tragic"

__ostrelctl_behind "client server" --exclusive --long-option router --description "Router"
__ostrelctl_behind "client server" --exclusive --long-option dns --description "DNS server, at most three"
__ostrelctl_behind "client server" --exclusive --long-option domain --description "Domain name"
__ostrelctl_behind client --long-option dhcp --description "Get everything by DHCP"
__ostrelctl_behind client --exclusive --long-option static --description "Use this address, without DHCP"
__ostrelctl_behind client --exclusive --long-option address --description "Use this address, get the rest by DHCP"
__ostrelctl_behind client --long-option link-local --description "Also select a link-local address"
__ostrelctl_behind client --exclusive --long-option client-id --description "Identify the client by this text"
__ostrelctl_behind client --exclusive --long-option host-name --description "Tell servers this name"
__ostrelctl_behind "client server" --long-option plain --description "Go by the plain rules"
__ostrelctl_behind "release halt" --long-option release --description "Tell the DHCP server"
__ostrelctl_behind init --exclusive --long-option address --description "Ask for this address first"
__ostrelctl_behind client --long-option no-start --description "Configure only"
__ostrelctl_behind server --exclusive --long-option address --description "The server's own address and prefix"
__ostrelctl_behind server --exclusive --long-option range --description "Addresses to hand out, FIRST-LAST"
__ostrelctl_behind server --exclusive --long-option count --description "How many addresses to hand out"
__ostrelctl_behind server --exclusive --long-option lease --description "How long a lease lasts, as 12h"
__ostrelctl_behind server --exclusive --long-option fixed --description "Keep an address for a station"
__ostrelctl_behind server --exclusive --long-option option --description "Hand out an option" \
    --arguments "log= mtu= ntp= wins= tftp= bootfile= timezone= portal= search="
__ostrelctl_behind server --require-parameter --force-files --long-option keep --description "Keep the leases in this file"
__ostrelctl_behind leases --exclusive --long-option sort --arguments "address expiry name mac" --description "Order"
__ostrelctl_behind "status trace" --long-option verbose --description "Tell more"
__ostrelctl_behind watch --exclusive --long-option count --description "End after so many changes"
__ostrelctl_behind log --exclusive --long-option count --description "Events of the past"
__ostrelctl_behind log --long-option follow --description "Go on with what happens from now on"
__ostrelctl_behind trace --exclusive --long-option count --description "End after so many frames"
__ostrelctl_behind trace --require-parameter --force-files --long-option pcap --description "Write the frames to this file"
__ostrelctl_behind stats --long-option prometheus --description "In the text format of Prometheus"
__ostrelctl_behind wait --long-option any --description "Until one has an address"
__ostrelctl_behind "wait apply" --long-option all --description "All clients"
__ostrelctl_behind wait --exclusive --long-option timeout --description "Give up after so long, as 90 or 5m"
__ostrelctl_behind apply --long-option dry-run --description "Print what would be done"
__ostrelctl_behind apply --long-option once --description "Apply the first lease and end"
__ostrelctl_behind apply --long-option keep --description "Leave everything in place when stopped"
__ostrelctl_behind apply --exclusive --long-option metric --description "Metric of the routes"
__ostrelctl_behind run --force-files --long-option check --description "Say what the files mean, and do nothing"
__ostrelctl_behind run --force-files --long-option example --description "Print a file with every key"
__ostrelctl_behind run --require-parameter --force-files --long-option state \
    --description "Keep leases and addresses in this directory"
