// KESTRIX_FOR_PLUGINS marks a function the daemon exports for plug-ins
// only: nothing in the daemon calls it, yet a plug-in may look it up by
// name when the daemon loads it, so it must stay, with its C name and
// arguments, even where it looks unused.
#ifndef KESTRIX_UTILS_PLUGIN_API_H_
#define KESTRIX_UTILS_PLUGIN_API_H_

#define KESTRIX_FOR_PLUGINS __attribute__((used))

#endif  // KESTRIX_UTILS_PLUGIN_API_H_
