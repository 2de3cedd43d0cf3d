#include "GeometryFit.h"

#include <Eigen/Dense>
#include <cmath>
#include <limits>

namespace Merivane::Geometry {

namespace {

template <int N>
using Vec = Eigen::Matrix<double, N, 1>;

template <int N>
double sumOfSquares(const std::vector<Vec<N>>& points, const Vec<N>& c, double r) {
  double s = 0.0;
  for (const auto& p : points) {
    const double e = (p - c).norm() - r;
    s += e * e;
  }
  return s;
}

// Damped Gauss-Newton on the geometric distances from (c, r); returns the final cost.
template <int N>
double refine(const std::vector<Vec<N>>& points, Vec<N>& c, double& r, bool holdRadius, bool algebraicOnly) {
  const int n = static_cast<int>(points.size());
  double cost = sumOfSquares<N>(points, c, r);
  if (algebraicOnly || n < 2) return cost;
  constexpr int M = N + 1;
  double lambda = 1e-3;
  for (int it = 0; it < 50; ++it) {
    Eigen::Matrix<double, M, M> jtj = Eigen::Matrix<double, M, M>::Zero();
    Eigen::Matrix<double, M, 1> jte = Eigen::Matrix<double, M, 1>::Zero();
    for (const auto& p : points) {
      const Vec<N> d = p - c;
      const double len = d.norm();
      Eigen::Matrix<double, M, 1> j;
      // A point on the centre has no defined direction: it pulls on the radius only.
      j.template head<N>() = len > 1e-300 ? Vec<N>(-d / len) : Vec<N>::Zero();
      j(N) = -1.0;
      const double e = len - r;
      jtj += j * j.transpose();
      jte += j * e;
    }
    if (holdRadius) {
      jtj.row(N).setZero();
      jtj.col(N).setZero();
      jtj(N, N) = 1.0;
      jte(N) = 0.0;
    }
    bool improved = false;
    Eigen::Matrix<double, M, 1> step = Eigen::Matrix<double, M, 1>::Zero();
    while (lambda < 1e12) {
      Eigen::Matrix<double, M, M> damped = jtj;
      damped.diagonal() += lambda * (jtj.diagonal().array() + 1e-12).matrix();
      step = damped.ldlt().solve(-jte);
      if (!step.allFinite()) break;
      const Vec<N> c2 = c + step.template head<N>();
      const double r2 = holdRadius ? r : r + step(N);
      const double cost2 = sumOfSquares<N>(points, c2, r2);
      if (cost2 <= cost) {
        c = c2;
        r = r2;
        cost = cost2;
        lambda = std::max(lambda * 0.1, 1e-12);
        improved = true;
        break;
      }
      lambda *= 10.0;
    }
    if (!improved || step.norm() < 1e-12 * (1.0 + c.norm() + std::abs(r))) break;
  }
  return cost;
}

template <int N>
int fitHypersphere(const std::vector<Vec<N>>& points, Vec<N>& centre, double& radius, bool holdRadius,
                   double* residual, bool algebraicOnly) {
  const int n = static_cast<int>(points.size());
  if (n == 0) return 1;
  if (holdRadius && !(std::isfinite(radius) && radius >= 0.0)) return 2;

  // Algebraic start: unknowns c (N) and k = r^2 - |c|^2.
  Eigen::MatrixXd a(n, N + 1);
  Eigen::VectorXd b(n);
  Vec<N> mean = Vec<N>::Zero();
  for (const auto& p : points) mean += p;
  mean /= n;
  // Centred coordinates keep the normal equations well conditioned far from the origin.
  for (int i = 0; i < n; ++i) {
    const Vec<N> q = points[static_cast<size_t>(i)] - mean;
    a.row(i).head<N>() = 2.0 * q.transpose();
    a(i, N) = 1.0;
    b(i) = q.squaredNorm();
  }
  Eigen::VectorXd x = a.completeOrthogonalDecomposition().solve(b);
  Vec<N> c = mean + x.template head<N>();
  double r = 0.0;
  if (!c.allFinite()) c = mean;
  if (holdRadius) {
    r = radius;
  } else {
    const double r2 = x(N) + x.template head<N>().squaredNorm();
    if (std::isfinite(r2) && r2 > 0.0) {
      r = std::sqrt(r2);
    } else {
      for (const auto& p : points) r += (p - c).norm();
      r /= n;
    }
  }

  // Geometric refinement (Levenberg-Marquardt on the distances). With a held radius, points
  // on a line (2D) or in a plane (3D) put the algebraic centre on a saddle of the cost: the
  // fit then also starts from one radius off the points' mean on either side of them.
  std::vector<Vec<N>> starts{c};
  if (holdRadius && n >= 1) {
    Eigen::Matrix<double, N, N> cov = Eigen::Matrix<double, N, N>::Zero();
    for (const auto& p : points) cov += (p - mean) * (p - mean).transpose();
    Eigen::SelfAdjointEigenSolver<Eigen::Matrix<double, N, N>> eig(cov);
    const double spread = eig.eigenvalues()(N - 1);
    if (n <= N + 1 || eig.eigenvalues()(0) <= 1e-6 * spread) {
      const Vec<N> normal = eig.eigenvectors().col(0);
      starts.push_back(mean + r * normal);
      starts.push_back(mean - r * normal);
    }
  }
  double cost = std::numeric_limits<double>::infinity();
  Vec<N> bestCentre = c;
  double bestRadius = r;
  for (const Vec<N>& start : starts) {
    Vec<N> cs = start;
    double rs = r;
    const double cs2 = refine<N>(points, cs, rs, holdRadius, algebraicOnly);
    if (cs2 < cost) {
      cost = cs2;
      bestCentre = cs;
      bestRadius = rs;
    }
  }
  c = bestCentre;
  r = bestRadius;
  if (!holdRadius && r < 0.0) r = -r;
  if (!c.allFinite() || !std::isfinite(r) || !std::isfinite(cost)) return 3;
  centre = c;
  radius = r;
  if (residual) *residual = std::sqrt(cost / n);
  return 0;
}

}  // namespace

int fitCircle(const std::vector<Vec2d>& points, Vec2d& centre, double& radius, bool* fixedRadius, double* residual,
              bool algebraicOnly) {
  return fitHypersphere<2>(points, centre, radius, fixedRadius && *fixedRadius, residual, algebraicOnly);
}

int fitSphere(const std::vector<Vec3d>& points, Vec3d& centre, double& radius, bool* fixedRadius,
              double* residual) {
  return fitHypersphere<3>(points, centre, radius, fixedRadius && *fixedRadius, residual, false);
}

}  // namespace Merivane::Geometry
