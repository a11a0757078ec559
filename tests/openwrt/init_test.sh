#!/usr/bin/env bash
# init_test.sh PACKAGES CLIENT: on an empty device with several ids, makes a root of its own out of the packages, busybox
# and the libraries that these need, and has the init script start, watch, restart and stop the access daemon there.
# Closes with a line: N passed, N failed.
set -uo pipefail
packages=$1 client=$2
tests=$(dirname "$0")
root=/tmp/root
passed=0 failed=0

check() { # NAME EXPECTED FOUND
    if [ "$2" = "$3" ]; then
        passed=$((passed + 1))
    else
        failed=$((failed + 1))
        printf 'FAILED: %s\n  expected: %s\n  found:    %s\n' "$1" "$2" "$3"
    fi
}

# eventually NAME EXPECTED COMMAND...: checks what the command prints, once it is the expected or time is up
eventually() {
    local found
    for ((i = 0; i < 200; ++i)); do
        found=$("${@:3}" 2>&1)
        [ "$found" != "$2" ] || break
        sleep 0.05
    done
    check "$1" "$2" "$found"
}

with_libraries() { # PROGRAM...: and where it looks for them
    local program library
    for program; do
        ldd "$program" | grep -oE '/[^ ]+' | while read -r library; do
            cp --parents -Ln "$library" "$root"
        done
    done
}

make_root() {
    mkdir -p "$root"/{bin,dev,etc,proc,tmp,usr/lib,usr/bin,var/run}
    mount --bind /dev "$root/dev"
    mount --bind /proc "$root/proc"
    cp -r "$packages"/{libvandrel,vdaccess}/. "$root"
    cp -P "$packages"/staging/usr/lib/*.so.* "$root/usr/lib" # of other packages
    cp "$client" "$root/usr/bin/access_client"
    cp "$(command -v busybox)" "$root/bin/busybox"
    LD_LIBRARY_PATH=$root/usr/lib with_libraries "$root"/bin/busybox "$root"/usr/bin/* "$root"/usr/sbin/*
    for applet in sh mkdir chown chmod sed cat kill sleep rm; do
        ln -s busybox "$root/bin/$applet"
    done
    cp "$tests/rc.common" "$root/etc/rc.common"
    mkdir -p "$root/usr/share/vandrel"
    printf '#!/bin/sh\necho true\n' >"$root/usr/share/vandrel/check_zone_scheduled_access.lua" # every schedule is open
    chmod +x "$root/usr/share/vandrel/check_zone_scheduled_access.lua"
}

# add_accounts USER:GROUP[:GROUP,...]...: as OpenWrt does where it installs the packages; ids count up from 100
add_accounts() {
    local id=100 user group groups name
    echo 'root:x:0:0:root:/:/bin/sh' >"$root/etc/passwd"
    echo 'root:x:0:' >"$root/etc/group"
    for account; do
        IFS=: read -r user group groups <<<"$account"
        grep -q "^$group:" "$root/etc/group" || echo "$group:x:$((++id)):" >>"$root/etc/group"
        [ -n "$user" ] || continue
        echo "$user:x:$id:$id::/:/bin/false" >>"$root/etc/passwd"
        for name in ${groups//,/ }; do
            sed -i "s/^$name:.*[^:]$/&,/; s/^$name:.*/&$user/" "$root/etc/group"
        done
    done
}

zones() { # PORT: that token-anna may reach
    printf '{"zone_configuration": {"zones": {"1": {"members": {"token-anna": {"type": "serialization", "direction": "in"},
        "%s": {"type": "port", "direction": "out"}}}}}}' "$1" >"$root/etc/vandrel/zones.new"
    touch -d "@$((++clock))" "$root/etc/vandrel/zones.new"
    mv "$root/etc/vandrel/zones.new" "$root/etc/vandrel/zones.json"
}

vdaccess() { # COMMAND: of the init script
    chroot "$root" /etc/init.d/vdaccess "$1" || echo "$1 gives $?"
}

answer() { # PORT
    chroot "$root" access_client port token-anna "$1"
}

noted() { # FILE: what procd was asked for, on one line
    xargs <"$root/tmp/procd/$1"
}

process() {
    cat "$root/tmp/procd/pid"
}

status() { # FIELD: of the daemon's process
    sed -n "s/^$1:[[:space:]]*//p" "/proc/$(process)/status" | tr '\t' ' '
}

id_of() { # passwd|group NAME
    sed -n "s/^$2:x:\([0-9]*\):.*/\1/p" "$root/etc/$1"
}

owner() { # PATH
    stat -c '%u:%g %a' "$root$1"
}

clock=1000000000
make_root
# shellcheck disable=SC2046 # a word per account
add_accounts $(sed -n 's/^Accounts //p' "$packages"/{libvandrel,vdaccess}.fields)
zones lan1
user=$(id_of passwd vdaccess) bus=$(id_of group vandrel) clients=$(id_of group vdipc)

check "starting" "" "$(vdaccess start 2>&1)"
check "its command" "/usr/sbin/vdaccess -f -u vdaccess -i 60" "$(noted instance/command)"
check "how often it is started again" "3600 5 0" "$(noted instance/respawn)"
check "what makes it read its settings again" vdaccess "$(noted triggers)"
check "the folder of the bus" "0:$bus 1775" "$(owner /var/run/vandrel)"
eventually "the first answer" yes answer lan1
check "its user" "$user $user $user $user" "$(status Uid)"
check "its groups" "$(printf '%s\n' "$user" "$bus" "$clients" | sort -n | xargs)" \
    "$(echo "$(status Gid | cut -d ' ' -f 1) $(status Groups)" | xargs -n 1 | sort -nu | xargs)"
check "its rights" 0000000000000000 "$(status CapEff)"
check "its socket" "$user:$clients 770" "$(owner /var/run/vandrel/ipc_access.sock)"

first=$(process)
kill -KILL "$first"
eventually "the answer after it was killed" yes answer lan1
check "how it ended" 137 "$(noted ends)"
check "whether it is another process" another "$([ "$(process)" = "$first" ] || echo another)"

zones lan2
eventually "the answer from a changed zone file" yes answer lan2
check "what is no longer allowed" no "$(answer lan1)"

sed -i "s/'60'/'5'/" "$root/etc/config/vdaccess"
check "restarting" "" "$(vdaccess restart 2>&1)"
check "its command with other settings" "/usr/sbin/vdaccess -f -u vdaccess -i 5" "$(noted instance/command)"
eventually "the answer after restarting" yes answer lan2

last=$(process)
check "stopping" "" "$(vdaccess stop 2>&1)"
check "what is left of the process" "" "$(ls -d "/proc/$last" 2>/dev/null)"
check "what is left of the socket" "" "$(ls "$root/var/run/vandrel")"
check "how often it ended" "137" "$(noted ends)"

echo "$passed passed, $failed failed"
[ "$failed" = 0 ]
