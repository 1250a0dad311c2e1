# The real programs that bench/truth measures, which sources this. Each is started with all its files below $work.
# shellcheck shell=bash

# Whether the programs are there; says so in the table where they are not.
has_programs() {
    local program
    for program in "$@"; do
        [ -n "$(type -P "$program")" ] || { skip "no $program here, see --install"; return 1; }
    done
}

# Waits until a command succeeds, for 20 seconds at most.
await() {
    for _ in {1..100}; do
        "$@" >/dev/null 2>&1 && return
        sleep 0.2
    done
    skip "it does not answer"
    return 1
}

# Measures the process that was started last, and its descendants. Those that start meanwhile are stopped too.
measure_tree() {
    local root=$1 pids again
    mapfile -t pids < <(tree "$root")
    for _ in {1..10}; do
        stop "${pids[@]}"
        mapfile -t again < <(tree "$root")
        [ "${again[*]}" = "${pids[*]}" ] && break
        pids=("${again[@]}")
    done
    measure "${pids[@]}"
}

# A server with 30 clients that sort, 8 MiB each at most.
run_postgres() {
    local bin user as server client
    bin=$(echo /usr/lib/postgresql/*/bin)
    bin=${bin##* }
    has_programs "$bin/postgres" "$bin/pgbench" setpriv || return 0
    user=$(id -u postgres >/dev/null 2>&1 && echo postgres || echo nobody)
    as=(setpriv "--reuid=$user" "--regid=$(id -g $user)" --clear-groups env -C "$work")
    mkdir "$work/postgres"
    chown "$user" "$work/postgres"
    "${as[@]}" "$bin/initdb" -D "$work/postgres/data" -U bench --no-sync >"$work/log" 2>&1 || { skip "no initdb"; return 0; }
    "${as[@]}" "$bin/postgres" -D "$work/postgres/data" -k "$work/postgres" -c listen_addresses= -c work_mem=8MB \
        -c shared_buffers=128MB >"$work/log" 2>&1 &
    server=$!
    started+=("$server")
    local connect=(-h "$work/postgres" -U bench)
    if await "$bin/psql" "${connect[@]}" -c 'select 1' postgres; then
        "$bin/pgbench" "${connect[@]}" -i -s 10 postgres >"$work/log" 2>&1
        cat >"$work/sort.sql" <<'QUERY'
\set first random(1, 900000)
SELECT max(line) FROM (SELECT md5(filler || aid) AS line FROM pgbench_accounts
    WHERE aid BETWEEN :first AND :first + 20000 ORDER BY line) AS lines;
UPDATE pgbench_accounts SET abalance = abalance + 1 WHERE aid = :first;
QUERY
        "$bin/pgbench" "${connect[@]}" -c 30 -n -T 300 -f "$work/sort.sql" postgres >"$work/log" 2>&1 &
        client=$!
        started+=("$client")
        sleep 15
        measure_tree "$server"
        end "$client"
    fi
    end "$server"
}

# While it saves in the background and is written to.
run_redis() {
    has_programs redis-server redis-cli redis-benchmark || return 0
    local server client
    local connect=(-s "$work/redis.sock")
    redis-server --port 0 --unixsocket "$work/redis.sock" --dir "$work" --save '' --daemonize no \
        --rdb-key-save-delay 100 >"$work/log" 2>&1 &
    server=$!
    started+=("$server")
    if await redis-cli "${connect[@]}" ping; then
        redis-benchmark "${connect[@]}" -q -P 50 -n 800000 -r 400000 -d 200 -t set >"$work/log" 2>&1
        redis-cli "${connect[@]}" bgsave >/dev/null
        redis-benchmark "${connect[@]}" -q -P 10 -n 100000 -r 400000 -d 200 -t set >"$work/log" 2>&1
        measure_tree "$server"
    fi
    end "$server"
}

# Four workers of a server that has loaded its data before it forks.
run_gunicorn() {
    has_programs gunicorn curl || return 0
    local server
    cat >"$work/service.py" <<'PROGRAM'
import os
import random

table = [(number, "line %d" % number) for number in range(500_000)]

def application(environment, start_response):
    hits = [random.choice(table) for _ in range(5_000)]
    own = [text.upper() for _, text in hits]
    start_response("200 OK", [("Content-Type", "text/plain")])
    return [("%d %d\n" % (os.getpid(), len(own))).encode()]
PROGRAM
    gunicorn --chdir "$work" --preload --workers 4 --bind "unix:$work/gunicorn.sock" service:application \
        >"$work/log" 2>&1 &
    server=$!
    started+=("$server")
    if await curl -s --unix-socket "$work/gunicorn.sock" http://localhost/; then
        for _ in {1..40}; do curl -s --unix-socket "$work/gunicorn.sock" http://localhost/ >"$work/log"; done
        measure_tree "$server"
    fi
    end "$server"
}

# Four tabs of local pages.
run_chromium() {
    has_programs chromium curl || return 0
    local browser page port
    for page in 1 2 3 4; do
        cat >"$work/page$page.html" <<PAGE
<title>$page</title><canvas id="canvas" width="1500" height="1000"></canvas><ol id="list"></ol><script>
const data = Array.from({length: 300000}, (_, i) => ({name: "item " + i, value: i * $page}));
for (const item of data.slice(0, 5000)) {
    const line = document.createElement("li");
    line.textContent = item.name;
    document.getElementById("list").append(line);
}
document.getElementById("canvas").getContext("2d").fillRect($page, 0, 1000, 1000);
</script>
PAGE
    done
    HOME=$work TMPDIR=$work chromium --headless --no-sandbox --disable-gpu --disable-breakpad --disable-crash-reporter \
        --no-first-run --user-data-dir="$work/chromium" --remote-debugging-port=0 "file://$work/page1.html" \
        >"$work/log" 2>&1 &
    browser=$!
    started+=("$browser")
    if await test -s "$work/chromium/DevToolsActivePort"; then
        port=$(head -n 1 "$work/chromium/DevToolsActivePort")
        for page in 2 3 4; do
            curl -s -X PUT "http://127.0.0.1:$port/json/new?file://$work/page$page.html" >"$work/log"
        done
        sleep 10
        measure_tree "$browser"
    fi
    end "$browser"
}
