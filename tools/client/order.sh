#!/bin/bash
# Places one order. The expiry cannot be left out. Prints what the answer means; status 0 when the download has begun, 4
# when the file is there already or its source forbids it. Needs curl.
set -euo pipefail
if [[ $# -ne 4 || $2 != http://* || $2 == *[?#]* || ! $4 =~ ^[0-9]+$ ]]; then
    echo "usage: $0 HOST:PORT http://SOURCE DESTINATION EXPIRY" >&2
    exit 2
fi

# A part of an order's path: what would end or change it is escaped, and so is the first letter of a segment by which
# the agent would split the order. Bytes above ASCII stay as they are.
encode() {
    local LC_ALL=C rest=$1 out='' segment
    rest=${rest//%/%25} rest=${rest// /%20} rest=${rest//+/%2B}
    rest=${rest//\?/%3F} rest=${rest//#/%23} rest=${rest//@/%40}
    while segment=${rest%%/*}; do
        case $segment in
        [Ss][Rr][Cc] | [Dd][Ss][Tt]) printf -v segment '%%%02X%s' "'${segment::1}" "${segment:1}" ;;
        esac
        out+=$segment
        [[ $rest == */* ]] || break
        out+=/ rest=${rest#*/}
    done
    printf %s "$out"
}

# As the target of the request: in a URL curl would escape, shorten and expand it once more.
target="/src/$(encode "$2")/dst/$(encode "$3")?expiry=$4"
case $(curl -sS --max-time 60 -o /dev/null -w '%{http_code}' --request-target "$target" "http://$1/") in
200) echo "begun" ;;
403) echo "there already, or forbidden by the source" >&2; exit 4 ;;
400) echo "refused: source or destination cannot be ordered, or the source refuses connections" >&2; exit 1 ;;
500) echo "failed: the source is being fetched already or is broken, or the agent is full" >&2; exit 1 ;;
000) echo "no answer: repeat the order" >&2; exit 3 ;;
*) echo "refused by the source" >&2; exit 6 ;;
esac
