// What a client may do with the bytes of one verbose extent: the "validity"
// word of a VerboseExtent. Filesystem libraries write these values, clients
// read them; 0 is no valid value, so zeroed memory never reads as data.
#ifndef KESTRIX_INCLUDE_FSVALIDITY_H_
#define KESTRIX_INCLUDE_FSVALIDITY_H_

enum {
  // Allocated and written: the client may read and write the disk in place.
  FS_VALIDITY_DATA = 1,
  // Allocated but unwritten: reads as zeros. Bytes written to the disk there
  // stay invisible; ask for an allocation first to have it turned into data.
  FS_VALIDITY_UNWRITTEN = 2,
  // A hole: nothing allocated, reads as zeros, must not be written in place.
  FS_VALIDITY_HOLE = 3,
  // Not addressable (inline, encoded, shared with another file, or of
  // unknown location): the client must not touch the disk for this range.
  FS_VALIDITY_NO_ADDRESS = 4,
  // Holes and ranges that are not addressable carry PhysicalByteAddr 0.
};

#endif  // KESTRIX_INCLUDE_FSVALIDITY_H_
