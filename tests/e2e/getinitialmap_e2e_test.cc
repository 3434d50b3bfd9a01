// GetInitialMap end to end: the replies and the calls testfs records.
#include "e2e/e2e_util.h"

namespace kestrix::test {
namespace {

class GetInitialMapE2E : public MapE2E {};
using client::MakeGetInitialMapRequest;

TEST_F(GetInitialMapE2E, SizeAndMapCallsAndWhatBecomesOfTheLease) {
  TestFs fs = Serve("");
  for (auto [size, alloc, flag, conf, result, calls] : {
           std::tuple{-1, -1, 0u, "", 0, "map 0 -1 0|"},
           {1000, -1, 0u, "result FS_SetFileSizes 400", 0, "map 0 -1 0|size 1000 -1|"},
           {-1, 4096, 0u, "", 0, "map 0 -1 0|size -1 4096|map 0 -1 2|"},
           {-1, 4096, 2u, "result FS_SetFileSizes 1", 0, "map 0 -1 2|size -1 4096|map 0 -1 2|"},
           {-1, -1, 0u, "result FS_GetLockedMap 1", 1, "map 0 -1 0|"},
           {-1, -1, 8u, "", 0, "map 0 -1 8|unlock|"},
           {-1, -1, 0u, "result FS_GetLockedMap 12", 12, "map 0 -1 0|unlock|"},
           {5, -1, 0u, "result FS_SetFileSizes 7", 7, "map 0 -1 0|size 5 -1|unlock|"},
           {-1, 4096, 0u, "result FS_GetLockedMap 0 9", 9, "map 0 -1 0|size -1 4096|map 0 -1 2|unlock|"}}) {
    fs.Configure(std::string("file /export/data/f vol-a file-f\n") + conf + "\n");
    fs.ClearCalls();
    Restart();
    const client::MapReply open = Open("f", {size, alloc, 0, 1, flag});
    const bool delivered = result == 0 || result == 1, held = delivered && flag != 8;
    // Length 160 + msgLen 80 + 4: the first extent's bytes also read as a 1-unit text.
    EXPECT_EQ(std::tuple(open.result, MapCalls(fs), open.lease >= 5000, open.volumeCookie[0],
                         open.fileCookie[5], open.header.length),
              std::tuple(result, calls, delivered, delivered ? 'v' : 0,
                         delivered ? 'f' : 0, 244u));
    // Only a lease still held can be mapped further.
    EXPECT_EQ(Result(client::MakeGetExtendedMapRequest(open.key, 0, 0)), held ? result : 407)
        << calls;
  }
}

TEST_F(GetInitialMapE2E, LibrariesAskedInOrderAndPathsJoined) {
  TestFs a = Serve("", "liba.so"), b = Serve("", "libb.so");
  Start();
  const bool aFirst = LoadOrder().at(0) == "liba.so";
  const TestFs& first = aFirst ? a : b;
  const TestFs& second = aFirst ? b : a;
  const Bytes open = MakeGetInitialMapRequest("data", "f");
  for (auto [one, two, result] : {std::tuple{-380, 12, 405}, {12, -380, -380}}) {
    first.Configure("miss FS_GetCookies " + std::to_string(one) + "\n");
    second.Configure("miss FS_GetCookies " + std::to_string(two) + "\n");
    EXPECT_EQ(Result(open), result);  // only the last library's answer counts
  }
  // A volume cookie a refusing library left behind reaches no later call.
  first.Configure("misscookie vol-x\n");
  second.Configure("file /export/data/f - file-f\n");
  EXPECT_EQ(Result(open), 0);
  EXPECT_EQ(second.Calls("FS_GetLockedMap").at(0).Get("vol"), "");
  for (auto [separator, name, path] :
       {std::tuple{u'/', "a/b", "/export/data/a/b"}, {u'/', "/a", "/export/data/a"},
        {u'\\', "a\\b", "/export/data/a/b"}, {u'\0', "x", "/export/datax"}}) {
    Send(MakeGetInitialMapRequest("data", name, {-1, -1, 0, 1, 0, separator}));
    EXPECT_EQ(first.Calls("FS_GetCookies").back().Get("path"), path);
  }
}

TEST_F(GetInitialMapE2E, SameRequestAgainRenewsItsOwnLease) {
  TestFs fs = Serve("file /export/data/f vol-a file-f\n");
  Start();
  const Bytes request = MakeGetInitialMapRequest("data", "f");  // its message ID stays 0
  const uint32_t key = client::ParseMapReply(Ask(request))->key;
  EXPECT_EQ(client::ParseMapReply(Ask(request))->key, key);
  EXPECT_EQ(Open("f").key, key + 1);  // the repeat raised no key
  EXPECT_EQ(fs.CountCalls("FS_GetLockedMap"), 3);
}

}  // namespace
}  // namespace kestrix::test
