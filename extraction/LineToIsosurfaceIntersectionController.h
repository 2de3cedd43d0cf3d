#pragma once
// The panel of the line to isosurface walk: the generated form of the algorithm, a button
// "Set Line" that starts drawing a two-point line on the image, and after each computation a
// ball at the intersection found.
#include "DefaultAlgorithmController.h"

namespace Merivane {

class InteractiveObject;
class LineToIsosurfaceIntersectionAlgorithm;

class LineToIsosurfaceIntersectionController : public DefaultAlgorithmController {
  Q_OBJECT
 public:
  explicit LineToIsosurfaceIntersectionController(LineToIsosurfaceIntersectionAlgorithm* algorithm);
  ~LineToIsosurfaceIntersectionController() override;

  // The line annotation and the result ball in the window's annotations; null when absent.
  InteractiveObject* lineAnnotation() const { return line_; }
  InteractiveObject* resultBall() const { return ball_; }

 public slots:
  void onSetLine();
  void onCompute() override;

 protected:
  void onComputeFinished(int status) override;

 private:
  void forget(InteractiveObject* annotation);
  LineToIsosurfaceIntersectionAlgorithm* intersection_;
  InteractiveObject* line_ = nullptr;
  InteractiveObject* ball_ = nullptr;
  std::shared_ptr<SignalConnection> watch_;
};

}  // namespace Merivane
