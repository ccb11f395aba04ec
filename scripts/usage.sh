# shellcheck shell=bash
# Sourced by the scripts, from the top of the tree.

usage() { # [WORD]: what was given; ends the script with the comment at its head
    local head
    head=$(sed -n '2,/^[^#]/s/^# \{0,1\}//p' "scripts/${0##*/}")
    case ${1:-} in
    -h | --help) printf '%s\n' "$head"; exit 0 ;;
    *) printf '%s\n' "$head" >&2; exit 2 ;;
    esac
}
