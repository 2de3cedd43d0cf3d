// Dose: the FFT convolution against a direct sum, delta kernels, tissue classes, kernel files
// and their failures, serial against parallel.
#include <gtest/gtest.h>
#include <omp.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

#include "DoseComputationAlgorithm.h"
#include "FftConvolution.h"
#include "ImageIO.h"
#include "Log.h"
#include "SharedImageSet.h"
#include "TestSupport.h"

namespace fs = std::filesystem;

namespace Merivane {
namespace {

// Zero-padded convolution, straight from the definition.
std::vector<float> directConvolution(const std::vector<float>& in, const Eigen::Vector3i& n, const std::vector<float>& k,
                                     const Eigen::Vector3i& ks) {
  std::vector<float> out(in.size(), 0.0f);
  const Eigen::Vector3i h = (ks - Eigen::Vector3i::Ones()) / 2;
  for (int z = 0; z < n[2]; ++z)
    for (int y = 0; y < n[1]; ++y)
      for (int x = 0; x < n[0]; ++x) {
        double s = 0.0;
        for (int c = 0; c < ks[2]; ++c)
          for (int b = 0; b < ks[1]; ++b)
            for (int a = 0; a < ks[0]; ++a) {
              const int jx = x - (a - h[0]), jy = y - (b - h[1]), jz = z - (c - h[2]);
              if (jx < 0 || jy < 0 || jz < 0 || jx >= n[0] || jy >= n[1] || jz >= n[2]) continue;
              s += static_cast<double>(in[(static_cast<size_t>(jz) * n[1] + jy) * n[0] + jx]) *
                   k[(static_cast<size_t>(c) * ks[1] + b) * ks[0] + a];
            }
        out[(static_cast<size_t>(z) * n[1] + y) * n[0] + x] = static_cast<float>(s);
      }
  return out;
}

std::vector<float> noise(const Eigen::Vector3i& n, int seed) {
  std::vector<float> v(static_cast<size_t>(n.prod()));
  for (size_t i = 0; i < v.size(); ++i) v[i] = static_cast<float>(TestKit::hashNoise(static_cast<int>(i), seed, 3));
  return v;
}

class FftAgainstDirect : public testing::TestWithParam<std::tuple<Eigen::Vector3i, Eigen::Vector3i>> {};

TEST_P(FftAgainstDirect, SameConvolution) {
  const auto [n, ks] = GetParam();
  const auto in = noise(n, 1), kernel = noise(ks, 2);
  Dose::FftConvolver conv(n, ks);
  conv.setVolume(in.data());
  std::vector<float> out(in.size());
  ASSERT_TRUE(conv.convolve(kernel.data(), ks, out.data()));
  const auto expected = directConvolution(in, n, kernel, ks);
  for (size_t i = 0; i < out.size(); ++i) ASSERT_NEAR(out[i], expected[i], 1e-4) << i;
}

INSTANTIATE_TEST_SUITE_P(
    Dose, FftAgainstDirect,
    testing::Values(std::make_tuple(Eigen::Vector3i(12, 10, 9), Eigen::Vector3i(3, 5, 7)),
                    std::make_tuple(Eigen::Vector3i(7, 9, 11), Eigen::Vector3i(13, 3, 1)),  // kernel wider than x
                    std::make_tuple(Eigen::Vector3i(33, 17, 1), Eigen::Vector3i(5, 5, 1)),
                    std::make_tuple(Eigen::Vector3i(1, 1, 1), Eigen::Vector3i(3, 3, 3)),
                    std::make_tuple(Eigen::Vector3i(20, 19, 18), Eigen::Vector3i(1, 1, 1))));

TEST(Dose, ConvolverRefusesEvenAndOversizedKernels) {
  Dose::FftConvolver conv({8, 8, 8}, {5, 5, 5});
  const std::vector<float> in(512, 1.0f), k(7 * 7 * 7, 1.0f);
  std::vector<float> out(512);
  EXPECT_FALSE(conv.convolve(k.data(), {3, 3, 3}, out.data()));  // no volume yet
  conv.setVolume(in.data());
  EXPECT_FALSE(conv.convolve(k.data(), {4, 3, 3}, out.data()));
  EXPECT_FALSE(conv.convolve(k.data(), {7, 7, 7}, out.data()));
  EXPECT_TRUE(conv.convolve(k.data(), {5, 5, 5}, out.data()));
}

class KernelFolder {
 public:
  // One folder, named after the process and the test; a parameterised test's name holds a '/',
  // which would otherwise leave an empty parent folder behind.
  KernelFolder() : path_(fs::temp_directory_path() / ("merivane-dose-" + std::to_string(::getpid()) + "-" + testName())) {
    fs::create_directories(path_);
  }
  ~KernelFolder() {
    std::error_code ec;
    fs::remove_all(path_, ec);
  }
  std::string path() const { return path_.string(); }
  static std::string testName() {
    std::string name = testing::UnitTest::GetInstance()->current_test_info()->name();
    std::replace(name.begin(), name.end(), '/', '_');
    return name;
  }
  std::string write(const std::string& name, const Eigen::Vector3i& size, const std::vector<float>& values) {
    auto img = TypedImage<float>::create(size, 1);
    std::copy(values.begin(), values.end(), img->pointer());
    SharedImageSet set(std::shared_ptr<Image>(std::move(img)));
    const std::string file = (path_ / name).string();
    EXPECT_TRUE(IO::writeImage(set, file));
    return file;
  }
  // A 3^3 kernel with `centre` in the middle and 0 elsewhere.
  void writeDeltas(const std::vector<std::string>& names, float centre = 1.0f) {
    std::vector<float> k(27, 0.0f);
    k[13] = centre;
    for (const auto& n : names) write(n + ".mhd", {3, 3, 3}, k);
  }

 private:
  fs::path path_;
};

const std::vector<std::string> kTissues{"air", "lung", "fat", "tissue", "bone"};

// CT ramp along x through every class, and beyond both ends.
std::unique_ptr<SharedImageSet> ctRamp(const Eigen::Vector3i& n) {
  auto s = TestKit::makeImage<short>(n, [&](int x, int, int) { return static_cast<short>(-1300 + 450 * x); });
  s->setModality(Data::CT);
  return s;
}

std::unique_ptr<SharedImageSet> source(const Eigen::Vector3i& n) {
  auto s = TestKit::makeImage<unsigned short>(
      n, [](int x, int y, int z) { return 1000 + 900 * TestKit::hashNoise(x, y, z); });
  s->setModality(Data::NM);
  return s;
}

std::unique_ptr<SharedImageSet> runDose(DoseComputationAlgorithm& a, int status = Algorithm::statusSuccess) {
  a.compute();
  EXPECT_EQ(a.status(), status);
  return a.takeOutput().extractFirstImage();
}

TEST(DoseComputation, DeltaKernelsGiveTheMaskedSource) {
  const Eigen::Vector3i n(20, 6, 5);
  auto ct = ctRamp(n);
  auto src = source(n);
  KernelFolder folder;
  folder.writeDeltas(kTissues);
  DoseComputationAlgorithm a(ct.get(), src.get());
  a.kernelsDirectory = folder.path();
  auto dose = runDose(a);
  ASSERT_TRUE(dose);
  EXPECT_EQ(dose->modality(), Data::NM);
  ASSERT_EQ(dose->mem(0)->type(), F32);
  const auto& d = static_cast<const TypedImage<float>&>(*dose->mem(0));
  const auto& s = static_cast<const TypedImage<unsigned short>&>(*src->mem(0));
  for (int z = 0; z < n[2]; ++z)
    for (int y = 0; y < n[1]; ++y)
      for (int x = 0; x < n[0]; ++x) {
        const int hu = -1300 + 450 * x;
        const float expected = hu >= -1000 && hu < 6000 ? s.value(x, y, z) : 0.0f;
        ASSERT_EQ(d.value(x, y, z), expected) << x << " " << y << " " << z;
      }
}

// Each class with its own kernel: the sum of each convolution where its tissue lies.
TEST(DoseComputation, MatchesMaskedDirectConvolutions) {
  const Eigen::Vector3i n(16, 9, 8);
  auto ct = ctRamp(n);
  auto src = source(n);
  KernelFolder folder;
  const Eigen::Vector3i sizes[5] = {{3, 3, 3}, {5, 3, 1}, {1, 1, 1}, {3, 5, 7}, {7, 1, 3}};
  std::vector<std::vector<float>> kernels;
  for (int c = 0; c < 5; ++c) {
    auto k = noise(sizes[c], 10 + c);
    for (float& v : k) v = 0.2f + 0.1f * v;
    kernels.push_back(k);
    folder.write(kTissues[static_cast<size_t>(c)] + "_kernel.MHD", sizes[c], k);
  }
  DoseComputationAlgorithm a(ct.get(), src.get());
  a.kernelsDirectory = folder.path();
  a.scaleFactor = 0.5;
  auto dose = runDose(a);
  ASSERT_TRUE(dose);
  const auto* s = static_cast<const unsigned short*>(src->mem(0)->data());
  const std::vector<float> in(s, s + n.prod());
  const auto* d = static_cast<const float*>(dose->mem(0)->data());
  const double bounds[6] = {-1000, -800, -300, 0, 100, 6000};
  std::vector<double> expected(in.size(), 0.0);
  for (int c = 0; c < 5; ++c) {
    const auto conv = directConvolution(in, n, kernels[static_cast<size_t>(c)], sizes[c]);
    for (size_t i = 0; i < in.size(); ++i) {
      const int hu = -1300 + 450 * static_cast<int>(i % static_cast<size_t>(n[0]));
      if (hu >= bounds[c] && hu < bounds[c + 1]) expected[i] += 0.5 * std::nearbyint(conv[i]);
    }
  }
  for (size_t i = 0; i < in.size(); ++i) ASSERT_NEAR(d[i], expected[i], 0.5 + 1e-6) << i;
}

TEST(DoseComputation, KernelFilesAreFoundInRecordOrder) {
  KernelFolder folder;
  folder.writeDeltas({"bone", "zz_air", "Air"});
  auto ct = ctRamp({4, 4, 4});
  auto src = source({4, 4, 4});
  DoseComputationAlgorithm a(ct.get(), src.get());
  a.kernelsDirectory = folder.path();
  TestKit::LogCapture log;
  EXPECT_TRUE(a.kernelPaths().empty());  // "Air" and "zz_air" do not begin with "air"
  EXPECT_EQ(log.count(Log::Error), 1);
  EXPECT_TRUE(log.contains("Could not find kernel file for air"));

  folder.writeDeltas({"air_b", "air_a", "lung", "fat", "tissue"});
  log.clear();
  const auto paths = a.kernelPaths();
  ASSERT_EQ(paths.size(), 5u);
  EXPECT_EQ(fs::path(paths[0]).filename(), "air_a.mhd");
  EXPECT_EQ(fs::path(paths[4]).filename(), "bone.mhd");
  EXPECT_EQ(log.count(Log::Error), 0);
}

struct FailureCase {
  const char* name;
  void (*prepare)(KernelFolder&);
  const char* message;  // what the one error line contains; "@" stands for the folder
};

class DoseFailures : public testing::TestWithParam<FailureCase> {};

TEST_P(DoseFailures, StatusOneLineAndNoResult) {
  KernelFolder folder;
  GetParam().prepare(folder);
  auto ct = ctRamp({6, 5, 4});
  auto src = source({6, 5, 4});
  auto before = src->mem(0)->clone();
  DoseComputationAlgorithm a(ct.get(), src.get());
  if (std::string(GetParam().name) != "unset") a.kernelsDirectory = folder.path();
  TestKit::LogCapture log;
  EXPECT_FALSE(runDose(a, Algorithm::statusError));
  EXPECT_EQ(log.count(Log::Error), 1);
  std::string message = GetParam().message;
  if (const size_t at = message.find('@'); at != std::string::npos) message.replace(at, 1, folder.path());
  EXPECT_TRUE(log.contains(message)) << message;
  EXPECT_EQ(std::memcmp(before->data(), src->mem(0)->data(), before->byteSize()), 0);
}

INSTANTIATE_TEST_SUITE_P(
    DoseComputation, DoseFailures,
    testing::Values(FailureCase{"unset", [](KernelFolder&) {}, "Could not find kernel file for air"},
                    FailureCase{"onlyBone", [](KernelFolder& f) { f.writeDeltas({"bone"}); },
                                "Could not find kernel file for air"},
                    FailureCase{"evenKernel",
                                [](KernelFolder& f) {
                                  f.writeDeltas({"air", "lung", "tissue", "bone"});
                                  f.write("fat.mhd", {4, 3, 3}, std::vector<float>(36, 1.0f));
                                },
                                "Invalid filter @/fat.mhd; make sure it's a one-channel image with odd dimensions"},
                    FailureCase{"unreadable",
                                [](KernelFolder& f) {
                                  f.writeDeltas({"air", "fat", "tissue", "bone"});
                                  std::ofstream(f.path() + "/lung.mhd") << "NDims = 3\nDimSize = 3 3\n";
                                },
                                "@/lung.mhd"}),
    [](const testing::TestParamInfo<FailureCase>& info) { return std::string(info.param.name); });

TEST(DoseComputation, AcceptsOneCtAndOneNmVolume) {
  auto ct = ctRamp({4, 4, 4});
  auto src = source({4, 4, 4});
  auto mr = ctRamp({4, 4, 4});
  mr->setModality(Data::MRI);
  EXPECT_TRUE(DoseComputationAlgorithm::createCompatible(DataList{ct.get(), src.get()}));
  EXPECT_TRUE(DoseComputationAlgorithm::createCompatible(DataList{src.get(), ct.get()}));
  EXPECT_FALSE(DoseComputationAlgorithm::createCompatible(DataList{mr.get(), src.get()}));
  EXPECT_FALSE(DoseComputationAlgorithm::createCompatible(DataList{ct.get()}));
  EXPECT_FALSE(DoseComputationAlgorithm::createCompatible(DataList{ct.get(), ct.get(), src.get()}));
}

TEST(DoseComputation, SerialEqualsParallel) {
  KernelFolder folder;
  for (size_t c = 0; c < kTissues.size(); ++c)
    folder.write(kTissues[c] + ".mhd", {5, 5, 5}, noise({5, 5, 5}, static_cast<int>(c)));
  for (int slices : {1, 7, 9, 33}) {
    const Eigen::Vector3i n(17, 15, slices);
    auto ct = ctRamp(n);
    auto src = source(n);
    std::vector<float> results[2];
    for (int t = 0; t < 2; ++t) {
      const int before = omp_get_max_threads();
      omp_set_num_threads(t == 0 ? 1 : 4);
      DoseComputationAlgorithm a(ct.get(), src.get());
      a.kernelsDirectory = folder.path();
      auto dose = runDose(a);
      omp_set_num_threads(before);
      ASSERT_TRUE(dose);
      const auto* p = static_cast<const float*>(dose->mem(0)->data());
      results[t].assign(p, p + n.prod());
    }
    EXPECT_EQ(results[0], results[1]) << slices << " slices";
  }
}

}  // namespace
}  // namespace Merivane
