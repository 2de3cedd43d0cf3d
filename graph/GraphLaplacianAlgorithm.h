#pragma once
// Random-walk segmentation of an image from a seed image: owns the graph and the linear
// system, solves level by level from coarse to fine, and gives a float probability image
// with the geometry of the labels.
#include <Eigen/Core>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "Algorithm.h"
#include "GraphLaplacianIds.h"
#include "Parameter.h"

namespace Merivane {
struct KeptMultigrid;

class GraphLaplacian;
class LinearSolver;
class SharedImage;

class GraphLaplacianAlgorithm : public Algorithm {
 public:
  GraphLaplacianAlgorithm(SharedImage& image, SharedImage& labels, SharedImage* prior = nullptr);
  ~GraphLaplacianAlgorithm() override;

  static bool createCompatible(const DataList& data, Algorithm** algorithm = nullptr);

  void configure(const Properties* properties) override;
  void configuration(Properties* properties) const override;
  void compute() override;
  OwningDataList takeOutput() override;
  // Also finds the parameters of the graph.
  ParameterBase* findParameter(std::string_view key) const override;

  // Assembles the system over the unknowns of the current graph and solves it; the result is
  // indexed like the graph's unknowns. With an invalid solver id, the previous solution.
  Eigen::VectorXf solveLaplace(SharedImage* prior);

  void updateLabels(SharedImage& labels) { labels_ = &labels; }
  // Forgets the warm-start vector and the kept result.
  void reset();
  // Off by default. When on, a successful compute() keeps its solution at the finest level it
  // computed, and the next compute() on labels of the same size with the same levels (and
  // "Re-Use Solution") solves that level alone, starting from the kept solution node by node,
  // instead of going through the coarser levels. The interactive loop turns it on: a
  // correction stroke changes the solution near the stroke only, so the kept solution is
  // already close everywhere else and the coarse levels would only make a worse guess.
  void setKeepResultForWarmStart(bool on);
  bool keepsResultForWarmStart() const { return keepResult_; }
  // Whether the last compute() started from the kept result.
  bool lastComputeWarmStarted() const { return lastWarmStarted_; }
  // Whether its finest solve re-targeted the multigrid hierarchy kept from the run before,
  // rather than setting up its own (the setup is a quarter of a re-run's time).
  bool lastSolveReusedHierarchy() const;
  // Iterations of each level solved by the last compute(), coarse to fine.
  const std::vector<int>& levelIterations() const { return levelIterations_; }
  // Bytes that a solve at the given pyramid level (counted from 1) is expected to hold.
  uint64_t memoryEstimation(int level) const;
  // Whether a label image holds both the object and the background seed label.
  bool checkLabels(SharedImage* labels) const;

  GraphLaplacian& graph() { return *graph_; }
  const Eigen::VectorXf& previousSolution() const { return previousSolution_; }
  void setPreviousSolution(Eigen::VectorXf v) { previousSolution_ = std::move(v); }
  // Creates the solver of a table id, null for an unknown id.
  std::unique_ptr<LinearSolver> createSolver(SolverId id) const;
  // The integer settings by name; values outside the tables come through unchanged.
  SolverId selectedSolver() const { return static_cast<SolverId>(solverId.value()); }
  GraphType selectedGraphType() const { return static_cast<GraphType>(graphType.value()); }
  // What the last solveLaplace did: iterations, the residual |A x - b|, and an algorithm status
  // (success also when the solver stopped above its tolerance, which only warns; an error when
  // the solver id is unknown or the solve failed; canceled).
  int lastIterations() const { return lastIterations_; }
  double lastResidual() const { return lastResidual_; }
  int lastSolveStatus() const { return lastSolveStatus_; }

  Parameter<bool> verbose{"Verbose", true, this};  // info lines of each step
  // 0 pixels, 1 superpixels, 2 and 3 the same with attenuation; another value keeps the graph.
  Parameter<unsigned short> graphType{"Graph Type", 0, this};
  // Pull towards the prior image, at least 0; divided by 10000 in the solve.
  Parameter<float> priorWeight{"Prior Weight", 1.0f, this, ParameterRange::atLeast(0)};
  // Row of the solver table, 0..7; another id is the solve's own "Incorrect solver ID" error.
  Parameter<unsigned short> solverId{"Solver ID", 4, this};
  // Limit of the iterative solvers, at least 1.
  Parameter<int> solverIterations{"Solver Iterations", 200, this, ParameterRange::atLeast(1)};
  // The relative residual at which iterative solvers stop is 10 to this, -38..0.
  Parameter<int> solverToleranceLog{"Solver Tolerance (Log)", -8, this, {-38, 0}};
  Parameter<bool> reuseSolution{"Re-Use Solution", false, this};  // warm start from the last solve
  Parameter<bool> propagateUp{"Propagate Up", true, this};  // upsample the result to full size
  // Finest level computed, counted from 1; above the levels made, the coarsest one is computed.
  Parameter<int> minLevel{"Min Level", 1, this, ParameterRange::atLeast(1)};
  // Pyramid levels requested, at least 1; small images get fewer.
  Parameter<int> numLevels{"Num Levels", 1, this, ParameterRange::atLeast(1)};

 private:
  SharedImage* image_;
  SharedImage* labels_;
  SharedImage* prior_;
  std::unique_ptr<SharedImage> result_;
  std::unique_ptr<SharedImage> outputLabels_;
  std::unique_ptr<GraphLaplacian> graph_;
  Eigen::VectorXf previousSolution_;
  int lastIterations_ = 0;
  double lastResidual_ = 0.0;
  int lastSolveStatus_ = statusSuccess;
  bool keepResult_ = false;
  bool lastWarmStarted_ = false;
  // The last solution at its level, for the warm start.
  std::unique_ptr<SharedImage> keptSolution_;
  int keptLevel_ = -1, keptLevelCount_ = 0;
  // The multigrid hierarchy of the kept solve, with the graph nodes its rows stood for: a
  // re-run re-targets it at the new system instead of setting up a new one.
  void forgetHierarchy();
  std::shared_ptr<KeptMultigrid> keptMultigrid_;
  std::vector<uint64_t> keptUnknowns_;
  size_t keptNodeCount_ = 0;
  bool solveKeepsHierarchy_ = false;  // whether the current solveLaplace uses keptMultigrid_
  std::vector<int> levelIterations_;
  std::function<bool()> canceled_;  // the run's progress task, during compute()
};

}  // namespace Merivane
