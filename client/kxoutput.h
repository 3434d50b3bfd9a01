// What kestrix-cli prints: a reply as a small document of named values that
// renders either as aligned lines and tables for a person or as one JSON
// object for a script. Values keep their numbers for JSON and carry the
// words a person reads (result names, hex keys, sizes in human units).
#ifndef KESTRIX_CLIENT_KXOUTPUT_H_
#define KESTRIX_CLIENT_KXOUTPUT_H_

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "client/kxclient.h"
#include "client/kxfile.h"

namespace kestrix::client {

class Doc {
 public:
  static Doc Object() { return Doc(kObject); }
  static Doc Array() { return Doc(kArray); }
  static Doc Int(int64_t value, std::string human = "");
  static Doc Text(std::string value);
  static Doc Bool(bool value);

  // Adds a named value to an object; humanOnly/jsonOnly keep it out of the other form.
  Doc& Add(const std::string& name, Doc value);
  Doc& AddJsonOnly(const std::string& name, Doc value);
  Doc& Push(Doc value);  // appends to an array

  std::string Json() const;
  // Lines "name  value"; arrays of objects as tables; nested objects indented.
  std::string Human(int indent = 0) const;

 private:
  enum Kind { kNull, kBool, kInt, kText, kObject, kArray };
  explicit Doc(Kind kind) : kind_(kind) {}
  std::string Cell() const;  // a leaf as a person reads it

  Kind kind_;
  int64_t int_ = 0;
  std::string text_;   // kText value, or the human form of a kInt or kBool
  bool jsonOnly_ = false;
  std::vector<std::pair<std::string, Doc>> fields_;
  std::vector<Doc> items_;
};

// "4096 bytes (4.0 KiB)"; below 1 KiB just "N bytes".
std::string HumanSize(int64_t bytes);
// "1.5 MiB", "512 B": short, for tables and progress lines.
std::string ShortSize(int64_t bytes);

Doc ResultDoc(int32_t result);  // 405 (no library knows the volume)
Doc HeaderDoc(const ReplyHeader& header);
Doc VolumeDoc(const GetVolumeInfo& volume);
Doc MapDoc(const MapReply& map);
Doc StatusDoc(const StatusReply& status);
// The summary of a read or write: bytes moved, the file's size, the engine's counters.
Doc TransferDoc(const std::string& command, int64_t bytes, int64_t fileSize, const FileStats& stats);

}  // namespace kestrix::client

#endif  // KESTRIX_CLIENT_KXOUTPUT_H_
