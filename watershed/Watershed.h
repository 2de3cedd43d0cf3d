#pragma once
// Marker-driven watershed flooding of one-byte images, and the quantisation that produces such
// an image from any scalar image.
//
// The flooding works in integer grey levels: a frame of 255 around the region replaces all
// bounds tests; the voxels next to seeds are queued; 256 FIFO queues, one per priority (the
// largest channel difference to the neighbour that reached a voxel), are emptied lowest first,
// a popped voxel taking the label of its labelled neighbours or becoming a line where two
// labels meet; a final parallel pass gives every unlabelled voxel of the region the label of
// its most similar labelled neighbour.
//
// Label values in the seed/result image: 0 not yet reached, 1 to 253 a seed or label, 254
// queued, 255 a watershed line or the frame around the region.
#include <Eigen/Core>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include "Image.h"

namespace Merivane {

class Progress;

namespace Watershed {

// One entry of the flooding queues. Node 0 is a sentinel and never handed out; free nodes are
// chained through `next`.
struct WSNode {
  // Left unset: allocWSNodes links every new node, and a node gets its position when queued.
  WSNode() {}
  WSNode(uint32_t next, int32_t pos) : next(next), pos(pos) {}
  uint32_t next;  // index of the following node, 0 for none
  int32_t pos;    // linear voxel index, relative to the first voxel of the region
};
static_assert(sizeof(WSNode) == 8);

// Grows `nodes` to 3/2 of its size (at least 128 entries), chains the new entries in ascending
// order with the last one ending the chain, and returns the first of them. Index 0 is skipped
// when the vector was empty.
uint32_t allocWSNodes(std::vector<WSNode>& nodes);

// Floods `seeds` in place from its labels (1 to 253) over `source`, which has the same
// dimensions and any number of interleaved channels; the priority of a step is the largest
// channel difference between the two voxels. Only the region [roiMin, roiMax] (inclusive,
// sorted per axis, clipped to the image; roiMin == roiMax means the whole image) is read and
// written: its outer shell is overwritten first and filled from the inside at the end, so seeds
// on the shell are lost. Every voxel of the region ends up labelled, or 0 where no label
// reaches. Returns false when cancelled through `progress` (the seeds are then half done), or
// when the images do not fit together or the region spans 2^31 voxel indices or more.
bool run(const TypedImage<unsigned char>& source, TypedImage<unsigned char>& seeds, Progress* progress,
         Eigen::Vector3i roiMin, Eigen::Vector3i roiMax);

// Maps [level - window/2, level + window/2] of the original values linearly onto 0..255, per
// element, keeping dimensions, channels and spacing. Values at or above the window's top and
// NaN give 255. Null for pixel types other than I8, U8, I16, U16, I32, U32, F32 and F64.
std::unique_ptr<TypedImage<unsigned char>> quantizeAndBakeWindowLevel(const MemImage& image, double window,
                                                                      double level);

// Window and level (physical units) that span the frame's stored range: the quantisation of an
// image without display options.
std::pair<double, double> rangeWindowLevel(const MemImage& frame);

// True when the image holds at least two different labels (values 1 to 253).
bool seedsValid(const TypedImage<unsigned char>& seeds);

}  // namespace Watershed
}  // namespace Merivane
