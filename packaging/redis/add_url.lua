-- Registers one copy of a file. KEYS[1]: the file's id. ARGV: the URL of this copy, and its expiry.
-- The id's key is a sorted set: members are URLs, scores the Unix times at which they end ("inf" = never).
-- An expiry below 1,000,000,000 counts from now, a larger one is a Unix time, 0 is never: for a copy that has no end
-- yet.
-- Answers "ok:" and the id.
local id, url, expiry = KEYS[1], ARGV[1], tonumber(ARGV[2])
if not url or url == '' or not expiry then
    return redis.error_reply('add_url wants an id, a URL and an expiry')
end

local now = tonumber(redis.call('TIME')[1])
if expiry == 0 then
    -- A copy that has ended is a new one; any other keeps its end.
    redis.call('ZREMRANGEBYSCORE', id, '-inf', now)
    redis.call('ZADD', id, 'NX', '+inf', url)
else
    redis.call('ZADD', id, expiry < 1000000000 and now + expiry or expiry, url)
    redis.call('ZREMRANGEBYSCORE', id, '-inf', now)
end

-- The key goes with its last copy.
local last = redis.call('ZREVRANGE', id, 0, 0, 'WITHSCORES')
if last[2] == 'inf' then
    redis.call('PERSIST', id)
elseif last[2] then
    redis.call('EXPIREAT', id, last[2])
end
return 'ok:' .. id
