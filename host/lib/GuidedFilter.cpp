#include "GuidedFilter.h"

#include <memory>

#include "Image.h"
#include "ImageProcessing.h"

namespace Merivane {

bool GuidedFilter::compute(const MemImage& in, MemImage& out) const {
  const MemImage& guide = guide_ ? *guide_ : in;
  if (size_ < 1 || in.channels() != 1 || guide.channels() != 1 || out.channels() != 1) return false;
  if (guide.dimensions() != in.dimensions() || out.dimensions() != in.dimensions()) return false;
  const ImageDescriptor desc(F64, in.dimensions(), 1);
  const int sz = in.slices() > 1 ? size_ : 1;
  const auto box = [&](const TypedImage<double>& src) {
    auto dst = TypedImage<double>::create(desc);
    Filters::boxFilter3d(&src, dst.get(), size_, size_, sz);
    return dst;
  };
  const auto asDouble = [&](const MemImage& m) {
    auto d = TypedImage<double>::create(desc);
    dispatchPixelType(m.type(), [&](auto tag) {
      using T = decltype(tag);
      const T* p = static_cast<const T*>(m.data());
      for (size_t i = 0; i < desc.elementCount(); ++i) d->pointer()[i] = static_cast<double>(p[i]);
    });
    return d;
  };
  const size_t n = desc.elementCount();
  auto I = asDouble(guide), P = asDouble(in);
  auto II = TypedImage<double>::create(desc), IP = TypedImage<double>::create(desc);
  for (size_t i = 0; i < n; ++i) {
    II->pointer()[i] = I->pointer()[i] * I->pointer()[i];
    IP->pointer()[i] = I->pointer()[i] * P->pointer()[i];
  }
  auto meanI = box(*I), meanP = box(*P), corrII = box(*II), corrIP = box(*IP);
  // a and b per box, reusing the correlation images.
  TypedImage<double>& a = *corrII;
  TypedImage<double>& b = *corrIP;
  for (size_t i = 0; i < n; ++i) {
    const double mi = meanI->pointer()[i], mp = meanP->pointer()[i];
    const double var = corrII->pointer()[i] - mi * mi, cov = corrIP->pointer()[i] - mi * mp;
    a.pointer()[i] = cov / (var + epsilon_);
    b.pointer()[i] = mp - a.pointer()[i] * mi;
  }
  auto meanA = box(a), meanB = box(b);
  for (size_t i = 0; i < n; ++i) P->pointer()[i] = meanA->pointer()[i] * I->pointer()[i] + meanB->pointer()[i];
  dispatchPixelType(out.type(), [&](auto tag) {
    using T = decltype(tag);
    T* o = static_cast<T*>(out.data());
    for (size_t i = 0; i < n; ++i) o[i] = static_cast<T>(P->pointer()[i]);
  });
  return true;
}

}  // namespace Merivane
