-- Wireshark dissector of tolk's wire format (docs/wire.md): frames, blocks, envelopes, nested
-- arguments, and each reply matched with its call.
--
-- Use it once:         tshark -X lua_script:tools/wireshark/tolk.lua -r calls.pcapng
-- Keep it:             copy it into the folder that Help > About > Folders calls "Personal Lua Plugins"
-- TCP is recognised by its content on any port; "Decode As..." and the preference "TCP ports" help
-- where a capture starts amid a connection. Captures of `tolk monitor` are exported PDUs that name the
-- dissector "tolk_pdu": whole frames in each packet, or a part of a large one.

-- It may be there already, as a plugin.
if Dissector.get("tolk") then return end

local tolk = Proto("tolk", "tolk calls")

local kinds = { [0] = "call", [1] = "posted call", [2] = "reply" }
local CALL, POSTED, REPLY = 0, 1, 2
local tags = {
  [0] = "int", [1] = "bool", [2] = "double", [3] = "string", [4] = "stream",
  [5] = "key and value", [6] = "list", [7] = "map",
}
local INT, BOOL, DOUBLE, STRING, STREAM, KEYED, LIST, MAP = 0, 1, 2, 3, 4, 5, 6, 7

local f = {
  length = ProtoField.int32("tolk.length", "Payload length"),
  kind = ProtoField.uint8("tolk.kind", "Kind", base.DEC, kinds),
  name = ProtoField.string("tolk.name", "Method"),
  call_id = ProtoField.int32("tolk.call_id", "Call id"),
  token = ProtoField.string("tolk.token", "Token"),
  arguments = ProtoField.none("tolk.arguments", "Arguments"),
  tag = ProtoField.uint8("tolk.tag", "Tag", base.HEX, tags),
  key = ProtoField.string("tolk.key", "Key"),
  int = ProtoField.int32("tolk.int", "int"),
  bool = ProtoField.bool("tolk.bool", "bool"),
  double = ProtoField.double("tolk.double", "double"),
  string = ProtoField.string("tolk.string", "string"),
  stream = ProtoField.bytes("tolk.stream", "stream"),
  size = ProtoField.int32("tolk.size", "Size"),
  count = ProtoField.int32("tolk.count", "Count"),
  check = ProtoField.int32("tolk.check", "Check word"),
  request_in = ProtoField.framenum("tolk.request_in", "Reply to the call in", base.NONE, frametype.REQUEST),
  reply_in = ProtoField.framenum("tolk.reply_in", "Answered in", base.NONE, frametype.RESPONSE),
  time = ProtoField.relative_time("tolk.time", "Time since the call"),
}
tolk.fields = f

local e = {
  malformed = ProtoExpert.new("tolk.malformed", "The block is malformed here", expert.group.MALFORMED, expert.severity.ERROR),
  check = ProtoExpert.new("tolk.wrong_check", "The check word is not its own offset", expert.group.CHECKSUM, expert.severity.ERROR),
  unknown = ProtoExpert.new("tolk.no_method", "The peer has no such method", expert.group.RESPONSE_CODE, expert.severity.WARN),
  negative = ProtoExpert.new("tolk.negative_length", "A negative length counts as an empty frame", expert.group.MALFORMED, expert.severity.WARN),
}
tolk.experts = e

tolk.prefs.ports = Pref.range("TCP ports", "", "Ports that always carry tolk calls", 65535)

local HEADER_BYTES = 4
local ARGUMENTS = "s_c_sw_data"  -- the key of a call's arguments, a block

-- Blocks. A reader stands at `at` in `bytes`, the block; offsets count from the block's first byte.

local function cut(text) return #text > 60 and text:sub(1, 57) .. "..." or text end

local function text_of(range) return cut(range:string()) end

-- The words for a value in a line of text.
local function shown(value)
  if value.tag == STRING then return '"' .. value.text .. '"' end
  if value.tag == STREAM then return string.format("%d bytes", value.size) end
  return value.text
end

local function add_check(block, tree, at)
  local item = tree:add_le(f.check, block(at, 4))
  if block(at, 4):le_int() ~= at then
    item:add_proto_expert_info(e.check)
    return false
  end
  return true
end

-- The parts of a scalar record: how its value is read and shown.
local fixed = {
  [INT] = { 4, function(range) return tostring(range:le_int()) end, f.int },
  [BOOL] = { 1, function(range) return range:uint() == 0x31 and "true" or "false" end, f.bool },
  [DOUBLE] = { 8, function(range) return string.format("%.17g", range:le_float()) end, f.double },
}

-- A tree of nothing, for a look at bytes that may be no block.
local nowhere
nowhere = setmetatable({}, { __index = function() return function() return nowhere end end })
local MOST_NESTED = 16
local nested = 0
local read_block

-- A stream may hold a block: a struct, or a list within another value. It is one if every record of it
-- is intact, as a record's check word is its own offset.
local function add_nested(range, tree)
  if tree == nowhere or nested == MOST_NESTED then return end
  local _, _, intact = read_block(range:tvb(), nowhere)
  if not intact then return end
  nested = nested + 1
  read_block(range:tvb(), tree)
  nested = nested - 1
end

-- One scalar record. The value and the offset behind it; nothing when the block ends within it. A
-- value whose check word is wrong is the last. `closed`: what it holds is not looked at.
local function scalar(block, tree, at, closed)
  if at >= block:len() then return nil end
  local tag = block(at, 1):uint()
  if tag > STREAM then return nil end
  local node = tree:add(block(at, 1), tags[tag])
  node:add(f.tag, block(at, 1))
  local value = { tag = tag, node = node }
  local stop
  if fixed[tag] then
    local size, read, field = table.unpack(fixed[tag])
    stop = at + 1 + size
    if stop + 4 > block:len() then return nil end
    local range = block(at + 1, size)
    value.text, value.range = read(range), range
    if tag == BOOL then node:add(field, range, value.text == "true") else node:add_le(field, range) end
  else
    if at + 5 > block:len() then return nil end
    local size = block(at + 1, 4):le_int()
    node:add_le(f.size, block(at + 1, 4))
    stop = at + 5 + size
    if size < 0 or stop + 4 > block:len() then return nil end
    value.size, value.text = size, ""
    if size > 0 then
      value.range = block(at + 5, size)
      value.text = text_of(value.range)
      node:add(tag == STRING and f.string or f.stream, value.range)
    end
  end
  value.intact = add_check(block, node, stop)
  node:set_len(stop + 4 - at)
  node:set_text(tags[tag] .. ": " .. shown(value))
  if tag == STREAM and value.range and value.intact and not closed then add_nested(value.range, node) end
  return value, stop + 4
end

-- The elements of a list or a map. The value and the offset behind it; nothing when the block ends
-- within.
local function elements(block, tree, at, read)
  if at + 5 > block:len() then return nil end
  local tag, count = block(at, 1):uint(), block(at + 1, 4):le_int()
  local node = tree:add(block(at, 5), string.format("%s of %d", tags[tag], count))
  node:add(f.tag, block(at, 1))
  node:add_le(f.count, block(at + 1, 4))
  local next_at, words = at + 5, {}
  for _ = 1, count do
    if next_at >= block:len() then break end
    local first = block(next_at, 1):uint()
    if (tag == LIST and first > STREAM) or (tag == MAP and first ~= KEYED) then break end
    local value, behind = read(block, node, next_at)
    if not value then return nil end
    next_at = behind
    if not value.intact then return nil end
    if #words < 20 then words[#words + 1] = (tag == MAP and value.key .. "=" or "") .. shown(value) end
  end
  node:set_len(next_at - at)
  local open, close = tag == MAP and "{" or "[", tag == MAP and "}" or "]"
  local text = open .. cut(table.concat(words, ", ")) .. close
  return { tag = tag, node = node, text = text, intact = true }, next_at
end

local function keyed(block, tree, at)
  if at + 1 >= block:len() or block(at + 1, 1):uint() ~= STRING then return nil end
  local node = tree:add(block(at, 1), "key")
  node:add(f.tag, block(at, 1))
  local key, behind = scalar(block, node, at + 1)
  if not key or not key.intact then return nil end
  node:add(f.key, key.range or block(at, 1), key.range and key.range:string() or "")
  local value
  local name = key.range and key.range:string() or ""
  value, behind = scalar(block, node, behind, name == ARGUMENTS)
  if not value then return nil end
  value.key, value.entry = name, node
  node:set_len(behind - at)
  node:set_text(string.format("%s = %s", value.key, shown(value)))
  return value, behind
end

-- A whole block. Its keyed values by name, its positional ones in order, and whether it is intact.
function read_block(block, tree)
  local keys, values, at = {}, {}, 0
  while at < block:len() do
    local tag, value, behind = block(at, 1):uint(), nil, nil
    if tag == KEYED then
      value, behind = keyed(block, tree, at)
      if value then keys[value.key] = value end
    elseif tag == LIST then
      value, behind = elements(block, tree, at, scalar)
    elseif tag == MAP then
      value, behind = elements(block, tree, at, keyed)
    elseif tag <= STREAM then
      value, behind = scalar(block, tree, at)
    end
    if value and tag ~= KEYED then values[#values + 1] = value end
    if not (value and value.intact) then
      tree:add_proto_expert_info(e.malformed)
      return keys, values, false
    end
    at = behind
  end
  return keys, values, true
end

-- Calls and replies. A reply wakes the call of the other side that has its token; both sides may have
-- calls of one token.

local calls, answers = {}, {}
function tolk.init() calls, answers = {}, {} end

-- The two ends of a packet, which are the same in an exported PDU that does not say who sent it.
local function source(pinfo) return tostring(pinfo.src) .. ":" .. pinfo.src_port end
local function target(pinfo) return tostring(pinfo.dst) .. ":" .. pinfo.dst_port end
local function call_key(from, to, token) return from .. " " .. to .. " " .. token end

local function remember(pinfo, token, method)
  if pinfo.visited then return end
  calls[call_key(source(pinfo), target(pinfo), token)] =
    { packet = pinfo.number, time = pinfo.rel_ts, method = method }
end

-- The call that this reply answers, if it was seen.
local function match(pinfo, token)
  local call = calls[call_key(target(pinfo), source(pinfo), token)]
  if not pinfo.visited and call then
    answers[pinfo.number .. " " .. token] = call
    answers[call.packet .. " call " .. token] = pinfo.number
  end
  return answers[pinfo.number .. " " .. token]
end

local function show_reply_of(tree, pinfo, token)
  local reply = answers[pinfo.number .. " call " .. token]
  if reply then tree:add(f.reply_in, reply):set_generated() end
end

-- Returns the method that was called, "" if the call was not seen.
local function show_call_of(tree, pinfo, token)
  local call = match(pinfo, token)
  if not call then return "" end
  tree:add(f.name, call.method):set_generated()
  tree:add(f.request_in, call.packet):set_generated()
  local seconds = pinfo.rel_ts - call.time
  local whole = math.floor(seconds)
  tree:add(f.time, NSTime.new(whole, math.floor((seconds - whole) * 1e9 + 0.5))):set_generated()
  return call.method
end

local function short_list(values, keys)
  local words = {}
  for _, value in ipairs(values) do words[#words + 1] = shown(value) end
  local names = {}
  for name, _ in pairs(keys) do
    if name:sub(1, 4) ~= "s_c_" then names[#names + 1] = name end
  end
  table.sort(names)
  for _, name in ipairs(names) do words[#words + 1] = name .. "=" .. shown(keys[name]) end
  return table.concat(words, ", ")
end

local function show_arguments(keys)
  local data = keys[ARGUMENTS]
  if not data or not data.range then return "" end
  local node = data.entry:add(f.arguments, data.range)
  local inner_keys, inner_values = read_block(data.range:tvb(), node)
  return short_list(inner_values, inner_keys)
end

-- Behind other values it is what the library adds to a catch-all's answer; with "tolk.value" the method
-- has answered so itself.
local function mark_unknown_method(keys, values)
  local first = values[1]
  if not first or first.tag ~= STRING or keys["tolk.value"] then return end
  if first.text:sub(1, 10) == "no event: " then first.node:add_proto_expert_info(e.unknown) end
end

-- Returns what the packet list says of it.
local function show_envelope(tree, pinfo, keys, values)
  local name, id, token = keys["s_c_sw_name"], keys["s_c_sw_threadid"], keys["s_c_sw_semid"]
  local method = name and name.text or ""
  local kind = method == "retval" and REPLY or (token and CALL or POSTED)
  tree:add(f.kind, kind):set_generated()
  if kind ~= REPLY and name and name.range then tree:add(f.name, name.range):set_generated() end
  if id and id.tag == INT then tree:add_le(f.call_id, id.range):set_generated() end
  local has_token = token and token.tag == STRING and token.range
  if has_token then tree:add(f.token, token.range):set_generated() end
  if kind == REPLY then
    mark_unknown_method(keys, values)
    local called = has_token and show_call_of(tree, pinfo, token.text) or ""
    local to = called ~= "" and " to " .. called or ""
    return "reply" .. to .. " (" .. short_list(values, keys) .. ")"
  end
  if has_token then
    remember(pinfo, token.text, method)
    show_reply_of(tree, pinfo, token.text)
  end
  return string.format("%s %s(%s)", kinds[kind], method, show_arguments(keys))
end

-- Frames.

local is_first_frame = true  -- of its packet

local function dissect_frame(tvb, pinfo, root)
  pinfo.cols.protocol = "tolk"
  local tree = root:add(tolk, tvb())
  local length = tree:add_le(f.length, tvb(0, HEADER_BYTES))
  local said = tvb(0, HEADER_BYTES):le_int()
  local info = "empty frame"
  if said < 0 then length:add_proto_expert_info(e.negative) end
  if tvb:len() > HEADER_BYTES then
    local block = tvb(HEADER_BYTES):tvb()
    local keys, values = read_block(block, tree:add(tvb(HEADER_BYTES), "Block"))
    info = show_envelope(tree, pinfo, keys, values)
  end
  tree:append_text(", " .. info)
  if is_first_frame then
    pinfo.cols.info:set(info)
  else
    pinfo.cols.info:append("; " .. info)
  end
  is_first_frame = false
  return tvb:len()
end

local function frame_bytes(tvb, _, offset)
  return HEADER_BYTES + math.max(tvb(offset, HEADER_BYTES):le_int(), 0)
end

function tolk.dissector(tvb, pinfo, root)
  is_first_frame = true
  dissect_tcp_pdus(tvb, root, HEADER_BYTES, frame_bytes, dissect_frame)
  return tvb:len()
end

-- An exported PDU holds whole frames. One that is longer than a packet goes on in the next packets of
-- the same direction.
local pdu = Proto("tolk_pdu", "tolk calls of a local pipe")
local begun = {}  -- by direction: what has come of a frame
local joined = {}  -- by packet: a frame from its beginning, where earlier packets hold that
local parts = {}  -- by packet: how much of its frame has come with it, when that is not all

local function show_part(tvb, pinfo, root)
  pinfo.cols.protocol = "tolk"
  local said = "part of a frame, " .. parts[pinfo.number]
  root:add(tolk, tvb()):append_text(", " .. said)
  pinfo.cols.info:set(said)
end

local function frame_size(bytes)
  if bytes:len() < HEADER_BYTES then return HEADER_BYTES end
  local length = 0
  for i = HEADER_BYTES - 1, 0, -1 do length = length * 256 + bytes:get_index(i) end
  return length < 2 ^ 31 and HEADER_BYTES + length or HEADER_BYTES  -- a negative one is empty
end

-- The bytes with what earlier packets hold of their frame in front.
local function whole_bytes(tvb, pinfo)
  if not pinfo.visited then
    local way = source(pinfo) .. " " .. target(pinfo)
    local bytes = begun[way]
    if bytes then bytes:append(tvb:bytes()) else bytes = tvb:bytes() end
    local size = frame_size(bytes)
    local has_more = bytes:len() < size
    if has_more then
      parts[pinfo.number] = string.format("%d of %d bytes", bytes:len(), size)
    elseif begun[way] then
      joined[pinfo.number] = bytes
    end
    begun[way] = has_more and bytes or nil
  end
  local bytes = joined[pinfo.number]
  return bytes and bytes:tvb("Whole frame") or tvb
end

function pdu.init() begun, joined, parts = {}, {}, {} end

function pdu.dissector(tvb, pinfo, root)
  is_first_frame = true
  local frames = whole_bytes(tvb, pinfo)
  if parts[pinfo.number] then
    show_part(tvb, pinfo, root)
    return tvb:len()
  end
  local at = 0
  while at + HEADER_BYTES <= frames:len() do
    local size = math.min(frame_bytes(frames, pinfo, at), frames:len() - at)
    dissect_frame(frames(at, size):tvb(), pinfo, root)
    at = at + size
  end
  return tvb:len()
end

-- A stream is ours when its first record is one: each carries its own offset.
local function starts_with_record(tvb)
  if tvb:len() < HEADER_BYTES + 6 then return false end
  local block = tvb(HEADER_BYTES):tvb()
  local tag, at = block(0, 1):uint(), 0
  if tag == KEYED then tag, at = block(1, 1):uint(), 1 end
  local stop
  if tag == KEYED or tag > STREAM then return false end
  if fixed[tag] then
    stop = at + 1 + fixed[tag][1]
  else
    if at + 5 > block:len() then return false end
    stop = at + 5 + block(at + 1, 4):le_int()
  end
  if stop < 0 or stop + 4 > block:len() then return false end
  return block(stop, 4):le_int() == stop
end

tolk:register_heuristic("tcp", function(tvb, pinfo, root)
  if not starts_with_record(tvb) then return false end
  pinfo.conversation = tolk
  tolk.dissector(tvb, pinfo, root)
  return true
end)

local tcp_ports = DissectorTable.get("tcp.port")
tcp_ports:add_for_decode_as(tolk)
local current_ports = ""
function tolk.prefs_changed()
  if current_ports ~= "" then tcp_ports:remove(current_ports, tolk) end
  current_ports = tostring(tolk.prefs.ports)
  if current_ports ~= "" then tcp_ports:add(current_ports, tolk) end
end
