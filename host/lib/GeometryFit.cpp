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

// Gauss-Newton on the geometric distances from (c, r), each step halved until the cost
// falls; returns the final cost.
template <int N>
double refine(const std::vector<Vec<N>>& points, Vec<N>& c, double& r, bool holdRadius, bool algebraicOnly) {
  const int n = static_cast<int>(points.size());
  double cost = sumOfSquares<N>(points, c, r);
  if (algebraicOnly || n < 2) return cost;
  constexpr int M = N + 1;
  for (int it = 0; it < 30; ++it) {
    Eigen::Matrix<double, M, M> jtj = Eigen::Matrix<double, M, M>::Zero();
    Eigen::Matrix<double, M, 1> jte = Eigen::Matrix<double, M, 1>::Zero();
    for (const auto& p : points) {
      const Vec<N> d = p - c;
      const double len = d.norm();
      Eigen::Matrix<double, M, 1> j;
      // A point on the centre has no defined direction: it pulls on the radius only.
      j.template head<N>() = len > 1e-300 ? Vec<N>(-d / len) : Vec<N>::Zero();
      j(N) = -1.0;
      jtj += j * j.transpose();
      jte += j * (len - r);
    }
    Eigen::Matrix<double, M, 1> step = Eigen::Matrix<double, M, 1>::Zero();
    // A little damping keeps rank-deficient systems (all directions parallel) solvable.
    if (holdRadius) {
      Eigen::Matrix<double, N, N> a = jtj.template topLeftCorner<N, N>();
      a.diagonal().array() += 1e-9 * (a.trace() + 1e-300);
      step.template head<N>() = a.ldlt().solve(-jte.template head<N>());
    } else {
      jtj.diagonal().array() += 1e-9 * (jtj.trace() + 1e-300);
      step = jtj.ldlt().solve(-jte);
    }
    if (!step.allFinite()) break;
    double t = 1.0;
    bool improved = false;
    for (int k = 0; k < 12 && !improved; ++k, t *= 0.5) {
      const Vec<N> c2 = c + t * step.template head<N>();
      const double r2 = holdRadius ? r : r + t * step(N);
      const double cost2 = sumOfSquares<N>(points, c2, r2);
      if (cost2 < cost) {
        const double gain = cost - cost2;
        c = c2;
        r = r2;
        cost = cost2;
        improved = true;
        if (gain <= 1e-15 * (1.0 + cost)) return cost;
      }
    }
    if (!improved || t * step.norm() < 1e-12 * (1.0 + c.norm() + std::abs(r))) break;
  }
  return cost;
}

template <int N>
int fitHypersphere(const std::vector<Vec<N>>& points, Vec<N>& centre, double& radius, bool holdRadius,
                   double* residual, bool algebraicOnly) {
  const int n = static_cast<int>(points.size());
  if (n == 0) return 1;
  if (holdRadius && !(std::isfinite(radius) && radius >= 0.0)) return 2;

  // Algebraic start: unknowns c (N) and k = r^2 - |c|^2, in coordinates centred on the mean
  // (which keeps the normal equations well conditioned far from the origin), solved with
  // minimum norm through the eigen-decomposition of the normal matrix.
  Vec<N> mean = Vec<N>::Zero();
  for (const auto& p : points) mean += p;
  mean /= n;
  constexpr int M = N + 1;
  Eigen::Matrix<double, M, M> ata = Eigen::Matrix<double, M, M>::Zero();
  Eigen::Matrix<double, M, 1> atb = Eigen::Matrix<double, M, 1>::Zero();
  for (const auto& p : points) {
    const Vec<N> q = p - mean;
    Eigen::Matrix<double, M, 1> row;
    row << 2.0 * q, 1.0;
    ata += row * row.transpose();
    atb += row * q.squaredNorm();
  }
  Eigen::SelfAdjointEigenSolver<Eigen::Matrix<double, M, M>> normal(ata);
  Eigen::Matrix<double, M, 1> x = Eigen::Matrix<double, M, 1>::Zero();
  const double largest = normal.eigenvalues()(M - 1);
  for (int k = 0; k < M; ++k) {
    const double l = normal.eigenvalues()(k);
    if (l > 1e-12 * largest && l > 0.0) x += normal.eigenvectors().col(k) * (normal.eigenvectors().col(k).dot(atb) / l);
  }
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

  // Geometric refinement (Gauss-Newton on the distances). With a held radius, points
  // on a line (2D) or in a plane (3D) put the algebraic centre on a saddle of the cost: the
  // fit then also starts from one radius off the points' mean on either side of them.
  std::vector<Vec<N>> starts{c};
  if (holdRadius) {
    Eigen::Matrix<double, N, N> cov = Eigen::Matrix<double, N, N>::Zero();
    for (const auto& p : points) cov += (p - mean) * (p - mean).transpose();
    Eigen::SelfAdjointEigenSolver<Eigen::Matrix<double, N, N>> eig(cov);
    const double spread = eig.eigenvalues()(N - 1);
    if (eig.eigenvalues()(0) <= 1e-6 * spread) {
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
