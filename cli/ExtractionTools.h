#pragma once
// Algorithms of the plug-in that its factory leaves out (other algorithms create them, or a
// program constructs them directly), made runnable by name from the command line:
// "Seg.HessianAnalysis", "Seg.BrainVesselSegmentation", "Seg.GraphLaplacian" (the random walk
// with any graph type) and "Seg.MorphologicalInterpolation", under the menu "Tools".
namespace Merivane::Cli {

// Adds the command line's own factory to the registry; call once, after the plug-in is loaded
// so that its rows come first.
void registerExtractionTools();

}  // namespace Merivane::Cli
