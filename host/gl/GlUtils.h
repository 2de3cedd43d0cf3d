#pragma once
// Conversions between the values an image stores and the values fragment programs see.
//
// Programs read integer textures as integers and normalise them the way GL normalises
// unsigned and signed formats: value - offset over the type's range, so that an unsigned
// type spans 0..1 and a signed one too (its minimum maps to 0). Float textures are read as
// they are: their "normalised" value is the stored one. GL::ImageProgram::genericSamplerDefine
// hands a program the same offset and range, so a threshold converted here compares with
// what the program computes from the texel.
namespace Merivane {
struct ImageDescriptor;
}

namespace Merivane::GlUtils {

// The stored value `storage` of an image of descriptor `d` as its texture's programs see it.
double storageToNormalized(double storage, const ImageDescriptor& d);
double normalizedToStorage(double normalized, const ImageDescriptor& d);

// The offset and range of that normalisation (0 and 1 for float types).
struct Normalization {
  double offset = 0.0;
  double range = 1.0;
  bool integer = false;  // whether the texture holds whole stored values
};
Normalization normalization(const ImageDescriptor& d);

}  // namespace Merivane::GlUtils
