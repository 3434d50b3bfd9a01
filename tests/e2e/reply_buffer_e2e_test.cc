// The large reply buffers seen from the wire: memory that held an earlier
// reply is used again, and none of that reply's bytes reach a later one.
#include "e2e/e2e_util.h"

namespace kestrix::test {
namespace {

class ReplyBufferE2E : public MapE2E {};

TEST_F(ReplyBufferE2E, ALaterReplyCarriesNoBytesOfAnEarlierOne) {
  const std::string file = "file /export/data/f vol-a file-f\nmap.extentType 1\n";
  TestFs fs = Serve(file + "map.nExtents 400\n");
  Start({"-l", "2"});
  // 400 extents of 32 bytes: the map reaches far into the buffer.
  ASSERT_EQ(Open("f").map.extents.size(), 400u);
  // Now the library writes only the map's fixed part but claims as many
  // bytes; what it did not write reads as zero, not as the earlier extents.
  fs.Configure(file + "map.nExtents 0\nmap.msgLen 12864\n");
  const Bytes reply = Send(client::MakeGetInitialMapRequest("data", "f"));
  ASSERT_EQ(reply.size(), 160u + 12864 + 2);
  EXPECT_EQ(std::count(reply.begin() + 160 + 64, reply.end(), 0),
            static_cast<std::ptrdiff_t>(reply.size() - 224));
}

}  // namespace
}  // namespace kestrix::test
