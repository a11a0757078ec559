#!/usr/bin/env bash
# script_test.sh: what the scripts say before they build anything: in a copy of the tree that is no git checkout, below a
# path with a blank, and called through a symbolic link.
set -uo pipefail
tree=$(dirname "$(realpath "$0")")/..
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
passed=0 failed=0

# check STATUS TEXT SCRIPT [ARGUMENT...]: the exit status, and the beginning of what it says
check() {
    local output status=0
    output=$(timeout 60 "$work/links/$3" "${@:4}" 2>&1) || status=$?
    if [ "$status" = "$1" ] && [[ $output == "$2"* ]]; then
        passed=$((passed + 1))
    else
        failed=$((failed + 1))
        printf 'FAILED: %s\nstatus %s: %s\nexpected %s: %s\n' "${*:3}" "$status" "$output" "$1" "$2"
    fi
}

mkdir "$work/a copy" "$work/links"
cp -r "$tree"/{script,bench,fuzz,CMakePresets.json} "$work/a copy"
ln -s "$work/a copy/script/"* "$work/links"

check 1 'script/build: there is no preset "nix", only: release' build gcc nix
check 1 'script/bench: there is no benchmark "nix", only: bus' bench logging nix
check 1 'script/fuzz: there is no target "nix", only: address' fuzz 1 zones nix
check 1 'script/fuzz: "zones" is no number of seconds' fuzz zones
for script in demo lint test; do
    check 1 "script/$script: takes no arguments, but got: nix" "$script" nix
done
for script in bench bootstrap build demo fuzz lint test; do
    check 0 "script/$script" "$script" --help
done
GIT_CEILING_DIRECTORIES=$work check 1 'script/lint: this is no git checkout' lint
if [ -e "$work/a copy/build" ]; then
    failed=$((failed + 1))
    echo "FAILED: something was built or installed all the same"
fi
echo "$passed passed, $failed failed"
[ "$failed" = 0 ]
