// GetExtendedMap end to end: ranges, sizes, lease renewal and reply lengths.
#include "e2e/e2e_util.h"

namespace kestrix::test {
namespace {

class GetExtendedMapE2E : public MapE2E {};
TEST_F(GetExtendedMapE2E, RangesSizesRenewalAndLengths) {
  const auto rows = {
      std::tuple{-1, 8192, 0, "", 0, "map 8192 -1 4|", 5000u, 244u},  // read rules, to the end
      {100, 0, 4096, "", 0, "size 100 -1|map 0 4096 4|", 3600000u, 244u},
      {5, 0, 0, "result FS_SetFileSizes 7", 7, "size 5 -1|", 0u, 162u},
      {-1, 0, 0, "result FS_GetLockedMap 12", 12, "map 0 -1 4|", 0u, 244u},
      {-1, 0, 0, "map.msgLen 70000", 0, "map 0 -1 4|", 5000u, 65507u},  // one datagram at most
      {-1, 0, 0, "map.msgLen 70000\nresult FS_GetLockedMap 1", 1, "map 0 -1 4|", 0u, 184u}};
  const std::string base = "file /export/data/f vol-a file-f\n";
  TestFs fs = Serve(base);
  Start();
  for (auto [size, start, length, conf, result, calls, lease, replyLength] : rows) {
    fs.Configure(base);
    const uint32_t key = Open("f", {-1, -1, 0, 0}).key;  // a write lease
    fs.Configure(base + conf + "\n");
    fs.ClearCalls();
    Bytes request = client::MakeGetExtendedMapRequest(key, start, length, 0, size, -1, 4);
    client::HeaderOf(request)->revision = 77, client::HeaderOf(request)->result = 9;  // echoed, cleared
    const Bytes bytes = Send(request);
    const client::MapReply r = client::ParseMapReply(bytes).value();
    EXPECT_EQ(std::tuple(r.result, MapCalls(fs), r.lease - lease < 1000, bytes.size(), r.header.revision,
                         r.header.result),
              std::tuple(result, calls, true, size_t{replyLength}, bytes.size() == 184 ? 230 : 77, 0));
  }
  const Bytes unknown = Send(client::MakeGetExtendedMapRequest(999, 0, 0));
  EXPECT_EQ(std::tuple(client::Read<int32_t>(unknown, 48), unknown.size()), std::tuple(407, 184u));
}

}  // namespace
}  // namespace kestrix::test
