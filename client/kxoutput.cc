// Rendering of reply documents as text for a person or as JSON (through
// nlohmann-json), and the documents of each reply kind.
#include "client/kxoutput.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>

#include <nlohmann/json.hpp>

#include "fsmdc.h"
#include "fsvalidity.h"
#include "spmsgs.h"

namespace kestrix::client {

namespace {

std::string Pad(const std::string& s, size_t width, bool right) {
  if (s.size() >= width) return s;
  std::string fill(width - s.size(), ' ');
  return right ? fill + s : s + fill;
}

std::string Hex32(const std::array<uint8_t, FS_COOKIE_SIZE>& cookie) {
  return ToHex(cookie.data(), cookie.size());
}

std::string KindOf(const MapExtent& e, uint32_t extentType) {
  if (extentType == FS_EXTENT_COMPACT) return "blocks";
  if (extentType == FS_EXTENT_SIMPLE) return "blocks";
  switch (e.validity) {
    case FS_VALIDITY_DATA: return "data";
    case FS_VALIDITY_UNWRITTEN: return "unwritten";
    case FS_VALIDITY_HOLE: return "hole";
    case FS_VALIDITY_NO_ADDRESS: return "not addressable";
    default: return "validity " + std::to_string(e.validity);
  }
}

}  // namespace

Doc Doc::Int(int64_t value, std::string human) {
  Doc d(kInt);
  d.int_ = value;
  d.text_ = human.empty() ? std::to_string(value) : std::move(human);
  return d;
}

Doc Doc::Text(std::string value) {
  Doc d(kText);
  d.text_ = std::move(value);
  return d;
}

Doc Doc::Bool(bool value) {
  Doc d(kBool);
  d.int_ = value;
  d.text_ = value ? "yes" : "no";
  return d;
}

Doc& Doc::Add(const std::string& name, Doc value) {
  fields_.emplace_back(name, std::move(value));
  return *this;
}

Doc& Doc::AddJsonOnly(const std::string& name, Doc value) {
  value.jsonOnly_ = true;
  return Add(name, std::move(value));
}

Doc& Doc::Push(Doc value) {
  items_.push_back(std::move(value));
  return *this;
}

std::string Doc::Json() const {
  // Objects keep their fields in the order they were added.
  const auto value = [](const Doc& d, const auto& self) -> nlohmann::ordered_json {
    switch (d.kind_) {
      case kNull: break;
      case kBool: return d.int_ != 0;
      case kInt: return d.int_;
      case kText: return d.text_;
      case kArray: {
        nlohmann::ordered_json out = nlohmann::ordered_json::array();
        for (const Doc& item : d.items_) out.push_back(self(item, self));
        return out;
      }
      case kObject: {
        nlohmann::ordered_json out = nlohmann::ordered_json::object();
        for (const auto& [name, field] : d.fields_) out[name] = self(field, self);
        return out;
      }
    }
    return nullptr;
  };
  // A library's text that is not UTF-8 gets U+FFFD, so the document stays valid.
  return value(*this, value).dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
}

std::string Doc::Cell() const { return kind_ == kNull ? "-" : text_; }

std::string Doc::Human(int indent) const {
  const std::string margin(static_cast<size_t>(indent), ' ');
  size_t width = 0;
  for (const auto& [name, value] : fields_)
    if (!value.jsonOnly_) width = std::max(width, name.size());
  std::string out;
  for (const auto& [name, value] : fields_) {
    if (value.jsonOnly_) continue;
    if (value.kind_ == kObject) {
      out += margin + name + ":\n" + value.Human(indent + 2);
    } else if (value.kind_ == kArray && !value.items_.empty() &&
               value.items_[0].kind_ == kObject) {
      // A table: the columns of the first row, numbers right-aligned.
      const Doc& first = value.items_[0];
      std::vector<size_t> widths;
      for (const auto& column : first.fields_) widths.push_back(column.first.size());
      for (const Doc& row : value.items_)
        for (size_t c = 0; c < row.fields_.size() && c < widths.size(); ++c)
          widths[c] = std::max(widths[c], row.fields_[c].second.Cell().size());
      auto line = [&](auto cell) {
        std::string text = margin;
        for (size_t c = 0; c < widths.size(); ++c)
          if (!first.fields_[c].second.jsonOnly_)
            text += "  " + Pad(cell(c), widths[c], first.fields_[c].second.kind_ == kInt);
        return text + "\n";
      };
      out += margin + name + ":\n" + line([&](size_t c) { return first.fields_[c].first; });
      for (const Doc& row : value.items_)
        out += line([&](size_t c) {
          return c < row.fields_.size() ? row.fields_[c].second.Cell() : std::string();
        });
    } else if (value.kind_ == kArray) {
      std::string list;
      for (const Doc& item : value.items_) list += (list.empty() ? "" : ", ") + item.Cell();
      out += margin + Pad(name, width, false) + "  " + list + "\n";
    } else {
      out += margin + Pad(name, width, false) + "  " + value.Cell() + "\n";
    }
  }
  return out;
}

std::string ShortSize(int64_t bytes) {
  static const char* const kUnits[] = {"KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
  if (bytes < 1024 && bytes > -1024) return std::to_string(bytes) + " B";
  double value = static_cast<double>(bytes);
  int unit = -1;
  while ((value >= 1024 || value <= -1024) && unit < 5) value /= 1024, ++unit;
  char text[32];
  std::snprintf(text, sizeof text, "%.1f %s", value, kUnits[unit]);
  return text;
}

std::string HumanSize(int64_t bytes) {
  std::string exact = std::to_string(bytes) + (bytes == 1 ? " byte" : " bytes");
  if (bytes < 1024 && bytes > -1024) return exact;
  return exact + " (" + ShortSize(bytes) + ")";
}

Doc ResultDoc(int32_t result) {
  return Doc::Int(result, std::to_string(result) + " (" + ResultName(result) + ")");
}

Doc HeaderDoc(const ReplyHeader& h) {
  Doc d = Doc::Object();
  d.Add("functionCode", Doc::Int(h.functionCode))
      .Add("length", Doc::Int(h.length, HumanSize(h.length)))
      .Add("revision", Doc::Int(h.revision))
      .Add("flags", Doc::Int(h.flags))
      .Add("result", ResultDoc(h.result))
      .Add("messageID", Doc::Text(ToHex(h.messageID.data(), h.messageID.size())))
      .Add("pathSeparator", Doc::Int(h.pathSeparator))
      .Add("byteOrder", Doc::Text(h.swapped ? "other" : "own"));
  return d;
}

Doc VolumeDoc(const GetVolumeInfo& v) {
  Doc d = Doc::Object();
  d.Add("result", ResultDoc(v.result))
      .AddJsonOnly("resultName", Doc::Text(ResultName(v.result)))
      .Add("length", Doc::Int(v.header.length, HumanSize(v.header.length)))
      .Add("revision", Doc::Int(v.header.revision))
      .Add("vendorStatus", Doc::Int(v.vendorStatus))
      .Add("FStype", Doc::Int(v.fsType))
      .Add("GlomType", Doc::Int(v.glomType))
      .Add("GlomInfo", Doc::Int(v.glomInfo))
      .Add("BlockSize", Doc::Int(v.blockSize, HumanSize(v.blockSize)))
      .Add("nDisks", Doc::Int(v.nDisks))
      .Add("cookie", Doc::Text(Hex32(v.cookie)));
  if (v.vendorStatus != 0) return d.Add("error", Doc::Text(v.errorText));
  Doc disks = Doc::Array();
  for (size_t i = 0; i < v.disks.size(); ++i) {
    const VolumeDisk& k = v.disks[i];
    const int64_t bytes = k.nBlocks * v.blockSize;
    Doc row = Doc::Object();
    row.Add("#", Doc::Int(static_cast<int64_t>(i)))
        .Add("DiskID", Doc::Text(ToHex(k.diskId.data(), std::min<size_t>(k.idLength, 16))))
        .Add("IDlength", Doc::Int(k.idLength))
        .Add("IDoffset", Doc::Int(k.idOffset))
        .Add("BlockOffset", Doc::Int(k.blockOffset))
        .Add("nBlocks", Doc::Int(k.nBlocks))
        .Add("size", Doc::Int(bytes, ShortSize(bytes)));
    disks.Push(std::move(row));
  }
  d.Add("disks", std::move(disks));
  if (v.disksTruncated) d.Add("disksInReply", Doc::Int(static_cast<int64_t>(v.disks.size())));
  return d;
}

Doc MapDoc(const MapReply& m) {
  const bool initial = m.header.functionCode == -SP_FUNC_GETINITIALMAP;
  const bool failed = m.result != 0 && m.result != 1;
  Doc d = Doc::Object();
  d.Add("result", ResultDoc(m.result)).AddJsonOnly("resultName", Doc::Text(ResultName(m.result)));
  if (initial && !failed) {
    char key[16];
    std::snprintf(key, sizeof key, "0x%x", m.key);
    d.Add("key", Doc::Int(m.key, key));
  }
  d.Add("lease", Doc::Int(m.lease, std::to_string(m.lease) + " ms"));
  if (initial && !failed) {
    d.Add("fileCookie", Doc::Text(Hex32(m.fileCookie)))
        .Add("volumeCookie", Doc::Text(Hex32(m.volumeCookie)));
  }
  d.Add("length", Doc::Int(m.header.length, HumanSize(m.header.length)));
  if (failed || !m.hasMap) return d;  // whatever else a failed reply holds is not a map
  const FileMap& f = m.map;
  const char* type = f.extentType == FS_EXTENT_COMPACT  ? " (compact, blocks)"
                     : f.extentType == FS_EXTENT_SIMPLE ? " (simple, blocks)"
                     : f.extentType == FS_EXTENT_VERBOSE || f.extentType == FS_EXTENT_VERBOSE_ALT
                         ? " (verbose, bytes)"
                         : " (unknown)";
  d.Add("fileSize", Doc::Int(f.fileSize, HumanSize(f.fileSize)))
      .Add("allocation", Doc::Int(f.allocation, HumanSize(f.allocation)))
      .Add("fileOffset", Doc::Int(f.fileOffset, HumanSize(f.fileOffset)))
      .Add("fileBytes", Doc::Int(f.fileBytes, HumanSize(f.fileBytes)))
      .Add("vendorStatus", Doc::Int(f.vendorStatus))
      .Add("msgLen", Doc::Int(f.msgLen))
      .Add("nExtents", Doc::Int(f.nExtents))
      .Add("extentType", Doc::Int(f.extentType, std::to_string(f.extentType) + type));
  const bool bytes = f.extentType == FS_EXTENT_VERBOSE || f.extentType == FS_EXTENT_VERBOSE_ALT;
  Doc extents = Doc::Array();
  for (size_t i = 0; i < f.extents.size(); ++i) {
    const MapExtent& e = f.extents[i];
    Doc row = Doc::Object();
    row.Add("#", Doc::Int(static_cast<int64_t>(i)));
    if (bytes) row.Add("logical", Doc::Int(e.logical));
    row.Add("physical", Doc::Int(e.physical))
        .Add("length", Doc::Int(e.length, bytes ? ShortSize(e.length) : std::to_string(e.length)))
        .Add("kind", Doc::Text(KindOf(e, f.extentType)));
    if (f.extentType != FS_EXTENT_COMPACT) row.Add("vol", Doc::Int(e.volumeOrdinal));
    if (bytes) row.AddJsonOnly("validity", Doc::Int(e.validity));
    extents.Push(std::move(row));
  }
  if (!f.extents.empty()) d.Add("extents", std::move(extents));
  if (f.extentsTruncated) d.Add("extentsInReply", Doc::Int(static_cast<int64_t>(f.extents.size())));
  if (!f.text.empty()) d.Add("text", Doc::Text(f.text));
  return d;
}

Doc StatusDoc(const StatusReply& s) {
  Doc d = Doc::Object();
  d.Add("result", ResultDoc(s.result)).AddJsonOnly("resultName", Doc::Text(ResultName(s.result)));
  if (s.header.functionCode == -SP_FUNC_SETSIZE)
    d.Add("lease", Doc::Int(s.lease, std::to_string(s.lease) + " ms"));
  return d;
}

Doc TransferDoc(const std::string& command, int64_t bytes, int64_t fileSize, const FileStats& r) {
  Doc d = Doc::Object();
  d.Add(command == "read" ? "read" : "written", Doc::Int(bytes, HumanSize(bytes)))
      .Add("fileSize", Doc::Int(fileSize, HumanSize(fileSize)))
      .Add("diskBytes", Doc::Int(r.dataBytes, HumanSize(r.dataBytes)));
  if (command == "read") d.Add("zeros", Doc::Int(r.zeroBytes, HumanSize(r.zeroBytes)));
  d.Add("disk", Doc::Text(r.disk))
      .Add("extents", Doc::Int(r.extents))
      .Add("mapReplies", Doc::Int(r.mapReplies))
      .Add("renewals", Doc::Int(r.renewals))
      .Add("reopens", Doc::Int(r.reopens));
  if (command != "read") d.Add("allocations", Doc::Int(r.allocations));
  d.Add("io", Doc::Text(r.backend));
  char key[16];
  std::snprintf(key, sizeof key, "0x%x", r.key);
  d.Add("key", Doc::Int(r.key, key));
  return d;
}

}  // namespace kestrix::client
