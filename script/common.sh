# shellcheck shell=bash
# What the scripts share. Each reads it first, which takes it to the root of the tree, wherever it was called from and by
# which name. --help shows the head of the script.

script=$(realpath "$0")
cd "$(dirname "${script%/*}")" || exit

case ${1:-} in
    -h | --help)
        sed -n '2,/^[^#]/s/^# \{0,1\}//p' "$script"
        exit
        ;;
esac

# fail WHAT: one line, and the end
fail() {
    echo "script/${script##*/}: $*" >&2
    exit 1
}

# no_arguments "$@"
no_arguments() {
    [ $# = 0 ] || fail "takes no arguments, but got: $*"
}

# check_names KIND "KNOWN, one a line" NAME...: ends the script when a name is none of the known ones
check_names() {
    local name
    for name in "${@:3}"; do
        grep -qxF -e "$name" <<<"$2" || fail "there is no $1 \"$name\", only: $(xargs <<<"$2")"
    done
}

# programs FOLDER KIND: the NAMEs of FOLDER/NAME_KIND.cpp, one a line
programs() {
    local source
    for source in "$1"/*_"$2".cpp; do
        basename "$source" "_$2.cpp"
    done
}
