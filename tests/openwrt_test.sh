#!/usr/bin/env bash
# openwrt_test.sh BUILD: makes the packages of packaging/openwrt without OpenWrt. The recipe's steps run with its flags, as
# tests/openwrt has them; what the packages hold is looked at and used; and the init script runs on a device, under a
# stand-in for procd. BUILD, a release build, lends the stand-in for libuci.
set -uo pipefail
cd "$(dirname "$0")/.." || exit 1
source=$PWD
build=$(realpath "$1")
out=$build/openwrt
recipe=packaging/openwrt/libvandrel
passed=0 failed=0

check() { # NAME COMMAND...
    local output
    if output=$("${@:2}" 2>&1); then
        passed=$((passed + 1))
    else
        failed=$((failed + 1))
        printf '%s\nFAILED: %s\n' "$output" "$1"
    fi
}

same() { # EXPECTED FOUND
    diff <(echo "$1") <(echo "$2")
}

# The libraries that other packages of a device have put into the staging folder by then.
stage_others() {
    local lib=$out/staging/usr/lib include=$out/staging/usr/include evtlog
    mkdir -p "$lib/pkgconfig" "$include"
    cp "$build/compat/libuci/libuci.so.vandrel1" "$lib/"
    ln -s libuci.so.vandrel1 "$lib/libuci.so"
    cp compat/libuci/uci.h "$include/"
    evtlog=$(ldd "$build/libvandrel.so.1" | awk '/libevtlog/ { print $3 }')
    cp "$evtlog" "$lib/"
    ln -s "$(basename "$evtlog")" "$lib/libevtlog.so"
    cp "$(find /usr/include/syslog-ng build/evtlog/usr/include -name evtlog.h 2>/dev/null | head -n 1)" "$include/"
    cp "$(find /usr/include/syslog-ng build/evtlog/usr/include -name evtmaps.h 2>/dev/null | head -n 1)" "$include/"
    printf '%s\n' 'Name: eventlog' 'Description: log' 'Version: 1' "Cflags: -I$include" "Libs: -L$lib -levtlog" \
        >"$lib/pkgconfig/eventlog.pc"
}

make_packages() {
    make -C "$recipe" TOPDIR="$source/tests/openwrt" OUT="$out" SOURCE="$source" packages
}

field() { # PACKAGE NAME
    sed -n "s/^$2 //p" "$out/$1.fields"
}

files() { # PACKAGE
    (cd "$out/$1" && find . ! -type d -printf '%P\n' | sort | xargs)
}

# The packages that a package's programs and libraries need, and those that its description names.
needs() { # PACKAGE
    find "$out/$1" -type f -exec readelf -d {} + 2>/dev/null | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' |
        sed -E '/^(libc|ld-linux[^.]*)\.so/d; s/\.so\..*//; s/-[0-9.]+$//; s/^libevent_core$/libevent2-core/
            s/^libstdc\+\+$/libstdcpp/' | sort -u
}
depends() { # PACKAGE
    field "$1" Depends | tr -d + | tr ' ' '\n' | sort -u
}

without_run_path() { # PACKAGE
    ! find "$out/$1" -type f -exec readelf -d {} + 2>/dev/null | grep -E 'RPATH|RUNPATH'
}

# Everything that a program of another package takes from the staging folder, wherever that lies.
use_the_stage() { # FOLDER
    local flags
    cat >"$out/program.c" <<'END_OF_FILE'
#include <vandrel/zones.h>

int main(void)
{
    zones_free();
    return 0;
}
END_OF_FILE
    flags=$(PKG_CONFIG_PATH=$1/usr/lib/pkgconfig pkg-config --cflags --libs vandrel) || return 1
    # shellcheck disable=SC2086 # a list of words
    gcc "$out/program.c" -o "$out/program" $flags "-Wl,-rpath-link,$1/usr/lib" || return 1
    ! strings "$out/program" | grep -F "$1" || return 1
    LD_LIBRARY_PATH=$1/usr/lib "$out/program"
}

rm -rf "$out"
check "what other packages give" stage_others
check "the recipe's steps" make_packages
check "the recipe's version" same "$(sed -n 's/^project(vandrel VERSION \([^ ]*\).*/\1/p' CMakeLists.txt)-1" \
    "$(field libvandrel Version)"
for package in libvandrel vdctl vdaccess; do
    echo "$package ($(field "$package" Depends)): $(files "$package")"
    check "$package: what it needs besides" same "" "$(comm -13 <(depends "$package") <(needs "$package") | xargs)"
    check "$package: no run path" without_run_path "$package"
done
check "libvandrel: its files" same "usr/lib/libvandrel.so.1" "$(files libvandrel)"
check "vdctl: its files" same "usr/sbin/vdctl" "$(files vdctl)"
check "vdaccess: its files" same "etc/config/vdaccess etc/init.d/vdaccess usr/sbin/vdaccess" "$(files vdaccess)"
check "what is kept when the system is upgraded" same "/etc/config/vdaccess /etc/vandrel/zones.json" "$(field vdaccess Kept)"
mv "$out/staging" "$out/moved"
check "the staged library" use_the_stage "$out/moved"
mv "$out/moved" "$out/staging"

read -r _ _ ids </proc/self/uid_map
skipped=""
if [ "$(id -u)" = 0 ] && [ "$ids" -gt 1 ]; then
    host=/.host$source result=$out/init_test.log
    "$build/tools/device/device" bash "$host/tests/openwrt/init_test.sh" "/.host$out" "/.host$build/examples/access_client" |
        tee "$result"
    [[ $(tail -n 1 "$result") =~ ^([0-9]+)\ passed,\ ([0-9]+)\ failed$ ]] || BASH_REMATCH=(none 0 1)
    passed=$((passed + BASH_REMATCH[1]))
    failed=$((failed + BASH_REMATCH[2]))
else
    echo "skipped  the init script: only root has several ids"
    skipped=", 1 skipped"
fi
echo "$passed passed, $failed failed$skipped"
[ "$failed" = 0 ]
