#include "Curve.h"

#include <algorithm>
#include <cmath>

namespace Merivane {

Curve::Curve(const std::vector<double>& x, const std::vector<double>& y) {
  if (x.size() != y.size() || x.empty()) return;
  for (size_t i = 1; i < x.size(); ++i)
    if (!(x[i] > x[i - 1])) return;
  x_ = x;
  y_ = y;
  const size_t n = x.size();
  slope_.assign(n, 0.0);
  if (n == 1) return;
  std::vector<double> h(n - 1), delta(n - 1);
  for (size_t i = 0; i + 1 < n; ++i) {
    h[i] = x[i + 1] - x[i];
    delta[i] = (y[i + 1] - y[i]) / h[i];
  }
  if (n == 2) {
    slope_[0] = slope_[1] = delta[0];
    return;
  }
  // Inner slopes: weighted harmonic mean of the neighbouring secants, 0 at a local extremum
  // (Fritsch and Butland), which keeps every segment monotone.
  for (size_t i = 1; i + 1 < n; ++i) {
    if (delta[i - 1] * delta[i] <= 0.0) continue;
    const double w1 = 2.0 * h[i] + h[i - 1], w2 = h[i] + 2.0 * h[i - 1];
    slope_[i] = (w1 + w2) / (w1 / delta[i - 1] + w2 / delta[i]);
  }
  // End slopes: the one-sided three-point estimate, limited so that it cannot overshoot.
  const auto endSlope = [](double h0, double h1, double d0, double d1) {
    double s = ((2.0 * h0 + h1) * d0 - h0 * d1) / (h0 + h1);
    if (s * d0 <= 0.0) return 0.0;
    if (d0 * d1 <= 0.0 && std::abs(s) > 3.0 * std::abs(d0)) s = 3.0 * d0;
    return s;
  };
  slope_[0] = endSlope(h[0], h[1], delta[0], delta[1]);
  slope_[n - 1] = endSlope(h[n - 2], h[n - 3], delta[n - 2], delta[n - 3]);
}

double Curve::evaluate(double x) const {
  const size_t n = x_.size();
  if (n == 0) return 0.0;
  if (x <= x_[0]) return y_[0];
  if (x >= x_[n - 1]) return y_[n - 1];
  const size_t i = static_cast<size_t>(std::upper_bound(x_.begin(), x_.end(), x) - x_.begin()) - 1;
  const double h = x_[i + 1] - x_[i];
  const double t = (x - x_[i]) / h, t2 = t * t, t3 = t2 * t;
  return (2 * t3 - 3 * t2 + 1) * y_[i] + (t3 - 2 * t2 + t) * h * slope_[i] + (-2 * t3 + 3 * t2) * y_[i + 1] +
         (t3 - t2) * h * slope_[i + 1];
}

std::vector<double> Curve::evaluate(const std::vector<double>& xs) const {
  std::vector<double> out(xs.size());
  for (size_t k = 0; k < xs.size(); ++k) out[k] = evaluate(xs[k]);
  return out;
}

}  // namespace Merivane
