#pragma once
// Tests of the plug-in's GL passes: a GL context is required (skipped without one) and the
// plug-in's programs are served under "MerivaneSeg/" while the test runs.
#include <gtest/gtest.h>

#include "Repository_MerivaneSeg.h"
#include "Resource.h"
#include "TestSupport.h"

namespace Merivane::TestKit {

class WithSegPrograms : public testing::Test {
 protected:
  void SetUp() override {
    MERIVANE_REQUIRE_GL();
    Resource::addRepository(&repo_);
  }
  void TearDown() override { Resource::removeRepository(&repo_); }
  Repository_MerivaneSeg repo_;
};

}  // namespace Merivane::TestKit
