-- fetch.lua URL: the body of the answer on standard output. Exits with status 1 when the request fails.

-- What a shell takes for this one argument.
local function quote(argument)
  return "'" .. argument:gsub("'", "'\\''") .. "'"
end

-- Performs a GET. Returns its result, a status code or a failure code, and the body.
local function request(url)
  local description = url:gsub("|", "%%7C") -- a bar would begin the next field
  local output = assert(io.popen("webreq -web " .. quote(description)))
  local result, body = output:read("*l", "*a")
  assert(output:close(), "webreq was stopped") -- Lua 5.1 can't tell
  return assert(tonumber(result), "webreq gave no answer"), body:sub(1, -2)
end

if #arg == 0 then
  io.stderr:write("usage: fetch URL\n")
  os.exit(2)
end
local result, body = request(arg[1])
if result < 200 or result > 299 then
  io.stderr:write("fetch: the result is ", result, "\n")
  os.exit(1)
end
io.write(body)
