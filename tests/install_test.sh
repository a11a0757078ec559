#!/usr/bin/env bash
# install_test.sh BUILD: installs a release build into a folder of its own, and builds and runs a C and a C++ program
# against it from outside the tree, through pkg-config and through find_package.
set -uo pipefail
build=$(realpath "$1")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work" || exit 1
passed=0 failed=0

check() { # NAME COMMAND...
    if output=$("${@:2}" 2>&1); then
        passed=$((passed + 1))
    else
        failed=$((failed + 1))
        printf '%s\nFAILED: %s\n' "$output" "$1"
    fi
}

cat >program.c <<'END'
#include <logging.h>
#include <vandrel/util.h>
#include <vandrel/zones.h>
#include <vandrel/ipc.h>
#include <vandrel/daemon_tools.h>
#include <uci.h>

int main(void)
{
    struct uci_context *ctx = uci_alloc_context();
    int result = vd_logging_log(logging_init("outside", 0), 6, "program.c", 1, -1, "%s", "hello") || !ctx;
    uci_free_context(ctx);
    zones_free();
    vd_logging_close(&libvandrel_logcontext);
    return result || safestrcmp("a", "a");
}
END
cp program.c program.cpp
cat >CMakeLists.txt <<'END'
cmake_minimum_required(VERSION 3.22)
project(outside LANGUAGES C CXX)
find_package(vandrel 1 REQUIRED)
foreach(language c cpp)
    add_executable(with_${language} program.${language})
    target_link_libraries(with_${language} PRIVATE vandrel::vandrel)
endforeach()
END

through_pkg_config() { # COMPILER SOURCE
    local flags
    flags=$(pkg-config --cflags --libs vandrel) || return 1
    # shellcheck disable=SC2086 # a list of words
    "$1" -Wall -Wextra -Werror "$2" -o program $flags "-Wl,-rpath,$work/root/lib" && ./program
}

through_cmake() { # LANGUAGE
    cmake -G Ninja -S . -B build -DCMAKE_PREFIX_PATH="$work/root" && cmake --build build --target "with_$1" && "build/with_$1"
}

links_only_what_is_named() {
    local others
    others=$(readelf -d root/lib/libvandrel.so.1 | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' |
        grep -vE '^(libevtlog|libjson-c|libevent_core|libcap|libuci|libstdc\+\+|libgcc_s|libc|libm|ld-linux)[-.]')
    echo "linked besides: $others"
    [ -z "$others" ] && readelf -d root/lib/libvandrel.so.1 | grep -q 'SONAME.*\[libvandrel.so.1\]'
}

check "installing" cmake --install "$build" --prefix "$work/root"
[ -d root/lib ] || ln -s "$(dirname "$(find root -name libvandrel.so.1 -printf '%P\n')")" root/lib
libdir=$(dirname "$(find root -name vandrel.pc)")
# The package names the folder that it was configured for; here it lies elsewhere.
sed -i "s|^prefix=.*|prefix=$work/root|" "$libdir/vandrel.pc"
export PKG_CONFIG_PATH=$work/$libdir
check "a C program through pkg-config" through_pkg_config gcc program.c
check "a C++ program through pkg-config" through_pkg_config g++ program.cpp
check "a C program through find_package" through_cmake c
check "a C++ program through find_package" through_cmake cpp
check "libraries linked" links_only_what_is_named
for page in man3/libvandrel.3 man5/vandrel-zones.5; do
    check "the manual page $page" test -s "root/share/man/$page"
done
echo "$passed passed, $failed failed"
[ "$failed" = 0 ]
