// Timing of the filesystem libraries' entry points for the daemon's
// counters. Each accepted library's record keeps its address (leases and
// the volume dispatcher point at it), but its entry points are replaced by
// wrappers that count the call and its duration and then call the original.
// FS_GetVersion is left alone: it answers a constant and is asked for every
// reply, so timing it would cost more than it could show.
#ifndef KESTRIX_UNIXMDC_LIBRARY_TIMING_H_
#define KESTRIX_UNIXMDC_LIBRARY_TIMING_H_

namespace kestrix {

// Wraps the entry points of every library in libs; called once after the
// libraries are loaded and before the listener starts.
void TimeLibraryCalls();

}  // namespace kestrix

#endif  // KESTRIX_UNIXMDC_LIBRARY_TIMING_H_
