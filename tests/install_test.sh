#!/usr/bin/env bash
# install_test.sh BUILD: installs a release build into a folder of its own, and builds and runs programs in C and C++
# against it from outside the tree, through pkg-config and through find_package; again where the folder was moved to; and
# removes it.
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

cat >program.c <<'END_OF_FILE'
#include <logging.h>
#include <vandrel/util.h>
#include <vandrel/zones.h>
#include <vandrel/ipc.h>
#include <vandrel/daemon_tools.h>
#include <string.h>
#include <sys/resource.h>
#include <uci.h>

/* An exception is thrown inside the library, and has to end there. */
static int survives_lack_of_memory(void)
{
    static char name[100000000];
    struct rlimit limit = {sizeof name + sizeof name / 2, RLIM_INFINITY};
    memset(name, 'a', sizeof name - 1);
    return setrlimit(RLIMIT_AS, &limit) == 0 && ipc_server_add_subscriber(name, 1) == -1;
}

int main(void)
{
    struct uci_context *ctx = uci_alloc_context();
    int result = vd_logging_log(logging_init("outside", 0), 6, "program.c", 1, -1, "%s", "hello") || !ctx;
    uci_free_context(ctx);
    zones_free();
    vd_logging_close(&libvandrel_logcontext);
    return result || safestrcmp("a", "a") || !survives_lack_of_memory();
}
END_OF_FILE
cp program.c program.cpp
cat >daemon.c <<'END_OF_FILE'
#include <event2/event.h>
#include <json-c/json.h>
#include <vandrel/ipc.h>

int main(void)
{
    struct event_base *base = event_base_new();
    struct json_object *message = json_object_new_object();
    int result = ipc_write(-1, message) == 0;
    json_object_put(message);
    event_base_free(base);
    return result;
}
END_OF_FILE
cat >CMakeLists.txt <<'END_OF_FILE'
cmake_minimum_required(VERSION 3.22)
project(outside LANGUAGES C CXX)
find_package(vandrel 1 REQUIRED)
add_executable(with_c program.c)
add_executable(with_cpp program.cpp)
add_executable(with_daemon daemon.c)
target_link_libraries(with_c PRIVATE vandrel::vandrel)
target_link_libraries(with_cpp PRIVATE vandrel::vandrel)
target_link_libraries(with_daemon PRIVATE vandrel::daemon)
END_OF_FILE

through_pkg_config() { # PREFIX COMPILER SOURCE PACKAGE...
    local flags
    flags=$(PKG_CONFIG_PATH=$(dirname "$(find "$1" -name vandrel.pc)") pkg-config --cflags --libs "${@:4}") || return 1
    # shellcheck disable=SC2086 # a list of words
    "$2" -Wall -Wextra -Werror "$3" -o program $flags "-Wl,-rpath,$(libraries "$1")" && ./program
}

through_cmake() { # PREFIX PROGRAM
    cmake -G Ninja -S . -B "$1.build" -DCMAKE_PREFIX_PATH="$1" && cmake --build "$1.build" --target "$2" && "$1.build/$2"
}

libraries() { # PREFIX
    dirname "$(find "$1" -name libvandrel.so.1)"
}

links_only_what_is_named() { # PREFIX
    local others
    others=$(readelf -d "$(libraries "$1")/libvandrel.so.1" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' |
        grep -vE '^(libevtlog|libjson-c|libevent_core|libcap|libuci|libc|ld-linux)[-.]')
    echo "linked besides: $others"
    [ -z "$others" ]
}

soname_is_the_major_version() { # PREFIX
    readelf -d "$(libraries "$1")/libvandrel.so.1" | grep 'SONAME.*\[libvandrel.so.1\]'
}

names_nowhere() { # PREFIX PATH
    ! grep -rF "$2" "$1"
}

uninstall() { # PREFIX
    cmake -P "$(find "$1" -name uninstall.cmake)"
}

use() { # PREFIX
    check "a C program through pkg-config in $1" through_pkg_config "$1" gcc program.c vandrel
    check "a C++ program through pkg-config in $1" through_pkg_config "$1" g++ program.cpp vandrel
    check "a daemon through pkg-config in $1" through_pkg_config "$1" gcc daemon.c vandrel json-c libevent_core
    check "a C program through find_package in $1" through_cmake "$1" with_c
    check "a C++ program through find_package in $1" through_cmake "$1" with_cpp
    check "a daemon through find_package in $1" through_cmake "$1" with_daemon
}

check "installing" cmake --install "$build" --prefix "$work/first"
check "libraries linked" links_only_what_is_named "$work/first"
check "the library's name" soname_is_the_major_version "$work/first"
check "no trace of the build tree" names_nowhere "$work/first" "$build"
check "no trace of the folder" names_nowhere "$work/first" "$work"
for page in man3/libvandrel.3 man5/vandrel-zones.5; do
    check "the manual page $page" test -s "first/share/man/$page"
done
use "$work/first"
mv first second
use "$work/second"

check "installing again, beside another's header" cmake --install "$build" --prefix "$work/second"
touch second/include/vandrel/other.h
check "uninstalling" uninstall "$work/second"
check "nothing left but the other's header" [ "$(find second ! -type d)" = second/include/vandrel/other.h ]
check "installing into a stage" env DESTDIR="$work/stage" cmake --install "$build" --prefix /opt/vandrel
check "uninstalling there" uninstall "$work/stage"
check "nothing left there" [ "$(find stage ! -type d; find stage -name vandrel)" = stage/opt/vandrel ]
echo "$passed passed, $failed failed"
[ "$failed" = 0 ]
