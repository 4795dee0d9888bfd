-- SPDX-License-Identifier: Apache-2.0
-- Wireshark dissector for the UDP frames of libvelmar_sastox.
--
-- Every frame is one 4138-byte datagram: a 42-byte header, then a 4096-byte data area of
-- which the first data_len bytes are the payload. Numbers are in the sending host's byte
-- order. The marker is always 1, so its two bytes tell that order: 01 00 little-endian
-- (x86, most ARM hosts), 00 01 big-endian; a frame in either order is decoded.
--
-- Found two ways: on the UDP port of the preference "velmar.udp_port" (default 5555; 0
-- turns it off), and on any port by a heuristic that takes datagrams of exactly 4138
-- bytes whose reserved field is 0 and whose marker is 1.
--
-- Use: copy to ~/.local/lib/wireshark/plugins/ (Wireshark >= 3.6 also reads
-- ~/.config/wireshark/plugins/), or load it for one run:
--   tshark -X lua_script:velmar_sastox.lua -r capture.pcap -Y velmar

local FRAME_LEN = 4138
local HEADER_LEN = 42
local DATA_AREA = 4096
local DEFAULT_PORT = 5555

local velmar = Proto("velmar", "libvelmar_sastox UDP frame")

local types = { [0] = "request", [1] = "response" }

local f = velmar.fields
f.src_port = ProtoField.uint16("velmar.src_port", "Source port")
f.dst_port = ProtoField.uint16("velmar.dst_port", "Destination port")
f.reserved = ProtoField.uint16("velmar.reserved", "Reserved", base.HEX)
f.marker = ProtoField.uint16("velmar.marker", "Marker")
f.data_len = ProtoField.uint16("velmar.data_len", "Data length")
f.type = ProtoField.uint32("velmar.type", "Type", base.DEC, types)
f.peer_id = ProtoField.uint32("velmar.peer_id", "Peer id")
f.req_id = ProtoField.uint64("velmar.req_id", "Request id", base.HEX)
f.reserved2 = ProtoField.bytes("velmar.reserved2", "Reserved (16 bytes)")
f.data = ProtoField.bytes("velmar.data", "Data")
f.big_endian = ProtoField.bool("velmar.big_endian", "Sent by a big-endian host")

local bad_frame = ProtoExpert.new("velmar.bad_frame", "Not a well-formed frame",
                                  expert.group.MALFORMED, expert.severity.WARN)
velmar.experts = { bad_frame }

velmar.prefs.udp_port = Pref.uint("UDP port", DEFAULT_PORT,
    "Datagrams to or from this port are decoded as frames (0: none). Frames on other " ..
    "ports are found by their size and marker all the same.")

-- true: little-endian, false: big-endian, nil: the marker is not 1 either way.
local function byte_order(tvb)
    local lo, hi = tvb(6, 1):uint(), tvb(7, 1):uint()
    if lo == 1 and hi == 0 then return true end
    if lo == 0 and hi == 1 then return false end
    return nil
end

local function is_frame(tvb)
    return tvb:reported_length_remaining() == FRAME_LEN and tvb:captured_len() >= HEADER_LEN
        and byte_order(tvb) ~= nil and tvb(4, 2):uint() == 0
end

function velmar.dissector(tvb, pinfo, tree)
    if tvb:captured_len() < HEADER_LEN then
        return 0
    end
    local le = byte_order(tvb)
    local little = le ~= false
    local add = function(t, field, range)
        if little then return t:add_le(field, range) end
        return t:add(field, range)
    end
    local num = function(offset, len)
        if little then return tvb(offset, len):le_uint() end
        return tvb(offset, len):uint()
    end

    pinfo.cols.protocol = "VELMAR"
    local subtree = tree:add(velmar, tvb(0, math.min(tvb:captured_len(), FRAME_LEN)))
    add(subtree, f.src_port, tvb(0, 2))
    add(subtree, f.dst_port, tvb(2, 2))
    add(subtree, f.reserved, tvb(4, 2))
    add(subtree, f.marker, tvb(6, 2))
    add(subtree, f.data_len, tvb(8, 2))
    add(subtree, f.type, tvb(10, 4))
    add(subtree, f.peer_id, tvb(14, 4))
    add(subtree, f.req_id, tvb(18, 8))
    subtree:add(f.reserved2, tvb(26, 16))
    subtree:add(f.big_endian, not little):set_generated()

    local data_len = num(8, 2)
    local shown = math.min(data_len, DATA_AREA, tvb:captured_len() - HEADER_LEN)
    if shown > 0 then
        subtree:add(f.data, tvb(HEADER_LEN, shown))
    end

    if not is_frame(tvb) then
        subtree:add_proto_expert_info(bad_frame, string.format(
            "not a well-formed frame: %d bytes (4138 expected), reserved 0x%04x (0), marker bytes %02x %02x (01 00 or 00 01)",
            tvb:reported_length_remaining(), tvb(4, 2):uint(), tvb(6, 1):uint(), tvb(7, 1):uint()))
    end
    if data_len > DATA_AREA then
        subtree:add_proto_expert_info(bad_frame,
            string.format("data_len %d is larger than the 4096-byte data area", data_len))
    end

    local type_code = num(10, 4)
    local req_id = little and tvb(18, 8):le_uint64() or tvb(18, 8):uint64()
    pinfo.cols.info = string.format("%s req_id=0x%s peer_id=%u data_len=%u",
        types[type_code] or ("type " .. type_code), req_id:tohex(), num(14, 4), data_len)
    return tvb:captured_len()
end

local function heuristic(tvb, pinfo, tree)
    if not is_frame(tvb) then
        return false
    end
    velmar.dissector(tvb, pinfo, tree)
    return true
end
velmar:register_heuristic("udp", heuristic)

local registered_port = 0
local function register_port()
    local udp_table = DissectorTable.get("udp.port")
    if registered_port ~= 0 then
        udp_table:remove(registered_port, velmar)
    end
    registered_port = velmar.prefs.udp_port
    if registered_port ~= 0 then
        udp_table:add(registered_port, velmar)
    end
end
velmar.prefs_changed = register_port
register_port()
