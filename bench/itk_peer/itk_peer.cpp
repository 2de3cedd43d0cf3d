// ITK's fast marching and multiscale Hessian objectness on raw float32 volumes (x fastest),
// timed around the filter's Update() alone, for bench/extraction_vs_peers.py:
//   itk_peer march N speed.raw out.raw             front from the centre voxel
//   itk_peer hessian N image.raw out.raw S1 S2 ...  bright tubes, sigmas S1..Sk, with scale
//                                                   normalisation
// Prints {"seconds": ...}.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <vector>

#include "itkFastMarchingImageFilter.h"
#include "itkHessianToObjectnessMeasureImageFilter.h"
#include "itkImage.h"
#include "itkImportImageFilter.h"
#include "itkMultiScaleHessianBasedMeasureImageFilter.h"
#include "itkSymmetricSecondRankTensor.h"

using Image = itk::Image<float, 3>;

static Image::Pointer load(const char* path, int n) {
  auto image = Image::New();
  Image::RegionType region;
  region.SetSize({{static_cast<unsigned>(n), static_cast<unsigned>(n), static_cast<unsigned>(n)}});
  image->SetRegions(region);
  image->Allocate();
  std::ifstream in(path, std::ios::binary);
  in.read(reinterpret_cast<char*>(image->GetBufferPointer()), std::streamsize(sizeof(float)) * n * n * n);
  if (!in) {
    std::fprintf(stderr, "itk_peer: cannot read %s\n", path);
    std::exit(1);
  }
  return image;
}

static void save(const char* path, const Image* image, int n) {
  std::ofstream(path, std::ios::binary)
      .write(reinterpret_cast<const char*>(image->GetBufferPointer()), std::streamsize(sizeof(float)) * n * n * n);
}

int main(int argc, char** argv) {
  if (argc < 5) return 2;
  const std::string mode = argv[1];
  const int n = std::atoi(argv[2]);
  auto input = load(argv[3], n);
  const auto start = std::chrono::steady_clock::now();
  Image::Pointer result;
  if (mode == "march") {
    using March = itk::FastMarchingImageFilter<Image, Image>;
    auto march = March::New();
    march->SetInput(input);
    auto seeds = March::NodeContainer::New();
    March::NodeType node;
    node.SetIndex({{n / 2, n / 2, n / 2}});
    node.SetValue(0.0f);
    seeds->InsertElement(0, node);
    march->SetTrialPoints(seeds);
    march->SetOutputSize(input->GetBufferedRegion().GetSize());
    march->SetStoppingValue(1e30);
    march->Update();
    result = march->GetOutput();
  } else {
    using Hessian = itk::SymmetricSecondRankTensor<double, 3>;
    using HessianImage = itk::Image<Hessian, 3>;
    using Objectness = itk::HessianToObjectnessMeasureImageFilter<HessianImage, Image>;
    using Multi = itk::MultiScaleHessianBasedMeasureImageFilter<Image, HessianImage, Image>;
    auto objectness = Objectness::New();
    objectness->SetBrightObject(true);
    objectness->SetScaleObjectnessMeasure(false);
    objectness->SetObjectDimension(1);
    objectness->SetAlpha(0.5);
    objectness->SetBeta(0.5);
    objectness->SetGamma(5.0);
    auto multi = Multi::New();
    multi->SetInput(input);
    multi->SetHessianToMeasureFilter(objectness);
    std::vector<double> sigmas;
    for (int a = 5; a < argc; ++a) sigmas.push_back(std::atof(argv[a]));
    multi->SetSigmaMinimum(sigmas.front());
    multi->SetSigmaMaximum(sigmas.back());
    multi->SetNumberOfSigmaSteps(static_cast<unsigned>(sigmas.size()));
    multi->SetSigmaStepMethodToEquispaced();
    multi->Update();
    result = multi->GetOutput();
  }
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  save(argv[4], result, n);
  std::printf("{\"seconds\": %.6f}\n", seconds);
  return 0;
}
