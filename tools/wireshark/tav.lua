-- Shows the messages of TAV Bluetooth in Wireshark and tshark: the classic format on RFCOMM channel 1, the named one on
-- channel 16; on other channels by Decode As. docs/formats.md has both formats, and says how to install this.
--
-- A frame is shown as what it holds: messages one behind the other, or a part of one that an earlier frame began.
-- Nothing is put together, since readers do not either.

-- The installed plugin may have been loaded before this one: then that one stays.
local is_first, tav = pcall(Proto, "tav", "TAV Bluetooth, named messages")
if not is_first then return end
local tav_classic = Proto("tav_classic", "TAV Bluetooth, classic messages")

local TEXT, BOOL, DATA = 1, 3, 4
local TYPES = {[TEXT] = "text", [BOOL] = "bool", [DATA] = "data"}
local WRITE_MAILBOX = 0x819E
local FULL_FRAME = 127  -- RFCOMM's own frame size; shorter frames are not full, so what ends in them has ended

local fields = {
  type = ProtoField.uint8("tav.type", "Type", base.DEC, TYPES),
  sender = ProtoField.string("tav.sender", "Sender"),
  zero = ProtoField.uint8("tav.zero", "Zero byte, which readers skip", base.HEX),
  length = ProtoField.uint16("tav.length", "Length of the rest"),
  counter = ProtoField.uint16("tav.counter", "Counter"),
  command = ProtoField.uint16("tav.command", "Command", base.HEX, {[WRITE_MAILBOX] = "write mailbox, no reply"}),
  id_length = ProtoField.uint8("tav.id_length", "Length of the id, with its NUL"),
  id = ProtoField.string("tav.id", "Id"),
  payload_length = ProtoField.uint16("tav.payload_length", "Length of the payload"),
  size = ProtoField.uint32("tav.size", "Size of the data"),
  bool = ProtoField.bool("tav.value.bool", "Value"),
  text = ProtoField.string("tav.value.text", "Value"),
  data = ProtoField.bytes("tav.value.data", "Value"),
  rest = ProtoField.bytes("tav.rest", "Not understood"),
  part = ProtoField.bytes("tav.part", "Part of a message"),
  begun = ProtoField.framenum("tav.begun", "Begun in frame"),
}
local experts = {
  damaged = ProtoExpert.new("tav.damaged", "Damaged", expert.group.MALFORMED, expert.severity.ERROR),
  odd = ProtoExpert.new("tav.odd", "Not as sent", expert.group.PROTOCOL, expert.severity.WARN),
  joined = ProtoExpert.new("tav.joined", "Joined", expert.group.SEQUENCE, expert.severity.WARN),
  cut = ProtoExpert.new("tav.cut", "Cut", expert.group.SEQUENCE, expert.severity.NOTE),
}
tav.fields = fields
tav.experts = experts

-- ---- What a frame holds ---------------------------------------------------------------------------------------------

local function bytes(count)
  return count .. (count == 1 and " byte" or " bytes")
end

-- A message that is being taken from `buf`: its fields, what is wrong with it, and words for the info column; later a
-- `mark` that all messages of the stream have in their head: the sender, or counter and command.
local Message = {}
Message.__index = Message

local function new_message(buf, from, title)
  return setmetatable({buf = buf, from = from, pos = from, fields = {}, problems = {}, title = title}, Message)
end

function Message:left()
  return self.buf:len() - self.pos
end

function Message:find(expert_name, text)
  table.insert(self.problems, {expert = experts[expert_name], text = text})
end

function Message:take(field, size, value)
  if size == 0 then return end
  table.insert(self.fields, {fields[field], self.buf(self.pos, size), value})
  self.pos = self.pos + size
end

-- The frame ends within the message, whose size is `size`, if that is known. Gives nil.
function Message:short(why, size)
  self:take("rest", self:left())
  local missing = size and size - (self.pos - self.from) or math.huge
  if self.buf:len() < FULL_FRAME or missing <= 0 then
    self:find("damaged", why)
  else
    self.missing = missing
    self:find("cut", size and "later frames have " .. bytes(missing) .. " of it" or "goes on in the next frame")
  end
end

-- A little-endian number, or nil.
function Message:number(field, size, whole)
  if self:left() < size then return self:short("ends before its " .. field:gsub("_", " "), whole) end
  local value = self.buf(self.pos, size):le_uint()
  self:take(field, size, value)
  return value
end

-- How many bytes stand before the next NUL, or are left; and the size of that NUL, 0 without one.
function Message:until_nul()
  local nul = self.buf:raw():find("\0", self.pos + 1, true)
  return nul and nul - 1 - self.pos or self:left(), nul and 1 or 0
end

local function escape(bytes)
  return (bytes:gsub(".", function(byte) return ("\\x%02X"):format(byte:byte()) end))
end

-- The text as one line that a terminal only shows: what it could obey or what is not UTF-8 becomes \x1B and the like.
-- Characters of more than one byte that are not to be shown: C1 controls, and those that turn lines round or end them.
local function printable(text, is_utf8)
  if not text:find("[^\32-\126]") then return text end
  text = text:gsub("[\0-\31\127]", escape)
  if not is_utf8 then return (text:gsub("[\128-\255]", escape)) end
  for _, unshown in ipairs {"\194[\128-\159]", "\216\156", "\226\128[\142\143\168-\174]", "\226\129[\166-\169]"} do
    text = text:gsub(unshown, escape)
  end
  return text
end

-- `size` bytes, of which the first `shown` are a text.
function Message:take_text(field, size, shown, words)
  local bytes = self.buf:raw(self.pos, shown)
  local text = printable(bytes, shown == 0 or self.buf(self.pos, shown):string(ENC_UTF_8) == bytes)
  self:take(field, size, text)
  local start = text:sub(1, 40):gsub("[\192-\255]?[\128-\191]*$", "")
  self.title = self.title .. words .. '"' .. (#text > 40 and start .. '..." (' .. shown .. " bytes)" or text .. '"')
  return text
end

function Message:take_bool(whole)
  if self:left() == 0 then return self:short("ends before its value", whole) end
  local byte = self.buf(self.pos, 1):uint()
  if byte > 1 then self:find("odd", "bool value " .. byte .. ", read as true") end
  self:take("bool", 1, byte ~= 0)
  self.title = self.title .. ": " .. tostring(byte ~= 0)
end

local function named(buf, from)
  local m = new_message(buf, from, "named message")
  local type = m:number("type", 1)
  if not TYPES[type] then
    m:take("rest", m:left())
    m:find("damaged", "type " .. type .. " is none of 1, 3 and 4")
    return m
  end
  m.title = TYPES[type]
  for _, field in ipairs {"sender", "id"} do
    local size, nul = m:until_nul()
    if nul == 0 then
      m:short("no NUL ends the " .. field)
      return m
    end
    local text = m:take_text(field, size + nul, size, field == "sender" and " from " or ", id ")
    m.mark = m.mark or text
  end
  if type == BOOL then
    m:take_bool(m.pos - from + 1)
  elseif type == TEXT then
    m.is_text = true
    local size, nul = m:until_nul()
    m:take_text("text", size + nul, size, ": ")
    if nul == 0 then m:short("no NUL ends the text, readers drop its last byte") end
  else
    local size = m:number("size", 4)
    if not size then return m end
    local here = math.min(size, m:left())
    local whole = m.pos - from + size
    m.title = m.title .. ": " .. bytes(size)
    if here > 0 and here <= 16 then m.title = m.title .. " " .. buf(m.pos, here):bytes():tohex() end
    m:take("data", here)
    if here < size then
      m:short(("%d of %d bytes of data"):format(here, size) .. (here == 0 and ", readers fail" or ""), whole)
    elseif size == 0 and m:left() == 0 then
      m:find("damaged", "no data, readers fail")
    end
  end
  return m
end

local function classic(buf, from)
  local m = new_message(buf, from, "classic")
  if from == 0 and buf(0, 1):uint() == 0 then  -- one that comes before the message, or its own
    if m:left() >= 7 and buf(5, 2):uint() == WRITE_MAILBOX then
      m:take("zero", 1, 0)
    else
      m:find("damaged", "first byte 0: readers skip it and misread the rest")
    end
  end
  local start = m.pos
  local length = m:number("length", 2)
  local whole = length and start - from + 2 + length
  local counter = length and m:number("counter", 2, whole)
  if not counter then return m end
  if counter ~= 1 then m:find("odd", "counter " .. counter .. ", not 1") end
  if m:left() < 2 then
    m:short("ends before its command", whole)
    return m
  end
  local command = buf(m.pos, 2):uint()
  m:take("command", 2, command)
  if counter == 1 and command == WRITE_MAILBOX then m.mark = "mailbox" end
  if command ~= WRITE_MAILBOX then m:find("odd", ("command %04X, not 819E"):format(command)) end

  local id_length = m:number("id_length", 1, whole)
  if not id_length then return m end
  if id_length == 0 then
    m:take("rest", m:left())
    m:find("damaged", "id length 0: readers take all that follows for the id")
    return m
  end
  if id_length > m:left() then
    m:short("ends within its id", whole)
    return m
  end
  if buf(m.pos + id_length - 1, 1):uint() ~= 0 then m:find("odd", "the id's last byte is not NUL, readers drop it") end
  m:take_text("id", id_length, id_length - 1, " id ")

  local size = m:number("payload_length", 2, whole)
  if not size then return m end
  local here = math.min(size, m:left())
  if size == 0 then
    if m:left() > 0 then m:take_text("text", m:left(), m:left(), ": ") end
    m:find("damaged", "payload length 0: a text reader takes all that follows")
    return m
  elseif here < size then
    if here > 0 then m:take_text("text", here, here, ": ") end
    local who = here > 0 and "a text reader fails" or "readers fail"
    m:short(("%d of %d bytes of the payload, %s"):format(here, size, who), whole)
    return m
  elseif size == 1 then
    m:take_bool(whole)
    if m.pos - from > 32 then m:find("odd", "a bool reader receives 32 bytes, without the value") end
  else
    if buf(m.pos + size - 1, 1):uint() ~= 0 then m:find("odd", "the text's last byte is not NUL, readers drop it") end
    m:take_text("text", size, size - 1, ": ")
  end
  if m.pos - start ~= 2 + length then
    m:find("odd", ("length %d, not %d; readers do not compare"):format(length, m.pos - start - 2))
  end
  return m
end

-- ---- Frames of a stream ---------------------------------------------------------------------------------------------

local link = Field.new("bthci_acl.chandle")  -- two bricks may have several, in recordings of the simulated air
local open   -- by stream: the message that its last frame cut, as {frame = number, missing = bytes, mark = mark}
local begun  -- by format and frame number: the message that is cut before this frame

function tav.init()
  open, begun = {}, {}
end

local function show(pinfo, root, m)
  local tree = root:add(tav, m.buf(m.from, m.pos - m.from), "TAV " .. m.title)
  for _, field in ipairs(m.fields) do
    tree:add(table.unpack(field))
  end
  if m.begun then tree:add(fields.begun, m.begun):set_generated() end
  local words = m.title
  for _, problem in ipairs(m.problems) do
    tree:add_proto_expert_info(problem.expert, problem.text)
    words = words .. " [" .. problem.text .. "]"
  end
  return words
end

-- The frame's share of a message that was begun before it.
local function continuation(buf, before)
  local m = new_message(buf, 0, "")
  m:take("part", math.min(before.missing, buf:len()))
  m.begun, m.mark = before.frame, before.mark
  m.missing = before.missing - m.pos
  if before.missing == math.huge and buf(buf:len() - 1, 1):uint() == 0 then m.missing = 0 end
  if m.missing > 0 and buf:len() < FULL_FRAME then
    m:find("damaged", m.missing == math.huge and "no NUL ends the message" or bytes(m.missing) .. " never came")
    m.missing = 0
  end
  m.title = ("%s of the message begun in frame %d"):format(bytes(m.pos), before.frame)
  return m
end

local function dissect(format, take, buf, pinfo, root)
  -- The address alone: the name behind it may be learned during the capture.
  local stream = table.concat({format, tostring(pinfo.src):match("^%S*"), tostring(pinfo.dst):match("^%S*"), tostring(link())}, " ")
  local this = format .. pinfo.number
  if not pinfo.visited then begun[this] = open[stream] end
  local before = begun[this]
  local m = take(buf, 0)
  if before and m.mark and m.mark == before.mark then
    m:find("cut", "the one begun in frame " .. before.frame .. " never ended")
  elseif before then
    m = continuation(buf, before)
  end

  local words = {}
  while m:left() > 0 do
    if not m.begun then
      local fate = m.is_text and "which a text reader takes into the text" or "which readers drop"
      m:find("joined", bytes(m:left()) .. " behind it, " .. fate)
    end
    table.insert(words, show(pinfo, root, m))
    m = take(buf, m.pos)
  end
  table.insert(words, show(pinfo, root, m))
  if not pinfo.visited then
    open[stream] = (m.missing or 0) > 0 and {frame = m.begun or pinfo.number, missing = m.missing, mark = m.mark} or nil
  end
  pinfo.cols.protocol = "TAV"
  pinfo.cols.info = (({[0] = "Sent ", "Rcvd "})[pinfo.p2p_dir] or "") .. table.concat(words, "; ")
  return buf:len()
end

function tav.dissector(buf, pinfo, root)
  return dissect("named", named, buf, pinfo, root)
end

function tav_classic.dissector(buf, pinfo, root)
  return dissect("classic", classic, buf, pinfo, root)
end

-- A channel has a DLCI for each direction of the RFCOMM session.
local dlcis = DissectorTable.get("btrfcomm.dlci")
for channel, proto in pairs {[1] = tav_classic, [16] = tav} do
  dlcis:add(2 * channel, proto)
  dlcis:add(2 * channel + 1, proto)
end
