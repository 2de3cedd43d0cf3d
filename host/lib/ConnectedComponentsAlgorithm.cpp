#include "ConnectedComponentsAlgorithm.h"

#include <algorithm>
#include <exception>
#include <numeric>
#include <stdexcept>

#include "Log.h"
#include "Progress.h"
#include "SharedImageSet.h"

namespace Merivane {

namespace ConnectedComponents {

namespace {

// Union-find over run indices in which the root of a set is always its smallest member:
// a union points the larger root at the smaller one. Any order of unions therefore gives the
// same roots.
uint32_t findRoot(std::vector<uint32_t>& parent, uint32_t x) {
  while (parent[x] != x) {
    parent[x] = parent[parent[x]];
    x = parent[x];
  }
  return x;
}

void unite(std::vector<uint32_t>& parent, uint32_t a, uint32_t b) {
  a = findRoot(parent, a);
  b = findRoot(parent, b);
  if (a < b)
    parent[b] = a;
  else if (b < a)
    parent[a] = b;
}

}  // namespace

Labeling Labeling::compute(const MemImage& image) {
  Labeling l;
  l.dims_ = image.dimensions();
  const int nx = l.dims_[0], ny = l.dims_[1], nz = l.dims_[2];
  const int64_t rows = static_cast<int64_t>(ny) * nz;
  const int channels = image.channels();
  l.rowStart_.assign(static_cast<size_t>(rows) + 1, 0);

  dispatchPixelType(image.type(), [&](auto tag) {
    using T = decltype(tag);
    const T* p = static_cast<const T*>(image.data());
    auto rowPtr = [&](int64_t r) { return p + static_cast<size_t>(r) * static_cast<size_t>(nx) * channels; };
    // Runs per row, then their places, then the runs themselves: the run order is scan order.
#pragma omp parallel for schedule(static) if (rows >= 64)
    for (int64_t r = 0; r < rows; ++r) {
      const T* row = rowPtr(r);
      int64_t count = 0;
      bool inside = false;
      for (int x = 0; x < nx; ++x) {
        const bool fg = row[static_cast<size_t>(x) * channels] != T(0);
        if (fg && !inside) ++count;
        inside = fg;
      }
      l.rowStart_[static_cast<size_t>(r) + 1] = count;
    }
    std::partial_sum(l.rowStart_.begin(), l.rowStart_.end(), l.rowStart_.begin());
    l.runs_.resize(static_cast<size_t>(l.rowStart_.back()));
#pragma omp parallel for schedule(static) if (rows >= 64)
    for (int64_t r = 0; r < rows; ++r) {
      const T* row = rowPtr(r);
      size_t k = static_cast<size_t>(l.rowStart_[static_cast<size_t>(r)]);
      int x = 0;
      while (x < nx) {
        while (x < nx && !(row[static_cast<size_t>(x) * channels] != T(0))) ++x;
        if (x == nx) break;
        const int x0 = x;
        while (x < nx && row[static_cast<size_t>(x) * channels] != T(0)) ++x;
        l.runs_[k++] = Run{x0, x};
      }
    }
  });

  const size_t n = l.runs_.size();
  if (n > 0xfffffff0u) throw std::length_error("ConnectedComponents: too many runs");
  std::vector<uint32_t> parent(n);
  std::iota(parent.begin(), parent.end(), 0u);
  // Unions between two rows: overlapping x ranges touch through a face.
  auto link = [&](int64_t ra, int64_t rb) {
    size_t a = static_cast<size_t>(l.rowStart_[static_cast<size_t>(ra)]);
    const size_t aEnd = static_cast<size_t>(l.rowStart_[static_cast<size_t>(ra) + 1]);
    size_t b = static_cast<size_t>(l.rowStart_[static_cast<size_t>(rb)]);
    const size_t bEnd = static_cast<size_t>(l.rowStart_[static_cast<size_t>(rb) + 1]);
    while (a < aEnd && b < bEnd) {
      const Run& A = l.runs_[a];
      const Run& B = l.runs_[b];
      if (A.x0 < B.x1 && B.x0 < A.x1) unite(parent, static_cast<uint32_t>(a), static_cast<uint32_t>(b));
      if (A.x1 < B.x1)
        ++a;
      else
        ++b;
    }
  };
  // Within a slice the runs, and so every union, stay among that slice's indices: slices in
  // parallel. Between slices, serially.
#pragma omp parallel for schedule(static) if (nz >= 4 && n >= 4096)
  for (int z = 0; z < nz; ++z)
    for (int y = 1; y < ny; ++y) {
      const int64_t r = static_cast<int64_t>(z) * ny + y;
      link(r - 1, r);
    }
  for (int z = 1; z < nz; ++z)
    for (int y = 0; y < ny; ++y) {
      const int64_t r = static_cast<int64_t>(z) * ny + y;
      link(r - ny, r);
    }

  // A root is the smallest run of its component, so numbering roots in run order numbers the
  // components in scan order of their first voxels.
  l.component_.resize(n);
  for (size_t i = 0; i < n; ++i) {
    const uint32_t root = findRoot(parent, static_cast<uint32_t>(i));
    if (root == i) {
      l.component_[i] = static_cast<uint32_t>(l.sizes_.size());
      l.sizes_.push_back(0);
    } else {
      l.component_[i] = l.component_[root];
    }
    l.sizes_[l.component_[i]] += static_cast<uint64_t>(l.runs_[i].x1 - l.runs_[i].x0);
  }
  return l;
}

std::vector<uint32_t> Labeling::select(int numComponents, uint64_t minSize) const {
  std::vector<uint32_t> order(sizes_.size());
  std::iota(order.begin(), order.end(), 0u);
  std::stable_sort(order.begin(), order.end(), [&](uint32_t a, uint32_t b) { return sizes_[a] > sizes_[b]; });
  std::vector<uint32_t> rank(sizes_.size(), 0);
  uint32_t kept = 0;
  for (uint32_t c : order) {
    if (sizes_[c] < minSize) break;  // sorted: all further ones are smaller still
    if (numComponents > 0 && kept >= static_cast<uint32_t>(numComponents)) break;
    rank[c] = ++kept;
  }
  return rank;
}

void Labeling::paint(MemImage& out, const std::vector<uint32_t>& value) const {
  const int nx = dims_[0];
  const int64_t rows = static_cast<int64_t>(dims_[1]) * dims_[2];
  const int channels = out.channels();
  dispatchPixelType(out.type(), [&](auto tag) {
    using T = decltype(tag);
    T* p = static_cast<T*>(out.data());
#pragma omp parallel for schedule(static) if (rows >= 64)
    for (int64_t r = 0; r < rows; ++r) {
      T* row = p + static_cast<size_t>(r) * static_cast<size_t>(nx) * channels;
      for (int x = 0; x < nx; ++x) row[static_cast<size_t>(x) * channels] = T(0);
      for (int64_t k = rowStart_[static_cast<size_t>(r)]; k < rowStart_[static_cast<size_t>(r) + 1]; ++k) {
        const Run& run = runs_[static_cast<size_t>(k)];
        const T v = static_cast<T>(value[component_[static_cast<size_t>(k)]]);
        for (int x = run.x0; x < run.x1; ++x) row[static_cast<size_t>(x) * channels] = v;
      }
    }
  });
}

std::vector<int64_t> Labeling::componentImage() const {
  std::vector<int64_t> out(static_cast<size_t>(dims_.cast<int64_t>().prod()), -1);
  const int64_t rows = static_cast<int64_t>(dims_[1]) * dims_[2];
  for (int64_t r = 0; r < rows; ++r)
    for (int64_t k = rowStart_[static_cast<size_t>(r)]; k < rowStart_[static_cast<size_t>(r) + 1]; ++k)
      for (int x = runs_[static_cast<size_t>(k)].x0; x < runs_[static_cast<size_t>(k)].x1; ++x)
        out[static_cast<size_t>(r * dims_[0] + x)] = component_[static_cast<size_t>(k)];
  return out;
}

}  // namespace ConnectedComponents

namespace {
constexpr const char* kCategory = "ConnectedComponentsAlgorithm";
}

ConnectedComponentsAlgorithm::ConnectedComponentsAlgorithm(SharedImageSet* image) : image_(image) {
  numComponents.setLabel("Number of components (0: all)");
  minSize.setLabel("Minimum size in voxels");
  labelComponents.setLabel("Label components by size");
}

ConnectedComponentsAlgorithm::~ConnectedComponentsAlgorithm() = default;

bool ConnectedComponentsAlgorithm::createCompatible(const DataList& data, Algorithm** algorithm) {
  SharedImageSet* set = data.getImage();
  if (data.size() != 1 || !set || set->empty()) return false;
  for (int i = 0; i < set->size(); ++i)
    if (!set->img(i) || set->img(i)->channels() != 1) return false;
  if (algorithm) *algorithm = new ConnectedComponentsAlgorithm(set);
  return true;
}

void ConnectedComponentsAlgorithm::compute() {
  setStatus(statusUnknown);
  output_.reset();
  if (!validateParameters(kCategory)) return;
  if (!image_ || image_->empty()) {
    LOG_ERROR(kCategory, "No image to label.");
    setStatus(statusInvalidInput);
    return;
  }
  try {
    auto out = std::make_unique<SharedImageSet>();
    for (int f = 0; f < image_->size(); ++f) {
      if (progress_ && progress_->isCanceled()) {
        setStatus(statusCanceled);
        return;
      }
      const MemImage* mem = image_->mem(f);
      if (!mem || mem->type() == F16) {
        LOG_ERROR(kCategory, "Frame " << f << " has no memory copy of a known pixel type.");
        setStatus(statusInvalidInput);
        return;
      }
      const auto labeling = ConnectedComponents::Labeling::compute(*mem);
      std::vector<uint32_t> value = labeling.select(numComponents, minSize);
      const uint32_t kept = value.empty() ? 0 : *std::max_element(value.begin(), value.end());
      PixelType type = U8;
      if (labelComponents) {
        if (kept > 65535)
          type = U32;
        else if (kept > 255)
          type = U16;
      } else {
        for (uint32_t& v : value) v = v ? 255u : 0u;
      }
      ImageDescriptor d(type, mem->dimensions(), 1);
      d.spacing = mem->spacing();
      d.isMetric = mem->isMetric();
      std::shared_ptr<MemImage> labels = MemImage::create(d, false);
      labeling.paint(*labels, value);
      auto frame = std::make_shared<SharedImage>(std::shared_ptr<Image>(labels));
      frame->setMatrix(image_->get(f)->matrix());
      frame->setModality(Data::LABEL);
      out->add(frame);
    }
    out->setModality(Data::LABEL);
    out->setName(image_->name().empty() ? "Components" : image_->name() + " components");
    output_ = std::move(out);
    setStatus(statusSuccess);
  } catch (const std::exception& e) {
    LOG_ERROR(kCategory, "Connected components failed: " << e.what());
    setStatus(statusError);
  }
}

OwningDataList ConnectedComponentsAlgorithm::takeOutput() {
  OwningDataList out;
  if (output_) out.add(std::move(output_));
  return out;
}

}  // namespace Merivane
