#pragma once
// A shape-preserving cubic through samples (x[i], y[i]) with strictly increasing x: piecewise
// cubic Hermite with slopes chosen so that the curve is monotone wherever the samples are, so
// it neither overshoots nor undershoots them (a curve through non-negative samples stays
// non-negative). First derivatives are continuous. Outside the samples it keeps the value of
// the nearest end. One sample gives a constant, two a straight line between them.
#include <vector>

namespace Merivane {

class Curve {
 public:
  // Samples whose x do not increase strictly, or lists of unequal length, give an empty curve.
  Curve(const std::vector<double>& x, const std::vector<double>& y);

  bool empty() const { return x_.empty(); }
  double evaluate(double x) const;
  // The curve at each of `xs`; all 0 for an empty curve.
  std::vector<double> evaluate(const std::vector<double>& xs) const;

 private:
  std::vector<double> x_, y_;
  std::vector<double> slope_;  // first derivatives at the samples
};

}  // namespace Merivane
