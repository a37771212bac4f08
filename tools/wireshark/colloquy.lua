-- Wireshark and tshark dissector for colloquy stream messages.
--
-- Every message on a connection is an 8-byte header (body length: signed 32 bits; type and
-- subtype: signed 16 bits; all big-endian) followed by the body. A body is shown as a packed
-- envelope (eight length-prefixed fields: destination host and name, sender host and name,
-- QType, body, user value, format stamp) when it is one, and a body or an envelope's body as a
-- record when it is a record's text form ("2 '1 a '1 b '3 key '0  "), values that are text
-- forms themselves as nested records. Bytes outside printable ASCII and UTF-8 are shown as \xNN.
--
-- Load it with `tshark -X lua_script:colloquy.lua` or copy it into the personal Lua plugins
-- folder (~/.local/lib/wireshark/plugins). The TCP ports are the preference colloquy.ports
-- (default 7870); "Decode As..." (tshark: -d tcp.port==PORT,colloquy) picks other ports.
--
-- Whatever arrives, the dissector marks what it cannot read with expert info and shows those
-- bytes raw; it reads every byte at most a bounded number of times and never raises an error.

local HEADER_SIZE = 8
local DEFAULT_PORTS = "7870"
local SHOWN_BYTES = 1024 -- a string field shows at most this many bytes of its value
local MAX_PAIRS = 10000 -- pairs shown of one record, beyond which a note says how many were left
local MAX_ITEMS = 50000 -- tree items of one message, beyond which the rest is shown raw
local MAX_DEPTH = 64 -- the nesting depth preference's ceiling (the tree's own depth is bounded)

local colloquy = Proto("colloquy", "Colloquy stream messages")

colloquy.prefs.ports = Pref.range("TCP ports", DEFAULT_PORTS, "TCP ports whose traffic is colloquy messages", 65535)
colloquy.prefs.max_length = Pref.uint("Largest body (bytes)", 64 * 1024 * 1024,
    "A header announcing a longer body is taken as a broken stream")
colloquy.prefs.max_depth = Pref.uint("Nesting depth", 8,
    "Records inside values are shown as records down to this depth (at most 64), deeper ones as plain values")

local f = {
    length = ProtoField.int32("colloquy.length", "Body length"),
    type = ProtoField.int16("colloquy.type", "Type"),
    subtype = ProtoField.int16("colloquy.subtype", "Subtype"),
    body = ProtoField.bytes("colloquy.body", "Body"),
    raw = ProtoField.bytes("colloquy.raw", "Undecoded bytes"),
    envelope = ProtoField.none("colloquy.envelope", "Envelope"),
    field_count = ProtoField.uint32("colloquy.envelope.field_count", "Field count"),
    field_length = ProtoField.uint32("colloquy.envelope.field_length", "Field length"),
    field = ProtoField.bytes("colloquy.envelope.field", "Field"),
    to_host = ProtoField.string("colloquy.envelope.to_host", "Destination host"),
    to_name = ProtoField.string("colloquy.envelope.to_name", "Destination name"),
    from_host = ProtoField.string("colloquy.envelope.from_host", "Sender host"),
    from_name = ProtoField.string("colloquy.envelope.from_name", "Sender name"),
    qtype = ProtoField.int32("colloquy.envelope.qtype", "QType"),
    envelope_body = ProtoField.bytes("colloquy.envelope.body", "Envelope body"),
    user_value = ProtoField.uint32("colloquy.envelope.user_value", "User value"),
    format_stamp = ProtoField.uint32("colloquy.envelope.format_stamp", "Format stamp"),
    record = ProtoField.none("colloquy.record", "Record"),
    pair_count = ProtoField.int32("colloquy.record.count", "Pair count"),
    depth = ProtoField.uint32("colloquy.record.depth", "Depth"),
    pair = ProtoField.none("colloquy.pair", "Pair"),
    key_length = ProtoField.uint32("colloquy.key_length", "Key length"),
    key = ProtoField.string("colloquy.key", "Key"),
    value_length = ProtoField.uint32("colloquy.value_length", "Value length"),
    value = ProtoField.string("colloquy.value", "Value"),
    trailing = ProtoField.bytes("colloquy.record.trailing", "Bytes after the last pair"),
}
colloquy.fields = {}
for _, field in pairs(f) do
    table.insert(colloquy.fields, field)
end

-- Expert info: name, summary, group, severity.
local e = {}
colloquy.experts = {}
for _, info in ipairs({
    {"bad_length", "Body length out of range: the stream cannot be framed", "MALFORMED", "ERROR"},
    {"unframed", "Bytes after a header that could not be framed", "MALFORMED", "WARN"},
    {"truncated", "Message shorter than its header announces", "MALFORMED", "ERROR"},
    {"bad_envelope", "Malformed envelope", "MALFORMED", "ERROR"},
    {"field_count", "Packed fields, but not the eight of an envelope", "PROTOCOL", "WARN"},
    {"bad_record", "Malformed record text form", "MALFORMED", "ERROR"},
    {"too_deep", "Records nested deeper than the bound shown as values", "COMMENTS_GROUP", "NOTE"},
    {"too_many", "More items than are shown", "COMMENTS_GROUP", "NOTE"},
    {"fault", "Dissector fault", "UNDECODED", "ERROR"},
}) do
    local name, summary, group, severity = info[1], info[2], info[3], info[4]
    e[name] = ProtoExpert.new("colloquy." .. name .. ".expert", summary, expert.group[group], expert.severity[severity])
    table.insert(colloquy.experts, e[name])
end

-- ---------------------------------------------------------------------------------------------
-- Bytes as text

local function bytes_text(n)
    return n == 1 and "1 byte" or (n .. " bytes")
end

-- The length of a well-formed UTF-8 sequence for a code point from U+00A0 at position i of s
-- (so no C1 controls, overlong forms or surrogates), or 0.
local function utf8_length(s, i)
    local b = s:byte(i)
    local n, low, high
    if b >= 0xc2 and b <= 0xdf then
        n = 2
    elseif b >= 0xe0 and b <= 0xef then
        n = 3
    elseif b >= 0xf0 and b <= 0xf4 then
        n = 4
    else
        return 0
    end
    if i + n - 1 > #s then return 0 end
    local b2 = s:byte(i + 1)
    low, high = 0x80, 0xbf
    if b == 0xc2 then low = 0xa0 end
    if b == 0xe0 then low = 0xa0 end
    if b == 0xed then high = 0x9f end
    if b == 0xf0 then low = 0x90 end
    if b == 0xf4 then high = 0x8f end
    if b2 < low or b2 > high then return 0 end
    for k = i + 2, i + n - 1 do
        local c = s:byte(k)
        if c < 0x80 or c > 0xbf then return 0 end
    end
    return n
end

-- Printable ASCII and well-formed UTF-8 stay; a backslash and every other byte become \xNN.
-- At most SHOWN_BYTES bytes are shown, then "...".
local function escape(s)
    local out = {}
    local last = math.min(#s, SHOWN_BYTES)
    local i = 1
    while i <= last do
        local b = s:byte(i)
        if b >= 0x20 and b < 0x7f and b ~= 0x5c then
            local j = i
            while j < last do
                local c = s:byte(j + 1)
                if c < 0x20 or c >= 0x7f or c == 0x5c then break end
                j = j + 1
            end
            out[#out + 1] = s:sub(i, j)
            i = j + 1
        else
            local n = b >= 0x80 and utf8_length(s, i) or 0
            if n > 0 and i + n - 1 <= last then
                out[#out + 1] = s:sub(i, i + n - 1)
                i = i + n
            else
                out[#out + 1] = string.format("\\x%02x", b)
                i = i + 1
            end
        end
    end
    if #s > last then out[#out + 1] = "..." end
    return table.concat(out)
end

-- ---------------------------------------------------------------------------------------------
-- The body's layouts, read from a Lua string. Positions are 1-based indices into the string;
-- the tree is built afterwards from what was read, so a failure adds nothing half-read.

-- A decimal token of 1 to `max_digits` digits ended by one blank, at position i.
-- Returns its value and the position after the blank, or nil.
local function digits_token(s, i, max_digits)
    local digits = s:match("^%d+", i)
    if not digits or #digits > max_digits or s:byte(i + #digits) ~= 0x20 then return nil end
    return tonumber(digits), i + #digits + 1
end

-- The packed fields at the start of s: a count and that many lengths, each a decimal number and
-- one blank, then the fields back to back. Returns nil when s does not start like packed fields
-- (two number tokens), else a table {count, fields = {{len, length_pos, length_len, pos}},
-- data_end, error}, where `error` says what is wrong when the fields do not fit (fields that
-- do not fit have no `pos`).
local function read_packed(s)
    local count, pos = digits_token(s, 1, 10)
    if not count then return nil end
    local first_length = digits_token(s, pos, 10)
    if not first_length then return nil end
    local packed = {count = count, count_len = pos - 2, fields = {}}
    if count < 1 or count > 10 then
        packed.error = "field count " .. count .. " (1 to 10 allowed)"
        packed.data_end = pos - 1
        return packed
    end
    for k = 1, count do
        local len, next_pos = digits_token(s, pos, 10)
        if not len then
            packed.error = "the length of field " .. (k - 1) .. " is missing or not a number"
            packed.data_end = pos - 1
            return packed
        end
        packed.fields[k] = {len = len, length_pos = pos, length_len = next_pos - pos - 1}
        pos = next_pos
    end
    for k, field in ipairs(packed.fields) do
        if pos + field.len - 1 > #s then
            packed.error = "field " .. (k - 1) .. " announces " .. bytes_text(field.len) .. ", "
                .. (#s - pos + 1) .. " left"
            packed.data_end = pos - 1
            return packed
        end
        field.pos = pos
        pos = pos + field.len
    end
    packed.data_end = pos - 1
    if pos <= #s then packed.error = bytes_text(#s - pos + 1) .. " after the last field" end
    return packed
end

-- The position of the blank that ends a number token of the text form (1 to 18 characters)
-- starting at i, looked for no further than `last`; or nil.
local function token_end(s, i, last)
    for k = i, math.min(last, i + 18) do
        if s:byte(k) == 0x20 then return k end
    end
    return nil
end

-- A number token of the text form: 1 to 18 characters ended by a blank. Returns the token's
-- text and the position after the blank, or nil and a reason.
local function text_token(s, i, last)
    local blank = token_end(s, i, last)
    if not blank then return nil, "no blank within 19 bytes after a number's start" end
    if blank == i then return nil, "an empty number" end
    return s:sub(i, blank - 1), blank + 1
end

-- True when s[i..last] starts like a text form: a count, a blank, then an apostrophe or the end.
local function looks_like_record(s, i, last)
    local count_end = token_end(s, i, last)
    if not count_end or count_end == i then return false end
    if not s:sub(i, count_end - 1):match("^%-?%d+$") then return false end
    return count_end == last or s:byte(count_end + 1) == 0x27
end

-- The text form in s[i..last]. Returns a table {count, count_pos, count_len, pairs, finish}
-- where each pair is {key = {pos, len, length_pos, length_len}, value = {...}} and `finish`
-- is the position after the skipped byte that follows the last value; or nil, a reason and
-- the position where reading failed.
local function read_record(s, i, last)
    local count_text, pos = text_token(s, i, last)
    if not count_text then return nil, pos, i end
    local count = tonumber(count_text:match("^%-?%d+$") or "")
    if not count then return nil, "the pair count \"" .. escape(count_text) .. "\" is not a number", i end
    local record = {count = count, count_pos = i, count_len = #count_text, pairs = {}}
    for k = 1, math.max(count, 0) do
        local pair = {}
        for _, part in ipairs({"key", "value"}) do
            if pos > last or s:byte(pos) ~= 0x27 then
                return nil, "pair " .. k .. ": no apostrophe before the " .. part .. " length", pos
            end
            local length_text, data = text_token(s, pos + 1, last)
            if not length_text then return nil, "pair " .. k .. ", " .. part .. " length: " .. data, pos end
            local len = tonumber(length_text:match("^%d+$") or "")
            if not len then
                return nil, "pair " .. k .. ": the " .. part .. " length \"" .. escape(length_text) .. "\" is not a number", pos
            end
            if data + len - 1 > last then
                return nil, "pair " .. k .. ": the " .. part .. " length " .. len .. " runs past the end ("
                    .. bytes_text(last - data + 1) .. " left)", pos
            end
            pair[part] = {pos = data, len = len, length_pos = pos + 1, length_len = #length_text}
            pos = data + len
            if pos <= last then pos = pos + 1 end -- the blank after the piece, read unchecked
        end
        record.pairs[k] = pair
    end
    record.finish = pos
    return record
end

-- ---------------------------------------------------------------------------------------------
-- The tree

-- What one message's dissection shares: the body's tvb range and string, the remaining budget
-- of tree items, and whether the depth note was given.
local function new_context(range, s)
    return {range = range, s = s, items = MAX_ITEMS, depth_noted = false}
end

-- The tvb range of s[pos .. pos+len-1], or nil for an empty one (added to the tree without bytes).
local function sub(ctx, pos, len)
    if len <= 0 then return nil end
    return ctx.range:range(pos - 1, len)
end

local function add(ctx, tree, field, pos, len, value)
    ctx.items = ctx.items - 1
    local r = sub(ctx, pos, len)
    if value == nil then
        if r then return tree:add(field, r) end
        return tree:add(field)
    end
    if r then return tree:add(field, r, value) end
    return tree:add(field, value)
end

local function add_raw(ctx, tree, pos, len, expert_info, text)
    local item = add(ctx, tree, f.raw, pos, len)
    if expert_info then item:add_proto_expert_info(expert_info, text) end
    return item
end

local show_value

local function show_record(ctx, tree, record, pos, last, depth)
    local s = ctx.s
    local rtree = add(ctx, tree, f.record, pos, last - pos + 1)
    local n = #record.pairs
    rtree:set_text("Record, " .. n .. (n == 1 and " pair" or " pairs"))
    add(ctx, rtree, f.pair_count, record.count_pos, record.count_len, record.count)
    if depth > 0 then add(ctx, rtree, f.depth, 0, 0, depth) end
    for k, pair in ipairs(record.pairs) do
        if k > MAX_PAIRS or ctx.items < 8 then
            local from = pair.key.length_pos - 1
            add_raw(ctx, rtree, from, record.finish - from, e.too_many,
                (n - k + 1) .. " more pairs not shown")
            break
        end
        local key = s:sub(pair.key.pos, pair.key.pos + pair.key.len - 1)
        local value = s:sub(pair.value.pos, pair.value.pos + pair.value.len - 1)
        local start = pair.key.length_pos - 1
        local ptree = add(ctx, rtree, f.pair, start, pair.value.pos + pair.value.len - start)
        ptree:set_text(escape(key) .. ": " .. escape(value))
        add(ctx, ptree, f.key_length, pair.key.length_pos, pair.key.length_len, pair.key.len)
        add(ctx, ptree, f.key, pair.key.pos, pair.key.len, escape(key))
        add(ctx, ptree, f.value_length, pair.value.length_pos, pair.value.length_len, pair.value.len)
        show_value(ctx, ptree, pair.value.pos, pair.value.len, depth)
    end
    if record.finish <= last then
        add(ctx, rtree, f.trailing, record.finish, last - record.finish + 1)
    end
end

-- A value at s[pos .. pos+len-1]: a record when it is exactly a text form (and the depth
-- allows), else text.
show_value = function(ctx, tree, pos, len, depth)
    local s = ctx.s
    local last = pos + len - 1
    local item = add(ctx, tree, f.value, pos, len, escape(s:sub(pos, last)))
    if len == 0 or not looks_like_record(s, pos, last) then return end
    local nested = read_record(s, pos, last)
    if not nested or nested.finish ~= last + 1 then return end
    local max_depth = math.min(colloquy.prefs.max_depth, MAX_DEPTH)
    if depth + 1 > max_depth then
        if not ctx.depth_noted then
            item:add_proto_expert_info(e.too_deep, "records nested deeper than " .. max_depth
                .. " levels are shown as values")
            ctx.depth_noted = true
        end
        return
    end
    show_record(ctx, item, nested, pos, last, depth + 1)
end

-- s[pos .. last] as a record, when it looks like one: a text form that does not read is marked.
-- Returns true when the bytes were shown as a record or marked as a bad one.
local function show_content(ctx, tree, pos, last)
    if last < pos or not looks_like_record(ctx.s, pos, last) then return false end
    local record, reason, where = read_record(ctx.s, pos, last)
    if record then
        show_record(ctx, tree, record, pos, last, 0)
    else
        add_raw(ctx, tree, pos, last - pos + 1, e.bad_record,
            "bad record text form at byte " .. (where - pos) .. ": " .. reason)
    end
    return true
end

-- The envelope's fields in order: the tree field, how it is read, and its name in reports.
local ENVELOPE_FIELDS = {
    {"to_host", "text", "destination host"}, {"to_name", "text", "destination name"},
    {"from_host", "text", "sender host"}, {"from_name", "text", "sender name"},
    {"qtype", "number", "QType"}, {"envelope_body", "body", "body"},
    {"user_value", "number", "user value"}, {"format_stamp", "number", "format stamp"},
}

-- The text of a zero-terminated field (the zero not shown), or nil and a reason.
local function field_text(text)
    local zero = text:find("\0", 1, true)
    if zero ~= #text then
        return nil, zero and "a zero byte inside the text" or "no terminating zero byte"
    end
    return text:sub(1, -2)
end

local function show_envelope(ctx, tree, packed)
    local s = ctx.s
    local etree = add(ctx, tree, f.envelope, 1, packed.data_end)
    local count = add(ctx, etree, f.field_count, 1, packed.count_len, packed.count)
    for _, field in ipairs(packed.fields) do
        add(ctx, count, f.field_length, field.length_pos, field.length_len, field.len)
    end
    if packed.count ~= 8 then
        etree:add_proto_expert_info(e.field_count, packed.count .. " packed fields, not the eight of an envelope")
    end
    local texts = {}
    for k, field in ipairs(packed.fields) do
        if not field.pos then break end
        local bytes = s:sub(field.pos, field.pos + field.len - 1)
        local name, kind, title = ENVELOPE_FIELDS[k][1], ENVELOPE_FIELDS[k][2], ENVELOPE_FIELDS[k][3]
        if packed.count ~= 8 then kind = "bytes" end
        if kind == "text" or kind == "number" then
            local text, reason = field_text(bytes)
            local number = text and tonumber(text:match("^%-?%d+$") or "")
            if kind == "number" and text and not number then reason = "not a decimal number" end
            if not text or (kind == "number" and not number) then
                local item = add(ctx, etree, f.field, field.pos, field.len)
                item:add_proto_expert_info(e.bad_envelope, "field " .. (k - 1) .. " (" .. title .. "): " .. reason)
            elseif kind == "text" then
                texts[name] = escape(text)
                add(ctx, etree, f[name], field.pos, field.len, texts[name])
            else
                if name ~= "qtype" and number < 0 then number = number + 4294967296 end
                if number < -2147483648 or number > 4294967295 then
                    local item = add(ctx, etree, f.field, field.pos, field.len)
                    item:add_proto_expert_info(e.bad_envelope, "field " .. (k - 1) .. " (" .. title .. "): out of range")
                else
                    add(ctx, etree, f[name], field.pos, field.len, number)
                end
            end
        elseif kind == "body" then
            local btree = add(ctx, etree, f.envelope_body, field.pos, field.len)
            show_content(ctx, btree, field.pos, field.pos + field.len - 1)
        else
            add(ctx, etree, f.field, field.pos, field.len)
        end
    end
    if packed.error then
        local from = packed.data_end + 1
        local item = from <= #s and add_raw(ctx, etree, from, #s - from + 1) or etree
        item:add_proto_expert_info(e.bad_envelope, "malformed envelope: " .. packed.error)
    end
    if texts.from_name and texts.to_name then
        etree:set_text("Envelope, from " .. texts.from_name .. "@" .. (texts.from_host or "") .. " to "
            .. texts.to_name .. "@" .. (texts.to_host or ""))
    end
end

-- One message: the header, then the body as an envelope, a record or raw bytes.
local function show_message(tvb, pinfo, tree)
    local available = tvb:len()
    local length = tvb(0, 4):int()
    local type, subtype = tvb(4, 2):int(), tvb(6, 2):int()
    local mtree = tree:add(colloquy, tvb())
    mtree:set_text(string.format("Colloquy message, type %d, subtype %d, %d bytes", type, subtype, length))
    local length_item = mtree:add(f.length, tvb(0, 4))
    mtree:add(f.type, tvb(4, 2))
    mtree:add(f.subtype, tvb(6, 2))

    local summary = string.format("type %d/%d, %d bytes", type, subtype, length)
    if tostring(pinfo.cols.protocol) ~= "COLLOQUY" then
        pinfo.cols.protocol = "COLLOQUY"
        pinfo.cols.info = summary
    else
        pinfo.cols.info:append("; " .. summary)
    end

    if length < 0 or length > colloquy.prefs.max_length then
        length_item:add_proto_expert_info(e.bad_length, "a body of " .. length .. " bytes (0 to "
            .. colloquy.prefs.max_length .. " allowed): the stream cannot be framed from here on")
        if available > HEADER_SIZE then mtree:add(f.raw, tvb(HEADER_SIZE)) end
        return
    end
    if length == 0 then return end
    if available < HEADER_SIZE + length then
        mtree:add_proto_expert_info(e.truncated, "the capture holds " .. (available - HEADER_SIZE) .. " of "
            .. length .. " body bytes")
        if available > HEADER_SIZE then mtree:add(f.raw, tvb(HEADER_SIZE)) end
        return
    end

    local range = tvb(HEADER_SIZE, length)
    local body = mtree:add(f.body, range)
    local ctx = new_context(range, range:raw())
    local packed = read_packed(ctx.s)
    if packed then
        show_envelope(ctx, body, packed)
    else
        show_content(ctx, body, 1, #ctx.s)
    end
end

-- ---------------------------------------------------------------------------------------------
-- Framing

-- A header whose length is refused leaves the rest of its direction of the stream unframed:
-- the first such frame of each stream direction, so later frames are shown raw.
local unframed = {}
local tcp_stream = Field.new("tcp.stream")

local function direction_key(pinfo)
    local stream = tcp_stream()
    return tostring(stream and stream.value or "?") .. "/" .. tostring(pinfo.src) .. ":" .. tostring(pinfo.src_port)
end

function colloquy.init()
    unframed = {}
end

local function message_length(tvb, pinfo, offset)
    local remaining = tvb:len() - offset
    if remaining < HEADER_SIZE then return remaining end -- only without reassembly
    local length = tvb(offset, 4):int()
    if length < 0 or length > colloquy.prefs.max_length then
        -- No length to trust: the rest of this segment is the bad message, shown raw.
        local key = direction_key(pinfo)
        if not unframed[key] or pinfo.number < unframed[key] then unframed[key] = pinfo.number end
        return remaining
    end
    return HEADER_SIZE + length
end

local function dissect_message(tvb, pinfo, tree)
    local ok, fault = pcall(show_message, tvb, pinfo, tree)
    if not ok then
        local item = tree:add(f.raw, tvb())
        item:add_proto_expert_info(e.fault, "dissector fault: " .. tostring(fault))
    end
    return tvb:len()
end

function colloquy.dissector(tvb, pinfo, tree)
    local first_bad = unframed[direction_key(pinfo)]
    if first_bad and pinfo.number > first_bad then
        pinfo.cols.protocol = "COLLOQUY"
        pinfo.cols.info = "bytes after a header that could not be framed (frame " .. first_bad .. ")"
        local item = tree:add(colloquy, tvb())
        item:add(f.raw, tvb()):add_proto_expert_info(e.unframed, "this direction could not be framed since frame "
            .. first_bad)
        return tvb:len()
    end
    dissect_tcp_pdus(tvb, tree, HEADER_SIZE, message_length, dissect_message, true)
    return tvb:len()
end

-- The ports: the preference, re-applied when it changes, and "Decode As".
local tcp_ports = DissectorTable.get("tcp.port")
local registered_ports = ""

local function register_ports()
    local ports = colloquy.prefs.ports
    if ports == registered_ports then return end
    if registered_ports ~= "" then tcp_ports:remove(registered_ports, colloquy) end
    if ports ~= "" then tcp_ports:add(ports, colloquy) end
    registered_ports = ports
end

colloquy.prefs_changed = register_ports
register_ports()
tcp_ports:add_for_decode_as(colloquy)
