// Prints the wire description as the Lua table that kestrix.lua carries
// between its "wire layouts" marker lines: every struct with its size and
// the offset and width of each field. The dissector test compares the two,
// so the dissector cannot drift from the daemon and the client; after a
// layout change, paste this program's output over the block.
#include <cstdio>

#include "wire_fields.h"

int main() {
  std::printf("local layout = {\n");
  for (const kestrix::wire::Layout* layout : kestrix::wire::kAllLayouts) {
    std::printf("  %s = { size = %u,\n", layout->name, layout->size);
    for (const kestrix::wire::Field& field : *layout)
      std::printf("    %s = { at = %u, width = %u },\n", field.name, field.offset, field.width);
    std::printf("  },\n");
  }
  std::printf("}\n");
  return 0;
}
