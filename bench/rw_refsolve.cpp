// Tight double-precision solves for bench/rw_vs_skimage.py: conjugate gradients with an
// aggregation multigrid preconditioner to a relative residual of 1e-8 (or 4000 iterations:
// systems with weights spanning ten orders of magnitude stall near there in double precision).
//   rw_refsolve ours W H D image.f32 seeds.u8 out.f32     our system, probability image out
//   rw_refsolve dump W H D image.f32 seeds.u8 prefix     our system as CSR files, for solver experiments
//   rw_refsolve csr N NNZ indptr.i32 indices.i32 data.f64 rhs.f64 out.f64   any SPD system
#include <Eigen/IterativeLinearSolvers>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "AggregationAMG.h"
#include "GraphLaplacianImage.h"
#include "SharedImage.h"
#include "SystemReduction.h"

using namespace Merivane;

template <typename T>
static std::vector<T> readRaw(const char* path, size_t n) {
  std::vector<T> v(n);
  std::ifstream in(path, std::ios::binary);
  in.read(reinterpret_cast<char*>(v.data()), static_cast<std::streamsize>(n * sizeof(T)));
  if (!in) {
    std::fprintf(stderr, "rw_refsolve: cannot read %s\n", path);
    std::exit(1);
  }
  return v;
}

static Eigen::VectorXd tightSolve(const Eigen::SparseMatrix<double>& A, const Eigen::VectorXd& b) {
  Eigen::ConjugateGradient<Eigen::SparseMatrix<double>, Eigen::Lower | Eigen::Upper, AggregationAMG<double>> cg;
  cg.setTolerance(1e-8);
  cg.setMaxIterations(4000);
  cg.compute(A);
  std::fprintf(stderr, "rw_refsolve: multigrid levels");
  for (int s : cg.preconditioner().levelSizes()) std::fprintf(stderr, " %d", s);
  std::fprintf(stderr, "\n");
  Eigen::VectorXd x = cg.solve(b);
  std::fprintf(stderr, "rw_refsolve: %ld iterations, estimated error %.3g\n", static_cast<long>(cg.iterations()),
               cg.error());
  return x;
}

// The random-walk graph of the raw image and seeds named by argv[2..6] (W H D image seeds). The
// images die on return: only the graph's matrix and seed lists are used afterwards.
static void buildGraph(char** argv, GraphLaplacianImage& g) {
  const Eigen::Vector3i dims(std::atoi(argv[2]), std::atoi(argv[3]), std::atoi(argv[4]));
  const size_t n = size_t(dims[0]) * dims[1] * dims[2];
  auto image = TypedImage<float>::zeros(dims, 1);
  auto seeds = TypedImage<unsigned char>::zeros(dims, 1);
  auto img = readRaw<float>(argv[5], n);
  auto lab = readRaw<unsigned char>(argv[6], n);
  std::memcpy(image->pointer(), img.data(), n * sizeof(float));
  std::memcpy(seeds->pointer(), lab.data(), n);
  SharedImage si(std::shared_ptr<Image>(std::move(image)));
  SharedImage sl(std::shared_ptr<Image>(std::move(seeds)));
  g.generateGraph(si, sl);
}

int main(int argc, char** argv) {
  if (argc >= 8 && std::strcmp(argv[1], "ours") == 0) {
    const size_t n = size_t(std::atoi(argv[2])) * std::atoi(argv[3]) * std::atoi(argv[4]);
    GraphLaplacianImage g;
    buildGraph(argv, g);
    auto sys = reduceSystem(g.laplacian(), g.seedIndices(), g.unknownIndices(), g.seedValues());
    Eigen::VectorXd x = tightSolve(sys.A.cast<double>(), sys.b.cast<double>());
    std::vector<float> out(n);
    for (size_t k = 0; k < g.unknownIndices().size(); ++k) out[g.unknownIndices()[k]] = static_cast<float>(x[k]);
    for (size_t k = 0; k < g.seedIndices().size(); ++k) out[g.seedIndices()[k]] = g.seedValues()[k];
    std::ofstream(argv[7], std::ios::binary).write(reinterpret_cast<const char*>(out.data()),
                                                   static_cast<std::streamsize>(n * sizeof(float)));
    return 0;
  }
  if (argc >= 8 && std::strcmp(argv[1], "dump") == 0) {
    GraphLaplacianImage g;
    buildGraph(argv, g);
    auto sys = reduceSystem(g.laplacian(), g.seedIndices(), g.unknownIndices(), g.seedValues());
    sys.A.makeCompressed();
    const std::string prefix = argv[7];
    auto put = [&](const char* suffix, const void* p, size_t bytes) {
      std::ofstream(prefix + suffix, std::ios::binary).write(static_cast<const char*>(p), static_cast<std::streamsize>(bytes));
    };
    const size_t rows = static_cast<size_t>(sys.A.rows()), nnz = static_cast<size_t>(sys.A.nonZeros());
    put(".indptr.i32", sys.A.outerIndexPtr(), (rows + 1) * sizeof(int));
    put(".indices.i32", sys.A.innerIndexPtr(), nnz * sizeof(int));
    put(".data.f32", sys.A.valuePtr(), nnz * sizeof(float));
    put(".rhs.f32", sys.b.data(), rows * sizeof(float));
    std::printf("%zu %zu\n", rows, nnz);
    return 0;
  }
  if (argc >= 9 && std::strcmp(argv[1], "csr") == 0) {
    const size_t n = std::strtoull(argv[2], nullptr, 10), nnz = std::strtoull(argv[3], nullptr, 10);
    auto indptr = readRaw<int>(argv[4], n + 1);
    auto indices = readRaw<int>(argv[5], nnz);
    auto data = readRaw<double>(argv[6], nnz);
    auto rhs = readRaw<double>(argv[7], n);
    // A symmetric CSR matrix is its own CSC.
    Eigen::Map<const Eigen::SparseMatrix<double>> A(static_cast<Eigen::Index>(n), static_cast<Eigen::Index>(n),
                                                    static_cast<Eigen::Index>(nnz), indptr.data(), indices.data(),
                                                    data.data());
    Eigen::VectorXd x = tightSolve(Eigen::SparseMatrix<double>(A), Eigen::Map<const Eigen::VectorXd>(rhs.data(), n));
    std::ofstream(argv[8], std::ios::binary).write(reinterpret_cast<const char*>(x.data()),
                                                   static_cast<std::streamsize>(n * sizeof(double)));
    return 0;
  }
  std::fprintf(stderr, "usage: see the comment at the top of rw_refsolve.cpp\n");
  return 2;
}
