// SetSize end to end: the size call, the renewal rules and the failures.
#include "e2e/e2e_util.h"

namespace kestrix::test {
namespace {

class SetSizeE2E : public MapE2E {};
TEST_F(SetSizeE2E, SizeCallAndRenewal) {
  const auto rows = {std::tuple{1u, 0u, "", 0, 5000u},  // a read lease keeps the read rules
                     {1u, 0u, "maxlease.read 2", 0, 2000u},  // capped by the library's maximum
                     {0u, 7000u, "", 0, 7000u},
                     {0u, 0u, "result FS_SetFileSizes 400", 400, 0u}};  // passed on as it is
  const std::string base = "file /export/data/f vol-a file-f\n";
  TestFs fs = Serve(base);
  Start();
  for (auto [intention, lease, conf, result, granted] : rows) {
    fs.Configure(base + conf + "\n");
    const uint32_t key = Open("f", {-1, -1, 0, intention}).key;
    fs.ClearCalls();
    const auto r = client::ParseStatusReply(Send(client::MakeSetSizeRequest(key, 5000, lease)));
    const CallRecord size = fs.Calls("FS_SetFileSizes").at(0);
    EXPECT_EQ(std::tuple(r->result, r->lease, size.Get("size"), size.Int("alloc"), size.Int("last")),
              std::tuple(result, granted, "5000", -1, -1));
  }
  const Bytes unknown = Send(client::MakeSetSizeRequest(999, 1));
  EXPECT_EQ(std::tuple(client::Read<int32_t>(unknown, 48), unknown.size()), std::tuple(407, 72u));
}

}  // namespace
}  // namespace kestrix::test
