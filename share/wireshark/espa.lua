-- ESPA 4.4.4 over TCP, as serial-to-network converters carry it, for Wireshark and tshark.
--
--     SOH 01   STX 02   ETX 03   EOT 04   ENQ 05   ACK 06   NAK 15   RS 1E   US 1F
--
-- A line is a sequence of exchanges, which may come byte by byte or several at a time:
--
--     digit ENQ                   a poll of this station, or a select of it
--     digit ENQ digit ENQ         a select of the second by the first, the control station
--     SOH header STX ... ETX bcc  a data packet, with its block check character
--     ENQ                         the last answer again
--     ACK                         yes
--     NAK, digit NAK              no, and why
--     EOT                         nothing to say, or the end
--
-- With the standard's link procedure the control station polls its stations, which answer EOT or select it
-- in turn; its own EOT has no answer. Simple senders select with one address and have each EOT echoed.
-- Which of the two is spoken, and by whom, is learned from the dialogue.

local espa = Proto("espa", "ESPA 4.4.4")

espa.prefs.ports = Pref.range("TCP ports", "2233", "Ports of converters, or of vesperd where it listens", 65535)
espa.prefs.control = Pref.string("Control station", "1", "The address of the control station, a digit")
espa.prefs.statuses = Pref.string("Call statuses", "1=called,2=answered,3=unanswered",
    "What this paging system takes the values of data identifier 7 for")

-- Bytes ----------------------------------------------------------------------------------------------

local SOH, STX, ETX, EOT, ENQ, ACK, NAK, RS, US = 1, 2, 3, 4, 5, 6, 0x15, 0x1E, 0x1F
local MAX_PACKET = 1026 -- what vesperd receives of one

local names = {[SOH] = "SOH", [STX] = "STX", [ETX] = "ETX", [EOT] = "EOT", [ENQ] = "ENQ", [ACK] = "ACK",
    [NAK] = "NAK", [RS] = "RS", [US] = "US", [0x0D] = "CR", [0x0A] = "LF"}

-- Bytes as espasend prints and reads them: control characters by name, text in single quotes. A backslash is
-- none of the text, because newer versions of tshark print two for one.
local function describe(bytes)
    local said, at = {}, 1
    while at <= #bytes do
        local text = bytes:match("^[]-~ -&(-[]+", at)
        local byte = bytes:byte(at)
        said[#said + 1] = text and "'" .. text .. "'" or names[byte] or string.format("0x%02x", byte)
        at = at + (text and #text or 1)
    end
    return table.concat(said, " ")
end

local function is_digit(byte)
    return byte ~= nil and byte >= 0x30 and byte <= 0x39
end

-- The exclusive-or of everything behind SOH, ETX included.
local function check_character(packet)
    local check = 0
    for at = 2, #packet - 1 do
        check = bit.bxor(check, packet:byte(at))
    end
    return check % 128
end

local function milliseconds(seconds)
    if seconds >= 0.9995 then
        return string.format("%.1f s", seconds)
    end
    return string.format(seconds < 0.001 and "%.2f ms" or seconds < 0.01 and "%.1f ms" or "%.0f ms", seconds * 1000)
end

-- Exchanges -------------------------------------------------------------------------------------------

local POLL, SELECT, CALL, STATUS, RECORD, ASK, TAKEN, REFUSED, NOTHING, END, ECHO, BID, NOISE, BROKEN =
    1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14
local kinds = {[POLL] = "Poll", [SELECT] = "Select", [CALL] = "Call", [STATUS] = "Call status",
    [RECORD] = "Other record", [ASK] = "Asks again", [TAKEN] = "Acknowledgement", [REFUSED] = "Refusal",
    [NOTHING] = "Nothing to say", [END] = "End of transmission", [ECHO] = "Echo of EOT",
    [BID] = "Station selects", [NOISE] = "No ESPA", [BROKEN] = "Broken packet"}

-- How long the packet at `at` is; nil: its end has not come; negative: it has none, and breaks off there.
local function packet_length(bytes, at)
    local stop = bytes:find("[\1\3\4\5]", at + 1)
    if stop == nil then
        return #bytes - at >= MAX_PACKET and -(#bytes - at + 1) or nil
    end
    if bytes:byte(stop) == ETX then
        return stop < #bytes and stop - at + 2 or nil
    end
    local is_address = bytes:byte(stop) == ENQ and is_digit(bytes:byte(stop - 1)) and stop - 1 > at
    return -(stop - at - (is_address and 1 or 0))
end

-- Up to what may be the beginning of an exchange.
local function noise_length(bytes, at)
    local last = at
    while last < #bytes do
        local byte, next_byte = bytes:byte(last + 1, last + 2)
        if names[byte] and byte ~= STX and byte ~= ETX and byte < RS and byte ~= 0x0D and byte ~= 0x0A
            or is_digit(byte) and (next_byte == ENQ or next_byte == NAK) then
            break
        end
        last = last + 1
    end
    return last - at + 1
end

-- The exchange at `at`: its form and its length; nil when more bytes have to come first.
--   selects_by  the address behind which another one follows, if that is known
local function next_exchange(bytes, at, control, selects_by)
    local byte, second, third, fourth = bytes:byte(at, at + 3)
    if byte == SOH then
        local length = packet_length(bytes, at)
        if length == nil then
            return nil
        end
        return length > 0 and "packet" or "broken", math.abs(length)
    elseif byte == EOT or byte == ENQ or byte == ACK or byte == NAK then
        return names[byte], 1
    elseif is_digit(byte) and second == nil then
        return nil
    elseif is_digit(byte) and second == NAK then
        return "NAK", 2
    elseif is_digit(byte) and second == ENQ then
        local is_control = string.char(byte) == control
        if is_control and is_digit(third) and third ~= byte and fourth == ENQ then
            return "select", 4
        end
        if is_control and selects_by and (third == nil or is_digit(third) and fourth == nil) then
            return nil
        end
        return "request", 2
    end
    return "noise", noise_length(bytes, at)
end

-- Records ---------------------------------------------------------------------------------------------

local priorities = {[1] = "alarm", [2] = "high", [3] = "normal"}
local call_types = {[1] = "reset", [2] = "speech call", [3] = "standard call"}
local reasons = {[1] = "garbled", [2] = "cannot be taken now", [3] = "makes no sense"}
local statuses = {}

-- Data identifier, US and value, with RS between them. Calls back with the identifier, where the whole
-- and where the value begins and how long the value is, counted from the packet's first byte as 0.
local function each_record(packet, back)
    local at = 4
    while at < #packet - 1 do
        local stop = packet:find("[\30\3]", at)
        local identifier = packet:byte(at)
        if is_digit(identifier) and packet:byte(at + 1) == US then
            back(identifier - 0x30, at - 1, at + 1, stop - at - 2)
        end
        at = stop + 1
    end
end

local function values_of(packet)
    local values = {}
    each_record(packet, function(identifier, _, at, length)
        values[identifier] = packet:sub(at + 1, at + length)
    end)
    return values
end

local function is_formed(packet)
    return #packet > 5 and packet:byte(3) == STX
end

-- What people say of a packet.
local function packet_kind(packet)
    local header = packet:sub(2, 2)
    if header == "1" then
        return CALL
    end
    return header == "2" and STATUS or RECORD
end

local function packet_text(packet)
    local values = values_of(packet)
    local address = values[1] and " " .. values[1] or ""
    local kind = packet_kind(packet)
    if kind == CALL then
        local priority = priorities[tonumber(values[6])]
        return "Call" .. address .. ": " .. (values[2] or "") .. (priority and " (" .. priority .. ")" or "")
    elseif kind == STATUS then
        local status = tonumber(values[7])
        return "Status of" .. address .. ": " .. (statuses[status] or values[7] or "none")
    end
    return "Record of header " .. describe(packet:sub(2, 2)) .. address
end

-- The dialogue ----------------------------------------------------------------------------------------
--
-- `line` is what has been learned of a line, `asked` the questions that each side has asked last: one, or
-- those that came in one segment. Neither is ever changed, a new one takes its place, so that the two of
-- before a segment are all that has to be kept to look at it once more.
--
--   line.procedure  "standard" or "simple"; nil: not known yet
--   line.control    the side of the control station; nil: not known yet
--   line.answers    the addresses of the polls that the other side has answered
--   line.taken      the addresses of the requests that it has acknowledged
--   line.begun      the sides that have been heard
--   line.doubt      by side: counts of bytes since the first that was no ESPA
--
--   asked[side][n]  .kind, .address, .side, .frame, .time; .answers, how many there were, .answered, when the
--                   last one was, .by, of which kind

local UNKNOWN_LINE = {answers = "", taken = "", begun = "", doubt = {}}
local NOTHING_ASKED = {{}, {}}

local function with(record, changes)
    local copy = {}
    for key, value in pairs(record) do
        copy[key] = value
    end
    for key, value in pairs(changes) do
        copy[key] = value
    end
    return copy
end

local function learn(dialogue, changes)
    for key, value in pairs(changes) do
        if dialogue.line[key] ~= value then
            dialogue.line = with(dialogue.line, changes)
            return
        end
    end
end

-- The control station is the one that asks; before anybody has, the one with the port that is listened on.
local function is_control(line, side)
    return side == (line.control or 1)
end

local function ask(dialogue, now, said, kind, address)
    local before = dialogue.asked[now.side]
    local question = {kind = kind, address = address, side = now.side, frame = now.frame, time = now.time,
        answers = 0}
    local questions = {}
    if #before > 0 and before[#before].frame == now.frame then
        questions = with(before, {})
        said.is_held = kind ~= END and kind ~= ASK and questions[#questions].answers == 0
            and questions[#questions].kind ~= END
    elseif #before > 0 then
        said.gives_up = before[1].answers == 0 and before[1] or nil
    end
    said.has_no_end = #before > 0 and before[#before].kind == CALL and (kind == POLL or kind == SELECT)
        and dialogue.line.procedure == "standard"
    questions[#questions + 1] = question
    dialogue.asked = with(dialogue.asked, {[now.side] = questions})
end

-- The other side's first question that waits for an answer of these kinds; else its last, which has had one.
local function question(dialogue, now, answerable)
    local questions = dialogue.asked[3 - now.side]
    for _, asked in ipairs(questions) do
        if asked.answers == 0 and answerable[asked.kind] then
            return asked
        end
    end
    local last = questions[#questions]
    return last and last.answers > 0 and answerable[last.kind] and last or nil
end

local function last_question(dialogue, side)
    local questions = dialogue.asked[side]
    return questions[#questions]
end

-- It is answered, and what was asked before it will not be.
local function answer(dialogue, now, asked, kind)
    local rest, is_behind = {}, false
    for _, one in ipairs(dialogue.asked[asked.side]) do
        is_behind = is_behind or one == asked
        if is_behind then
            local answered = {answers = one.answers + 1, answered = now.time, by = kind}
            rest[#rest + 1] = one == asked and with(one, answered) or one
        end
    end
    dialogue.asked = with(dialogue.asked, {[asked.side] = rest})
end

-- The functions below tell of one exchange. What is shown of it is in `said`:
--
--   .kind, .text
--   .address       the station's
--   .asked         the question that it answers
--   .again         it is not the first answer
--   .answer        the words of a refusal
--   .gives_up      the question that it gives up
--   .is_held       asked in one segment with another question
--   .is_everybody  acknowledges what is another's, or a poll
--   .is_alone      an ENQ before anything was asked
--   .is_rest       of what began before the capture
--   .has_no_end    behind a call without EOT
--   .pause         seconds from the answer to a select to its packet

local function hear_select(dialogue, now, said, address, by)
    learn(dialogue, {control = now.side, procedure = "standard"})
    said.kind, said.address = SELECT, address
    said.text = "Select of " .. address .. " by " .. by
    ask(dialogue, now, said, SELECT, address)
end

local function hear_bid(dialogue, now, said, poll)
    local answers = dialogue.line.answers
    learn(dialogue, {control = poll.side, procedure = "standard",
        answers = answers:find(poll.address, 1, true) and answers or answers .. poll.address})
    said.kind, said.asked, said.address = BID, poll, poll.address
    said.text = poll.address .. " has something to say"
    answer(dialogue, now, poll)
    ask(dialogue, now, said, BID, poll.address)
end

local function hear_request(dialogue, now, said, address)
    local line, control = dialogue.line, espa.prefs.control
    local poll = question(dialogue, now, {[POLL] = true})
    if poll and poll.answers == 0 and address == control then
        hear_bid(dialogue, now, said, poll)
        return
    end
    local before = last_question(dialogue, now.side)
    if before and before.kind == SELECT and before.answers == 0 and before.address == control
        and address ~= control and line.procedure ~= "simple" then
        hear_select(dialogue, now, said, address, control)
        return
    end
    learn(dialogue, {control = now.side})
    local is_poll = address ~= control and line.procedure ~= "simple"
    said.kind, said.address = is_poll and POLL or SELECT, address
    said.text = (is_poll and "Poll of " or "Select of ") .. address
    ask(dialogue, now, said, said.kind, address)
end

local function hear_packet(dialogue, now, said, packet)
    if not is_formed(packet) then
        said.kind, said.text = BROKEN, "Packet without records: " .. describe(packet)
        ask(dialogue, now, said, BROKEN, nil)
        return
    end
    local before = last_question(dialogue, now.side)
    local kind = packet_kind(packet)
    if kind == CALL then
        learn(dialogue, {control = now.side})
    elseif kind == STATUS then
        learn(dialogue, {control = 3 - now.side})
    end
    said.kind, said.text = kind, packet_text(packet)
    said.address = before and before.address
    said.pause = before and before.answered and now.time - before.answered
    ask(dialogue, now, said, kind, said.address)
end

local function hear_end(dialogue, now, said)
    local procedure, answers = dialogue.line.procedure, dialogue.line.answers
    local asked = question(dialogue, now, {[POLL] = true, [END] = procedure ~= "standard" or nil})
    if asked and asked.answers == 0 and asked.kind == POLL then
        said.kind, said.asked, said.address = NOTHING, asked, asked.address
        said.text = asked.address .. " has nothing"
        learn(dialogue, {control = asked.side, procedure = "standard",
            answers = answers:find(asked.address, 1, true) and answers or answers .. asked.address})
        answer(dialogue, now, asked, NOTHING)
    elseif asked and asked.kind == POLL and asked.by == NOTHING then
        said.kind, said.asked, said.again, said.address = NOTHING, asked, true, asked.address
        said.text = asked.address .. " has nothing, once more"
        answer(dialogue, now, asked, NOTHING)
    elseif asked and asked.answers == 0 and asked.kind == END then
        said.kind, said.text, said.asked = ECHO, "Echo of EOT", asked
        learn(dialogue, {control = asked.side, procedure = "simple"})
        answer(dialogue, now, asked)
    else
        said.kind, said.text = END, "End of transmission"
        ask(dialogue, now, said, END, nil)
    end
end

local ACKNOWLEDGED = {[POLL] = true, [SELECT] = true, [BID] = true, [CALL] = true, [STATUS] = true,
    [RECORD] = true, [BROKEN] = true, [ASK] = true}

-- ACK, or NAK with or without a reason.
local function hear_answer(dialogue, now, said, reason)
    local asked = question(dialogue, now, ACKNOWLEDGED)
    said.text = said.kind == TAKEN and "ACK" or "NAK" .. (reason and " " .. reason or "")
    if asked then
        said.asked, said.again, said.address = asked, asked.answers > 0, asked.address
        local is_select = asked.kind == POLL or asked.kind == SELECT and asked.address == espa.prefs.control
        if said.kind == TAKEN and is_select and dialogue.line.procedure == nil then
            learn(dialogue, {procedure = "simple"})
        end
        if said.kind == TAKEN and (asked.kind == POLL or asked.kind == SELECT) then
            local taken = dialogue.line.taken
            said.is_everybody = dialogue.line.procedure == "simple" and taken:find("[^" .. asked.address .. "]")
                or dialogue.line.procedure == "standard" and asked.kind == POLL
            learn(dialogue, {taken = taken:find(asked.address, 1, true) and taken or taken .. asked.address})
        end
        answer(dialogue, now, asked, said.kind)
    end
    local why = reasons[tonumber(reason)]
    said.answer = said.text .. (why and ": " .. why or "")
    said.text = said.text .. (said.again and " once more" or "") .. (why and ": " .. why or "")
end

-- Who asks again has the answer to the same question coming.
local function hear_ask(dialogue, now, said)
    local before = last_question(dialogue, now.side)
    said.kind, said.text, said.is_alone = ASK, "ENQ: the last answer again", before == nil
    said.address = before and before.address
    ask(dialogue, now, said, before and before.kind or ASK, said.address)
end

local function hear_noise(dialogue, now, said, bytes)
    local text = bytes:match("^[ -~\r\n]+$")
    said.kind = NOISE
    said.is_rest = not dialogue.line.begun:find(now.side, 1, true) and not bytes:find("[\r\n\128-\255]")
    said.text = (said.is_rest and "The rest of a packet" or text and "Text" or "No ESPA") .. ": "
        .. describe(bytes)
end

-- Doubts ----------------------------------------------------------------------------------------------

local ENOUGH_BYTES = 12 -- to judge what a converter does to them
local MOST_BYTES = 0.9  -- of them look so: who plugs a cable in sends others

-- Even parity of the eight bits.
local function is_even(byte)
    local even = true
    while byte > 0 do
        if byte % 2 == 1 then
            even = not even
        end
        byte = math.floor(byte / 2)
    end
    return even
end

-- Read at double the rate every bit comes twice, and the start bit's other half as the first.
local function is_doubled(byte)
    return byte % 2 == 0 and math.floor(byte / 2) % 2 == math.floor(byte / 4) % 2
        and math.floor(byte / 8) % 2 == math.floor(byte / 16) % 2
        and math.floor(byte / 32) % 2 == math.floor(byte / 64) % 2
end

-- What polls and EOT come to when they are read at half the rate, a little before or behind the edges of
-- their bits.
local halved = {}
for byte in ("\4\5\6\58\59\129\157\224\240\241\249"):gmatch(".") do
    halved[byte:byte()] = true
end

-- How the bytes of a side look that has sent what is no ESPA.
local function doubt(dialogue, now, said, bytes)
    local before = dialogue.line.doubt[now.side]
    local is_strange = said.kind == NOISE and not said.is_rest or said.is_alone
    if before == nil and not is_strange then
        return
    end
    local sum = with(before or {noise = 0, bytes = 0, high = 0, even = 0, odd = 0, double = 0, half = 0}, {})
    sum.noise = sum.noise + (said.kind == NOISE and 1 or 0)
    for at = 1, #bytes do
        local byte = bytes:byte(at)
        local parity = is_even(byte) and "even" or "odd"
        sum.bytes = sum.bytes + 1
        sum[parity] = sum[parity] + 1
        sum.high = sum.high + (byte > 127 and 1 or 0)
        sum.double = sum.double + (is_doubled(byte) and 1 or 0)
        sum.half = sum.half + (halved[byte] and 1 or 0)
    end
    learn(dialogue, {doubt = with(dialogue.line.doubt, {[now.side] = sum})})
end

-- What the converter is set to wrongly, if anything.
local function suspicion(sum)
    if sum == nil or sum.bytes < ENOUGH_BYTES then
        return nil
    end
    local seven = "looks like 7 data bits with %s parity read as 8"
    local least = sum.bytes * MOST_BYTES
    if sum.high >= least then
        return seven:format("mark")
    elseif sum.double >= least then
        return "looks like ESPA read at double the rate: the line has half the converter's baud rate"
    elseif sum.half >= least then
        return "looks like ESPA read at half the rate, so that the line has double the converter's baud rate, "
            .. "or like 8 data bits read as 7 with parity"
    elseif sum.even >= least and sum.high > 1 then
        return seven:format("even")
    elseif sum.odd >= least and sum.high > 1 then
        return seven:format("odd")
    end
    return nil
end

-- From an exchange to what is said of it, with the dialogue after it.
local function hear(dialogue, now, form, bytes)
    local said = {text = "", has_context = #dialogue.asked[3 - now.side] > 0}
    if form == "select" then
        hear_select(dialogue, now, said, bytes:sub(3, 3), bytes:sub(1, 1))
    elseif form == "request" then
        hear_request(dialogue, now, said, bytes:sub(1, 1))
    elseif form == "packet" then
        hear_packet(dialogue, now, said, bytes)
    elseif form == "EOT" then
        hear_end(dialogue, now, said)
    elseif form == "ENQ" then
        hear_ask(dialogue, now, said)
    elseif form == "ACK" or form == "NAK" then
        said.kind = form == "ACK" and TAKEN or REFUSED
        hear_answer(dialogue, now, said, #bytes == 2 and bytes:sub(1, 1) or nil)
    elseif form == "broken" then
        said.kind, said.text = BROKEN, "Packet without an end: " .. describe(bytes)
        ask(dialogue, now, said, BROKEN, nil)
    else
        hear_noise(dialogue, now, said, bytes)
    end
    if said.asked then
        said.wait = now.time - said.asked.time
        said.text = said.text .. ", " .. milliseconds(said.wait)
    end
    if not said.is_rest and not dialogue.line.begun:find(now.side, 1, true) then
        learn(dialogue, {begun = dialogue.line.begun .. now.side})
    end
    doubt(dialogue, now, said, bytes)
    return said
end

-- What Wireshark shows --------------------------------------------------------------------------------

local f = {
    kind = ProtoField.uint8("espa.kind", "Exchange", base.DEC, kinds),
    trace = ProtoField.string("espa.trace", "On the line"),
    from_control = ProtoField.bool("espa.from_control", "From the control station"),
    procedure = ProtoField.string("espa.procedure", "Procedure"),
    station = ProtoField.string("espa.station", "Station"),
    header = ProtoField.string("espa.header", "Header"),
    record = ProtoField.string("espa.record", "Record"),
    identifier = ProtoField.string("espa.record.identifier", "Data identifier"),
    address = ProtoField.string("espa.address", "Call address"),
    message = ProtoField.string("espa.message", "Display message"),
    beep = ProtoField.string("espa.beep", "Beep coding"),
    call_type = ProtoField.uint8("espa.call_type", "Call type", base.DEC, call_types),
    transmissions = ProtoField.string("espa.transmissions", "Number of transmissions"),
    priority = ProtoField.uint8("espa.priority", "Priority", base.DEC, priorities),
    status = ProtoField.string("espa.status", "Call status"),
    system_status = ProtoField.string("espa.system_status", "System status"),
    bcc = ProtoField.uint8("espa.bcc", "Block check character", base.HEX),
    bcc_ok = ProtoField.bool("espa.bcc.ok", "Block check character is right"),
    bcc_right = ProtoField.uint8("espa.bcc.right", "Right block check character", base.HEX),
    reason = ProtoField.uint8("espa.nak.reason", "Reason", base.DEC, reasons),
    answer_time = ProtoField.relative_time("espa.answer.time", "Answered after"),
    answer_to = ProtoField.framenum("espa.answer.to", "Answer to", base.NONE, frametype.REQUEST),
    given_up = ProtoField.framenum("espa.unanswered", "Not answered", base.NONE, frametype.NONE),
    given_up_after = ProtoField.relative_time("espa.unanswered.time", "Waited for an answer"),
    pause = ProtoField.relative_time("espa.pause.time", "After the answer to its select"),
    noise = ProtoField.bytes("espa.noise", "Bytes that are no ESPA"),
}
espa.fields = f

local record_fields = {f.address, f.message, f.beep, f.call_type, f.transmissions, f.priority, f.status,
    f.system_status}
local numeric = {[4] = true, [6] = true}

local function problem(name, text, group, severity)
    return ProtoExpert.new("espa.expert." .. name, text, group, severity)
end

local e = {
    bcc = problem("bcc", "Wrong block check character", expert.group.CHECKSUM, expert.severity.ERROR),
    unanswered = problem("unanswered", "No answer", expert.group.SEQUENCE, expert.severity.WARN),
    poll = problem("poll", "Nobody answered a poll", expert.group.SEQUENCE, expert.severity.NOTE),
    pause = problem("pause", "A long pause", expert.group.SEQUENCE, expert.severity.NOTE),
    held = problem("held", "Several questions at once", expert.group.SEQUENCE, expert.severity.WARN),
    no_end = problem("no_end", "No EOT", expert.group.SEQUENCE, expert.severity.WARN),
    late = problem("late", "An answer after more than 2 s", expert.group.SEQUENCE, expert.severity.WARN),
    again = problem("again", "More than one answer", expert.group.SEQUENCE, expert.severity.WARN),
    everybody = problem("everybody", "ACK to a poll, or for several addresses: is espa_address missing?",
        expert.group.SEQUENCE, expert.severity.WARN),
    others = problem("others", "Answer to somebody else's select", expert.group.SEQUENCE, expert.severity.ERROR),
    stray = problem("stray", "Answer to nothing", expert.group.SEQUENCE, expert.severity.WARN),
    refused = problem("refused", "Refusal", expert.group.RESPONSE_CODE, expert.severity.NOTE),
    charset = problem("charset", "Letters that are not ASCII", expert.group.UNDECODED, expert.severity.NOTE),
    noise = problem("noise", "Bytes that are no ESPA", expert.group.MALFORMED, expert.severity.WARN),
    converter = problem("converter", "Setting of the converter", expert.group.MALFORMED, expert.severity.ERROR),
    broken = problem("broken", "Broken packet", expert.group.MALFORMED, expert.severity.ERROR),
}
espa.experts = e

local LATE_SECONDS = 2
local SLOWEST_BYTE = 10 / 1200 -- seconds, with start and stop bit
local PAUSE_SECONDS = 0.1      -- that a paging system may take before it sends
local PATIENT_SECONDS = 0.1 -- who asks on before has not waited for an answer

local function show_value(tree, identifier, range)
    local field = record_fields[identifier]
    local text = range:raw()
    if field == nil or numeric[identifier] and not text:match("^%d%d?$") then
        return
    end
    if numeric[identifier] then
        tree:add(field, range, tonumber(text))
        return
    end
    local is_utf8 = not text:gsub("[\194-\223][\128-\191]", ""):gsub("[\224-\239][\128-\191][\128-\191]", "")
        :find("[\128-\255]")
    local item = tree:add_packet_field(field, range, is_utf8 and ENC_UTF_8 or ENC_ISO_8859_1)
    if identifier == 7 and statuses[tonumber(text)] then
        item:append_text(" (" .. statuses[tonumber(text)] .. ")")
    elseif identifier <= 2 and text:find("[\128-\255]") then
        item:add_proto_expert_info(e.charset, "Letters with the eighth bit: " .. (is_utf8 and "UTF-8, without charset"
            or text:find("[\128-\159]") and "charset = CP850?" or "charset = ISO-8859-1?"))
    elseif identifier <= 2 and text:find("[%[%]\\{}|~]") then
        item:add_proto_expert_info(e.charset,
            "Brackets or braces: letters of a national alphabet, as of charset = DIN_66003 or SEN_850200_B?")
    end
end

local function show_packet(tree, range)
    local packet = range:raw()
    tree:add_packet_field(f.header, range(1, 1), ENC_ISO_8859_1)
    each_record(packet, function(identifier, whole, at, length)
        local stands = range(whole, at - whole + length)
        local record = tree:add(f.record, stands, identifier .. ": " .. describe(packet:sub(at + 1, at + length)))
        record:add_packet_field(f.identifier, range(whole, 1), ENC_ISO_8859_1)
        if length > 0 then
            show_value(record, identifier, range(at, length))
        end
    end)
    local right, found = check_character(packet), packet:byte(-1)
    local is_right = found % 128 == right
    local item = tree:add(f.bcc, range(#packet - 1, 1))
    tree:add(f.bcc_ok, range(#packet - 1, 1), is_right):set_generated()
    if not is_right then
        tree:add(f.bcc_right, range(#packet - 1, 1), right):set_generated()
        item:add_proto_expert_info(e.bcc,
            string.format("Check character 0x%02x is wrong, 0x%02x would be right", found, right))
    end
    return is_right
end

local questions = {[POLL] = "poll of %s", [SELECT] = "select of %s", [BID] = "select by %s", [CALL] = "call",
    [STATUS] = "status", [RECORD] = "record", [BROKEN] = "packet", [ASK] = "ENQ", [END] = "EOT"}

local function of_question(asked)
    return questions[asked.kind]:format(asked.address)
end

local function duration(seconds)
    local microseconds = math.floor(seconds * 1e6 + 0.5)
    local whole = math.floor(microseconds / 1e6)
    return NSTime.new(whole, (microseconds - whole * 1e6) * 1000)
end

-- What is wrong with when a side asks.
local function show_question(tree, now, said, length, procedure)
    local given_up = said.gives_up
    local waited = given_up and now.time - given_up.time
    if given_up and given_up.kind ~= POLL and (given_up.kind == END and procedure ~= "simple"
        or waited < PATIENT_SECONDS) then
        given_up = nil
    end
    if given_up then
        tree:add(f.given_up, given_up.frame):set_generated()
        tree:add(f.given_up_after, duration(waited)):set_generated()
        tree:add_proto_expert_info(given_up.kind == POLL and e.poll or e.unanswered,
            "No answer to the " .. of_question(given_up))
    end
    if said.is_held then
        tree:add_proto_expert_info(e.held, "Questions that wait for answers came in one segment: "
            .. "something before the network holds bytes back")
    end
    if said.pause then
        tree:add(f.pause, duration(said.pause)):set_generated()
    end
    if said.pause and said.pause > length * SLOWEST_BYTE + PAUSE_SECONDS then
        tree:add_proto_expert_info(e.pause, "The packet took longer than at 1200 baud: "
            .. "does the converter wait before it sends?")
    end
    if said.has_no_end then
        tree:add_proto_expert_info(e.no_end, "No EOT since the call: does the converter pass on 04?")
    end
end

local function show_answer(tree, now, said, line)
    local asked = said.asked
    tree:add(f.answer_to, asked.frame):set_generated()
    tree:add(f.answer_time, duration(said.wait)):set_generated()
    if said.again then
        tree:add_proto_expert_info(e.again, "One more answer to the " .. of_question(asked) ..
            (line.procedure == "simple" and ": espa_poll has two of them" or ""))
    elseif said.wait > LATE_SECONDS then
        tree:add_proto_expert_info(e.late)
    end
    local is_others = line.procedure == "standard" and asked.side == line.control and asked.kind ~= POLL
        and asked.address and line.answers ~= "" and not line.answers:find(asked.address, 1, true)
    if is_others and (said.kind == TAKEN or said.kind == REFUSED) then
        tree:add_proto_expert_info(e.others, "Answers for station " .. asked.address ..
            ", but to polls as " .. line.answers:gsub(".(.)", ", %1"))
    end
end

local function show_noise(tree, now, said, range, line)
    local sum = line.doubt[now.side]
    local why = suspicion(sum)
    if said.kind == NOISE then
        tree:add(f.noise, range)
        if not said.is_rest then
            tree:add_proto_expert_info(e.noise)
        end
    end
    if why and (said.kind == NOISE or said.kind == ASK and sum.noise == 0 and said.gives_up) then
        tree:add_proto_expert_info(e.converter, "This side " .. why)
    end
end

-- One tree for one exchange. Returns what the column says of it.
local function show(tree, now, said, range)
    local bytes, line = range:raw(), said.line
    local from_control = is_control(line, now.side)
    local item = tree:add(espa, range)
    local is_packet = said.kind == CALL or said.kind == STATUS or said.kind == RECORD
    item:add(f.kind, range, said.kind):set_generated()
    item:add(f.trace, range, (from_control and "-> " or "<- ") .. describe(bytes)):set_generated()
    item:add(f.from_control, from_control):set_generated()
    if line.procedure then
        item:add(f.procedure, line.procedure):set_generated()
    end
    if said.address then
        item:add(f.station, said.address):set_generated()
    end
    if is_packet and not show_packet(item, range) then
        said.text = said.text .. " [wrong check character]"
    end
    if said.kind == REFUSED and #bytes == 2 then
        item:add(f.reason, range(0, 1), tonumber(bytes:sub(1, 1)))
    end
    show_question(item, now, said, #bytes, line.procedure)
    if said.asked then
        show_answer(item, now, said, line)
    end
    if said.kind == REFUSED then
        item:add_proto_expert_info(e.refused, said.answer)
    elseif said.kind == BROKEN then
        item:add_proto_expert_info(e.broken)
    elseif said.is_everybody then
        item:add_proto_expert_info(e.everybody)
    elseif said.kind == TAKEN and said.asked == nil and said.has_context then
        item:add_proto_expert_info(e.stray)
    end
    show_noise(item, now, said, range, line)
    local text = said.text:gsub("[%c\127]", " ")
    item:append_text(", " .. text)
    return text
end

-- Segments --------------------------------------------------------------------------------------------

local tcp_stream = Field.new("tcp.stream")
local streams = {} -- the dialogue of each, as far as it has been heard
local kept = {}    -- what stood before each segment, by frame and place
local guesses = {} -- what speaks for streams on other ports, see below

function espa.init()
    streams, kept, guesses = {}, {}, {}
    statuses = {}
    for value, name in espa.prefs.statuses:gmatch("(%d+)=([^,]+)") do
        statuses[tonumber(value)] = name
    end
end

-- 1 is the side that is connected to: it has the lower port, as a rule.
local function side_of(pinfo)
    if pinfo.src_port ~= pinfo.dst_port then
        return pinfo.src_port < pinfo.dst_port and 1 or 2
    end
    return tostring(pinfo.src) < tostring(pinfo.dst) and 1 or 2
end

local function dialogue_of(stream)
    local dialogue = streams[stream] or {line = UNKNOWN_LINE, asked = NOTHING_ASKED, rest = {0, 0}, claimed = 0}
    streams[stream] = dialogue
    return dialogue
end

-- The dialogue before a segment, which is looked at for the first time or once more.
local function dialogue_before(buffer, pinfo)
    local key = pinfo.number * 65536 + buffer:offset()
    local before = kept[key]
    if before then
        return {line = before.line, asked = before.asked}
    end
    return dialogue_of(tcp_stream().value), key
end

-- All exchanges of a segment, and how many of its bytes these are.
local function hear_all(dialogue, now, bytes)
    local at, exchanges = 1, {}
    while at <= #bytes do
        local selects_by = dialogue.line.procedure == "standard" and is_control(dialogue.line, now.side)
        local form, length = next_exchange(bytes, at, espa.prefs.control, selects_by)
        if form == nil then
            break
        end
        local said = hear(dialogue, now, form, bytes:sub(at, at + length - 1))
        said.begins, said.length, said.line = at - 1, length, dialogue.line
        exchanges[#exchanges + 1] = said
        at = at + length
    end
    return exchanges, at - 1
end

function espa.dissector(buffer, pinfo, tree)
    local bytes = buffer:raw()
    local dialogue, key = dialogue_before(buffer, pinfo)
    if key and pinfo.number < dialogue.claimed then
        return 0 -- in a second look, what was seen before it was known that this is ESPA
    end
    local line, asked = dialogue.line, dialogue.asked
    local now = {side = side_of(pinfo), frame = pinfo.number, time = pinfo.rel_ts}
    local exchanges, length = hear_all(dialogue, now, bytes)
    pinfo.cols.protocol = "ESPA"
    if key and length < #bytes and length <= dialogue.rest[now.side] then
        -- All of it would come again with the next segment, since the rest begins where that of the last
        -- segment ends, or before.
        exchanges, length = {}, 0
        dialogue.line, dialogue.asked = line, asked
    end
    if length < #bytes then
        pinfo.desegment_offset = length
        pinfo.desegment_len = DESEGMENT_ONE_MORE_SEGMENT
    end
    if key then
        dialogue.rest[now.side] = #bytes - length
        kept[key] = #exchanges > 0 and {line = line, asked = asked} or nil
    end
    local texts = {}
    for n, said in ipairs(exchanges) do
        texts[n] = show(tree, now, said, buffer(said.begins, said.length))
    end
    if #texts > 0 then
        pinfo.cols.info = table.concat(texts, "; ")
    end
end

-- On other ports a stream is ESPA when a right packet has been answered, or three questions have been, and
-- nothing else was ever said.

local ENOUGH_ANSWERS, MOST_GUESSED = 3, 4096 -- answers, bytes

-- Whether this segment makes it sure. The dialogue is then that of before it.
local function guess(dialogue, known, now, bytes)
    known.bytes = known.bytes + #bytes
    if known.is_none or known.bytes > MOST_GUESSED then
        known.is_none = true
        return false
    end
    local text, at = known.rest[now.side] .. bytes, 1
    local is_whole = #text == #bytes
    local line, asked = dialogue.line, dialogue.asked
    while at <= #text do
        local form, length = next_exchange(text, at, espa.prefs.control, false)
        if form == nil then
            break
        elseif form == "noise" or form == "broken" then
            known.is_none = true
            return false
        end
        local whole = text:sub(at, at + length - 1)
        local is_answer = (form == "ACK" or form == "NAK" or form == "EOT") and known.asked == 3 - now.side
        known.answers = known.answers + (is_answer and (known.has_packet and ENOUGH_ANSWERS or 1) or 0)
        known.has_packet = form == "packet" and is_formed(whole) and whole:byte(-1) == check_character(whole)
        known.asked = (form == "request" or form == "select" or form == "packet") and now.side or nil
        hear(dialogue, now, form, whole)
        at = at + length
    end
    known.rest[now.side] = text:sub(at)
    local is_sure = known.answers >= ENOUGH_ANSWERS and is_whole and at > #text
    if is_sure then
        dialogue.line, dialogue.asked = line, asked
    end
    return is_sure
end

espa:register_heuristic("tcp", function(buffer, pinfo, tree)
    if pinfo.visited then
        return false
    end
    local stream = tcp_stream().value
    guesses[stream] = guesses[stream] or {rest = {"", ""}, answers = 0, bytes = 0}
    local now = {side = side_of(pinfo), frame = pinfo.number, time = pinfo.rel_ts}
    local dialogue = dialogue_of(stream)
    if not guess(dialogue, guesses[stream], now, buffer:raw()) then
        return false
    end
    dialogue.claimed = pinfo.number
    pinfo.conversation = espa
    espa.dissector(buffer, pinfo, tree)
    return true
end)

local ports = DissectorTable.get("tcp.port")
local registered = espa.prefs.ports
ports:add(registered, espa)

function espa.prefs_changed()
    if tostring(registered) ~= tostring(espa.prefs.ports) then
        ports:remove(registered, espa)
        registered = espa.prefs.ports
        ports:add(registered, espa)
    end
end
