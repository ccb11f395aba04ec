# shellcheck shell=bash disable=SC2034
# What the parts of the night share. /night/next names the one that the next boot runs; the unit reboots when a part has
# ended well, and powers off when one has failed, which then says by which line.
set -euo pipefail
finish() {
    status=$?
    failed=$BASH_COMMAND
    (( status != 0 )) || return 0
    set +e
    tail -n 20 /var/log/kov/kov.log
    journalctl -u 'kov*' -n 40 --no-pager
    echo "night: $failed (status $status)"
}
trap finish EXIT

await() { # a condition, for at most 60 seconds, or $patience
    local n
    for ((n = ${patience:-60} * 5; n > 0; n--)); do
        if "$@" >/dev/null 2>&1; then return; fi
        sleep 0.2
    done
    echo "night: waited in vain for: $*"
    return 1
}
runs() { [[ $(systemctl is-active "$1") == active ]]; }
stopped() { [[ $(systemctl is-active "$1") == inactive ]]; }
pid_of() { systemctl show -P MainPID "$1"; }

source=http://127.0.0.1
www=/var/www/html
dropins=/etc/systemd/system/kov.service.d

source_rate() { # of port 81; 0: as fast as it can
    echo "server { listen 81; root $www; limit_rate $1; }" >/etc/nginx/conf.d/slow.conf
    systemctl restart nginx
}
order_many() { # DIRECTORY FIRST LAST FILE [OPTION ...]: under numbers; /night/promised names those that got 200
    local dir=$1 file=$4 n
    for ((n = $2; n <= $3; n++)); do
        ln -f "$www/$file" "$www/$n.ts"
        if kovctl -e 3600 "${@:5}" get "http://127.0.0.1:81/$n.ts" "$dir/$n.ts" >/dev/null; then
            echo "$dir/$n.ts" >>/night/promised
        fi
    done
}
unfinished() { find "$1" -name '*-Kova' | wc -l; }

# Every order that got 200 is stored or listed; what is listed is left in /night/lost.
all_kept() { # DATA_DIRECTORY [OPTION ...]
    local path
    kovctl "${@:2}" lost >/night/lost || true
    while read -r path; do
        [[ -e $1/$path ]] || grep -qF -- "-> $1/$path: " /night/lost
    done </night/promised
}
# Placed again, every one of them is stored, whole and registered, and nothing is left.
all_stored() { # DATA_DIRECTORY [OPTION ...]
    local path
    kovctl "${@:2}" replay >/dev/null
    while read -r path; do
        await test -e "$1/$path"
        cmp "$1/$path" "$www/${path##*/}"
        [[ $(redis-cli zcard "$path") == 1 ]]
    done </night/promised
    kovctl "${@:2}" lost | grep -v ', over$' >/night/lost || true
    [[ ! -s /night/lost ]]
    : >/night/promised
}
