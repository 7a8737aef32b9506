-- Wireshark dissector for the frames of the dravik parameter storage
-- service, as `dravikctl monitor --pcap FILE` captures them: link type USER0
-- (147), one frame per packet with its length prefix, and the direction in
-- the packet flags (inbound: into the service's mailbox; outbound: sent by
-- the service).
--
--   tshark -X lua_script:/usr/share/dravik/dravik.lua -r capture.pcapng
--   tshark -X lua_script:dravik.lua -r capture.pcapng -T fields -e dravik.class -e dravik.channel
--
-- or copy it to ~/.local/lib/wireshark/plugins/ for Wireshark. Fields:
-- dravik.direction ("in", "out"), dravik.class, dravik.length, the header
-- (dravik.version, .sender, .recipient, .id, .correlationId, .timestamp,
-- .selector, .responseSelector, .flags, .argsLength) and one field per
-- argument name (dravik.channel, dravik.fileName, ...).
--
-- Written by `dravikctl dissector` from the service's frame layout and
-- message catalogue; edit the template in dravik's sources, not this file.

local layout = {
@LAYOUT@
}

local catalogue = {
@CATALOGUE@
}

local dravik = Proto("dravik", "dravik message")
local fields = dravik.fields

fields.direction = ProtoField.string("dravik.direction", "Direction")
fields.class = ProtoField.string("dravik.class", "Class")
fields.length = ProtoField.uint32("dravik.length", "Payload length")
for _, h in ipairs(layout.header) do
  if h.size == 8 then
    fields[h.name] = ProtoField.int64("dravik." .. h.name, h.name)
  elseif h.name == "flags" then
    fields[h.name] = ProtoField.uint32("dravik." .. h.name, h.name, base.HEX)
  else
    fields[h.name] = ProtoField.int32("dravik." .. h.name, h.name)
  end
end
-- One field per argument name; a name keeps the type it first has.
local argFields = {}
for _, entry in ipairs(catalogue) do
  for _, arg in ipairs(entry.args) do
    if argFields[arg.name] == nil then
      local abbrev = "dravik." .. arg.name
      local field
      if arg.type == "int32" then
        field = ProtoField.int32(abbrev, arg.name)
      elseif arg.type == "uint32" then
        field = ProtoField.uint32(abbrev, arg.name)
      elseif arg.type == "string" then
        field = ProtoField.string(abbrev, arg.name)
      else
        field = ProtoField.bytes(abbrev, arg.name)
      end
      argFields[arg.name] = field
      fields["arg_" .. arg.name] = field
    end
  end
end

-- The class of a frame: by selector and direction, then by recipient, then
-- by response selector, as the service's tools tell shared selectors apart.
local function classify(selector, flow, recipient, responseSelector)
  local candidate, count = nil, 0
  for _, e in ipairs(catalogue) do
    if e.selector == selector and e.flow == flow then
      if e.recipient == recipient then return e end
      candidate, count = e, count + 1
    end
  end
  if count <= 1 then return candidate end
  for _, e in ipairs(catalogue) do
    if e.selector == selector and e.flow == flow and e.responseSelector == responseSelector then return e end
  end
  return candidate
end

-- A response whose requester chose its own response selector: one string.
local function customResponse(tvb, from, size)
  if size - from < 2 or from + 2 + tvb(from, 2):uint() ~= size then return nil end
  for _, e in ipairs(catalogue) do
    if e.flow == "out" and e.recipient == -1 then return e end
  end
  return nil
end

function dravik.dissector(tvb, pinfo, tree)
  pinfo.cols.protocol = "dravik"
  local size = tvb:len()
  local item = tree:add(dravik, tvb(), "dravik frame")
  local function malformed(text)
    item:add_expert_info(PI_MALFORMED, PI_ERROR, text)
    pinfo.cols.info = text
  end
  if size < layout.lengthSize then return malformed("frame ends inside its length") end
  local length = tvb(0, layout.lengthSize):uint()
  item:add(fields.length, tvb(0, layout.lengthSize))
  if length == 0 or length > layout.maxPayload then return malformed("invalid frame length " .. length) end
  if size < layout.lengthSize + layout.headerSize then return malformed("frame ends inside its header") end
  local h = {}
  for _, f in ipairs(layout.header) do
    local range = tvb(layout.lengthSize + f.offset, f.size)
    item:add(fields[f.name], range)
    h[f.name] = f.size == 8 and range:int64():tonumber() or (f.name == "flags" and range:uint() or range:int())
  end
  -- The packet flags say which way the frame went; without them, frames
  -- to the service go in.
  local flow
  if pinfo.p2p_dir == 1 then
    flow = "in"
  elseif pinfo.p2p_dir == 0 then
    flow = "out"
  else
    flow = h.recipient == layout.service and "in" or "out"
  end
  item:add(fields.direction, tvb(0, 0), flow)
  local stamp = os.date("!%Y-%m-%d %H:%M:%S", math.floor(h.timestamp / 1000)) .. string.format(".%03d", h.timestamp % 1000)
  local info = string.format("%s %%s %d->%d id=%d corr=%d", flow, h.sender, h.recipient, h.id, h.correlationId)
  local from = layout.lengthSize + layout.headerSize
  local finish = math.min(size, layout.lengthSize + length)
  local entry = classify(h.selector, flow, h.recipient, h.responseSelector)
  if entry == nil and flow == "out" and h.correlationId ~= 0 then entry = customResponse(tvb, from, finish) end
  if entry == nil then
    item:add_expert_info(PI_UNDECODED, PI_WARN, "unknown selector " .. h.selector)
    pinfo.cols.info = string.format(info, "selector " .. h.selector)
    return
  end
  item:add(fields.class, tvb(0, 0), entry.name)
  item:append_text(": " .. flow .. " " .. entry.name .. ", " .. stamp)
  local shown = {}
  for _, arg in ipairs(entry.args) do
    local width = (arg.type == "string") and 2 or 4
    if from + width > finish then
      item:add_expert_info(PI_MALFORMED, PI_ERROR, "frame ends inside argument " .. arg.name)
      break
    end
    if arg.type == "int32" or arg.type == "uint32" then
      local range = tvb(from, 4)
      item:add(argFields[arg.name], range)
      table.insert(shown, arg.name .. "=" .. (arg.type == "int32" and range:int() or range:uint()))
      from = from + 4
    else
      local count = tvb(from, width):uint()
      if from + width + count > finish then
        item:add_expert_info(PI_MALFORMED, PI_ERROR, "frame ends inside argument " .. arg.name)
        break
      end
      local range = tvb(from + width, count)
      item:add(argFields[arg.name], range)
      if arg.type == "string" then
        table.insert(shown, arg.name .. "=\"" .. range:string() .. "\"")
      else
        table.insert(shown, arg.name .. "=<" .. count .. " bytes>")
      end
      from = from + width + count
    end
  end
  pinfo.cols.info = string.format(info, entry.name) .. (#shown > 0 and " " .. table.concat(shown, " ") or "")
end

DissectorTable.get("wtap_encap"):add(wtap.USER0, dravik)
