-- The outbox's side of a registration: notes it for kov-forward, which carries it to the fleet's database. KEYS[1]: the
-- file's id. ARGV: the URL of this copy, and its expiry. Answers "ok:" and the id, as the fleet's own script does.
-- Whenever it is carried, a copy ends when it would have ended: a length becomes a Unix time here. 0 stays "never".
local id, url, ends = KEYS[1], ARGV[1], tonumber(ARGV[2])
if not url or url == '' or not ends then
    return redis.error_reply('add_url wants an id, a URL and an expiry')
end

-- The shortest number that counts as a time, and one that is as good as never.
local FIRST_TIME, LAST_TIME = 1000000000, 99999999999
if ends ~= 0 and ends < FIRST_TIME then
    ends = math.max(tonumber(redis.call('TIME')[1]) + ends, FIRST_TIME)
end
redis.call('XADD', 'kov:outbox', '*', 'id', id, 'url', url, 'ends', string.format('%d', math.min(ends, LAST_TIME)))
return 'ok:' .. id
