// Prints the wire description as the two Lua tables that kestrix.lua carries
// between its "wire layouts" and "wire functions" marker lines: every struct
// with its size and the offset and width of each field, then every function
// code with its service name and the structs of its request and reply. The
// dissector test compares the blocks with this output, so the dissector
// cannot drift from the daemon and the client; after a change to the
// description, paste this program's output over the two blocks.
#include <cstdio>

#include "wire_fields.h"
#include "wire_functions.h"

int main() {
  std::printf("local layout = {\n");
  for (const kestrix::wire::Layout* layout : kestrix::wire::kAllLayouts) {
    std::printf("  %s = { size = %u,\n", layout->name, layout->size);
    for (const kestrix::wire::Field& field : *layout)
      std::printf("    %s = { at = %u, width = %u },\n", field.name, field.offset, field.width);
    std::printf("  },\n");
  }
  std::printf("}\n");
  std::printf("local functions = {\n");
  for (const kestrix::wire::Function& f : kestrix::wire::kFunctions)
    std::printf("  [%d] = { name = \"%s\", request = \"%s\", reply = \"%s\" },\n", f.code, f.name,
                f.request->name, f.reply->name);
  std::printf("}\n");
  return 0;
}
