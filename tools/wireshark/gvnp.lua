-- Wireshark dissector for the Native Protocol that zeph_route_grass_valley
-- speaks with a routing switcher over TCP: port 12345, another port set in
-- the protocol's preferences, and any port where a segment holds a message
-- whose layout and checksum are right (then the whole conversation). Install:
-- see doc/emulator.md, "Capturing and decoding".
--
-- A message is SOH, a body and EOT. The body is the protocol letter, the
-- sequence flag, two command letters, each parameter led by a TAB, and two
-- hexadecimal checksum digits: the two's complement of the sum of the bytes
-- before them, modulo 256. A NAK is the NAK byte, an error code in
-- hexadecimal and EOT; an ACK is the ACK byte alone. Bytes are split the
-- way the backend's receive parser splits them, so what is marked here is
-- what the backend drops: a body holding NUL (dropped up to its EOT), a body
-- longer than 4096 bytes (dropped with the next byte, the rest of it then
-- stray) and stray bytes between messages.

local proto = Proto("gvnp", "Grass Valley Native Protocol")

local SOH, EOT, ACK, NAK = 0x01, 0x04, 0x06, 0x15
local max_body = 4096  -- longest body the backend accepts
local default_port = 12345

local commands = {
  BK = "Handshake, identity, setup and change-flag queries",
  KB = "Answer to a BK query",
  QN = "Names list query: L levels, IS sources, ID destinations",
  NQ = "Names list: kind, group count, groups",
  QD = "Changed destinations query",
  DQ = "Changed destination: name, number",
  QI = "Route status query: destination, level",
  IQ = "Route status: destination, level, -, -, source",
  TI = "Take: route a source to a destination",
  ER = "Result of a command: code (00 success), command letters",
}
-- The first parameter of "BK", echoed by its "KB" answer.
local bk_subcommands = {
  N = "model name", R = "firmware revision", T = "firmware type",
  I = "setup", E = "setup", D = "setup, the last step",
  F = "change flags (10 source names, 04 destination names)",
  f = "clear change flags",
}
-- Parameters per group of a names list, by kind: name, number, field, and
-- for sources and destinations a group value.
local group_sizes = { L = 3, IS = 4, ID = 4, S = 4, D = 4 }

local f = {
  type = ProtoField.string("gvnp.type", "Type"),
  protocol = ProtoField.string("gvnp.protocol", "Protocol letter"),
  seq = ProtoField.string("gvnp.seq", "Sequence flag"),
  command = ProtoField.string("gvnp.command", "Command"),
  subcommand = ProtoField.string("gvnp.subcommand", "Sub-command"),
  param = ProtoField.string("gvnp.param", "Parameter"),
  name = ProtoField.string("gvnp.group.name", "Name"),
  number = ProtoField.string("gvnp.group.number", "Number"),
  checksum = ProtoField.uint8("gvnp.checksum", "Checksum", base.HEX),
  checksum_status = ProtoField.string("gvnp.checksum.status", "Checksum status"),
  nak_code = ProtoField.uint32("gvnp.nak.code", "NAK code", base.HEX),
  dropped = ProtoField.bytes("gvnp.dropped", "Dropped bytes"),
}
proto.fields = f

local e = {
  checksum = ProtoExpert.new("gvnp.checksum.bad", "Checksum does not match",
    expert.group.CHECKSUM, expert.severity.WARN),
  short = ProtoExpert.new("gvnp.short", "No checksum field",
    expert.group.MALFORMED, expert.severity.WARN),
  nul = ProtoExpert.new("gvnp.nul", "NUL inside a message: dropped up to its EOT",
    expert.group.MALFORMED, expert.severity.WARN),
  long = ProtoExpert.new("gvnp.long", "Over-long message: more than 4096 bytes before EOT",
    expert.group.MALFORMED, expert.severity.WARN),
  stray = ProtoExpert.new("gvnp.stray", "Stray bytes between messages",
    expert.group.PROTOCOL, expert.severity.WARN),
  nak = ProtoExpert.new("gvnp.nak", "NAK", expert.group.RESPONSE_CODE, expert.severity.NOTE),
  error = ProtoExpert.new("gvnp.error", "Error reply", expert.group.RESPONSE_CODE,
    expert.severity.NOTE),
}
proto.experts = { e.checksum, e.short, e.nul, e.long, e.stray, e.nak, e.error }

proto.prefs.port = Pref.uint("Another TCP port", 0,
  "A TCP port to decode as this protocol besides 12345; 0 for none")

-- The value of the hexadecimal digits at the start of text; 0 for none.
local function leading_hex(text)
  local digits = text:match("^%x+") or ""
  return digits == "" and 0 or tonumber(digits:sub(-8), 16)  -- kept modulo 2^32
end

-- The checksum a body's first covered bytes want: the two's complement of
-- their sum, modulo 256.
local function checksum_of(body, covered)
  local sum = 0
  for i = 1, covered do sum = sum + body:byte(i) end
  return (256 - sum % 256) % 256
end

-- A checksum digit counts as its hexadecimal value; any other byte as 0.
local function digit_value(c)
  return tonumber(c, 16) or 0
end

local function add_names(tree, tvb, params)
  local size = group_sizes[params[1].text]
  if size == nil then return end
  local groups = tree:add(tvb(params[1].start, params[#params].stop - params[1].start),
    "Names list: " .. params[1].text .. ", " .. params[2].text .. " groups (hex)")
  for i = 3, #params - 1, size do
    local name, number = params[i], params[i + 1]
    local last = params[math.min(i + size - 1, #params)]
    local g = groups:add(tvb(name.start, last.stop - name.start), name.text .. " = " .. number.text)
    g:add(f.name, tvb(name.start, name.stop - name.start), name.text)
    g:add(f.number, tvb(number.start, number.stop - number.start), number.text)
  end
end

-- Decodes one SOH message whose body (between SOH and EOT) is at start,
-- n bytes long; returns its summary for the Info column.
local function message(tree, tvb, start, n)
  if n < 2 then
    tree:add(f.type, tvb(start - 1, n + 2), "message"):add_proto_expert_info(e.short)
    return "message without checksum"
  end
  tree:add(f.type, tvb(start - 1, n + 2), "message"):set_hidden()
  local body = tvb:raw(start, n)
  local covered = n - 2
  local header = body:sub(1, 4)
  tree:add(f.protocol, tvb(start, 1), header:sub(1, 1))
  local seq = header:sub(2, 2)
  tree:add(f.seq, tvb(start + 1, 1), seq):append_text(
    (seq == "0") and " (last message of the reply)" or " (more messages follow)")
  local command = header:sub(3, 4)
  if #command > 0 then
    tree:add(f.command, tvb(start + 2, #command), command):append_text(
      commands[command] and (" (" .. commands[command] .. ")") or " (unknown)")
  end

  -- The first TAB after the command letters starts the parameters; a TAB
  -- right before the checksum field starts none.
  local params = {}
  local tab = body:find("\t", 5, true)
  while tab and tab < covered do
    local next_tab = body:find("\t", tab + 1, true)
    local stop = (next_tab and next_tab <= covered) and next_tab or covered + 1
    params[#params + 1] = { start = start + tab, stop = start + stop - 1,
                            text = body:sub(tab + 1, stop - 1) }
    tab = stop <= covered and stop or nil
  end
  if (command == "BK" or command == "KB") and params[1] and bk_subcommands[params[1].text] then
    tree:add(f.subcommand, tvb(params[1].start, params[1].stop - params[1].start),
      params[1].text):append_text(" (" .. bk_subcommands[params[1].text] .. ")")
  end
  local words = { command }
  for _, p in ipairs(params) do
    tree:add(f.param, tvb(p.start, p.stop - p.start), p.text)
    words[#words + 1] = p.text
  end
  if command == "NQ" and #params >= 2 then add_names(tree, tvb, params) end
  if command == "ER" and params[1] and leading_hex(params[1].text) ~= 0 then
    tree:add_proto_expert_info(e.error, "Error " .. table.concat(words, " ", 2))
  end

  local want = checksum_of(body, covered)
  local got = digit_value(body:sub(-2, -2)) * 16 + digit_value(body:sub(-1))
  local item = tree:add(f.checksum, tvb(start + covered, 2), got)
  if got == want then
    item:append_text(" [correct]")
    tree:add(f.checksum_status, "good"):set_generated()
  else
    item:append_text(string.format(" [incorrect, should be 0x%02x]", want))
    item:add_proto_expert_info(e.checksum)
    tree:add(f.checksum_status, "bad"):set_generated()
    words[#words + 1] = "[bad checksum]"
  end
  return table.concat(words, " ")
end

-- Dissects everything from offset on; returns the offset of an incomplete
-- message to be reassembled with the next segments, or nil when all is done.
local function dissect_from(tvb, tree, offset, info)
  local len = tvb:len()
  while offset < len do
    local lead = tvb(offset, 1):uint()
    if lead == ACK then
      tree:add(proto, tvb(offset, 1), "ACK"):add(f.type, tvb(offset, 1), "ACK")
      info[#info + 1] = "ACK"
      offset = offset + 1
    elseif lead == SOH or lead == NAK then
      -- The backend ends a message at EOT, gives up at a NUL, and drops it
      -- at the byte after max_body.
      local ahead = math.min(len - offset - 1, max_body + 1)
      local body = ahead > 0 and tvb:raw(offset + 1, ahead) or ""
      local stop = body:find("[\0\4]")
      if stop == nil and ahead <= max_body then return offset end
      if stop == nil then
        local t = tree:add(proto, tvb(offset, max_body + 2), "Over-long message")
        t:add(f.type, tvb(offset, max_body + 2), "over-long"):add_proto_expert_info(e.long)
        info[#info + 1] = "over-long message"
        offset = offset + max_body + 2
      elseif body:byte(stop) == 0 then
        local rest = tvb:raw(offset + stop, len - offset - stop)
        local eot = rest:find("\4", 1, true)
        if eot == nil then return offset end
        local n = stop + eot
        local t = tree:add(proto, tvb(offset, n), "Message with NUL")
        t:add(f.type, tvb(offset, n), "NUL"):add_proto_expert_info(e.nul)
        t:add(f.dropped, tvb(offset, n))
        info[#info + 1] = "message with NUL"
        offset = offset + n
      elseif lead == NAK then
        local text = body:sub(1, stop - 1)
        local title = text == "" and "NAK" or "NAK " .. text
        local t = tree:add(proto, tvb(offset, stop + 1), title)
        t:add(f.type, tvb(offset, stop + 1), "NAK")
        t:add(f.nak_code, tvb(offset + 1, stop - 1), leading_hex(text)):add_proto_expert_info(e.nak)
        info[#info + 1] = title
        offset = offset + stop + 1
      else
        local t = tree:add(proto, tvb(offset, stop + 1))
        local summary = message(t, tvb, offset + 1, stop - 1)
        t:set_text("Native Protocol message: " .. summary)
        info[#info + 1] = summary
        offset = offset + stop + 1
      end
    else
      local stop = offset
      repeat
        stop = stop + 1
        local b = stop < len and tvb(stop, 1):uint()
      until stop == len or b == SOH or b == ACK or b == NAK
      local t = tree:add(proto, tvb(offset, stop - offset), "Stray bytes")
      t:add(f.type, tvb(offset, stop - offset), "stray"):add_proto_expert_info(e.stray)
      t:add(f.dropped, tvb(offset, stop - offset))
      info[#info + 1] = stop - offset == 1 and "1 stray byte" or (stop - offset) .. " stray bytes"
      offset = stop
    end
  end
  return nil
end

function proto.dissector(tvb, pinfo, tree)
  local info = {}
  local incomplete = dissect_from(tvb, tree, 0, info)
  if incomplete then
    -- TCP hands this message back with the next segment appended.
    pinfo.desegment_offset = incomplete
    pinfo.desegment_len = DESEGMENT_ONE_MORE_SEGMENT
  end
  if #info > 0 then
    pinfo.cols.protocol = "GVNP"
    pinfo.cols.info = table.concat(info, "; ")
  end
  return tvb:len()
end

-- A message as only this protocol writes it: protocol letter, sequence
-- digit, two command letters, parameters each led by a TAB, two hexadecimal
-- digits of a correct checksum. On top of the layout, a checksum right by
-- chance is one in 256.
local function good_message(body)
  if not body:match("^%u%d%u%u") or not body:match("%x%x$") or #body > max_body then
    return false
  end
  local covered = #body - 2
  if covered > 4 and body:sub(5, 5) ~= "\t" then return false end
  return checksum_of(body, covered) == tonumber(body:sub(-2), 16)
end

-- Claims a conversation on any port for a segment that starts, within its
-- first bytes, a good message (an ACK, stray bytes or another message may
-- come first): the ACKs, NAKs and split messages after it then decode too.
local function heuristic(tvb, pinfo, tree)
  local raw = tvb:raw(0, math.min(tvb:len(), max_body + 2))
  local from = 1
  while true do
    local soh = raw:find("\1", from, true)
    if soh == nil or soh > 64 then return false end
    local eot = raw:find("[\0\1\4]", soh + 1)
    if eot and raw:byte(eot) == EOT and good_message(raw:sub(soh + 1, eot - 1)) then break end
    from = soh + 1
  end
  pinfo.conversation = proto
  proto.dissector(tvb, pinfo, tree)
  return true
end
proto:register_heuristic("tcp", heuristic)

local tcp_ports = DissectorTable.get("tcp.port")
tcp_ports:add(default_port, proto)
local extra_port = 0

function proto.prefs_changed()
  if extra_port ~= 0 and extra_port ~= default_port then tcp_ports:remove(extra_port, proto) end
  extra_port = proto.prefs.port
  if extra_port ~= 0 then tcp_ports:add(extra_port, proto) end
end
