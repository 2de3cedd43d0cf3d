#include <gtest/gtest.h>

#include <algorithm>

#include "GlContext.h"
#include "GlPrimitives.h"
#include "GlProgram.h"
#include "GlImageProgram.h"
#include "Repository_MerivaneSeg.h"
#include "Resource.h"
#include "TestSupport.h"

namespace Merivane {
namespace {

const char* const kPrograms[] = {
    "GlIsolineRenderer.frag",     "GlLabelRenderer.frag",    "LabelPainter.frag",
    "LabelPainterDrawLine.frag",  "LabelPainterMerge.frag",  "LabelPainterThreshold.frag",
    "StructuresViewOtherLabelsMask.frag", "ThresholdToolApply.frag", "ThresholdToolPreview.frag",
    "WatershedToolPreview.frag",
};

TEST(ShaderRepository, ContainsExactlyTheTenProgramsByName) {
  Repository_MerivaneSeg repo;
  EXPECT_EQ(repo.name(), "MerivaneSeg");
  for (const char* name : kPrograms) EXPECT_TRUE(repo.contains(name)) << name;
  EXPECT_EQ(repo.names().size(), 10u);
  EXPECT_FALSE(repo.contains(""));
  EXPECT_FALSE(repo.contains("GlLabelRenderer"));
  EXPECT_FALSE(repo.contains("MerivaneSeg/GlLabelRenderer.frag"));
  EXPECT_FALSE(repo.query("Unknown.frag").has_value());
}

TEST(ShaderRepository, QueryConcatenatesChunks) {
  Repository_MerivaneSeg repo;
  ASSERT_GT(repo.chunkCount("LabelPainter.frag"), 1u);
  auto bytes = repo.query("LabelPainter.frag");
  ASSERT_TRUE(bytes.has_value());
  const std::string text(bytes->begin(), bytes->end());
  EXPECT_EQ(text.rfind("#version 450 core\n", 0), 0u);
  EXPECT_NE(text.find("void main()"), std::string::npos);
  EXPECT_EQ(text.find('\0'), std::string::npos);
}

TEST(ShaderRepository, ResourcePathsResolveOnlyWhileAdded) {
  Repository_MerivaneSeg repo;
  EXPECT_FALSE(Resource::query("MerivaneSeg/GlLabelRenderer.frag").has_value());
  Resource::addRepository(&repo);
  Resource::addRepository(&repo);  // twice is once
  const auto repos = Resource::repositories();  // the GL layer may have added its own
  EXPECT_EQ(std::count(repos.begin(), repos.end(), &repo), 1);
  EXPECT_TRUE(Resource::query("MerivaneSeg/GlLabelRenderer.frag").has_value());
  EXPECT_FALSE(Resource::query("MerivaneSeg/").has_value());
  EXPECT_FALSE(Resource::query("Other/GlLabelRenderer.frag").has_value());
  EXPECT_FALSE(Resource::query("GlLabelRenderer.frag").has_value());
  Resource::removeRepository(&repo);
  EXPECT_FALSE(Resource::query("MerivaneSeg/GlLabelRenderer.frag").has_value());
  Resource::removeRepository(&repo);  // not there: nothing happens
}

TEST(ShaderRepository, EveryProgramCompilesWithAndWithoutCallerDefines) {
  MERIVANE_REQUIRE_GL();
  Repository_MerivaneSeg repo;
  for (const char* name : kPrograms) {
    auto text = std::string();
    auto bytes = repo.query(name);
    ASSERT_TRUE(bytes.has_value());
    text.assign(bytes->begin(), bytes->end());
    // Callers insert their switches after the version line.
    const size_t afterVersion = text.find('\n') + 1;
    std::string withDefines = text;
    withDefines.insert(afterVersion, "#define SLICE3D\n#define USE_2D\n");
    for (const std::string& source : {text, withDefines}) {
      bool ok = false;
      std::string log;
      // Overlay programs (renderers and tool previews) draw on view planes behind the shared
      // vertex stage; the others run once per texel behind the image-program stage.
      const std::string n(name);
      const bool overlay = n.find("Renderer") != std::string::npos || n.find("ToolPreview") != std::string::npos;
      GL::runOnGlThread([&] {
        if (overlay) {
          GL::Program p;
          ok = p.compile(GL::fixedFunctionVertexSource(), source);
          log = p.log();
        } else {
          GL::ImageProgram p;
          ok = p.compile(source);
          log = p.log();
        }
      });
      EXPECT_TRUE(ok) << name << ": " << log;
    }
  }
}

}  // namespace
}  // namespace Merivane
