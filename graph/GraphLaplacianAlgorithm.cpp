#include "GraphLaplacianAlgorithm.h"

#include <chrono>
#include <cmath>
#include <optional>

#include "GraphLaplacianImage.h"
#include "GraphLaplacianSuperpixels.h"
#include "ImageProcessing.h"
#include "ImagePyramid.h"
#include "LinearSolver.h"
#include "LabelMap.h"
#include "Log.h"
#include "Progress.h"
#include "SharedImageSet.h"
#include "SystemReduction.h"

namespace Merivane {

namespace {

// For each node of `before` (ascending), its place in `after` (ascending), or -1.
std::vector<int> newPlacesOf(const std::vector<uint64_t>& before, const std::vector<uint64_t>& after) {
  std::vector<int> places(before.size(), -1);
  size_t j = 0;
  for (size_t i = 0; i < before.size(); ++i) {
    while (j < after.size() && after[j] < before[i]) ++j;
    if (j < after.size() && after[j] == before[i]) places[i] = static_cast<int>(j);
  }
  return places;
}

constexpr const char* kCategory = "Seg.GraphLaplacianAlgorithm";

using Clock = std::chrono::steady_clock;
double msSince(Clock::time_point t) { return std::chrono::duration<double, std::milli>(Clock::now() - t).count(); }

// Null for a type outside the table.
std::unique_ptr<GraphLaplacian> createGraph(GraphType type) {
  switch (type) {
    case GraphType::Image: return std::make_unique<GraphLaplacianImage>();
    case GraphType::ImageAttenuation: return std::make_unique<GraphLaplacianImageAttenuation>();
    case GraphType::Superpixels: return std::make_unique<GraphLaplacianSuperpixels>();
    case GraphType::SuperpixelsAttenuation: return std::make_unique<GraphLaplacianSuperpixelsAttenuation>();
  }
  return nullptr;
}

bool hasClass(const GraphLaplacian& graph, GraphType type) {
  switch (type) {
    case GraphType::Image: return typeid(graph) == typeid(GraphLaplacianImage);
    case GraphType::ImageAttenuation: return typeid(graph) == typeid(GraphLaplacianImageAttenuation);
    case GraphType::Superpixels: return typeid(graph) == typeid(GraphLaplacianSuperpixels);
    case GraphType::SuperpixelsAttenuation: return typeid(graph) == typeid(GraphLaplacianSuperpixelsAttenuation);
  }
  return false;
}

}  // namespace

GraphLaplacianAlgorithm::GraphLaplacianAlgorithm(SharedImage& image, SharedImage& labels, SharedImage* prior)
    : image_(&image), labels_(&labels), prior_(prior), graph_(std::make_unique<GraphLaplacianImage>()) {
  previousSolution_ = Eigen::VectorXf(1);
  previousSolution_[0] = 0.0f;
}

GraphLaplacianAlgorithm::~GraphLaplacianAlgorithm() = default;

bool GraphLaplacianAlgorithm::createCompatible(const DataList& data, Algorithm** algorithm) {
  if (data.size() < 2 || data.size() > 3) return false;
  // Volumes only: a list of 2D images leaves the volume query short of the list and is refused.
  auto images = data.getImages(Data::kindVolume);
  if (static_cast<int>(images.size()) != data.size()) return false;
  for (auto* set : images)
    if (!set->get(-1)) return false;
  SharedImage* image = images[0]->get(-1);
  SharedImage* labels = images[1]->get(-1);
  if (labels->descriptor().channels != 1 || labels->descriptor().pixelType != U8) return false;
  SharedImage* prior = nullptr;
  if (images.size() == 3) {
    prior = images[2]->get(-1);
    if (!image->img()->compatible(*prior->img(), true, false, false)) return false;
  }
  if (algorithm) *algorithm = new GraphLaplacianAlgorithm(*image, *labels, prior);
  return true;
}

void GraphLaplacianAlgorithm::configure(const Properties* properties) {
  if (!properties) return;
  Algorithm::configure(properties);
  // A value outside the table keeps the graph as it is.
  const GraphType type = selectedGraphType();
  if (graphType.value() <= static_cast<unsigned short>(GraphType::SuperpixelsAttenuation) && !hasClass(*graph_, type))
    if (auto g = createGraph(type)) graph_ = std::move(g);
  graph_->configure(properties);
}

ParameterBase* GraphLaplacianAlgorithm::findParameter(std::string_view key) const {
  if (ParameterBase* p = parameter(key)) return p;
  return graph_->parameter(key);
}

void GraphLaplacianAlgorithm::configuration(Properties* properties) const {
  if (!properties) return;
  Algorithm::configuration(properties);
  graph_->configuration(properties);
}

void GraphLaplacianAlgorithm::reset() {
  previousSolution_ = Eigen::VectorXf(1);
  previousSolution_[0] = 0.0f;
  keptSolution_.reset();
  forgetHierarchy();
}

void GraphLaplacianAlgorithm::setKeepResultForWarmStart(bool on) {
  keepResult_ = on;
  if (!on) {
    keptSolution_.reset();
    forgetHierarchy();
  }
}

void GraphLaplacianAlgorithm::forgetHierarchy() {
  keptMultigrid_.reset();
  keptUnknowns_ = {};
  keptNodeCount_ = 0;
}

bool GraphLaplacianAlgorithm::lastSolveReusedHierarchy() const {
  return keptMultigrid_ && keptMultigrid_->lastReused;
}

uint64_t GraphLaplacianAlgorithm::memoryEstimation(int level) const {
  if (!image_ || !labels_) return 0;
  const auto& d = image_->descriptor();
  const int dim = d.slices() > 1 ? 3 : (d.height() > 1 ? 2 : 1);
  const int64_t divisor = static_cast<int64_t>(std::pow(static_cast<double>(std::max(level, 1)), dim));
  const auto& l = labels_->descriptor();
  int64_t n = static_cast<int64_t>(l.elementCount()) / divisor;
  int64_t extra = 0;
  if (isSuperpixelGraph(selectedGraphType())) {
    extra = n * 8;
    int superpixels = 0;
    if (auto* p = graph_->parameter("Superpixels Number")) {
      Properties tmp;
      p->configuration(&tmp);
      tmp.param("Superpixels Number", superpixels);
    }
    n = superpixels;
  }
  const int64_t k = dim < 3 ? 5 : 7;
  int64_t estimate = n * 48 + extra + (k * n + n) * 12;
  if (selectedSolver() == SolverId::BiCGStabEigen) estimate += n * (dim < 3 ? 10 : 12) * 8;
  return static_cast<uint64_t>(static_cast<float>(estimate) * 1.3f);
}

bool GraphLaplacianAlgorithm::checkLabels(SharedImage* labels) const {
  if (!labels || !labels->mem()) return false;
  const MemImage& m = *labels->mem();
  const size_t n = m.descriptor().elementCount();
  if (n == 0) return false;
  const unsigned short object = graph_->activeLabel.value();
  const unsigned short background = static_cast<unsigned short>(object + 1);
  bool hasObject = false, hasBackground = false;
  const double scale = m.scale(), shift = m.shift();
  dispatchPixelType(m.type(), [&](auto tag) {
    using T = decltype(tag);
    const T* p = static_cast<const T*>(m.data());
    for (size_t i = 0; i < n && !(hasObject && hasBackground); ++i) {
      const unsigned char v = static_cast<unsigned char>(static_cast<int>(p[i] / scale - shift + 0.5));
      hasObject |= v == object;
      hasBackground |= v == background;
    }
  });
  return hasObject && hasBackground;
}

std::unique_ptr<LinearSolver> GraphLaplacianAlgorithm::createSolver(SolverId id) const {
  const int it = solverIterations.value();
  const float tol = std::pow(10.0f, static_cast<float>(solverToleranceLog.value()));
  switch (id) {
    case SolverId::LLTFloat: return std::make_unique<LLTFloatSolver>();
    case SolverId::LLTEigen: return std::make_unique<LLTEigenSolver>();
    case SolverId::CG: return std::make_unique<CGSolver>(it, tol);
    case SolverId::BiCGStabFloat: return std::make_unique<BiCGStabSolver>(it, tol);
    case SolverId::BiCGStabEigen: return std::make_unique<BiCGStabEigenSolver>(true, it, tol);
    case SolverId::BiCGStabEigenFloat: return std::make_unique<BiCGStabEigenSolver>(false, it, tol);
    case SolverId::BiCGStabViennaCPU: return std::make_unique<BiCGStabViennaCPUSolver>(it, tol);
    case SolverId::BiCGStabViennaGPU: return std::make_unique<BiCGStabViennaGPUSolver>(it, tol);
  }
  return nullptr;
}

Eigen::VectorXf GraphLaplacianAlgorithm::solveLaplace(SharedImage* prior) {
  const auto start = Clock::now();
  lastSolveStatus_ = statusError;
  lastIterations_ = 0;
  GraphLaplacian& g = *graph_;
  const Eigen::Index nU = static_cast<Eigen::Index>(g.unknownIndices().size());
  if (verbose) LOG_INFO(kCategory, g.seedIndices().size() << " labelled pixels / " << nU << " unknowns");

  // A graph whose build was refused (too many nodes, no image) keeps its old Laplacian while
  // its node lists describe the new image.
  if (!listsFit(g.laplacian(), g.seedIndices(), g.unknownIndices())) {
    LOG_ERROR(kCategory, "The graph's node lists do not fit its matrix; nothing solved");
    return previousSolution_;
  }

  // The system borrows the Laplacian's storage for the solve, so that the two matrices, each
  // the largest allocation of a segmentation, are never held at once; the graph gets its
  // Laplacian back unchanged when `borrowed` goes. A Laplacian that cannot lend is copied from.
  std::optional<BorrowedSystem> borrowed;
  ReducedSystem copied;
  if (BorrowedSystem::canBorrow(g.laplacian_))
    borrowed.emplace(g.laplacian_, g.seedIndices(), g.unknownIndices(), g.seedValues());
  else
    copied = reduceSystem(g.laplacian(), g.seedIndices(), g.unknownIndices(), g.seedValues());
  SparseMatrixF& A = borrowed ? borrowed->A : copied.A;
  Eigen::VectorXf& b = borrowed ? borrowed->b : copied.b;

  if (prior) {
    const float gamma = priorWeight.value() / 10000.0f;
    Eigen::VectorXf p = g.generateVectorFromImage(*prior);
    float pmax = 0.0f;
    for (Eigen::Index k = 0; k < p.size(); ++k) pmax = std::max(pmax, p[k]);
    if (borrowed)
      borrowed->addToDiagonal(gamma);
    else
      addToDiagonal(A, gamma);
    const float factor = gamma * (1.0f / pmax);
    for (Eigen::Index k = 0; k < nU; ++k) b[k] += p[k] * factor;
  }
  if (verbose)
    LOG_INFO(kCategory, "[GraphSegmentation] 2) Assembly of the linear system: " << msSince(start) << " ms");

  Eigen::VectorXf x = b;
  std::unique_ptr<LinearSolver> solver = createSolver(selectedSolver());
  if (!solver) {
    LOG_ERROR(kCategory, "Incorrect solver ID");
    return previousSolution_;
  }
  solver->verbose = verbose.value();
  solver->canceled = canceled_;
  if (solveKeepsHierarchy_) solver->keptMultigrid = keptMultigrid_.get();

  // Without a previous solution the guess is b itself, not a copy of it.
  Eigen::VectorXf reused;
  const Eigen::Index prevSize = previousSolution_.size();
  const bool reuse = reuseSolution.value() && prevSize != 1;
  if (reuse) {
    if (verbose) LOG_INFO(kCategory, "Re-using previous solution (" << prevSize << " / " << nU << ")");
    if (prevSize == nU) {
      reused = previousSolution_;
    } else if (prevSize > nU) {
      reused = previousSolution_.head(nU);
    } else {
      reused = b;
      reused.head(prevSize) = previousSolution_;
    }
  }
  const Eigen::VectorXf& guess = reuse ? reused : b;

  solver->solve(A, b, x, guess);
  lastIterations_ = solver->lastIterations();
  const SolverInfo info = solver->info();
  const bool usable = info == SolverInfo::Success || info == SolverInfo::NoConvergence;
  lastResidual_ = nU > 0 && usable ? residualNorm(A, b, x) : 0.0;
  if (verbose) {
    LOG_INFO(kCategory, "[GraphSegmentation] 3) Resolution of the system: " << msSince(start) << " ms");
    LOG_INFO(kCategory, "Residual : " << lastResidual_);
  }
  switch (info) {
    case SolverInfo::Success: lastSolveStatus_ = statusSuccess; break;
    case SolverInfo::NoConvergence:
      // The iterate is kept: it is usually close, and the warning says how close.
      LOG_WARN(kCategory, "The solver stopped at its limit of " << solverIterations.value()
                              << " iterations with a relative residual of " << solver->lastError()
                              << ", above the tolerance of 1e" << solverToleranceLog.value()
                              << "; raise \"Solver Iterations\" for an exact result");
      lastSolveStatus_ = statusSuccess;
      break;
    case SolverInfo::Canceled: lastSolveStatus_ = statusCanceled; break;
    case SolverInfo::NumericalIssue:
    case SolverInfo::InvalidInput:
      LOG_ERROR(kCategory, "The linear system could not be solved: " << solver->lastFailure());
      return previousSolution_;
  }
  return x;
}

void GraphLaplacianAlgorithm::compute() {
  const auto total = Clock::now();
  auto step = Clock::now();
  result_.reset();
  levelIterations_.clear();
  lastWarmStarted_ = false;
  if (!validateParameters(kCategory, {graph_.get()})) return;
  if (!image_ || !labels_ || !labels_->mem()) {
    LOG_ERROR(kCategory, "Input for the graph segmentation is missing");
    setStatus(statusIncompleteInput);
    return;
  }
  if (!Seg::overlapsInWorld(*image_, *labels_)) {
    LOG_ERROR(kCategory, "The label map lies outside the image in world space: "
                             << Seg::describeWorldExtents(*image_, *labels_));
    setStatus(statusInvalidInput);
    return;
  }
  // The result has the labels' size and geometry; its content is overwritten level by level.
  result_ = std::make_unique<SharedImage>(
      std::shared_ptr<Image>(ImageProcessing::createFloat(*labels_->mem(), ImageProcessing::Original)));
  result_->setMatrix(labels_->matrix());

  if (verbose)
    LOG_INFO(kCategory, "[GraphSegmentation] Memory estimation : " << memoryEstimation(minLevel.value()) / 1000
                                                                  << " KB");
  ImagePyramid imagePyramid(image_, false, true, true);
  ImagePyramid labelPyramid(labels_, true, true, true);
  ImagePyramid priorPyramid(prior_, false, true, true);
  ImagePyramid resultPyramid(result_.get(), false, true, true);
  imagePyramid.createLevels(numLevels.value());
  labelPyramid.createLevels(numLevels.value());
  if (prior_) priorPyramid.createLevels(numLevels.value());
  const int nLevels = resultPyramid.createLevels(numLevels.value());
  if (verbose) LOG_INFO(kCategory, "[GraphSegmentation] 0) Pyramids: " << msSince(step) << " ms");
  const int minIndex = std::max(std::min(minLevel.value(), nLevels) - 1, 0);
  // A re-run on the same grid solves its finest level alone, from the kept solution.
  const bool warm = keepResult_ && reuseSolution.value() && keptSolution_ && keptLevel_ == minIndex &&
                    keptLevelCount_ == nLevels && resultPyramid.level(minIndex) &&
                    keptSolution_->descriptor().dimensions == resultPyramid.level(minIndex)->descriptor().dimensions &&
                    checkLabels(labelPyramid.level(minIndex));
  if (minLevel.value() > nLevels && nLevels > 0)
    LOG_WARN(kCategory, "Min Level " << minLevel.value() << " is above the levels made (" << nLevels
                                     << "); computing level " << nLevels << " instead");

  Eigen::VectorXf lastSolution = previousSolution_;
  Progress::Task task(progress_, nLevels - minIndex, "Computing Segmentation...");
  canceled_ = [&task] { return task.wasCanceled(); };
  struct ClearCancel {
    std::function<bool()>& f;
    ~ClearCancel() { f = nullptr; }
  } clearCancel{canceled_};
  bool solved = false;
  for (int level = nLevels - 1; !(level < minIndex && (level < 0 || solved)); --level) {
    if (level < 0) break;
    if (task.wasCanceled()) {
      LOG_WARN(kCategory, "Segmentation cancelled");
      result_.reset();
      setStatus(statusCanceled);
      return;
    }
    if (verbose) LOG_INFO(kCategory, "LEVEL " << level << " -> " << minIndex);
    task.incrementStep();
    if (warm && level != minIndex) continue;
    if (!checkLabels(labelPyramid.level(level))) {
      if (verbose) LOG_INFO(kCategory, "Not enough seeds at this level - Skipping");
      continue;
    }
    step = Clock::now();
    graph_->generateGraph(*imagePyramid.level(level), *labelPyramid.level(level));
    // A graph that could not be built (its superpixels failed) has said why; nothing to solve.
    if (graph_->laplacian().rows() == 0) {
      result_.reset();
      setStatus(statusError);
      return;
    }
    if (verbose) LOG_INFO(kCategory, "[GraphSegmentation] 1) Generation of the graph: " << msSince(step) << " ms");
    // The coarser result, already propagated into this level, warm-starts the solve; or, on a
    // re-run, the kept solution of the last run at this level, node by node.
    if (warm) {
      previousSolution_ = graph_->generateVectorFromImage(*keptSolution_);
      lastWarmStarted_ = true;
    } else if (level != nLevels - 1) {
      previousSolution_ = graph_->generateVectorFromImage(*resultPyramid.level(level));
    }
    // The finest solve of a run that keeps its result also keeps its multigrid hierarchy; a
    // warm re-run on the same graph takes it over, mapped node by node onto the new unknowns.
    solveKeepsHierarchy_ = keepResult_ && level == minIndex;
    if (solveKeepsHierarchy_) {
      if (!keptMultigrid_) keptMultigrid_ = std::make_shared<KeptMultigrid>();
      keptMultigrid_->newRowOfOld.clear();
      if (warm && keptMultigrid_->hierarchy && keptNodeCount_ == static_cast<size_t>(graph_->laplacian().rows()))
        keptMultigrid_->newRowOfOld = newPlacesOf(keptUnknowns_, graph_->unknownIndices());
    }
    lastSolution = solveLaplace(priorPyramid.level(level));
    if (solveKeepsHierarchy_) {
      solveKeepsHierarchy_ = false;
      if (lastSolveStatus_ == statusSuccess && keptMultigrid_->hierarchy) {
        keptUnknowns_ = graph_->unknownIndices();
        keptNodeCount_ = static_cast<size_t>(graph_->laplacian().rows());
      } else {
        forgetHierarchy();
      }
    }
    levelIterations_.push_back(lastIterations_);
    if (lastSolveStatus_ != statusSuccess) {
      if (lastSolveStatus_ == statusCanceled) LOG_WARN(kCategory, "Segmentation cancelled");
      result_.reset();
      setStatus(lastSolveStatus_);
      return;
    }
    graph_->generateImageFromVector(lastSolution, *resultPyramid.level(level));
    if (level != 0) resultPyramid.propagateUp(level);
    solved = true;
  }
  previousSolution_ = lastSolution;
  if (keepResult_ && solved && resultPyramid.level(minIndex)) {
    // Level minIndex holds the solution as solved; finer levels only get it propagated.
    keptSolution_ = resultPyramid.level(minIndex)->clone();
    keptLevel_ = minIndex;
    keptLevelCount_ = nLevels;
  }
  step = Clock::now();
  if (propagateUp.value())
    for (int i = minIndex; i >= 1; --i) resultPyramid.propagateUp(i);
  else if (minIndex != 1 && minIndex < nLevels && resultPyramid.level(minIndex) != result_.get())
    result_ = resultPyramid.level(minIndex)->clone();

  if (!solved) {
    LOG_ERROR(kCategory, "The minimum level is too high - no seeds were available");
    result_.reset();
    setStatus(statusInvalidInput);
    return;
  }
  if (verbose) {
    LOG_INFO(kCategory, "[GraphSegmentation] 4) Mapping the result to the label map: " << msSince(step) << " ms");
    LOG_INFO(kCategory, "Segmentation computed in " << msSince(total) / 1000.0 << "s");
  }
  setStatus(statusSuccess);
}

OwningDataList GraphLaplacianAlgorithm::takeOutput() {
  OwningDataList out;
  if (result_) {
    auto set = std::make_unique<SharedImageSet>(std::shared_ptr<SharedImage>(std::move(result_)));
    set->properties().setParam("name", "Probability");
    set->setName("Probability");
    out.add(std::move(set));
  }
  if (outputLabels_) {
    auto set = std::make_unique<SharedImageSet>(std::shared_ptr<SharedImage>(std::move(outputLabels_)));
    set->properties().setParam("name", "Output Labels");
    set->setName("Output Labels");
    out.add(std::move(set));
  }
  return out;
}

}  // namespace Merivane
