// Where a "LOG" command may send the log when KESTRIX_LOG_DIR confines it:
// only to a file inside that directory, judged after ".." and symbolic
// links are resolved, so that a client cannot have the daemon append to an
// arbitrary file.
#ifndef KESTRIX_UTILS_LOG_DIR_H_
#define KESTRIX_UTILS_LOG_DIR_H_

#include <string>

namespace kestrix {

// The resolved name of the file destination names when it lies inside dir;
// "" when it does not, when either cannot be resolved, or when the result
// would not fit the log's file name. The file itself may be missing, its
// directory not; a symbolic link as the last part must lead somewhere.
std::string ConfinedLogFile(const std::string& destination, const std::string& dir);

}  // namespace kestrix

#endif  // KESTRIX_UTILS_LOG_DIR_H_
