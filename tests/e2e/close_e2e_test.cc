// Close end to end: the final size, the removal, and the unlock that only the
// last lease on a file makes.
#include "e2e/e2e_util.h"

namespace kestrix::test {
namespace {

class CloseE2E : public MapE2E {};
TEST_F(CloseE2E, FinalSizeRemovalAndTheLastLeaseUnlocking) {
  const std::string base = "file /export/data/f vol-a file-f\n";
  TestFs fs = Serve(base);
  Start();
  for (auto [size, conf, result, calls] :
       {std::tuple{-1, "", 0, "unlock|"},
        {5000, "result FS_SetFileSizes 400", 0, "size 5000 5000|unlock|"},
        {5000, "result FS_SetFileSizes 7", 7, "size 5000 5000|unlock|"}}) {  // removed all the same
    const uint32_t key = Open("f").key;
    fs.Configure(base + conf + "\n");
    fs.ClearCalls();
    EXPECT_EQ(Result(client::MakeCloseRequest(key, size)), result);
    EXPECT_EQ(Result(client::MakeCloseRequest(key, size)), 407);
    EXPECT_EQ(MapCalls(fs), calls);
  }
  // Two clients on one file: the map stays locked until the second closes.
  const uint32_t first = Open("f").key, second = Open("f").key;
  fs.ClearCalls();
  EXPECT_EQ(Result(client::MakeCloseRequest(first)), 0);
  EXPECT_EQ(MapCalls(fs), "");
  EXPECT_EQ(Result(client::MakeCloseRequest(second)), 0);
  EXPECT_EQ(MapCalls(fs), "unlock|");
}

}  // namespace
}  // namespace kestrix::test
