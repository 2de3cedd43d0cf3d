#pragma once
// Iso-lines of a 2D grid. Each cell (x, y)..(x+1, y+1) is classified by which corners lie
// strictly above the iso-value; one segment crosses an ordinary cell, two an ambiguous one
// (resolved by the mean of the four corners). Segments are chained into polylines, a closed
// one without repeating its first point; an open one runs from border to border. A crossing
// that falls on a sample shared by two edges appears once. Traced at 0, a 0/1 mask gives the
// curve through the centres of the outermost background samples: a lone sample gives four
// points, and two samples that touch only at a corner share one curve (the ambiguous cell's
// mean lies above 0). Sample (x, y) maps to origin + (x, y) * spacing (elementwise).
// Polylines come out in the order of their lowest cell, which does not depend on threads.
#include <Eigen/Core>
#include <vector>

namespace Merivane::MarchingSquares {

using Polyline = std::vector<Eigen::Vector2d>;

// Appends polylines to `out`. `data` holds width * height samples, x fastest. Nothing for a
// grid narrower or lower than 2. Instantiated for float and const unsigned char.
// `closed`, when given, receives one flag per polyline appended.
template <typename T>
void run(T* data, int width, int height, double isoValue, std::vector<Polyline>& out,
         const Eigen::Vector2d& origin = Eigen::Vector2d::Zero(),
         const Eigen::Vector2d& spacing = Eigen::Vector2d::Ones(), std::vector<bool>* closed = nullptr);

}  // namespace Merivane::MarchingSquares
