-- kestrix.lua: Wireshark dissector for the kestrixd protocol (UDP port 5501).
--
-- Every message starts with a 48-byte header whose first word is 1 in the
-- writer's byte order; each message is decoded in its own order. Requests
-- carry function codes 1..99, replies the negated code. Decoded here: every
-- request and reply body of GetVolume (1), GetInitialMap (2),
-- GetExtendedMap (3), SetSize (4), Close (5) and SendStringCmd (7), the
-- volume description with its disks, the file map with its extents, FSUNI
-- (UTF-16) texts, result codes by name, and each reply paired with its
-- request (same client, message ID and function code).
--
-- Load it with  wireshark -X lua_script:kestrix.lua  (or tshark), or copy it
-- into ~/.local/lib/wireshark/plugins/. Another port: the preference
-- kestrix.port (tshark -o kestrix.port:5600) or Decode As.

local kx = Proto("kestrix", "Kestrix metadata protocol")

-- BEGIN wire layouts: printed by wire-layouts-lua from the daemon's
-- description; the dissector test fails when the two differ.
local layout = {
  LanHeader = { size = 48,
    byteOrder = { at = 0, width = 4 },
    revision = { at = 4, width = 4 },
    messageID = { at = 8, width = 16 },
    functionCode = { at = 24, width = 4 },
    length = { at = 28, width = 4 },
    flags = { at = 32, width = 4 },
    result = { at = 36, width = 4 },
    reserved1 = { at = 40, width = 2 },
    pathSeparator = { at = 42, width = 2 },
    reserved2 = { at = 44, width = 4 },
  },
  GetVolumeMsg = { size = 2228,
    unused1 = { at = 48, width = 36 },
    volumeCookie = { at = 84, width = 32 },
    unused2 = { at = 116, width = 64 },
    path = { at = 180, width = 2048 },
  },
  GetVolumeReply = { size = 192,
    result = { at = 48, width = 4 },
    zero = { at = 52, width = 36 },
    volInfo = { at = 88, width = 104 },
  },
  GetInitialMapMsg = { size = 2160,
    filesize = { at = 48, width = 8 },
    allocsize = { at = 56, width = 8 },
    lease = { at = 64, width = 4 },
    intention = { at = 68, width = 4 },
    flag = { at = 72, width = 4 },
    unused = { at = 76, width = 36 },
    names = { at = 112, width = 2048 },
  },
  GetInitialMapReply = { size = 224,
    result = { at = 48, width = 4 },
    lease = { at = 52, width = 4 },
    key = { at = 56, width = 4 },
    zero = { at = 60, width = 36 },
    fileCookie = { at = 96, width = 32 },
    volumeCookie = { at = 128, width = 32 },
    map = { at = 160, width = 64 },
  },
  GetExtendedMapMsg = { size = 92,
    filesize = { at = 48, width = 8 },
    allocation = { at = 56, width = 8 },
    start = { at = 64, width = 8 },
    length = { at = 72, width = 8 },
    lease = { at = 80, width = 4 },
    key = { at = 84, width = 4 },
    flag = { at = 88, width = 4 },
  },
  GetExtendedMapReply = { size = 152,
    result = { at = 48, width = 4 },
    lease = { at = 52, width = 4 },
    zero = { at = 56, width = 32 },
    map = { at = 88, width = 64 },
  },
  SetSizeMsg = { size = 64,
    filesize = { at = 48, width = 8 },
    lease = { at = 56, width = 4 },
    key = { at = 60, width = 4 },
  },
  SetSizeReply = { size = 72,
    result = { at = 48, width = 4 },
    lease = { at = 52, width = 4 },
    zero = { at = 56, width = 16 },
  },
  CloseMsg = { size = 60,
    filesize = { at = 48, width = 8 },
    key = { at = 56, width = 4 },
  },
  CloseReply = { size = 88,
    result = { at = 48, width = 4 },
    zero = { at = 52, width = 36 },
  },
  SendStringCmdMsg = { size = 2128,
    unused = { at = 48, width = 32 },
    command = { at = 80, width = 2048 },
  },
  SendStringCmdReply = { size = 2132,
    result = { at = 48, width = 4 },
    zero = { at = 52, width = 2080 },
  },
  VolInfo = { size = 104,
    msgLen = { at = 0, width = 4 },
    vendorStatus = { at = 4, width = 4 },
    FStype = { at = 8, width = 4 },
    GlomType = { at = 12, width = 4 },
    GlomInfo = { at = 16, width = 4 },
    nDisks = { at = 20, width = 4 },
    BlockSize = { at = 24, width = 4 },
    reserved = { at = 28, width = 4 },
    Cookie = { at = 32, width = 32 },
    fsSystem = { at = 64, width = 40 },
  },
  FSDisk = { size = 80,
    DiskID = { at = 0, width = 16 },
    IDoffset = { at = 16, width = 8 },
    BlockOffset = { at = 24, width = 8 },
    nBlocks = { at = 32, width = 8 },
    IDlength = { at = 40, width = 4 },
    reserved1 = { at = 44, width = 4 },
    reserved2 = { at = 48, width = 32 },
  },
  FSMapInfo = { size = 64,
    fileSize = { at = 0, width = 8 },
    allocation = { at = 8, width = 8 },
    msgLen = { at = 16, width = 4 },
    vendorStatus = { at = 20, width = 4 },
    nExtents = { at = 24, width = 4 },
    extentType = { at = 28, width = 4 },
    fileOffset = { at = 32, width = 8 },
    fileBytes = { at = 40, width = 8 },
    reserved = { at = 48, width = 16 },
  },
  CompactExtent = { size = 16,
    BlockOffset = { at = 0, width = 8 },
    nBlocks = { at = 8, width = 8 },
  },
  VerboseExtent = { size = 32,
    LogicalByteAddr = { at = 0, width = 8 },
    PhysicalByteAddr = { at = 8, width = 8 },
    nBytes = { at = 16, width = 8 },
    VolumeOrdinal = { at = 24, width = 4 },
    validity = { at = 28, width = 4 },
  },
  SimpleExtent = { size = 24,
    VolOrd = { at = 0, width = 8 },
    VolSliceBlock = { at = 8, width = 8 },
    NBlocks = { at = 16, width = 8 },
  },
}
-- END wire layouts

-- BEGIN wire functions: printed by wire-layouts-lua as well; each code's
-- service name and the layouts of its request and reply bodies.
local functions = {
  [1] = { name = "GetVolume", request = "GetVolumeMsg", reply = "GetVolumeReply" },
  [2] = { name = "GetInitialMap", request = "GetInitialMapMsg", reply = "GetInitialMapReply" },
  [3] = { name = "GetExtendedMap", request = "GetExtendedMapMsg", reply = "GetExtendedMapReply" },
  [4] = { name = "SetSize", request = "SetSizeMsg", reply = "SetSizeReply" },
  [5] = { name = "Close", request = "CloseMsg", reply = "CloseReply" },
  [7] = { name = "SendStringCmd", request = "SendStringCmdMsg", reply = "SendStringCmdReply" },
}
-- END wire functions

local HEADER_SIZE = layout.LanHeader.size

local function_codes = {}
for code, f in pairs(functions) do
  function_codes[code] = f.name .. " request"
  function_codes[-code] = f.name .. " reply"
end

local result_names = {
  [0] = "success",
  [1] = "library answered 1",
  [3] = "unknown share",
  [5] = "out of memory",
  [6] = "header length below 48",
  [8] = "no handler for the function code",
  [400] = "size notice from the library",
  [405] = "no library knows the volume",
  [406] = "no file name after the share name",
  [407] = "no lease with that key",
  [408] = "lease vanished before removal",
  [409] = "lease vanished before renewal",
  [-380] = "no library knows the file",
  [-381] = "stale file or volume",
  [-382] = "not a cookie of this library",
  [-383] = "system call failed",
  [-384] = "room too small",
  [-385] = "argument out of range",
  [-386] = "no space",
  [-387] = "no lease maxima configured",
}

-- Vendor statuses are the library's own; these are the localfs plug-in's.
local vendor_names = {
  [0] = "success", [1] = "partial",
  [-380] = "not served", [-381] = "stale", [-382] = "not a cookie of this library",
  [-383] = "system call failed", [-384] = "room too small", [-385] = "argument out of range",
  [-386] = "no space", [-387] = "no lease maxima configured",
}

local extent_types = { [0] = "compact", [1] = "verbose", [2] = "simple", [3] = "verbose" }
local extent_sizes = {
  [0] = layout.CompactExtent.size, [1] = layout.VerboseExtent.size,
  [2] = layout.SimpleExtent.size, [3] = layout.VerboseExtent.size,
}
local validity_names = {
  [1] = "data", [2] = "unwritten", [3] = "hole", [4] = "not addressable",
}
local intention_names = { [1] = "read" }
local order_names = { [0] = "little-endian", [1] = "big-endian" }

local pf = {}
local function field(key, ctor, abbr, name, ...)
  pf[key] = ctor("kestrix." .. abbr, name, ...)
end

-- Header
field("byteorder", ProtoField.uint8, "byteorder", "Byte order", base.DEC, order_names)
field("marker", ProtoField.uint32, "marker", "Byte-order marker", base.HEX)
field("revision", ProtoField.int32, "revision", "Revision")
field("msgid", ProtoField.bytes, "msgid", "Message ID")
field("function", ProtoField.int32, "function", "Function code", base.DEC, function_codes)
field("service", ProtoField.string, "service", "Service")
field("is_reply", ProtoField.bool, "reply", "Reply")
field("length", ProtoField.uint32, "length", "Length")
field("flags", ProtoField.uint32, "flags", "Flags", base.HEX)
field("flag_track", ProtoField.bool, "flags.track", "Duplicate detection", 32, nil, 0x1)
field("hresult", ProtoField.int32, "header_result", "Header result", base.DEC, result_names)
field("pathsep", ProtoField.uint16, "pathsep", "Path separator", base.HEX)
-- Pairing
field("response_in", ProtoField.framenum, "response_in", "Response in", base.NONE,
      frametype and frametype.RESPONSE)
field("request_in", ProtoField.framenum, "request_in", "Request in", base.NONE,
      frametype and frametype.REQUEST)
field("time", ProtoField.double, "time", "Time since request (s)")
-- Bodies
field("result", ProtoField.int32, "result", "Result", base.DEC, result_names)
field("lease", ProtoField.uint32, "lease", "Lease (ms)")
field("key", ProtoField.uint32, "key", "Lease key", base.HEX)
field("filesize", ProtoField.int64, "filesize", "File size")
field("allocsize", ProtoField.int64, "allocsize", "Allocation size")
field("start", ProtoField.int64, "start", "Start")
field("range_length", ProtoField.int64, "range_length", "Range length")
field("intention", ProtoField.uint32, "intention", "Intention", base.DEC, intention_names)
field("mapflag", ProtoField.uint32, "mapflag", "Map flags", base.HEX)
field("mapflag_unlocked", ProtoField.bool, "mapflag.unlocked", "Unlocked (no lease)", 32, nil, 0x8)
field("volcookie", ProtoField.bytes, "volcookie", "Volume cookie")
field("filecookie", ProtoField.bytes, "filecookie", "File cookie")
field("path", ProtoField.string, "path", "Share or path")
field("share", ProtoField.string, "share", "Share")
field("filename", ProtoField.string, "filename", "File name")
field("command", ProtoField.string, "command", "Command")
-- VolInfo and its disks
field("vol", ProtoField.none, "vol", "Volume")
field("vol_msglen", ProtoField.int32, "vol.msglen", "msgLen")
field("vol_status", ProtoField.int32, "vol.status", "Vendor status", base.DEC, vendor_names)
field("vol_fstype", ProtoField.int32, "vol.fstype", "FStype")
field("vol_glomtype", ProtoField.int32, "vol.glomtype", "GlomType")
field("vol_gloominfo", ProtoField.int32, "vol.glominfo", "GlomInfo")
field("vol_ndisks", ProtoField.uint32, "vol.ndisks", "Disks")
field("vol_blocksize", ProtoField.int32, "vol.blocksize", "Block size")
field("vol_cookie", ProtoField.bytes, "vol.cookie", "Cookie")
field("vol_fssystem", ProtoField.bytes, "vol.fssystem", "FSSystem")
field("vol_error", ProtoField.string, "vol.error", "Error text")
field("disk", ProtoField.none, "disk", "Disk")
field("disk_id", ProtoField.bytes, "disk.id", "DiskID")
field("disk_idoffset", ProtoField.int64, "disk.idoffset", "IDoffset")
field("disk_blockoffset", ProtoField.int64, "disk.blockoffset", "BlockOffset")
field("disk_nblocks", ProtoField.int64, "disk.nblocks", "Blocks")
field("disk_idlength", ProtoField.uint32, "disk.idlength", "IDlength")
-- FSMapInfo and its extents
field("map", ProtoField.none, "map", "Map")
field("map_filesize", ProtoField.int64, "map.filesize", "File size")
field("map_allocation", ProtoField.int64, "map.allocation", "Allocation")
field("map_msglen", ProtoField.int32, "map.msglen", "msgLen")
field("map_status", ProtoField.int32, "map.status", "Vendor status", base.DEC, vendor_names)
field("map_nextents", ProtoField.int32, "map.nextents", "Extents")
field("map_type", ProtoField.uint32, "map.type", "Extent type", base.DEC, extent_types)
field("map_fileoffset", ProtoField.int64, "map.fileoffset", "File offset")
field("map_filebytes", ProtoField.int64, "map.filebytes", "File bytes")
field("map_text", ProtoField.string, "map.text", "Text")
field("ext", ProtoField.none, "ext", "Extent")
field("ext_logical", ProtoField.int64, "ext.logical", "Logical byte address")
field("ext_physical", ProtoField.int64, "ext.physical", "Physical byte address")
field("ext_bytes", ProtoField.int64, "ext.bytes", "Bytes")
field("ext_volord", ProtoField.uint32, "ext.volord", "Volume ordinal")
field("ext_validity", ProtoField.uint32, "ext.validity", "Validity", base.DEC, validity_names)
field("ext_blockoffset", ProtoField.int64, "ext.blockoffset", "Block offset")
field("ext_nblocks", ProtoField.int64, "ext.nblocks", "Blocks")
field("ext_volord64", ProtoField.int64, "ext.volord64", "Volume ordinal")
field("ext_sliceblock", ProtoField.int64, "ext.sliceblock", "Volume slice block")

local ef = {
  truncated = ProtoExpert.new("kestrix.truncated", "Message ends inside this structure",
                              expert.group.MALFORMED, expert.severity.WARN),
  marker = ProtoExpert.new("kestrix.bad_marker", "Byte-order marker is 1 in neither order",
                           expert.group.PROTOCOL, expert.severity.WARN),
  error = ProtoExpert.new("kestrix.error", "Error result",
                          expert.group.RESPONSE_CODE, expert.severity.NOTE),
  unpaired = ProtoExpert.new("kestrix.unpaired", "Reply without a request in this capture",
                             expert.group.SEQUENCE, expert.severity.NOTE),
}

local fields = {}
for _, f in pairs(pf) do fields[#fields + 1] = f end
kx.fields = fields
kx.experts = { ef.truncated, ef.marker, ef.error, ef.unpaired }

kx.prefs.port = Pref.uint("UDP port", 5501, "UDP port of kestrixd")

-- One message being decoded: its buffer and byte order.
local Msg = {}
Msg.__index = Msg

local function new_msg(tvb, le)
  return setmetatable({ tvb = tvb, le = le, len = tvb:len() }, Msg)
end

function Msg:has(off, size) return off + size <= self.len end

function Msg:add(tree, f, off, size)
  if not self:has(off, size) then return nil end
  if self.le then return tree:add_le(f, self.tvb(off, size)) end
  return tree:add(f, self.tvb(off, size))
end

-- The described field `row` of a struct that starts at `base` (default 0).
function Msg:field(tree, f, row, base)
  return self:add(tree, f, (base or 0) + row.at, row.width)
end

-- The same for bytes that no byte order turns (cookies, identifiers).
function Msg:bytes(tree, f, row, base)
  local off = (base or 0) + row.at
  if not self:has(off, row.width) then return nil end
  return tree:add(f, self.tvb(off, row.width))
end

function Msg:u32(off)
  if not self:has(off, 4) then return nil end
  local r = self.tvb(off, 4)
  return self.le and r:le_uint() or r:uint()
end

function Msg:u16(off)
  if not self:has(off, 2) then return nil end
  local r = self.tvb(off, 2)
  return self.le and r:le_uint() or r:uint()
end

function Msg:i32(off)
  if not self:has(off, 4) then return nil end
  local r = self.tvb(off, 4)
  return self.le and r:le_int() or r:int()
end

-- An FSUNI text from off, ending at its first 0 unit or at limit; added as
-- one string item covering its units. Returns the text and the offset just
-- past its terminator.
function Msg:fsuni(tree, f, off, limit)
  limit = math.min(limit, self.len)
  local stop = off
  while stop + 2 <= limit do
    local r = self.tvb(stop, 2)
    if (self.le and r:le_uint() or r:uint()) == 0 then break end
    stop = stop + 2
  end
  local text = ""
  if stop > off then
    local r = self.tvb(off, stop - off)
    text = self.le and r:le_ustring() or r:ustring()
  end
  if tree then tree:add(f, self.tvb(off, math.max(math.min(stop + 2, limit) - off, 0)), text) end
  return text, stop + 2
end

local function short(tree, msg, off)
  tree:add_proto_expert_info(ef.truncated, "message ends at byte " .. msg.len ..
                             ", structure at " .. off)
end

local function add_result(msg, tree, pinfo, row)
  local result = msg:i32(row.at)
  if result == nil then return nil end
  local item = msg:field(tree, pf.result, row)
  if result ~= 0 and result ~= 1 then item:add_proto_expert_info(ef.error) end
  return result
end

-- The volume description at off: fixed part, then disks or an error text.
local function dissect_volinfo(msg, tree, off)
  local V, D = layout.VolInfo, layout.FSDisk
  if not msg:has(off, V.size) then return short(tree, msg, off) end
  local vt = tree:add(pf.vol, msg.tvb(off, math.min(msg.len - off, V.size)))
  local status = msg:i32(off + V.vendorStatus.at)
  local ndisks = msg:u32(off + V.nDisks.at)
  msg:field(vt, pf.vol_msglen, V.msgLen, off)
  msg:field(vt, pf.vol_status, V.vendorStatus, off)
  msg:field(vt, pf.vol_fstype, V.FStype, off)
  msg:field(vt, pf.vol_glomtype, V.GlomType, off)
  msg:field(vt, pf.vol_gloominfo, V.GlomInfo, off)
  msg:field(vt, pf.vol_ndisks, V.nDisks, off)
  msg:field(vt, pf.vol_blocksize, V.BlockSize, off)
  msg:bytes(vt, pf.vol_cookie, V.Cookie, off)
  msg:bytes(vt, pf.vol_fssystem, V.fsSystem, off)
  local at = off + V.size
  if status ~= 0 then
    local text = msg:fsuni(vt, pf.vol_error, at, msg.len)
    vt:append_text(": error " .. status .. " \"" .. text .. "\"")
    return
  end
  vt:append_text(": " .. ndisks .. " disk(s)")
  for i = 0, ndisks - 1 do
    if not msg:has(at, D.size) then return short(vt, msg, at) end
    local dt = vt:add(pf.disk, msg.tvb(at, D.size))
    dt:append_text(" " .. i)
    msg:bytes(dt, pf.disk_id, D.DiskID, at)
    msg:field(dt, pf.disk_idoffset, D.IDoffset, at)
    msg:field(dt, pf.disk_blockoffset, D.BlockOffset, at)
    msg:field(dt, pf.disk_nblocks, D.nBlocks, at)
    msg:field(dt, pf.disk_idlength, D.IDlength, at)
    at = at + D.size
  end
end

-- One extent of the given type at off.
local function dissect_extent(msg, tree, etype, off, i)
  local size = extent_sizes[etype]
  local et = tree:add(pf.ext, msg.tvb(off, size))
  et:append_text(" " .. i .. " (" .. extent_types[etype] .. ")")
  if etype == 0 then
    local C = layout.CompactExtent
    msg:field(et, pf.ext_blockoffset, C.BlockOffset, off)
    msg:field(et, pf.ext_nblocks, C.nBlocks, off)
  elseif etype == 2 then
    local S = layout.SimpleExtent
    msg:field(et, pf.ext_volord64, S.VolOrd, off)
    msg:field(et, pf.ext_sliceblock, S.VolSliceBlock, off)
    msg:field(et, pf.ext_nblocks, S.NBlocks, off)
  else
    local V = layout.VerboseExtent
    msg:field(et, pf.ext_logical, V.LogicalByteAddr, off)
    msg:field(et, pf.ext_physical, V.PhysicalByteAddr, off)
    msg:field(et, pf.ext_bytes, V.nBytes, off)
    msg:field(et, pf.ext_volord, V.VolumeOrdinal, off)
    msg:field(et, pf.ext_validity, V.validity, off)
  end
end

-- The file map at off: fixed part, then extents, or a text when it has none.
local function dissect_map(msg, tree, off, limit)
  local M = layout.FSMapInfo
  if not msg:has(off, M.size) then return short(tree, msg, off) end
  local mt = tree:add(pf.map, msg.tvb(off, math.min(msg.len, limit) - off))
  local n = msg:i32(off + M.nExtents.at)
  local etype = msg:u32(off + M.extentType.at)
  msg:field(mt, pf.map_filesize, M.fileSize, off)
  msg:field(mt, pf.map_allocation, M.allocation, off)
  msg:field(mt, pf.map_msglen, M.msgLen, off)
  msg:field(mt, pf.map_status, M.vendorStatus, off)
  msg:field(mt, pf.map_nextents, M.nExtents, off)
  msg:field(mt, pf.map_type, M.extentType, off)
  msg:field(mt, pf.map_fileoffset, M.fileOffset, off)
  msg:field(mt, pf.map_filebytes, M.fileBytes, off)
  local at = off + M.size
  if n <= 0 then
    if at + 2 <= limit and msg:has(at, 2) and msg:u16(at) ~= 0 then
      local text = msg:fsuni(mt, pf.map_text, at, limit)
      mt:append_text(": \"" .. text .. "\"")
    else
      mt:append_text(": no extents")
    end
    return
  end
  mt:append_text(": " .. n .. " extent(s)")
  local size = extent_sizes[etype]
  if size == nil then return end  -- a layout of its library's own
  for i = 0, n - 1 do
    if at + size > limit or not msg:has(at, size) then return short(mt, msg, at) end
    dissect_extent(msg, mt, etype, at, i)
    at = at + size
  end
end

local function result_text(result)
  if result == nil then return "" end
  return "result " .. result .. " (" .. (result_names[result] or "library status") .. ")"
end

-- The decoder of each body by its layout's name, which the function table
-- gives for a code; L is that layout. Requests return a summary for the Info
-- column, replies too, after their result.
local bodies = {
  GetVolumeMsg = function(msg, tree, L)
    if not msg:has(L.volumeCookie.at, L.volumeCookie.width) then
      return short(tree, msg, L.volumeCookie.at)
    end
    msg:bytes(tree, pf.volcookie, L.volumeCookie)
    local path = msg:fsuni(tree, pf.path, L.path.at, L.path.at + L.path.width)
    return path ~= "" and path or "(by cookie)"
  end,
  GetInitialMapMsg = function(msg, tree, L)
    if not msg:has(L.names.at, 2) then return short(tree, msg, HEADER_SIZE) end
    msg:field(tree, pf.filesize, L.filesize)
    msg:field(tree, pf.allocsize, L.allocsize)
    msg:field(tree, pf.lease, L.lease)
    msg:field(tree, pf.intention, L.intention)
    local flag = msg:field(tree, pf.mapflag, L.flag)
    msg:field(flag, pf.mapflag_unlocked, L.flag)
    local names_end = L.names.at + L.names.width
    local share, next = msg:fsuni(tree, pf.share, L.names.at, names_end)
    local name = msg:fsuni(tree, pf.filename, next, names_end)
    return share .. " " .. name .. (msg:u32(L.intention.at) == 1 and " read" or " write")
  end,
  GetExtendedMapMsg = function(msg, tree, L)
    if not msg:has(L.size, 0) then return short(tree, msg, HEADER_SIZE) end
    msg:field(tree, pf.key, L.key)
    msg:field(tree, pf.start, L.start)
    msg:field(tree, pf.range_length, L.length)
    msg:field(tree, pf.filesize, L.filesize)
    msg:field(tree, pf.allocsize, L.allocation)
    msg:field(tree, pf.lease, L.lease)
    local flag = msg:field(tree, pf.mapflag, L.flag)
    msg:field(flag, pf.mapflag_unlocked, L.flag)
    return string.format("key 0x%x", msg:u32(L.key.at))
  end,
  SetSizeMsg = function(msg, tree, L)
    if not msg:has(L.size, 0) then return short(tree, msg, HEADER_SIZE) end
    msg:field(tree, pf.key, L.key)
    msg:field(tree, pf.filesize, L.filesize)
    msg:field(tree, pf.lease, L.lease)
    return string.format("key 0x%x", msg:u32(L.key.at))
  end,
  CloseMsg = function(msg, tree, L)
    if not msg:has(L.size, 0) then return short(tree, msg, HEADER_SIZE) end
    msg:field(tree, pf.key, L.key)
    msg:field(tree, pf.filesize, L.filesize)
    return string.format("key 0x%x", msg:u32(L.key.at))
  end,
  SendStringCmdMsg = function(msg, tree, L)
    local C = L.command
    if not msg:has(C.at + 2, 0) then return short(tree, msg, C.at) end
    return "\"" .. msg:fsuni(tree, pf.command, C.at, C.at + C.width) .. "\""
  end,
  GetVolumeReply = function(msg, tree, L, pinfo, limit)
    local result = add_result(msg, tree, pinfo, L.result)
    dissect_volinfo(msg, tree, L.volInfo.at)
    return result_text(result)
  end,
  GetInitialMapReply = function(msg, tree, L, pinfo, limit)
    local result = add_result(msg, tree, pinfo, L.result)
    if not msg:has(L.map.at, 0) then short(tree, msg, L.lease.at) return result_text(result) end
    msg:field(tree, pf.lease, L.lease)
    msg:field(tree, pf.key, L.key)
    msg:bytes(tree, pf.filecookie, L.fileCookie)
    msg:bytes(tree, pf.volcookie, L.volumeCookie)
    dissect_map(msg, tree, L.map.at, limit)
    return result_text(result) .. string.format(" key 0x%x", msg:u32(L.key.at))
  end,
  GetExtendedMapReply = function(msg, tree, L, pinfo, limit)
    local result = add_result(msg, tree, pinfo, L.result)
    msg:field(tree, pf.lease, L.lease)
    dissect_map(msg, tree, L.map.at, limit)
    return result_text(result)
  end,
  SetSizeReply = function(msg, tree, L, pinfo, limit)
    local result = add_result(msg, tree, pinfo, L.result)
    msg:field(tree, pf.lease, L.lease)
    return result_text(result)
  end,
  CloseReply = function(msg, tree, L, pinfo, limit)
    return result_text(add_result(msg, tree, pinfo, L.result))
  end,
  SendStringCmdReply = function(msg, tree, L, pinfo, limit)
    return result_text(add_result(msg, tree, pinfo, L.result))
  end,
}

-- Request/reply pairing, built on the first pass over the capture.
local pending = {}     -- client, message ID and code -> request frame and time
local request_of = {}  -- reply frame -> { frame, time }
local reply_of = {}    -- request frame -> reply frame

function kx.init()
  pending, request_of, reply_of = {}, {}, {}
end

local function pair(pinfo, msgid, code, tree)
  local reply = code < 0
  local client = reply and (tostring(pinfo.dst) .. ":" .. pinfo.dst_port)
                        or (tostring(pinfo.src) .. ":" .. pinfo.src_port)
  local key = client .. "/" .. msgid .. "/" .. math.abs(code)
  if not pinfo.visited then
    if reply then
      local req = pending[key]
      if req then
        request_of[pinfo.number] = req
        reply_of[req.frame] = pinfo.number
      end
    else
      pending[key] = { frame = pinfo.number, time = pinfo.abs_ts }
    end
  end
  if reply then
    local req = request_of[pinfo.number]
    if req then
      tree:add(pf.request_in, req.frame):set_generated()
      tree:add(pf.time, pinfo.abs_ts - req.time):set_generated()
    else
      tree:add_proto_expert_info(ef.unpaired)
    end
  elseif reply_of[pinfo.number] then
    tree:add(pf.response_in, reply_of[pinfo.number]):set_generated()
  end
end

function kx.dissector(tvb, pinfo, root)
  if tvb:len() < HEADER_SIZE then return 0 end
  pinfo.cols.protocol = "KESTRIX"
  local tree = root:add(kx, tvb())

  -- The writer put 1 into the first word in its own order; anything that is
  -- 1 in neither order is taken as the other order, as the daemon does.
  local marker = tvb(layout.LanHeader.byteOrder.at, layout.LanHeader.byteOrder.width)
  local le = marker:le_uint() == 1
  if not le and marker:uint() ~= 1 then tree:add_proto_expert_info(ef.marker) end
  local msg = new_msg(tvb, le)

  local H = layout.LanHeader
  local ht = tree:add(tvb(0, HEADER_SIZE), "Header")
  ht:add(pf.byteorder, tvb(H.byteOrder.at, H.byteOrder.width), le and 0 or 1):set_generated()
  msg:field(ht, pf.marker, H.byteOrder)
  msg:field(ht, pf.revision, H.revision)
  msg:bytes(ht, pf.msgid, H.messageID)
  local code = msg:i32(H.functionCode.at)
  msg:field(ht, pf["function"], H.functionCode)
  local length = msg:u32(H.length.at)
  msg:field(ht, pf.length, H.length)
  local flags = msg:field(ht, pf.flags, H.flags)
  msg:field(flags, pf.flag_track, H.flags)
  local hresult = msg:i32(H.result.at)
  local hitem = msg:field(ht, pf.hresult, H.result)
  if hresult ~= 0 then hitem:add_proto_expert_info(ef.error) end
  msg:field(ht, pf.pathsep, H.pathSeparator)

  local reply = code < 0
  local base_code = math.abs(code)
  local service = functions[base_code]
  local name = service and service.name or ("function " .. base_code)
  tree:add(pf.service, name):set_generated()
  tree:add(pf.is_reply, reply):set_generated()
  tree:append_text(", " .. name .. (reply and " reply" or " request") ..
                   (le and "" or ", big-endian"))
  pair(pinfo, tostring(tvb(H.messageID.at, H.messageID.width):bytes()), code, tree)

  -- The body: only as far as the header's length and the bytes captured.
  local limit = math.min(tvb:len(), math.max(length, HEADER_SIZE))
  local summary
  if reply and hresult ~= 0 then
    summary = "header " .. result_text(hresult)
  elseif limit > HEADER_SIZE then
    local body_layout = service and (reply and service.reply or service.request)
    local body = body_layout and bodies[body_layout]
    if body then
      local bmsg = new_msg(tvb(0, limit):tvb(), le)
      summary = body(bmsg, tree, layout[body_layout], pinfo, limit)
    end
  end
  pinfo.cols.info = name .. (reply and " reply" or " request") ..
                    (summary and (" " .. summary) or "") .. (le and "" or " [big-endian]")
  return tvb:len()
end

local registered_port = nil
local function register_port()
  local udp = DissectorTable.get("udp.port")
  if registered_port then udp:remove(registered_port, kx) end
  registered_port = kx.prefs.port
  udp:add(registered_port, kx)
end

function kx.prefs_changed() register_port() end
register_port()
