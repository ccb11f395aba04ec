-- Sends a player to a living host that has the file, else to the origin, and orders what is missing.
-- A request costs at most one call of Redis: who lives, which server has a key, and the database's clock are asked for
-- in the background, twice a second by each worker. While the database is away every player goes to the origin.
local redis = require "nginx.redis"
local bit = require "bit"

local ALIVE_KEY, ALIVE_MS = "kov:alive", 3000
local REFRESH_SEC, PROBE_SEC = 0.5, 1.0
local REPEAT_SEC, REPEAT_MAX_SEC, FORGET_SEC = 2, 5, 300
local ORDER_MAX = 127 -- bytes that an order's URL may have from its host on

local M = {}
local conf
local hosts = {} -- local_url_prefix -> { beat =, weight = }, as the last refresh found them
local clock_ahead = 0 -- the database's clock less this one, in seconds
local master -- where a single server or Sentinel's master is
local slots = {} -- of a Cluster: slot -> "host:port"
local away_until = {} -- "host:port" -> when it is asked again
local state = ngx.shared.kov -- counters and what was ordered, of all workers

local function count(name)
    state:incr("count:" .. name, 1, 0)
end

local function split(place)
    local host, port = place:match("^%[?(.-)%]?:(%d+)$")
    return assert(host, "no HOST:PORT: " .. place), tonumber(port)
end

-- ---- the database ----

-- A connection, or nil and why not. Making one and asking over it take the time-out at most.
local function connect(place, timeout_ms)
    local host, port = split(place)
    local client = redis:new()
    client:set_timeout(timeout_ms / 2)
    local ok, why = client:connect(host, port)
    if ok and conf.password and client:get_reused_times() == 0 then
        if conf.user then
            ok, why = client:auth(conf.user, conf.password)
        else
            ok, why = client:auth(conf.password)
        end
    end
    if not ok then
        return nil, why
    end
    return client
end

-- The reply of one command; nil and why not when the server failed; false and its text when it answered an error.
local function call(place, timeout_ms, command, ...)
    local client, why = connect(place, timeout_ms)
    if not client then
        return nil, why
    end
    local reply
    reply, why = client[command](client, ...)
    if reply == nil then
        client:close()
    else
        client:set_keepalive(60000, 64)
    end
    return reply, why
end

local CRC16 = {}
for i = 0, 255 do
    local crc = bit.lshift(i, 8)
    for _ = 1, 8 do
        crc = bit.bxor(bit.lshift(crc, 1), bit.band(crc, 0x8000) ~= 0 and 0x1021 or 0)
    end
    CRC16[i] = bit.band(crc, 0xffff)
end

-- A Cluster's slot of a key: of the part in braces, if there is one.
local function slot_of(key)
    local tag = key:match("{([^}]+)}") or key
    local crc = 0
    for i = 1, #tag do
        crc = bit.band(bit.bxor(bit.lshift(crc, 8), CRC16[bit.bxor(bit.rshift(crc, 8), tag:byte(i))]), 0xffff)
    end
    return bit.band(crc, 16383)
end

local function server_of(key)
    if conf.cluster then
        return slots[slot_of(key)]
    end
    return master
end

-- ---- in the background ----

local function find_master()
    for _, sentinel in ipairs(conf.sentinels) do
        local found = call(sentinel, 500, "sentinel", "get-master-addr-by-name", conf.master)
        if type(found) == "table" and found[2] then
            master = found[1]:find(":") and "[" .. found[1] .. "]:" .. found[2] or found[1] .. ":" .. found[2]
            return
        end
    end
end

local function find_slots()
    local asked = {}
    for _, place in pairs(slots) do
        asked[place] = true
    end
    for _, place in ipairs(conf.cluster) do
        asked[place] = true
    end
    for place in pairs(asked) do
        local ranges = call(place, 500, "cluster", "slots")
        if type(ranges) == "table" and #ranges > 0 then
            local new = {}
            for _, range in ipairs(ranges) do
                local node = range[3][1] .. ":" .. range[3][2]
                for slot = range[1], range[2] do
                    new[slot] = node
                end
            end
            slots = new
            return
        end
    end
end

local function read_alive()
    local place = server_of(ALIVE_KEY)
    if not place then
        return "no server is known"
    end
    local client, why = connect(place, 500)
    if not client then
        return why
    end
    client:init_pipeline(2)
    client:time()
    client:hgetall(ALIVE_KEY)
    local replies
    replies, why = client:commit_pipeline()
    if not replies then
        client:close()
        return why
    end
    client:set_keepalive(60000, 64)
    local time, fields = replies[1], replies[2]
    if type(time[1]) ~= "string" or fields[1] == false then
        return (time[1] == false and time[2]) or fields[2]
    end
    clock_ahead = time[1] + time[2] / 1e6 - ngx.now()
    local seen = {}
    for i = 1, #fields, 2 do
        local beat, weight = fields[i + 1]:match("^(%d+) (%d+)")
        seen[fields[i]] = beat and { beat = tonumber(beat), weight = tonumber(weight) }
    end
    hosts = seen
    away_until[place] = nil
end

local function look_around()
    if conf.sentinels then
        find_master()
    elseif conf.cluster then
        find_slots()
    end
    return read_alive()
end

local is_looking = false
local told -- the last complaint, so that each is logged once
local function refresh(premature)
    if premature or is_looking then
        return
    end
    is_looking = true
    local ok, why = pcall(look_around)
    is_looking = false
    if why ~= told then
        ngx.log(why and ngx.ERR or ngx.NOTICE, "the database ", ok and why and "is away: " or "", why or "answers")
        told = why
    end
end

-- ---- a request ----

-- Unexpired copies of an id, or nil when the database could not be asked.
local function copies_of(id)
    local place = server_of(id)
    local now = ngx.now()
    if not place or (away_until[place] or 0) > now then
        return nil
    end
    local urls, why = call(place, conf.timeout_ms, "zrangebyscore", id, "(" .. math.floor(now + clock_ahead), "+inf")
    if urls then
        return urls
    end
    if urls == false then
        local moved = why:match("^MOVED %d+ (%S+)")
        if moved then
            slots[slot_of(id)] = moved -- for the next player; this one has had his call
            return nil
        elseif why:match("^WRONGTYPE") then
            return {} -- a key that is no id
        end
    end
    away_until[place] = now + PROBE_SEC
    ngx.log(ngx.ERR, "the database at ", place, " is left alone for a second: ", why)
    return nil
end

local function pick(urls, id)
    local oldest = (ngx.now() + clock_ahead) * 1000 - ALIVE_MS
    local living, sum = {}, 0
    for _, url in ipairs(urls) do
        local prefix = url:sub(1, -#id - 2)
        local host = hosts[prefix]
        if host and host.beat >= oldest then
            living[#living + 1] = { prefix = prefix, weight = host.weight }
            sum = sum + host.weight
        end
    end
    if sum == 0 then
        return living[1] and living[math.random(#living)].prefix
    end
    local at = math.random() * sum
    for _, copy in ipairs(living) do
        at = at - copy.weight
        if at < 0 then
            return copy.prefix
        end
    end
end

-- The order of an id as a datagram, or nil when its text cannot be one.
local function order_of(id)
    if id:find("[^%w%-._~/]") or id:find("//", 1, true) or id:find("-Kova", 1, true) then
        return nil
    end
    for segment in id:gmatch("[^/]+") do
        local lower = segment:lower()
        if segment == ".." or lower == "src" or lower == "dst" then
            return nil
        end
    end
    -- The destination of an order that names none is the path of its source.
    local is_path_id = not conf.origin:match("^http://[^/]+/.")
    local url = "k/src/" .. conf.origin .. "/" .. id .. "/dst/" .. (is_path_id and "" or id)
    if #url > ORDER_MAX then
        return nil
    end
    -- Whoever orders this id has the same lock for it.
    return "#!" .. ngx.md5(id):sub(1, 24) .. " http://" .. url .. " " .. conf.expiry
end

-- An order gets no answer and may be lost: it is repeated while players ask and nobody has the file, at growing
-- intervals. Where agents are ordered one by one, each repetition goes to the next.
local function order(id)
    if state:get("wait:" .. id) then
        return
    end
    local datagram = order_of(id)
    if not datagram then
        return count("unorderable")
    end
    local second = "orders:" .. math.floor(ngx.now())
    if state:incr(second, 1, 0, 2) > conf.orders_per_sec then
        return count("held_back")
    end
    local attempt = state:incr("tries:" .. id, 1, 0, FORGET_SEC)
    if not state:add("wait:" .. id, true, math.min(REPEAT_SEC * 2 ^ (attempt - 1), REPEAT_MAX_SEC)) then
        return -- another worker has just ordered it
    end
    local channel = conf.channels[(ngx.crc32_short(id) + attempt - 1) % #conf.channels + 1]
    local sock = ngx.socket.udp()
    local ok, why = sock:setpeername(split(channel))
    if ok then
        ok, why = sock:send(datagram)
        sock:close()
    end
    count("orders")
    if not ok then
        ngx.log(ngx.ERR, "no order to ", channel, ": ", why)
    end
end

local function send_to(prefix, id)
    ngx.header["Location"] = prefix .. "/" .. id:gsub("[^%w%-._~/]", function(c)
        return string.format("%%%02X", c:byte())
    end)
    ngx.header["Cache-Control"] = "no-store"
    ngx.exit(ngx.HTTP_TEMPORARY_REDIRECT)
end

function M.serve()
    local id = ngx.var.uri:sub(2)
    if id == "" then
        return ngx.exit(ngx.HTTP_NOT_FOUND)
    end
    local urls = copies_of(id)
    local prefix = urls and pick(urls, id)
    if prefix then
        count("hits")
        return send_to(prefix, id)
    end
    if urls then
        count("misses")
        order(id)
    else
        count("blind")
    end
    send_to(conf.origin, id)
end

-- Prometheus's text form.
function M.metrics()
    ngx.header["Content-Type"] = "text/plain; version=0.0.4"
    for _, name in ipairs { "hits", "misses", "blind", "orders", "held_back", "unorderable" } do
        ngx.say("kov_balancer_", name, "_total ", state:get("count:" .. name) or 0)
    end
    local oldest, living = (ngx.now() + clock_ahead) * 1000 - ALIVE_MS, 0
    for _, host in pairs(hosts) do
        living = living + (host.beat >= oldest and 1 or 0)
    end
    ngx.say("kov_balancer_living_hosts ", living)
    local away = told ~= nil
    for _, until_when in pairs(away_until) do
        away = away or until_when > ngx.now()
    end
    ngx.say("kov_balancer_database_up ", away and 0 or 1)
end

-- ---- life ----

-- Where the data live: redis://HOST:PORT, sentinel://HOST:PORT,.../MASTER or cluster://HOST:PORT,...
local function set_database(url)
    local scheme, places, tail = url:match("^(%l+)://([^/]+)/?(.*)$")
    local list = {}
    for place in (places or ""):gmatch("[^,]+") do
        split(place)
        list[#list + 1] = place
    end
    if scheme == "redis" and #list == 1 then
        master = list[1]
    elseif scheme == "sentinel" and tail ~= "" then
        conf.sentinels, conf.master = list, tail
    elseif scheme == "cluster" then
        conf.cluster = list
    else
        error("no database: " .. url)
    end
end

-- For init_by_lua: the settings are those of balancer.conf.
function M.setup(settings)
    conf = settings
    conf.origin = conf.origin:gsub("/+$", "")
    conf.timeout_ms = conf.timeout_ms or 80
    conf.orders_per_sec = conf.orders_per_sec or 200
    assert(conf.origin:match("^http://"), "origin must begin with http://")
    assert(#conf.channels > 0, "channels must name where orders go")
    assert(tonumber(conf.expiry), "expiry must be a number: an order without one stops the agents")
    for _, channel in ipairs(conf.channels) do
        split(channel)
    end
    set_database(conf.database)
end

-- For init_worker_by_lua.
function M.start()
    math.randomseed(ngx.now() * 1000 + ngx.worker.pid())
    assert(ngx.timer.at(0, refresh))
    assert(ngx.timer.every(REFRESH_SEC, refresh))
end

return M
