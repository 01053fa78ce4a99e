-- Wireshark dissector for the host platform's frames: channel frames between a
-- broker and an orchestrator (receive messages with their entries, transfer
-- messages with their TLVs, table data and smoothing TLVs) and sync-group
-- frames between peers. It reads recordings (pcap, link type USER0, each record
-- an 8-byte pseudo-header then the frame) and live loopback TCP on the ports
-- set in the preferences (DAM on the first port, FES on the next).
--   tshark -X lua_script:qov.lua -r run.pcap -V
--   tshark -X lua_script:qov.lua -i lo -f "tcp portrange 47470-47471"
-- Anything that does not fit is marked as an expert-info error; the rest of the
-- frame is still shown.

local qov = Proto("qov", "QOV host frames")

local FRAME_MAGIC = 0x514F5646
local HDR_LEN = 12
local PSEUDO_LEN = 8
local MSG_END = 0x5F000000
local WL_IDS = { [0x51000001] = "DAM set", [0x51000002] = "DAM delete", [0x52000001] = "FES set",
                 [0x52000002] = "FES delete" }
local WL_TRANS_TABLE = 0x61
local CHAN_NAMES = { [0] = "DAM", [1] = "FES", [2] = "UP", [3] = "EVT" }
local KIND_NAMES = { [0] = "channel", [1] = "sync group" }

-- Smoothing TLVs: {name, fixed length}; batch types 193 to 206 are dispatched as another type.
local SMOOTH = {
    [7] = { "class state begin", 16 }, [8] = { "class state end", 16 }, [9] = { "VRF state", 32 },
    [10] = { "VRF class data begin", 28 }, [11] = { "VRF class data end", 28 }, [15] = { "PID state", 20 },
    [16] = { "LR class data begin", 16 }, [17] = { "LR class data end", 16 },
    [190] = { "DAM class data", 16 }, [191] = { "DAM class data", 16 },
}
local BATCH = { [193] = { 10, 1 }, [194] = { 11, 1 }, [195] = { 10, 2 }, [196] = { 11, 2 }, [201] = { 16, 1 },
                [202] = { 17, 1 }, [203] = { 16, 2 }, [206] = { 17, 2 } }
local SMOOTH_VALS = {}
for t, s in pairs(SMOOTH) do SMOOTH_VALS[t] = s[1] end
for t, b in pairs(BATCH) do SMOOTH_VALS[t] = "batch " .. b[2] .. " " .. SMOOTH[b[1]][1] end

local TLV_TYPES = { [1] = "table data", [2] = "table data, one entry size", [18] = "table data, one piece",
                    [19] = "table data, one piece" }

local f = qov.fields
f.rec_version = ProtoField.uint8("qov.rec.version", "Record version")
f.rec_kind = ProtoField.uint8("qov.rec.kind", "Link kind", base.DEC, KIND_NAMES)
f.rec_dir = ProtoField.uint8("qov.rec.dir", "Direction", base.DEC, { [0] = "received" })
f.rec_chan = ProtoField.uint32("qov.rec.chan", "Channel", base.DEC, CHAN_NAMES)
f.rec_group = ProtoField.uint32("qov.rec.group", "Sync group")
f.magic = ProtoField.uint32("qov.magic", "Magic", base.HEX)
f.msgid = ProtoField.uint32("qov.msgid", "Message id", base.HEX)
f.msglen = ProtoField.uint32("qov.msglen", "Body length")
f.recv_prefix = ProtoField.bytes("qov.recv.prefix", "Prefix")
f.recv_entries = ProtoField.uint32("qov.recv.entries", "Entries")
f.entry = ProtoField.bytes("qov.entry", "Entry")
f.entry_key = ProtoField.bytes("qov.entry.key", "Key")
f.route_prefix = ProtoField.string("qov.route.prefix", "Route prefix")
f.route_nexthop = ProtoField.ipv4("qov.route.nexthop", "Next hop")
f.route_ifindex = ProtoField.uint32("qov.route.ifindex", "Interface index")
f.route_seq = ProtoField.uint32("qov.route.seq", "Sequence (value)")
f.route_sent = ProtoField.uint32("qov.route.sent_us", "Broker send time (us)")
f.end_msgs = ProtoField.uint64("qov.end.msgs", "Messages sent")
f.end_entries = ProtoField.uint64("qov.end.entries", "Entries sent")
f.end_digest = ProtoField.uint64("qov.end.digest", "Final table digest", base.HEX)
f.trans_total = ProtoField.uint32("qov.trans.total", "TLV area length")
f.tlv = ProtoField.bytes("qov.tlv", "TLV")
f.tlv_table = ProtoField.uint32("qov.tlv.table", "Table id", base.HEX)
f.tlv_type = ProtoField.uint32("qov.tlv.type", "TLV type", base.DEC, TLV_TYPES)
f.tlv_len = ProtoField.uint32("qov.tlv.len", "TLV length")
f.tlv_w = ProtoField.uint32("qov.tlv.w", "Entry bytes or entry size (W)")
f.tlv_entries = ProtoField.uint32("qov.tlv.entries", "Table entries")
f.smooth = ProtoField.bytes("qov.smooth", "Smoothing TLV")
f.smooth_type = ProtoField.uint32("qov.smooth.type", "optType", base.DEC, SMOOTH_VALS)
f.smooth_len = ProtoField.uint32("qov.smooth.len", "Length")
f.smooth_table = ProtoField.uint32("qov.smooth.table", "Table id", base.HEX)
f.smooth_word = ProtoField.uint32("qov.smooth.word", "Class word", base.HEX)
f.sync_items = ProtoField.uint32("qov.sync.items", "Items")
f.sync_item_len = ProtoField.uint32("qov.sync.item_len", "Item length")
f.sync_item = ProtoField.bytes("qov.sync.item", "Item")

local e_malformed = ProtoExpert.new("qov.malformed", "Malformed QOV frame", expert.group.MALFORMED,
    expert.severity.ERROR)
qov.experts = { e_malformed }

qov.prefs.dam_port = Pref.uint("DAM channel TCP port", 47470, "Live traffic: the DAM channel; FES is the next port")
qov.prefs.sync_port = Pref.uint("Sync link TCP port", 0, "Live traffic: a sync-group link (0: none)")
qov.prefs.entry_size = Pref.uint("Receive entry size", 32, "Entry size of receive messages that are not the example's")
qov.prefs.key_size = Pref.uint("Receive key size", 16, "Key size of those entries")
qov.prefs.table_size = Pref.uint("Transfer entry size", 32, "Registered entry size (tblSize) of transfer tables")

local function bad(tree, range, text)
    tree:add_proto_expert_info(e_malformed, text)
    if range then tree:add(range, "[Malformed: " .. text .. "]") end
end

-- The example workload's 32-byte route entry: 16-byte prefix key, next hop,
-- interface, sequence, send time (host byte order, as the broker lays it down).
local function route_entry(tree, r)
    local t = tree:add(f.entry, r)
    local p = r:range(0, 16)
    local text = string.format("%x:%x:%x:%x::/%d", p:range(0, 2):uint(), p:range(2, 2):uint(), p:range(4, 2):uint(),
        p:range(6, 2):uint(), p:range(15, 1):uint())
    t:add(f.entry_key, p)
    t:add(f.route_prefix, p, text)
    t:add_le(f.route_nexthop, r:range(16, 4))
    t:add_le(f.route_ifindex, r:range(20, 4))
    t:add_le(f.route_seq, r:range(24, 4))
    t:add_le(f.route_sent, r:range(28, 4))
    t:set_text(string.format("Route %s seq %u", text, r:range(24, 4):le_uint()))
end

local function entries(tree, body, off, size, n, keySize, asRoute)
    for i = 0, n - 1 do
        local r = body:range(off + i * size, size)
        if asRoute and size == 32 then
            route_entry(tree, r)
        else
            local t = tree:add(f.entry, r)
            if keySize > 0 and keySize <= size then t:add(f.entry_key, r:range(0, keySize)) end
        end
    end
end

local function receive(tree, body, msgId)
    local len = body:len()
    if len < 8 then return bad(tree, body:len() > 0 and body:range() or nil, "receive body below its 8-byte prefix") end
    tree:add(f.recv_prefix, body:range(0, 8))
    local route = WL_IDS[msgId] ~= nil
    local size = route and 32 or qov.prefs.entry_size
    if size == 0 then return end
    local n = math.floor((len - 8) / size)
    tree:add(f.recv_entries, body:range(0, len), n)
    if (len - 8) % size ~= 0 then
        bad(tree, body:range(8 + n * size), string.format("%d bytes after the last whole entry of %d", (len - 8) % size, size))
    end
    entries(tree, body, 8, size, n, route and 16 or qov.prefs.key_size, route)
    return n
end

local function smoothing(tree, v)
    local off, left, first = 0, v:len(), true
    while left > 0 do
        if left < 12 then return bad(tree, v:range(off), "smoothing TLV cut below its 12-byte header") end
        local opt, length = v:range(off, 4):le_uint(), v:range(off + 4, 4):le_uint()
        local shown = opt
        if first and BATCH[opt] then shown = BATCH[opt][1] end
        local t = tree:add(f.smooth, v:range(off, math.min(math.max(length, 12), left)))
        t:add_le(f.smooth_type, v:range(off, 4))
        t:add_le(f.smooth_len, v:range(off + 4, 4))
        t:add_le(f.smooth_table, v:range(off + 8, 4))
        local s = SMOOTH[shown]
        t:set_text(string.format("Smoothing %s (optType %u)", SMOOTH_VALS[opt] or "unknown type", opt))
        if s == nil then return bad(t, nil, "no handler for smoothing type " .. opt) end
        if length ~= s[2] or length > left then
            return bad(t, nil, string.format("length %u, type %u needs %u (%u bytes left)", length, opt, s[2], left))
        end
        for w = 12, length - 4, 4 do t:add_le(f.smooth_word, v:range(off + w, 4)) end
        off, left, first = off + length, left - length, false
    end
end

local function table_data(tree, v, tlvType, fes, tableId)
    local size, start, n = qov.prefs.table_size, 0, 0
    local len = v:len()
    if tlvType == 18 or tlvType == 19 then
        if len > 0 then entries(tree, v, 0, len, 1, 0, false) end
        return
    end
    if fes then
        if len < 8 then return bad(tree, len > 0 and v:range() or nil, "FES table data below its 8-byte header") end
        local w = v:range(4, 4):le_uint()
        tree:add_le(f.tlv_w, v:range(4, 4))
        start = 8
        if tlvType == 2 then size = w end
        if size == 0 then return bad(tree, v:range(4, 4), "entry size 0") end
        n = tlvType == 1 and math.floor(w / size) or math.floor((len - 8) / size)
        if start + n * size > len then
            return bad(tree, v:range(), string.format("%u entries of %u bytes pass the TLV's end", n, size))
        end
    else
        if tlvType == 2 then size = len end
        if size == 0 then return end
        n = math.floor(len / size)
    end
    tree:add(f.tlv_entries, v:range(), n)
    entries(tree, v, start, size, n, 0, tableId == WL_TRANS_TABLE and size == 32)
end

local function transfer(tree, body, fes)
    local len = body:len()
    if len < 12 then return bad(tree, len > 0 and body:range() or nil, "transfer body below its 12-byte header") end
    local total = body:range(8, 4):le_uint()
    tree:add_le(f.trans_total, body:range(8, 4))
    if total < 12 then return bad(tree, body:range(8, 4), "TLV area length below 12") end
    if total > len - 12 then return bad(tree, body:range(8, 4), "TLV area passes the body's end") end
    local off = 12
    while off < 12 + total do
        if 12 + total - off < 12 then return bad(tree, body:range(off), "TLV cut below its 12-byte header") end
        local tableId, tlvType, tlvLen = body:range(off, 4):le_uint(), body:range(off + 4, 4):le_uint(),
            body:range(off + 8, 4):le_uint()
        local room = 12 + total - off - 12
        local t = tree:add(f.tlv, body:range(off, 12 + math.min(tlvLen, room)))
        t:add_le(f.tlv_table, body:range(off, 4))
        t:add_le(f.tlv_type, body:range(off + 4, 4))
        t:add_le(f.tlv_len, body:range(off + 8, 4))
        local data = tlvType == 1 or tlvType == 2 or tlvType == 18 or tlvType == 19
        t:set_text(string.format("TLV table 0x%x, %s, %u bytes", tableId, data and (TLV_TYPES[tlvType]) or
            "smoothing run (type " .. tlvType .. ")", tlvLen))
        if tlvLen > room then return bad(t, nil, string.format("TLV length %u, %u bytes left", tlvLen, room)) end
        if tlvLen > 0 then
            local v = body:range(off + 12, tlvLen):tvb()
            if data then table_data(t, v, tlvType, fes, tableId) else smoothing(t, v) end
        end
        off = off + 12 + tlvLen
    end
end

local function sync_body(tree, body)
    local off, n, len = 0, 0, body:len()
    while off < len do
        if len - off < 4 then return bad(tree, body:range(off), "sync item cut below its length word") end
        local l = body:range(off, 4):uint()
        if l > len - off - 4 then return bad(tree, body:range(off), string.format("item of %u bytes, %u left", l, len - off - 4)) end
        tree:add(f.sync_item_len, body:range(off, 4))
        if l > 0 then tree:add(f.sync_item, body:range(off + 4, l)) end
        off, n = off + 4 + l, n + 1
    end
    if len > 0 then tree:add(f.sync_items, body:range(), n) else tree:add(f.sync_items, n) end
end

-- One frame at tvb offset 0 (header and body); kind 0 channel (chan: its
-- index when known) or 1 sync. Returns a short text for the info column.
local function frame(tvb, pinfo, tree, kind, chan)
    local t = tree:add(qov, tvb:range())
    if tvb:len() < HDR_LEN then
        bad(t, tvb:len() > 0 and tvb:range() or nil, "frame below its 12-byte header")
        return "short frame"
    end
    t:add(f.magic, tvb:range(0, 4))
    t:add(f.msgid, tvb:range(4, 4))
    t:add(f.msglen, tvb:range(8, 4))
    local msgId, msgLen = tvb:range(4, 4):uint(), tvb:range(8, 4):uint()
    if tvb:range(0, 4):uint() ~= FRAME_MAGIC then bad(t, tvb:range(0, 4), "wrong magic") end
    local have = tvb:len() - HDR_LEN
    if msgLen ~= have then
        bad(t, tvb:range(8, 4), string.format("body length %u, %u bytes present", msgLen, have))
        if msgLen > have then msgLen = have end
    end
    local body = msgLen > 0 and tvb:range(HDR_LEN, msgLen):tvb() or ByteArray.new(""):tvb("empty body")
    local info
    if kind == 1 then
        sync_body(t, body)
        info = string.format("sync group %u, %u bytes", msgId, msgLen)
    elseif msgId >= 0x7F7F7F70 and msgId <= 0x7F7F7F7F then
        transfer(t, body, chan == 1)
        info = string.format("transfer 0x%08x, %u bytes", msgId, msgLen)
    elseif msgId == MSG_END and msgLen == 24 then
        t:add_le(f.end_msgs, body:range(0, 8))
        t:add_le(f.end_entries, body:range(8, 8))
        t:add_le(f.end_digest, body:range(16, 8))
        info = "end of stream"
    else
        local n = receive(t, body, msgId)
        info = string.format("receive 0x%08x%s, %s entries", msgId, WL_IDS[msgId] and (" " .. WL_IDS[msgId]) or "",
            n or "no")
    end
    t:set_text(string.format("QOV %s", info))
    return info
end

local function set_info(pinfo, where, info)
    pinfo.cols.protocol = "QOV"
    pinfo.cols.info = where .. " " .. info
end

-- Recordings: the pseudo-header, then one frame.
local function dissect_record(tvb, pinfo, tree)
    if tvb:len() < PSEUDO_LEN then
        local t = tree:add(qov, tvb:range())
        bad(t, tvb:len() > 0 and tvb:range() or nil, "record below its 8-byte pseudo-header")
        return
    end
    local t = tree:add(qov, tvb:range(0, PSEUDO_LEN), "QOV record")
    t:add(f.rec_version, tvb:range(0, 1))
    t:add(f.rec_kind, tvb:range(1, 1))
    t:add(f.rec_dir, tvb:range(2, 1))
    local kind, index = tvb:range(1, 1):uint(), tvb:range(4, 4):uint()
    t:add(kind == 1 and f.rec_group or f.rec_chan, tvb:range(4, 4))
    if tvb:range(0, 1):uint() ~= 1 then bad(t, tvb:range(0, 1), "unknown record version") end
    local where = kind == 1 and ("sync " .. index) or (CHAN_NAMES[index] or ("channel " .. index))
    local info = frame(tvb:range(PSEUDO_LEN):tvb(), pinfo, tree, kind, index)
    set_info(pinfo, where, info)
end

-- Live TCP: frames cut out of the stream by their header's length.
local function pdu_len(tvb, pinfo, offset)
    if tvb:range(offset, 4):uint() ~= FRAME_MAGIC then return tvb:len() - offset end
    return HDR_LEN + tvb:range(offset + 8, 4):uint()
end

local function dissect_pdu(tvb, pinfo, tree)
    local port, dam = pinfo.match_uint, qov.prefs.dam_port
    local kind = (qov.prefs.sync_port ~= 0 and port == qov.prefs.sync_port) and 1 or 0
    local chan = port == dam and 0 or (port == dam + 1 and 1 or nil)
    local info = frame(tvb, pinfo, tree, kind, chan)
    set_info(pinfo, kind == 1 and "sync" or (CHAN_NAMES[chan] or "channel"), info)
    return tvb:len()
end

function qov.dissector(tvb, pinfo, tree)
    if pinfo.port_type ~= 0 then
        dissect_tcp_pdus(tvb, tree, HDR_LEN, pdu_len, dissect_pdu)
    else
        dissect_record(tvb, pinfo, tree)
    end
end

local registered = {}
local function register_ports()
    local tcp = DissectorTable.get("tcp.port")
    for _, p in ipairs(registered) do tcp:remove(p, qov) end
    registered = {}
    local ports = { qov.prefs.dam_port, qov.prefs.dam_port + 1, qov.prefs.sync_port }
    for _, p in ipairs(ports) do
        if p ~= 0 then
            tcp:add(p, qov)
            table.insert(registered, p)
        end
    end
end

function qov.prefs_changed() register_ports() end

DissectorTable.get("wtap_encap"):add(wtap_encaps.USER0, qov)
register_ports()
