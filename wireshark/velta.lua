-- SPDX-License-Identifier: MIT
-- Velta's frames in Wireshark and tshark: commands to the master controller of a robot arm and status from it, over TCP,
-- UDP and, in captures that `velta convert` writes, serial lines. docs/wireshark.md describes its use.
--
-- The stream is cut as the library cuts it: bytes before a start mark are dropped, and what follows a start mark costs a
-- frame's length even when its CRC is wrong. Neither the joint count nor a frame's kind is on the wire; both are found
-- from start marks and CRC, and are kept for the conversation.

local bits = bit32 or bit
local bxor, band, rshift = bits.bxor, bits.band, bits.rshift

-- names: begin (written by velta_wireshark_names from the tables of the velta program)
local joint_orders = {
  [0x10] = {"ref-current", "current"},
  [0x11] = {"ref-position", "position"},
  [0x12] = {"ref-velocity", "velocity"},
  [0x1A] = {"ref-position-velocity", "position", "velocity"},
  [0x1B] = {"ref-position-velocity-acceleration", "position", "velocity", "acceleration"},
  [0x20] = {"dynamics", "a", "b", "c", "d"},
  [0x30] = {"trajectory-via-clear"},
  [0x35] = {"trajectory-control-start"},
  [0x36] = {"trajectory-control-cancel"},
  [0x3A] = {"trajectory-pt-lin-spline", "position", "time"},
  [0x3B] = {"trajectory-pt-trapezoidal", "position", "time"},
  [0x3C] = {"trajectory-pt-double-s", "position", "time"},
  [0x3D] = {"trajectory-pvt", "position", "velocity", "time"},
  [0x3E] = {"trajectory-pvat", "position", "velocity", "acceleration", "time"},
  [0x4A] = {"trajectory-pt-lin-spline (flag clear)", "position", "time"},
  [0x4B] = {"trajectory-pt-trapezoidal (flag clear)", "position", "time"},
  [0x4C] = {"trajectory-pt-double-s (flag clear)", "position", "time"},
  [0x4D] = {"trajectory-pvt (flag clear)", "position", "velocity", "time"},
  [0x4E] = {"trajectory-pvat (flag clear)", "position", "velocity", "acceleration", "time"},
  [0x50] = {"trajectory-p-double-s", "position"},
  [0xA0] = {"reset"},
  [0xA1] = {"servo-off"},
  [0xA2] = {"servo-on"},
  [0xA3] = {"control-mode", "mode"},
  [0xAB] = {"get-slave-effort-offset"},
  [0xB0] = {"param-kp", "value"},
  [0xB1] = {"param-ki", "value"},
  [0xB2] = {"param-kd", "value"},
  [0xB3] = {"param-windup-limit", "value"},
  [0xBA] = {"param-velocity-override", "value"},
  [0xBB] = {"param-velocity-max", "value"},
  [0xBC] = {"param-acceleration-max", "value"},
  [0xBD] = {"param-jerk-max", "value"},
  [0xBF] = {"arbitrary-param", "number", "value"},
  [0xC0] = {"brake-off"},
  [0xC1] = {"brake-on"},
  [0xD0] = {"move-home-position"},
  [0xE0] = {"general-register-type", "first", "second"},
  [0xFF] = {"fault-injection", "ewStatus"},
}
local arm_orders = {
  [0xA0] = {"payload", "a", "b", "c", "d"},
  [0xA1] = {"payload-inertia-tensor-diagonal", "a", "b", "c"},
  [0xA2] = {"payload-inertia-tensor-triangle", "a", "b", "c"},
  [0xB0] = {"gripper-max-effort", "effort"},
}
local system_modes = {
  [0] = "servo off",
  [2] = "servo on",
  [3] = "FAULT",
}
local control_modes = {
  [0] = "trajectory",
  [1] = "velocity",
  [2] = "current",
  [5] = "ext-force",
  [7] = "online-trj",
  [10] = "fixed",
  [20] = "position",
}
local trajectory_states = {
  [0] = "idle",
  [1] = "starting",
  [2] = "moving",
  [3] = "reached",
  [4] = "finished",
  [5] = "cancelling",
  [6] = "cancelled",
  [102] = "no point",
  [109] = "servo off!",
  [111] = "interrupted",
}
local fault_modes = {[3] = true}
-- names: end

local MARK = "\xAB\xCD"
local COMMAND = {word = "command", header = 11, record = 18}
local STATUS = {word = "status", header = 22, record = 79}
COMMAND.other, STATUS.other = STATUS, COMMAND
local CRC_SIZE = 2
local LONGEST = 65535            -- bytes of a frame whose joint count can be found
local SERIAL_LINK = wtap.USER15  -- a byte with the direction (0 to the controller, 1 to the host), then what passed
local HIGHEST_RAISE = 4          -- a command is sent again up to four times, its stamp one higher each time
local REMEMBERED = 16            -- commands that a resend is looked for in

local function frame_size(kind, joints) return kind.header + kind.record * joints + CRC_SIZE end

-- CRC-16/USB ---------------------------------------------------------------------------------------------------------

local crc_table = {}
for i = 0, 255 do
  local crc = i
  for _ = 1, 8 do crc = band(crc, 1) == 1 and bxor(rshift(crc, 1), 0xA001) or rshift(crc, 1) end
  crc_table[i] = crc
end

local function crc_step(crc, byte) return bxor(rshift(crc, 8), crc_table[band(bxor(crc, byte), 0xFF)]) end

local function u16(raw, at) return raw:byte(at) + 256 * raw:byte(at + 1) end

local function crc_is_good(raw, at, size)
  local crc = 0xFFFF
  local covered = (size - CRC_SIZE) % 65536  -- the library's length has 16 bits
  for i = at, at + covered - 1 do crc = crc_step(crc, raw:byte(i)) end
  if covered > 0 then crc = bxor(crc, 0xFFFF) else crc = 0 end
  return crc == u16(raw, at + size - CRC_SIZE)
end

-- Finding the joint count --------------------------------------------------------------------------------------------

-- Without a joint count a right CRC is too weak a witness (and a command of 5 joints is as long as a status of 1): a
-- command must count its joints, and a status must end where the data ends or the next start mark stands.
local function find_at(raw, mark, joints)
  local crc, ids_count = 0xFFFF, true
  local longest = math.min(#raw - mark + 1, LONGEST) - CRC_SIZE
  for length = 1, longest do
    local byte = raw:byte(mark + length - 1)
    crc = crc_step(crc, byte)
    local in_record = length - 1 - COMMAND.header
    if in_record >= 0 and in_record % COMMAND.record == 0 and byte ~= in_record / COMMAND.record % 256 then
      ids_count = false
    end
    for _, kind in ipairs{COMMAND, STATUS} do
      local n = (length - kind.header) / kind.record
      if n >= 1 and n % 1 == 0 and (joints == nil or n == joints) and
         bxor(crc, 0xFFFF) == u16(raw, mark + length) then
        local rest = raw:sub(mark + length + CRC_SIZE, mark + length + CRC_SIZE + 1)
        if joints or (kind == COMMAND and ids_count) or (kind == STATUS and rest == MARK:sub(1, #rest)) then
          return kind, n
        end
      end
    end
  end
end

-- @return kind and joint count of the first good frame, or nil
local function find(raw, joints)
  local mark = raw:find(MARK, 1, true)
  while mark do
    local kind, n = find_at(raw, mark, joints)
    if kind then return kind, n end
    mark = raw:find(MARK, mark + 1, true)
  end
end

-- Cutting ------------------------------------------------------------------------------------------------------------

-- @return what raw consists of, and where the incomplete rest begins
local function cut(raw, size)
  local pieces, at = {}, 1
  local function garbage(stop)
    if stop > at then pieces[#pieces + 1] = {at = at, size = stop - at} end
    at = math.max(at, stop)
  end
  while true do
    local mark = raw:find(MARK, at, true)
    if not mark then
      garbage(raw:byte(-1) == MARK:byte(1) and #raw or #raw + 1)  -- may be the first half of a mark
      return pieces, at
    end
    garbage(mark)
    if #raw - at + 1 < size then return pieces, at end
    pieces[#pieces + 1] = {at = at, size = size, is_frame = true, is_good = crc_is_good(raw, at, size)}
    at = at + size
  end
end

-- Protocol -----------------------------------------------------------------------------------------------------------

local velta = Proto("velta", "Velta")
velta.prefs.ports = Pref.range("TCP and UDP ports of controllers", "", "Empty: by Decode As, and by what good frames look like", 65535)
velta.prefs.joints = Pref.uint("Joints per frame", 0, "0: found from start marks and CRC, per conversation")

local none = {[0] = "none"}
local function words(names)
  local list = setmetatable({}, {__index = none})
  for code, name in pairs(names) do list[code] = type(name) == "table" and name[1] or name end
  list[0] = list[0] or "none"
  return list
end
local order_words, arm_order_words = words(joint_orders), words(arm_orders)

local f = {
  joints = ProtoField.uint32("velta.joints", "Joints"),
  direction = ProtoField.uint8("velta.direction", "Direction", base.DEC, {[0] = "to the controller", [1] = "to the host"}),
  command = ProtoField.none("velta.command", "Command"),
  status = ProtoField.none("velta.status", "Status"),
  garbage = ProtoField.bytes("velta.garbage", "Garbage"),
  incomplete = ProtoField.bytes("velta.incomplete", "Incomplete frame"),
  crc = ProtoField.uint16("velta.crc", "CRC", base.HEX),
  crc_good = ProtoField.bool("velta.crc.good", "CRC is good"),
  stamp = ProtoField.uint64("velta.timeStamp", "timeStamp"),
  arm_order = ProtoField.uint8("velta.armOrder", "armOrder", base.HEX, arm_order_words),
  timestamp = ProtoField.uint64("velta.timestamp", "timestamp"),
  host_stamp = ProtoField.uint64("velta.hostTimestamp", "hostTimestamp"),
  duration = ProtoField.float("velta.duration", "duration"),
  echoed_in = ProtoField.framenum("velta.echoed_in", "Echoed in", base.NONE, frametype.RESPONSE),
  echo_of = ProtoField.framenum("velta.echo_of", "Echo of", base.NONE, frametype.REQUEST),
  round_trip = ProtoField.relative_time("velta.round_trip", "Round trip"),
  resend_of = ProtoField.framenum("velta.resend_of", "Resend of", base.NONE, frametype.RETRANS_PREV),
  joint = ProtoField.none("velta.joint", "Joint"),
  index = ProtoField.uint32("velta.joint.index", "Joint"),
  id = ProtoField.uint8("velta.joint.id", "id"),
  order = ProtoField.uint8("velta.joint.order", "order", base.HEX, order_words),
  type = ProtoField.uint8("velta.joint.type", "type"),
  com_status = ProtoField.uint8("velta.joint.comStatus", "comStatus"),
  system_mode = ProtoField.uint8("velta.joint.systemMode", "systemMode", base.DEC, system_modes),
  ctrl_mode = ProtoField.uint8("velta.joint.ctrlMode", "ctrlMode", base.DEC, control_modes),
  ew_status = ProtoField.uint32("velta.joint.ewStatus", "ewStatus", base.HEX),
  trj_status = ProtoField.uint8("velta.joint.trjStatus", "trjStatus", base.DEC, trajectory_states),
  trj_via_remain = ProtoField.uint16("velta.joint.trjViaRemain", "trjViaRemain"),
}
local function floats(names)
  local list = {}
  for i, name in ipairs(names) do
    list[i] = ProtoField.float("velta.joint." .. name, name)
    f[name] = list[i]
  end
  return list
end
local values = floats{"value1", "value2", "value3", "value4"}
local reals = floats{"refCurrent", "refPosition", "refVelocity", "refAcceleration", "refEffort", "current", "position",
                     "velocity", "outConvInVelocity", "acceleration", "outConvInAcceleration", "effort", "temperature",
                     "general_0", "general_1", "general_2", "general_3"}
velta.fields = f

local e = {
  bad_crc = ProtoExpert.new("velta.bad_crc", "Bad CRC", expert.group.CHECKSUM, expert.severity.ERROR),
  garbage = ProtoExpert.new("velta.garbage.dropped", "Bytes outside frames", expert.group.MALFORMED, expert.severity.WARN),
  resend = ProtoExpert.new("velta.resend", "Command sent again", expert.group.SEQUENCE, expert.severity.NOTE),
  fault = ProtoExpert.new("velta.fault", "Joint reports a fault", expert.group.RESPONSE_CODE, expert.severity.WARN),
}
velta.experts = e

-- State, built on the first pass over a capture and read on every later one -------------------------------------------

local conversations, decisions, tails, links

function velta.init()
  conversations = {}  -- by both addresses
  decisions = {}      -- by packet: kind and joint count as known then
  tails = {}          -- by packet: bytes of earlier ones that its stream begins with
  links = {}          -- by packet and place: the command there, or the command echoed there
end

local function conversation(name)
  local known = conversations[name]
  if not known then
    known = {kinds = {}, tails = {}, by_stamp = {}, recent = {}}
    conversations[name] = known
  end
  return known
end

-- @param hint  the kind to take when no good frame shows it
local function learn(talk, side, other_side, raw, hint)
  local joints = velta.prefs.joints > 0 and velta.prefs.joints or talk.joints
  local kind = talk.kinds[side]
  if kind and joints then return kind, joints end
  local found, n = find(raw, joints)
  if not found then return hint, joints end
  talk.joints = n
  talk.kinds[side] = found
  if other_side ~= side then talk.kinds[other_side] = talk.kinds[other_side] or found.other end
  return found, n
end

-- Where a command and its echo meet: each entry is the command's, and knows the first status that echoes it.
local function note_command(talk, place, pinfo, stamp, records)
  local entry = {number = pinfo.number, time = pinfo.rel_ts, stamp = stamp, records = records}
  for _, earlier in ipairs(talk.recent) do
    local raised = (stamp - earlier.stamp):tonumber()
    if raised >= 1 and raised <= HIGHEST_RAISE and records == earlier.records then
      entry.resend_of, entry.raised = earlier, raised
      break
    end
  end
  if not entry.resend_of then
    table.insert(talk.recent, 1, entry)
    if #talk.recent > REMEMBERED then table.remove(talk.recent).records = nil end
  else
    entry.records = nil
  end
  talk.by_stamp[tostring(stamp)] = entry
  links[place] = entry
end

local function note_status(talk, place, pinfo, echoed)
  local entry = talk.by_stamp[tostring(echoed)]
  if not entry or entry.echo then return end
  entry.echo = {number = pinfo.number, round_trip = pinfo.rel_ts - entry.time}
  links[place] = entry
end

-- Showing ------------------------------------------------------------------------------------------------------------

local function generated(item) item:set_generated(true) return item end

local function add_round_trip(tree, echo)
  local ns = math.floor(echo.round_trip * 1e9 + 0.5)
  local seconds = math.floor(ns / 1e9)
  generated(tree:add(f.round_trip, NSTime.new(seconds, ns - seconds * 1e9)))
end

local function joint_tree(tree, tvb, index)
  local item = tree:add(f.joint, tvb)
  item:set_text("Joint " .. index)
  generated(item:add(f.index, tvb(0, 0), index))
  return item
end

-- @return "servo-on 0/1/2" and the like
local function show_command(tree, tvb, joints)
  tree:add_le(f.stamp, tvb(2, 8))
  tree:add(f.arm_order, tvb(10, 1))
  local told, ids = {}, {}
  local arm = tvb(10, 1):uint()
  if arm ~= 0 then told[1] = arm_order_words[arm] or string.format("arm order 0x%02x", arm) end
  for i = 0, joints - 1 do
    local record = tvb(COMMAND.header + COMMAND.record * i, COMMAND.record)
    local order = record(1, 1):uint()
    local word = order_words[order] or string.format("order 0x%02x", order)
    local item = joint_tree(tree, record, i)
    item:append_text(": " .. word)
    item:add(f.id, record(0, 1))
    item:add(f.order, record(1, 1))
    local named = joint_orders[order] or (i == 0 and arm_orders[arm]) or {}
    for k = 1, 4 do
      local value = item:add_le(values[k], record(4 * k - 2, 4))
      if named[k + 1] then
        local real = record(4 * k - 2, 4):le_float()
        local mode = named[k + 1] == "mode" and control_modes[real]
        value:append_text(" (" .. named[k + 1] .. (mode and " " .. mode or "") .. ")")
        item:append_text(string.format(", %s %s", named[k + 1], mode or string.format("%.7g", real)))
      end
    end
    if order ~= 0 then
      if not ids[word] then
        ids[word] = {}
        told[#told + 1] = word
      end
      table.insert(ids[word], i)
    end
  end
  for k, word in ipairs(told) do
    if ids[word] then told[k] = word .. " " .. (#ids[word] == joints and "all" or table.concat(ids[word], "/")) end
  end
  return #told > 0 and table.concat(told, ", ") or "idle"
end

-- @return "servo on, idle" and the like: what the joints have in common, or "mixed"
local function show_status(tree, tvb, joints)
  tree:add_le(f.timestamp, tvb(2, 8))
  tree:add_le(f.host_stamp, tvb(10, 8))
  tree:add_le(f.duration, tvb(18, 4))
  local common, faults = nil, {}
  for i = 0, joints - 1 do
    local record = tvb(STATUS.header + STATUS.record * i, STATUS.record)
    local mode, trajectory = record(2, 1):uint(), record(8, 1):uint()
    local errors = record(4, 4):le_uint()
    local text = (system_modes[mode] or "mode " .. mode) .. ", " ..
                 (trajectory_states[trajectory] or "trajectory " .. trajectory)
    common = (common == nil or common == text) and text or "mixed"
    local item = joint_tree(tree, record, i)
    item:append_text(string.format(": %s, position %.7g", text, record(35, 4):le_float()))
    item:add(f.type, record(0, 1))
    item:add(f.com_status, record(1, 1))
    item:add(f.system_mode, record(2, 1))
    item:add(f.ctrl_mode, record(3, 1))
    item:add_le(f.ew_status, record(4, 4))
    item:add(f.trj_status, record(8, 1))
    item:add_le(f.trj_via_remain, record(9, 2))
    for k, real in ipairs(reals) do item:add_le(real, record(7 + 4 * k, 4)) end
    if fault_modes[mode] or errors ~= 0 then
      faults[#faults + 1] = i
      item:add_proto_expert_info(e.fault, string.format("Joint %d reports a fault: %s, ewStatus 0x%08x", i,
                                                        system_modes[mode] or mode, errors))
    end
  end
  return common .. (#faults > 0 and ", fault in " .. table.concat(faults, "/") or "")
end

local function show_links(tree, kind, entry)
  if not entry then return "" end
  if kind == STATUS then
    generated(tree:add(f.echo_of, entry.number))
    add_round_trip(tree, entry.echo)
    return " (echo)"
  end
  if entry.echo then
    generated(tree:add(f.echoed_in, entry.echo.number))
    add_round_trip(tree, entry.echo)
  end
  if not entry.resend_of then return "" end
  generated(tree:add(f.resend_of, entry.resend_of.number))
  tree:add_proto_expert_info(e.resend, string.format("Command of packet %d sent again, its stamp raised by %d",
                                                     entry.resend_of.number, entry.raised))
  return " (resend)"
end

local function show_frame(tree, tvb, pinfo, kind, joints, talk, is_good, place)
  local item = tree:add(f[kind.word], tvb)
  item:set_text(kind == COMMAND and "Command" or "Status")
  generated(item:add(f.joints, tvb(0, 0), joints))
  local text = (kind == COMMAND and show_command or show_status)(item, tvb, joints)
  item:append_text(": " .. text)
  local crc = tvb(tvb:len() - CRC_SIZE, CRC_SIZE)
  local crc_item = item:add_le(f.crc, crc)
  generated(item:add(f.crc_good, crc, is_good))
  if not is_good then  -- what it says means nothing
    crc_item:add_proto_expert_info(e.bad_crc)
    return kind.word .. " with a bad CRC"
  end
  if not pinfo.visited then
    if kind == COMMAND then
      note_command(talk, place, pinfo, tvb(2, 8):le_uint64(), tvb:raw(10, tvb:len() - 10 - CRC_SIZE))
    else
      note_status(talk, place, pinfo, tvb(10, 8):le_uint64())
    end
  end
  return kind.word .. " " .. text .. show_links(item, kind, links[place])
end

local function show_garbage(tree, tvb)
  local item = tree:add(f.garbage, tvb)
  item:add_proto_expert_info(e.garbage, tvb:len() .. " bytes outside frames")
  return tvb:len() .. " bytes of garbage"
end

local last_shown = {}
-- What TCP hands over in several stretches of one packet, stands in one line.
local function show_info(pinfo, offset, text)
  local goes_on = last_shown.number == pinfo.number and offset > last_shown.offset
  last_shown = {number = pinfo.number, offset = offset}
  pinfo.cols.info:set((goes_on and "; " or "") .. text)
  pinfo.cols.info:fence()
end

-- Dissection ---------------------------------------------------------------------------------------------------------

-- @param key   of this stretch of bytes, the same on every pass
-- @param ends  whether nothing can be waited for
-- @return place of the incomplete rest (from 0; the end without one), and bytes that it lacks (nil: unknown)
local function dissect(tvb, pinfo, tree, talk, side, other_side, hint, key, ends)
  pinfo.cols.protocol = "Velta"
  local raw = tvb:raw()
  local decision = decisions[key]
  if not decision then
    local kind, joints = learn(talk, side, other_side, raw, hint)
    decision = {kind = kind, joints = joints}
    decisions[key] = decision
  end
  local kind, joints = decision.kind, decision.joints
  local pieces, rest, size
  if kind and joints then
    size = frame_size(kind, joints)
    pieces, rest = cut(raw, size)
  elseif #raw > LONGEST then
    pieces, rest = {{at = 1, size = #raw}}, #raw + 1
  else
    pieces, rest = {}, 1
  end

  local top = tree:add(velta, tvb)
  local told = {}
  for _, piece in ipairs(pieces) do
    local range = tvb(piece.at - 1, piece.size)
    told[#told + 1] = piece.is_frame and show_frame(top, range, pinfo, kind, joints, talk, piece.is_good,
                                                    key .. "/" .. piece.at)
                                      or show_garbage(top, range)
  end
  local left = #raw - rest + 1
  if left > 0 then
    top:add(f.incomplete, tvb(rest - 1, left)):append_text(ends and "" or " (goes on in a later packet)")
    told[#told + 1] = "incomplete frame"
  end
  show_info(pinfo, tvb:offset(), table.concat(told, "; "))
  return rest - 1, size and size - left
end

local function addresses(pinfo)
  local from = tostring(pinfo.src) .. " " .. pinfo.src_port
  local to = tostring(pinfo.dst) .. " " .. pinfo.dst_port
  return from, to, tostring(pinfo.port_type) .. " " .. (from < to and from .. " " .. to or to .. " " .. from)
end

local ports = ""  -- those of the preference
local function is_controller(port)
  for first, last in ports:gmatch("(%d+)%-?(%d*)") do
    if port >= tonumber(first) and port <= tonumber(last ~= "" and last or first) then return true end
  end
  return false
end

-- @return the kind that the ports speak for, when they are different and one is a controller's
local function kind_by_ports(pinfo)
  local from = is_controller(pinfo.src_port) or pinfo.match_uint == pinfo.src_port
  local to = is_controller(pinfo.dst_port) or pinfo.match_uint == pinfo.dst_port
  if from == to then return nil end
  return from and STATUS or COMMAND
end

local function dissect_tcp(tvb, pinfo, tree)
  local from, to, name = addresses(pinfo)
  local key = pinfo.number .. ":" .. tvb:offset() .. ":" .. tvb:len()
  local waits = pinfo.can_desegment > 0 and tvb:len() == tvb:reported_len()
  local rest, lacking = dissect(tvb, pinfo, tree, conversation(name), from, to, kind_by_ports(pinfo), key, not waits)
  if rest < tvb:len() and waits then
    pinfo.desegment_offset = rest
    pinfo.desegment_len = lacking or DESEGMENT_ONE_MORE_SEGMENT
  end
end

-- A stream in packets that nothing below puts together: what is incomplete waits here for the next packet.
local function dissect_packets(tvb, pinfo, tree, name, side, other_side, hint)
  local talk = conversation(name)
  local key = pinfo.number .. ":" .. tvb:offset()
  if not pinfo.visited then tails[key] = talk.tails[side] end
  local earlier = tails[key]
  local stream = tvb
  if earlier and earlier ~= "" then stream = ByteArray.new(earlier .. tvb:raw(), true):tvb("Stream") end
  local rest = dissect(stream, pinfo, tree, talk, side, other_side, hint, key, false)
  if not pinfo.visited then talk.tails[side] = stream:raw(rest, stream:len() - rest) end
end

local function dissect_udp(tvb, pinfo, tree)
  local from, to, name = addresses(pinfo)
  dissect_packets(tvb, pinfo, tree, name, from, to, kind_by_ports(pinfo))
end

local function dissect_serial(tvb, pinfo, tree)
  local side = tvb(0, 1):uint()
  tree:add(f.direction, tvb(0, 1))
  pinfo.cols.src = side == 0 and "host" or "controller"
  pinfo.cols.dst = side == 0 and "controller" or "host"
  if tvb:len() > 1 then
    dissect_packets(tvb(1):tvb(), pinfo, tree, "serial", side, 1 - side, side == 0 and COMMAND or STATUS)
  end
end

local TCP, UDP = 2, 3  -- pinfo.port_type

local function dissect_any(tvb, pinfo, tree)
  if tvb:len() == 0 then return 0 end
  if pinfo.port_type == TCP then
    dissect_tcp(tvb, pinfo, tree)
  elseif pinfo.port_type == UDP then
    dissect_udp(tvb, pinfo, tree)
  else
    dissect_serial(tvb, pinfo, tree)
  end
  return tvb:len()
end

velta.dissector = dissect_any

-- Only a good frame claims a conversation; from then on everything in it is ours.
local function heuristic(tvb, pinfo, tree)
  if not find(tvb:raw(), velta.prefs.joints > 0 and velta.prefs.joints or nil) then return false end
  dissect_any(tvb, pinfo, tree)  -- called through velta.dissector it could not ask for the next segment
  pinfo.conversation = velta
  return true
end
velta:register_heuristic("tcp", heuristic)
velta:register_heuristic("udp", heuristic)

local tables = {DissectorTable.get("tcp.port"), DissectorTable.get("udp.port")}
for _, ports_table in ipairs(tables) do ports_table:add_for_decode_as(velta) end
DissectorTable.get("wtap_encap"):add(SERIAL_LINK, velta)

function velta.prefs_changed()
  local wanted = tostring(velta.prefs.ports or "")
  if wanted == ports then return end
  for _, ports_table in ipairs(tables) do
    if ports ~= "" then ports_table:remove(ports, velta) end
    if wanted ~= "" then ports_table:add(wanted, velta) end
  end
  ports = wanted
end
