// Which files the library maps: only those whose blocks on the disk hold the
// file's bytes as the file reads them, and that have a single name. A
// client reads and writes the blocks directly, so an encrypted file would
// give it ciphertext and take plaintext, a verity file would fail its
// checks, and journalled data may sit newer in the journal than in the
// blocks. A file with a second name may have it outside every export, where
// the export's confinement does not reach; where the other names lie cannot
// be told, so every file with more than one link is refused.
#ifndef KESTRIX_PLUGINS_LOCALFS_FILEKIND_H_
#define KESTRIX_PLUGINS_LOCALFS_FILEKIND_H_

#include <string>

namespace localfs {

// 0 when the file may be mapped; else LOCALFS_REFUSED (or LOCALFS_IO_ERROR
// when it cannot be examined) with *why. checkMount also asks whether the
// whole mount journals its data, which costs a read of the mount table.
int CheckMappable(int fd, bool checkMount, std::string* why);

}  // namespace localfs

#endif  // KESTRIX_PLUGINS_LOCALFS_FILEKIND_H_
