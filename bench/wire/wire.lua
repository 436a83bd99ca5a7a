-- wrk script of the over-the-wire benchmark (bench/wire/run.sh).
--   WIRE_BODY_FILE   request body (the request becomes a SOAP POST); unset: plain GET
--   WIRE_SOAPACTION  SOAPACTION header value, without the quotes
--   WIRE_CLOSE=1     ask for a new connection per request ("Connection: close")
--   WIRE_UA          User-Agent header, as control points send one; unset or empty: none
-- At the end one line "WIRE_RESULT key=value ..." carries what run.sh records.
local body_file = os.getenv("WIRE_BODY_FILE")
local soap_action = os.getenv("WIRE_SOAPACTION")

if body_file and body_file ~= "" then
  local f = assert(io.open(body_file, "rb"))
  wrk.method = "POST"
  wrk.body = f:read("*a")
  f:close()
  wrk.headers["Content-Type"] = 'text/xml; charset="utf-8"'
end
if soap_action and soap_action ~= "" then
  wrk.headers["SOAPACTION"] = '"' .. soap_action .. '"'
end
local user_agent = os.getenv("WIRE_UA")
if user_agent and user_agent ~= "" then
  wrk.headers["User-Agent"] = user_agent
end
if os.getenv("WIRE_CLOSE") == "1" then
  wrk.headers["Connection"] = "close"
end

function done(summary, latency, _)
  local seconds = summary.duration / 1e6
  local e = summary.errors
  io.write(string.format(
    "WIRE_RESULT requests=%d seconds=%.3f rps=%.1f bytes=%d p50_us=%d p90_us=%d p99_us=%d max_us=%d "
      .. "err_connect=%d err_read=%d err_write=%d err_status=%d err_timeout=%d\n",
    summary.requests, seconds, summary.requests / seconds, summary.bytes,
    latency:percentile(50), latency:percentile(90), latency:percentile(99), latency.max,
    e.connect, e.read, e.write, e.status, e.timeout))
end
