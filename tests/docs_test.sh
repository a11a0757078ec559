#!/usr/bin/env bash
# docs_test.sh BUILD: does what README.md, docs/daemon-guide.md and docs/operations.md say, line by line as it stands
# there, on an empty device with a /usr/local of its own; and compiles every piece of C in docs/.
set -uo pipefail

if [ "$1" != --on-device ]; then
    export TREE PATH=/usr/local/sbin:$PATH:/usr/sbin:/sbin # as root has it
    TREE=$(realpath "$(dirname "$0")/..")
    build=$(realpath "$1")
    work=$(mktemp -d)
    trap 'rm -rf "$work"' EXIT
    timeout -s KILL 600 "$build/tools/device/device" bash "/.host$TREE/tests/docs_test.sh" --on-device "$build" "$work"
    exit
fi

build=$2 work=$3
mount --bind /.host/tmp /tmp # what lies there keeps its path
mount -t tmpfs tmpfs /usr/local
mount -t tmpfs tmpfs /var/cache/ldconfig 2>/dev/null # else that of the host gets to know of it
export HOME=$work/home
mkdir "$work/home" "$work/blocks"
cd "$TREE" || exit 1
passed=0 failed=0 skipped=

sudo() { # the reader is root here
    "$@"
}

pass() {
    passed=$((passed + 1))
}

fail() { # NAME OUTPUT
    failed=$((failed + 1))
    printf '%s\nFAILED: %s\n' "$2" "$1"
}

# split PAGE: each code block becomes a file NAME-LINE.LANGUAGE
split() {
    local page=$1 name
    name=$(basename "$page" .md)
    awk -v start="$work/blocks/$name" '
        inside && /^```/ { inside = 0; close(file); next }
        inside { print >file }
        !inside && /^```/ { inside = 1; file = sprintf("%s-%03d.%s", start, NR, substr($0, 4)) }' "$page"
}

# typed BLOCK: its statements in this shell, up to one that fails
typed() {
    local line statement=''
    while IFS= read -r -u 3 line; do
        statement+=$line$'\n'
        [ -z "$(bash -n <<<"$statement" 2>&1)" ] || continue # it goes on in the next line
        eval "$statement" >>"$work/output" 2>&1 || break
        statement=''
    done 3<"$1"
    [ -z "$statement" ] || echo "this failed: $statement" >>"$work/output"
    [ -z "$statement" ]
}

# follow PAGE: saves what it shows as files, types its lines, and compares what it says will be printed
follow() {
    local block
    split "$1"
    for block in "$work/blocks/$(basename "$1" .md)"-*; do
        case $block in
            *.c) mkdir -p "$work/hello" && cd "$work/hello" && cp "$block" hello.c ;;
            *.cmake) cp "$block" CMakeLists.txt ;;
            *.sh)
                sed -i '/^script\//d' "$block" # whoever runs this has built already
                : >"$work/output"
                if typed "$block"; then pass; else fail "$block" "$(<"$work/output")"; fi
                ;;
            *.text) if diff "$block" "$work/output" >"$work/diff"; then pass; else fail "$block" "$(<"$work/diff")"; fi ;;
        esac
    done
}

# compiles BLOCK: a whole program, or what stands in a function
compiles() {
    if ! grep -q '#include' "$1"; then
        {
            printf '#include <%s>\n' stdlib.h sys/stat.h uci.h vandrel/{daemon_tools,logging,uciconfig,ucistate}.h
            echo 'void use(uint32_t address, bool active);'
            echo 'int block(void);'
            echo 'int block(void)'
            echo '{'
            cat "$1"
            echo '    return 0;'
            echo '}'
        } >"$1.whole.c"
        set -- "$1.whole.c"
    fi
    # shellcheck disable=SC2046 # a list of words
    cc -Wall -Wextra -Werror -Wno-unused-variable -Wno-unused-but-set-variable -fsyntax-only "$1" \
        $(pkg-config --cflags vandrel json-c libevent_core) >"$work/output" 2>&1
}

follow README.md
cd "$TREE" || exit 1
left=$(find -H "$HOME" /usr/local ! -type d)
if [ -z "$left" ]; then pass; else fail "nothing is left of the installations" "$left"; fi

cmake --install "$build" --prefix /usr/local >/dev/null && ldconfig
follow docs/daemon-guide.md
cd "$TREE" || exit 1
read -r _ _ ids </proc/self/uid_map
if [ "$ids" -gt 1 ]; then # started by root; an ordinary user's device has no other ids to change to
    follow docs/operations.md
else
    echo "skipped  docs/operations.md: needs several ids"
    skipped=', 1 skipped'
fi
cd "$TREE" || exit 1
for page in docs/*.md; do
    split "$page"
done
for block in "$work"/blocks/*.c; do
    if compiles "$block"; then pass; else fail "$block" "$(<"$work/output")"; fi
done
echo "$passed passed, $failed failed$skipped"
[ "$failed" = 0 ]
