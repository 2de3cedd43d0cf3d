#pragma once
// Shape interpolation between two binary 2D masks by geodesic morphing, on plain buffers.
//
// Passes: the masks' centres of mass (rounded to whole pixels) are brought together halfway;
// components of one shifted mask that overlap nothing in the other shrink to their centre of
// mass; the intersection then grows by repeated dilation with a Euclidean ball of radius r,
// clipped to each shifted mask in turn, until it fills that mask. Step k of the growth towards
// the first mask unites with step n of the growth towards the second along a path from the
// first mask (n = 0) to the second (n = N), and the median shape is the one equally far from
// both masks in differing pixels. Frames between the masks are taken from that path and moved
// back along the centre displacement.
//
// The growths are stored as one arrival step per pixel, not as a sequence of images: a pixel
// of the mask arrives at step k when it lies within r of a pixel that arrived at step k - 1, so
// each pixel spreads its ball once and every path shape is a threshold of the two step maps.
// The distance of each path shape to the masks is read off cumulative histograms of the step
// pairs, so the median search costs one pass over the pixels whatever the path length.
//
// Shifts sample the nearest pixel with halves rounded away from zero, and pixels that fall
// outside the grid become 0, as the host's resampling onto a reference grid does.
#include <cstddef>
#include <cstdint>
#include <vector>

namespace Merivane::Seg {

// A binary 2D mask, x fastest; any non-zero value is inside.
struct BinaryMask {
  int width = 0;
  int height = 0;
  std::vector<uint8_t> pixels;

  BinaryMask() = default;
  BinaryMask(int w, int h) : width(w), height(h), pixels(static_cast<size_t>(w) * h, 0) {}
  uint8_t& at(int x, int y) { return pixels[static_cast<size_t>(y) * width + x]; }
  uint8_t at(int x, int y) const { return pixels[static_cast<size_t>(y) * width + x]; }
  bool operator==(const BinaryMask& o) const = default;
};

namespace MorphInterpolation {

struct Centre {
  int x = 0, y = 0;
};

// Mean x and y of the non-zero pixels, each rounded by adding 0.5 and truncating; false for
// an empty mask.
bool centreOfMass(const BinaryMask& mask, Centre& centre);

// out(x) = in(x + shift), nearest pixel; the content moves by -shift (in pixels).
BinaryMask shifted(const BinaryMask& mask, double shiftX, double shiftY);

// What interpolate() passes through on its way, for inspection.
struct Trace {
  int displacementX = 0, displacementY = 0;  // centre of the second minus the first, in pixels
  BinaryMask shiftedFirst, shiftedSecond, intersection;
  std::vector<BinaryMask> towardsFirst;   // growth steps clipped to the first shifted mask
  std::vector<BinaryMask> towardsSecond;  // and to the second
  std::vector<BinaryMask> firstToSecond;  // the path searched for the median
  std::vector<long long> differences;     // per path shape, |d1 - d2|
  int median = 0;
};

// `count` shapes between `first` and `second` (same size, both non-empty), in order from the
// first to the second. Empty when the masks are empty, of different sizes, count < 1 or
// radius < 1. With `trace`, the path and growth images are kept as well; without, no image
// per step is ever made.
std::vector<BinaryMask> interpolate(const BinaryMask& first, const BinaryMask& second, int count, int radius,
                                    Trace* trace = nullptr);

}  // namespace MorphInterpolation
}  // namespace Merivane::Seg
