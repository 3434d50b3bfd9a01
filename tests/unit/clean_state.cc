// Every unit test starts with the service provider and the loader as fresh,
// so the tests pass one per process and all in one process alike.
#include <gtest/gtest.h>

#include "sp/sp_state.h"
#include "unixmdc/loadlib.h"

namespace {

class CleanDaemonState : public ::testing::EmptyTestEventListener {
  void OnTestStart(const ::testing::TestInfo&) override {
    kestrix::ResetServiceProviderForTesting();
    kestrix::ResetLibraryLoaderForTesting();
  }
};

const bool kRegistered = [] {
  ::testing::UnitTest::GetInstance()->listeners().Append(new CleanDaemonState);
  return true;
}();

}  // namespace
