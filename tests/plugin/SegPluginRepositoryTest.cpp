#include <gtest/gtest.h>

#include "Repository_MerivaneSeg.h"
#include "Resource.h"
#include "SegPlugin.h"

namespace Merivane {
namespace {

TEST(SegPluginRepository, InitAddsTheShaderRepositoryAndDestructionRemovesIt) {
  {
    SegPlugin plugin;
    EXPECT_EQ(plugin.repository(), nullptr);
    ASSERT_EQ(plugin.init(), 0);
    ASSERT_NE(plugin.repository(), nullptr);
    EXPECT_TRUE(Resource::query("MerivaneSeg/GlLabelRenderer.frag").has_value());
    // A second init replaces the repository rather than adding another.
    ASSERT_EQ(plugin.init(), 0);
    int found = 0;
    for (const auto* repo : Resource::repositories()) found += repo->name() == "MerivaneSeg";
    EXPECT_EQ(found, 1);
  }
  EXPECT_FALSE(Resource::query("MerivaneSeg/GlLabelRenderer.frag").has_value());
}

}  // namespace
}  // namespace Merivane
