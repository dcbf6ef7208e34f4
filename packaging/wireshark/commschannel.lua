-- CommsChannel dissector for Wireshark and tshark.
--
-- Shows the datagrams that CommsChannel processes exchange on 127.0.0.1
-- (docs/wire-format.md gives every byte):
--   * resolver traffic: anything to or from UDP port 5000;
--   * channel traffic on any other UDP port, recognised by its header
--     (magic CC 5E, a known version and type code, a sane total length);
--   * encodings split over several datagrams, joined again;
--   * the receiver's 4-byte status-update datagram (sent from a port to
--     itself);
--   * datagrams to a channel port that cannot be read, as kind "undecodable"
--     with the reason (channel ports are learnt from the resolver's updates
--     and port responses seen earlier in the capture).
--
-- Load it with
--     tshark -X lua_script:/usr/share/commschannel/wireshark/commschannel.lua
-- or copy it into ~/.local/lib/wireshark/plugins/.
--
-- Integers are in the byte order of the host that made the capture
-- (little-endian on x86-64, big-endian on MIPS). The preference
-- commschannel.byte_order picks one, or guesses it from the header's total
-- length (the default; little-endian when nothing tells).

local cc = Proto("commschannel", "CommsChannel")

local RESOLVER_PORT = 5000
-- No encoding of the library comes near this; a header announcing more is
-- not taken for one.
local MAX_TOTAL_LENGTH = 16 * 1024 * 1024
local INT_MAX = 2147483647
local SPOOL_DIR_PREFIX = "/tmp/commschannel-spool-"

local TYPE_NAMES = {
    [1] = "data container",
    [2] = "register locator",
    [3] = "unregister locator",
    [5] = "locator update",
    [6] = "port request",
    [7] = "port response",
}

local DATA_KIND_NAMES = { [0] = "inline", [1] = "spool file" }
local UPDATE_TYPE_NAMES = { [0] = "CHANNEL_ADDED", [1] = "CHANNEL_REMOVED" }
local STATUS_NAMES = { [0] = "CHANNEL_ADDED", [1] = "CHANNEL_REMOVED" }

local f = cc.fields
f.kind = ProtoField.string("commschannel.kind", "Kind")
f.magic = ProtoField.uint16("commschannel.magic", "Magic", base.HEX)
f.version = ProtoField.uint8("commschannel.version", "Version")
f.type_code = ProtoField.uint8("commschannel.type_code", "Type code", base.DEC, TYPE_NAMES)
f.total_length = ProtoField.uint32("commschannel.total_length", "Total length")
f.channel = ProtoField.string("commschannel.channel", "Channel")
f.source = ProtoField.string("commschannel.source", "Source channel")
f.callback = ProtoField.string("commschannel.callback", "Callback channel")
f.protocol = ProtoField.string("commschannel.protocol", "Protocol")
f.interface = ProtoField.string("commschannel.interface", "Interface")
f.remote_context = ProtoField.string("commschannel.remote_context", "Remote context")
f.request_id = ProtoField.int64("commschannel.request_id", "Request id")
f.type = ProtoField.int32("commschannel.type", "Message type")
f.priority = ProtoField.int32("commschannel.priority", "Priority")
f.data_kind = ProtoField.uint8("commschannel.data_kind", "Data kind", base.DEC, DATA_KIND_NAMES)
f.length = ProtoField.uint64("commschannel.length", "Data length")
f.data = ProtoField.bytes("commschannel.data", "Data")
f.spool_file = ProtoField.string("commschannel.spool_file", "Spool file name")
f.spool_uid = ProtoField.uint32("commschannel.spool_uid", "Spool file owner (uid)")
f.spool_path = ProtoField.string("commschannel.spool_path", "Spool file path")
f.port = ProtoField.int32("commschannel.port", "Port")
f.name = ProtoField.string("commschannel.name", "Name")
f.row_count = ProtoField.uint32("commschannel.row_count", "Row count")
f.row = ProtoField.none("commschannel.row", "Row")
f.update_type = ProtoField.int32("commschannel.update_type", "Update type", base.DEC, UPDATE_TYPE_NAMES)
f.change = ProtoField.string("commschannel.change", "Change")
f.status = ProtoField.uint32("commschannel.status", "Status update", base.DEC, STATUS_NAMES)
f.reason = ProtoField.string("commschannel.reason", "Reason")
f.pieces = ProtoField.uint32("commschannel.pieces", "Datagrams")
f.piece_frame = ProtoField.framenum("commschannel.piece_frame", "Piece in frame")
f.piece = ProtoField.uint32("commschannel.piece", "Piece")
f.joined_in = ProtoField.framenum("commschannel.joined_in", "Joined in frame")
f.byte_order = ProtoField.string("commschannel.byte_order", "Byte order")

local e_undecodable = ProtoExpert.new("commschannel.undecodable", "Undecodable datagram",
    expert.group.MALFORMED, expert.severity.WARN)
local e_ends_receiving = ProtoExpert.new("commschannel.ends_receiving",
    "Ends the receiving of the destination process", expert.group.MALFORMED, expert.severity.ERROR)
cc.experts = { e_undecodable, e_ends_receiving }

local ORDER_GUESS, ORDER_LITTLE, ORDER_BIG = 0, 1, 2
cc.prefs.byte_order = Pref.enum("Byte order",
    ORDER_GUESS,
    "Byte order of the integers: that of the host that made the capture",
    {
        { 1, "guess", ORDER_GUESS },
        { 2, "little-endian", ORDER_LITTLE },
        { 3, "big-endian", ORDER_BIG },
    },
    false)

-- State of one pass over the capture. A frame's classification is made the
-- first time it is seen and kept in frames[number], so that later visits
-- (Wireshark redissects on every click) show the same thing.
local frames = {}      -- frame number -> classification
local pending = {}     -- "src:port>dstport" -> split encoding being joined
local channel_ports = {}  -- ports that the resolver named as a channel's
local learnt_le = nil  -- byte order that a header told without doubt

function cc.init()
    frames = {}
    pending = {}
    channel_ports = {}
    learnt_le = nil
end

-- Integer readers in a chosen byte order.
local function u32(range, le)
    if le then return range:le_uint() end
    return range:uint()
end

local function add_int(tree, field, range, le, value)
    if value ~= nil then
        return tree:add(field, range, value)
    end
    if le then return tree:add_le(field, range) end
    return tree:add(field, range)
end

local function default_le()
    if cc.prefs.byte_order == ORDER_BIG then return false end
    if cc.prefs.byte_order == ORDER_LITTLE then return true end
    if learnt_le ~= nil then return learnt_le end
    return true
end

local function sane_total(n)
    return n >= 8 and n <= MAX_TOTAL_LENGTH
end

-- Byte order of a header at the start of tvb, whose datagram holds
-- `available` bytes. When guessing, a total length equal to the datagram's
-- size settles it (an unsplit encoding), otherwise the one order whose
-- total length is plausible; failing both, what an earlier frame settled,
-- else little-endian.
local function header_order(tvb, available)
    if cc.prefs.byte_order == ORDER_LITTLE then return true end
    if cc.prefs.byte_order == ORDER_BIG then return false end
    local le_total = tvb(4, 4):le_uint()
    local be_total = tvb(4, 4):uint()
    local le, settled
    if le_total == available and be_total ~= available then
        le, settled = true, true
    elseif be_total == available and le_total ~= available then
        le, settled = false, true
    elseif sane_total(le_total) and not sane_total(be_total) then
        le, settled = true, true
    elseif sane_total(be_total) and not sane_total(le_total) then
        le, settled = false, true
    else
        le, settled = default_le(), false
    end
    if settled and learnt_le == nil then learnt_le = le end
    return le
end

local function has_magic(tvb)
    return tvb:len() >= 2 and tvb(0, 1):uint() == 0xCC and tvb(1, 1):uint() == 0x5E
end

local function known_type(code)
    return TYPE_NAMES[code] ~= nil
end

-- Why an encoding of `available` bytes with this header cannot be read, or
-- nil when its header is readable.
local function header_problem(tvb, available, le)
    if available < 8 then
        return "shorter than the 8-byte header (" .. available .. " bytes)"
    end
    if not has_magic(tvb) then
        return "wrong magic " .. string.format("%02X %02X", tvb(0, 1):uint(), tvb(1, 1):uint())
    end
    local version = tvb(2, 1):uint()
    local code = tvb(3, 1):uint()
    if not known_type(code) then
        return "unknown type code " .. code
    end
    local total = u32(tvb(4, 4), le)
    if total < 8 then
        return "total length " .. total .. " is below the 8-byte header"
    end
    if total > available then
        return "total length " .. total .. " exceeds the " .. available .. " bytes received"
    end
    if not (version == 1 or (version == 2 and code == 1)) then
        return "cannot read message encoding version " .. version .. " (message type " .. code .. ")"
    end
    return nil
end

------------------------------------------------------------------------
-- Body parsing. The parser collects the items to show and stops at the
-- first problem; the items gathered so far are shown either way.

local Parser = {}
Parser.__index = Parser

local function new_parser(tvb, total, le)
    return setmetatable({ tvb = tvb, pos = 8, total = total, le = le, items = {}, problem = nil }, Parser)
end

function Parser:remaining()
    return self.total - self.pos
end

function Parser:fail(text)
    if self.problem == nil then self.problem = text end
    return nil
end

function Parser:need(n, what)
    if self.problem ~= nil then return false end
    if self:remaining() < n then
        self:fail(what .. " is missing: " .. n .. " bytes needed, " .. self:remaining() .. " left")
        return false
    end
    return true
end

function Parser:item(item)
    self.items[#self.items + 1] = item
    return item
end

-- A string: u32 byte count, then the bytes. Answers the text.
function Parser:string(field, what, extra)
    if not self:need(4, what) then return nil end
    local count = u32(self.tvb(self.pos, 4), self.le)
    if count > self:remaining() - 4 then
        return self:fail(what .. " of " .. count .. " bytes exceeds the " .. (self:remaining() - 4) .. " bytes left")
    end
    local text = ""
    if count > 0 then text = self.tvb(self.pos + 4, count):string() end
    self:item({ field = field, offset = self.pos, len = 4 + count, value = text, extra = extra })
    self.pos = self.pos + 4 + count
    return text
end

function Parser:int(field, size, what, signed)
    if not self:need(size, what) then return nil end
    local range = self.tvb(self.pos, size)
    local value
    if size == 8 then
        if signed then
            value = self.le and range:le_int64() or range:int64()
        else
            value = self.le and range:le_uint64() or range:uint64()
        end
    elseif size == 4 then
        if signed then
            value = self.le and range:le_int() or range:int()
        else
            value = self.le and range:le_uint() or range:uint()
        end
    else
        value = range:uint()
    end
    self:item({ field = field, offset = self.pos, len = size, int = true })
    self.pos = self.pos + size
    return value
end

function Parser:finish()
    if self.problem == nil and self:remaining() ~= 0 then
        local left = self:remaining()
        self:fail(left .. (left == 1 and " byte" or " bytes") .. " left over after the last field")
    end
    return self.problem == nil
end

local function spool_name_ok(name)
    return #name == 28 and name:match("^cc%-[0-9a-f]+%-[0-9a-f]+$") ~= nil
        and name:sub(12, 12) == "-"
end

-- Parses the body of an encoding with a readable header. Answers the
-- message kind (or nil when the body is malformed) and facts for the
-- summary line.
local function parse_body(p, code, version)
    local facts = {}
    if code == 1 then
        facts.channel = p:string(f.channel, "channel")
        facts.source = p:string(f.source, "source channel")
        facts.callback = p:string(f.callback, "callback channel")
        p:string(f.protocol, "protocol")
        p:string(f.interface, "interface")
        p:string(f.remote_context, "remote context")
        facts.request_id = p:int(f.request_id, 8, "request id", true)
        facts.type = p:int(f.type, 4, "message type", true)
        p:int(f.priority, 4, "priority", true)
        local kind = p:int(f.data_kind, 1, "data kind")
        if kind == 0 then
            if version ~= 1 then
                p:fail("data kind 0 under version " .. version)
            end
            if p:need(4, "data") then
                local count = u32(p.tvb(p.pos, 4), p.le)
                if count > p:remaining() - 4 then
                    p:fail("data of " .. count .. " bytes exceeds the " .. (p:remaining() - 4) .. " bytes left")
                else
                    p:item({ field = f.length, offset = p.pos, len = 4, value = UInt64(count) })
                    if count > 0 then
                        p:item({ field = f.data, offset = p.pos + 4, len = count })
                    end
                    p.pos = p.pos + 4 + count
                    facts.length = count
                end
            end
            facts.kind = "data"
        elseif kind == 1 then
            local name = p:string(f.spool_file, "spool file name")
            local length = p:int(f.length, 8, "data length")
            local uid = nil
            if version == 2 then
                uid = p:int(f.spool_uid, 4, "file owner")
            end
            if p.problem == nil then
                if length > UInt64(INT_MAX) then
                    p:fail("spool data length " .. tostring(length) .. " exceeds INT_MAX")
                elseif not spool_name_ok(name) then
                    p:fail("spool file name does not follow the pattern cc-<8 hex>-<16 hex>")
                end
            end
            if name ~= nil then
                if uid ~= nil then
                    facts.spool_path = SPOOL_DIR_PREFIX .. uid .. "/" .. name
                else
                    -- Older writers left out the owner: the reader's own
                    -- spool directory is meant, which the capture cannot tell.
                    facts.spool_path = SPOOL_DIR_PREFIX .. "<reader's uid>/" .. name
                end
            end
            facts.length = length and tostring(length)
            facts.kind = "spool"
        elseif kind ~= nil then
            p:fail("data kind " .. kind .. " is neither 0 nor 1")
        end
    elseif code == 2 or code == 3 then
        facts.channel = p:string(f.channel, "channel")
        facts.port = p:int(f.port, 4, "port", true)
        facts.kind = (code == 2) and "register" or "unregister"
    elseif code == 5 then
        facts.channel = p:string(f.channel, "channel")
        local rows = p:int(f.row_count, 4, "row count")
        facts.rows = {}
        if rows ~= nil and rows * 12 > p:remaining() then
            p:fail(rows .. " rows cannot fit in the " .. p:remaining() .. " bytes left")
        elseif rows ~= nil then
            for i = 1, rows do
                if p.problem ~= nil then break end
                local row = p:item({ row = i, offset = p.pos, len = 0, children = {} })
                local start = #p.items
                local change = p:int(f.update_type, 4, "update type", true)
                local change_text = nil
                if change ~= nil then
                    change_text = (change == 0) and "added" or "removed"
                    p:item({ field = f.change, offset = p.pos - 4, len = 4, value = change_text, generated = true })
                end
                local name = p:string(f.name, "channel name")
                local port = p:int(f.port, 4, "port", true)
                -- Move the row's fields under the row.
                for j = start + 1, #p.items do row.children[#row.children + 1] = p.items[j] end
                for j = #p.items, start + 1, -1 do p.items[j] = nil end
                row.len = p.pos - row.offset
                if port ~= nil then
                    row.text = string.format("%s %s port %d", change_text, name, port)
                    facts.rows[#facts.rows + 1] = { change = change_text, name = name, port = port }
                end
            end
        end
        facts.kind = "update"
    elseif code == 6 then
        facts.name = p:string(f.channel, "channel", f.name)
        facts.request_id = p:int(f.request_id, 8, "request id", true)
        facts.kind = "port_request"
    elseif code == 7 then
        facts.name = p:string(f.channel, "channel", f.name)
        facts.request_id = p:int(f.request_id, 8, "request id", true)
        facts.port = p:int(f.port, 4, "port", true)
        facts.kind = "port_response"
    end
    if not p:finish() then
        facts.kind = nil
    end
    return facts
end

------------------------------------------------------------------------
-- Showing.

local function show_items(tree, tvb, items, le)
    for _, item in ipairs(items) do
        if item.row ~= nil then
            local row = tree:add(f.row, tvb(item.offset, item.len))
            row:set_text("Row " .. item.row .. (item.text and (": " .. item.text) or ""))
            show_items(row, tvb, item.children, le)
        else
            local range = tvb(item.offset, item.len)
            local shown
            if item.int then
                shown = add_int(tree, item.field, range, le)
            elseif item.value ~= nil then
                shown = tree:add(item.field, range, item.value)
            else
                shown = tree:add(item.field, range)
            end
            if item.generated then shown:set_generated() end
            if item.extra ~= nil then
                tree:add(item.extra, range, item.value):set_generated()
            end
        end
    end
end

local function quote(text)
    if text == nil then return "?" end
    return '"' .. text .. '"'
end

local function summary(facts)
    local k = facts.kind
    if k == "data" or k == "spool" then
        local s = string.format("%s %s -> %s", k, quote(facts.source), quote(facts.channel))
        if facts.callback ~= nil and facts.callback ~= "" then
            s = s .. " callback " .. quote(facts.callback)
        end
        s = s .. " type " .. tostring(facts.type) .. " request " .. tostring(facts.request_id)
            .. " length " .. tostring(facts.length)
        if k == "spool" then s = s .. " file " .. tostring(facts.spool_path) end
        return s
    elseif k == "register" or k == "unregister" then
        return k .. " port " .. tostring(facts.port)
    elseif k == "port_request" then
        return "port_request " .. quote(facts.name) .. " request " .. tostring(facts.request_id)
    elseif k == "port_response" then
        return "port_response " .. quote(facts.name) .. " request " .. tostring(facts.request_id)
            .. " port " .. tostring(facts.port)
    elseif k == "update" then
        local parts = {}
        for _, row in ipairs(facts.rows) do
            parts[#parts + 1] = string.format("%s %s %d", row.change, quote(row.name), row.port)
        end
        return "update " .. #facts.rows .. " rows" .. (#parts > 0 and (": " .. table.concat(parts, ", ")) or "")
    end
    return k
end

local function set_info(pinfo, text)
    pinfo.cols.protocol = "CommsChannel"
    pinfo.cols.info = text
end

-- Learns channel ports from what the resolver says, so that an unreadable
-- datagram to one of them is shown for what it is.
local function learn_ports(facts)
    if facts.kind == "update" then
        for _, row in ipairs(facts.rows) do
            if row.change == "added" and row.port > 0 then channel_ports[row.port] = true end
        end
    elseif facts.kind == "port_response" and facts.port ~= nil and facts.port > 0 then
        channel_ports[facts.port] = true
    end
end

local function show_undecodable(pinfo, subtree, tvb, reason, ends_receiving)
    subtree:add(f.kind, tvb(0, 0), "undecodable"):set_generated()
    local r = subtree:add(f.reason, tvb(0, 0), reason):set_generated()
    r:add_proto_expert_info(e_undecodable, reason)
    if ends_receiving then
        r:add_proto_expert_info(e_ends_receiving)
    end
    subtree:append_text(", undecodable")
    set_info(pinfo, "undecodable: " .. reason)
end

local function show_header(tvb, subtree, le)
    subtree:add(f.byte_order, tvb(0, 0), le and "little-endian" or "big-endian"):set_generated()
    subtree:add(f.magic, tvb(0, 2))
    subtree:add(f.version, tvb(2, 1))
    subtree:add(f.type_code, tvb(3, 1))
    add_int(subtree, f.total_length, tvb(4, 4), le)
end

-- Shows a whole encoding held in tvb (a datagram, or split datagrams
-- joined). `to_channel` tells that it went to a channel's receiver, where
-- an unreadable length ends the receiving of the whole process.
local function show_encoding(tvb, pinfo, subtree, le, to_channel, first_pass)
    local available = tvb:len()
    local problem = header_problem(tvb, available, le)
    if problem ~= nil then
        local ends = to_channel and (available < 8 or u32(tvb(4, 4), le) < 8)
        if ends then
            problem = problem .. ": ends the receiving of the destination process"
        end
        show_undecodable(pinfo, subtree, tvb, problem, ends)
        if available >= 8 then show_header(tvb, subtree, le) end
        return
    end
    local version = tvb(2, 1):uint()
    local code = tvb(3, 1):uint()
    local total = u32(tvb(4, 4), le)
    local p = new_parser(tvb, total, le)
    local facts = parse_body(p, code, version)
    if facts.kind ~= nil then
        subtree:add(f.kind, tvb(0, 0), facts.kind):set_generated()
        subtree:append_text(", " .. facts.kind)
        set_info(pinfo, summary(facts))
        if first_pass then learn_ports(facts) end
    else
        show_undecodable(pinfo, subtree, tvb, p.problem, false)
    end
    show_header(tvb, subtree, le)
    if facts.spool_path ~= nil then
        subtree:add(f.spool_path, tvb(0, 0), facts.spool_path):set_generated()
    end
    show_items(subtree, tvb, p.items, le)
end

------------------------------------------------------------------------
-- Classifying a datagram (first pass only).

local function stream_key(pinfo)
    return tostring(pinfo.src) .. ":" .. pinfo.src_port .. ">" .. pinfo.dst_port
end

local function status_value_order(tvb)
    local le_value = tvb(0, 4):le_uint()
    local be_value = tvb(0, 4):uint()
    if cc.prefs.byte_order == ORDER_LITTLE then return le_value <= 1, true end
    if cc.prefs.byte_order == ORDER_BIG then return be_value <= 1, false end
    if le_value <= 1 and be_value <= 1 then return true, default_le() end
    if le_value <= 1 then return true, true end
    if be_value <= 1 then return true, false end
    return false, nil
end

-- Answers the classification of a datagram, or nil when it is not
-- CommsChannel's. `resolver` is true for traffic of the resolver's port.
local function classify(tvb, pinfo, resolver)
    local number = pinfo.number
    local length = tvb:len()
    local key = stream_key(pinfo)
    local join = pending[key]
    if join ~= nil and not resolver then
        -- The continuation of an encoding split over datagrams.
        join.parts[#join.parts + 1] = tvb:raw()
        join.frames[#join.frames + 1] = number
        join.have = join.have + length
        if join.have >= join.total then
            pending[key] = nil
            local bytes = table.concat(join.parts):sub(1, join.total)
            local info = { role = "joined", bytes = bytes, le = join.le, frames = join.frames }
            for i, frame in ipairs(join.frames) do
                if i < #join.frames then frames[frame].joined_in = number end
            end
            return info
        end
        return { role = "piece", index = #join.frames, total = join.total, have = join.have }
    end
    local same_port = pinfo.src_port == pinfo.dst_port and tostring(pinfo.src) == tostring(pinfo.dst)
    if length == 4 and same_port and not resolver then
        local ok, le = status_value_order(tvb)
        if ok then return { role = "status", le = le } end
    end
    local to_channel = channel_ports[pinfo.dst_port] == true
    if length >= 8 and has_magic(tvb) then
        local le = header_order(tvb, length)
        local version = tvb(2, 1):uint()
        local code = tvb(3, 1):uint()
        local total = u32(tvb(4, 4), le)
        local plausible = known_type(code) and (version == 1 or version == 2) and sane_total(total)
        if plausible and total > length and not resolver then
            local join = { total = total, le = le, have = length, parts = { tvb:raw() }, frames = { number } }
            pending[key] = join
            return { role = "first", index = 1, total = total, have = length, le = le }
        end
        if plausible or resolver or to_channel then
            return { role = "whole", le = le, to_channel = to_channel }
        end
        return nil
    end
    if resolver or to_channel then
        return { role = "whole", le = default_le(), to_channel = to_channel }
    end
    return nil
end

local function dissect(tvb, pinfo, tree, resolver)
    -- The heuristic sees resolver traffic too when UDP tries heuristics
    -- first: it is one encoding a datagram all the same.
    resolver = resolver or pinfo.src_port == RESOLVER_PORT or pinfo.dst_port == RESOLVER_PORT
    local info = frames[pinfo.number]
    if info == nil then
        if pinfo.visited then return 0 end
        info = classify(tvb, pinfo, resolver)
        if info == nil then return 0 end
        frames[pinfo.number] = info
    end
    local first_pass = not pinfo.visited and not info.shown
    info.shown = true
    local subtree = tree:add(cc, tvb())
    if info.role == "status" then
        subtree:add(f.kind, tvb(0, 0), "status"):set_generated()
        add_int(subtree, f.status, tvb(0, 4), info.le)
        subtree:append_text(", status")
        local value = u32(tvb(0, 4), info.le)
        set_info(pinfo, "status " .. (STATUS_NAMES[value] or tostring(value)))
    elseif info.role == "first" or info.role == "piece" then
        subtree:add(f.piece, tvb(), info.index):set_generated()
        if info.joined_in ~= nil then
            subtree:add(f.joined_in, tvb(), info.joined_in):set_generated()
        end
        if info.role == "first" then
            subtree:add(f.magic, tvb(0, 2))
            subtree:add(f.version, tvb(2, 1))
            subtree:add(f.type_code, tvb(3, 1))
            add_int(subtree, f.total_length, tvb(4, 4), info.le)
        end
        subtree:append_text(string.format(", piece %d of a split encoding", info.index))
        set_info(pinfo, string.format("piece %d of a split encoding (%d of %d bytes)",
            info.index, info.have, info.total))
    elseif info.role == "joined" then
        local joined = ByteArray.new(info.bytes, true):tvb("Joined encoding")
        subtree:add(f.pieces, tvb(), #info.frames):set_generated()
        for _, frame in ipairs(info.frames) do
            subtree:add(f.piece_frame, tvb(), frame):set_generated()
        end
        show_encoding(joined, pinfo, subtree, info.le, true, first_pass)
        pinfo.cols.info:append(string.format(" [%d datagrams]", #info.frames))
    else
        show_encoding(tvb, pinfo, subtree, info.le, info.to_channel, first_pass)
    end
    return tvb:len()
end

function cc.dissector(tvb, pinfo, tree)
    return dissect(tvb, pinfo, tree, true)
end

local function heuristic(tvb, pinfo, tree)
    return dissect(tvb, pinfo, tree, false) > 0
end

DissectorTable.get("udp.port"):add(RESOLVER_PORT, cc)
cc:register_heuristic("udp", heuristic)
