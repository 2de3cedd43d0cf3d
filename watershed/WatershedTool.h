#pragma once
// The live watershed: the user paints seeds into an ordinary label map, and after every edit a
// WatershedComputer floods the image again in the background; WatershedOverlay shows the
// running result over the slice views in darker versions of the seed colours until the user
// applies it into the seed map or discards it.
//
// Seeds are the labels 1 to 253 of the seed map's focused frame; locked labels count as no
// seed at all (not as barriers), and a mask cuts both the seeds and the result. A single seed
// colour stops the run with CheckFailed and leaves the last result shown.
//
// Large frames get a quick look first: above kPreviewVoxels a second computer floods a copy
// reduced by a whole factor per axis (mean of the source, first seed of each block), whose
// result is shown, at its own resolution, within a few hundred milliseconds of a stroke; the
// full-resolution result replaces it when it arrives. Apply always writes the full-resolution
// result, waiting for it when it is still on its way.
//
// GUI thread, except the computers' work. The image, the seed map, the views and the mask must
// outlive the tool (or be unset first).
#include <Eigen/Core>
#include <atomic>
#include <memory>
#include <mutex>

#include "LabelLock.h"
#include "Signal.h"

class QObject;

namespace Merivane {
class DisplayWidgetMultiAdapter;
class ExplicitMask;
class Progress;
class SharedImage;
class SharedImageSet;
template <typename T>
class TypedImage;
class WatershedComputer;
}  // namespace Merivane

namespace Merivane::Seg {

class WatershedOverlay;

class WatershedTool : public SignalReceiver {
 public:
  // Mirrors WatershedComputer::StopReason.
  enum class StopReason : int {
    NoSource = 0,
    NoSeeds = 1,
    Incompatible = 2,
    CheckFailed = 3,
    Cancelled = 4,
    PostProcessFailed = 5,
    Finished = 6,
  };

  // Frames with more voxels than this get the reduced quick look first (by default).
  static constexpr long long kPreviewVoxels = 8'000'000;
  void setQuickLookThreshold(long long voxels) { quickLookVoxels_ = voxels; }
  // The quick look floods at most about this many voxels.
  static constexpr long long kPreviewTarget = 1'500'000;

  WatershedTool(const SharedImageSet& image, SharedImageSet& seeds, DisplayWidgetMultiAdapter& views);
  ~WatershedTool() override;
  WatershedTool(const WatershedTool&) = delete;
  WatershedTool& operator=(const WatershedTool&) = delete;

  // Attaches the overlay to the slice views and follows the seed map's edits; detaches again.
  void enable();
  void disable();
  bool isEnabled() const { return enabled_; }

  void setMask(ExplicitMask* mask);
  void setLocking(unsigned char label, bool locked);
  const LabelLock& locks() const { return locks_; }
  // The source is quantised through the image's display window (created when missing) or
  // through window 1 and level 0.5 of the normalised range. A change makes the source stale.
  void setUseWindowLevel(bool use);
  bool useWindowLevel() const { return useWindowLevel_; }
  // Box smoothing of the source, in voxels of the mean spacing (0 or below: none).
  void setInputSmoothing(int size);
  int inputSmoothing() const { return smoothing_; }
  // Inclusive voxel bounds; the computation runs on a cropped copy. Equal bounds, or bounds
  // covering the frame, mean no cropping.
  void setCropRegion(const Eigen::Vector3i& min, const Eigen::Vector3i& max);
  // Inclusive bounds within the (cropped) frame, forwarded to the computer.
  void setROI(const Eigen::Vector3i& min, const Eigen::Vector3i& max);

  void setPreviewLightnessShift(float shift);
  void setPreviewOpacity(float opacity);
  float previewOpacity() const { return opacity_; }
  void setShow3DPreview(bool show) { show3D_ = show; }
  bool show3DPreview() const { return show3D_; }

  // Feeds the computers and asks them for a run.
  void startComputation();
  // Cancels the runs under way; with `wait`, returns once they have ended.
  void abortComputation(bool wait);
  bool isIdle() const;

  // The result shown: full resolution (of the crop box when cropped), or the reduced quick look
  // while the full one is on its way; null before the first. GUI thread.
  SharedImageSet* resultImage() const { return result_.get(); }
  // Whether the result shown is the reduced quick look.
  bool resultIsPreview() const { return resultIsPreview_; }

  // Writes the full-resolution result into the seed map's focused frame (inside the mask only,
  // when there is one) and discards it. Waits for a run still under way. False when there is
  // no result to write.
  bool applyResult();
  void discardResult();
  // Shows the result a run has left, if any (posted to the GUI thread after each run).
  void moveTempToResult();

  void removeSeedsFromLabelMap(int label);
  // Every voxel set in `labels` becomes a background seed (label 2, or the seed map's
  // "backgroundLabel" property). `labels` must match the seed map.
  void setBackgroundSeeds(SharedImageSet& labels, Progress* progress);

  // Hands the computers new source (when stale) and seed functions.
  void refreshInputOutput();
  // The overlay's colours: the seed colours with their lightness lowered by the shift.
  void recomputePreviewColors();

  const SharedImageSet& image() const { return image_; }
  SharedImageSet& seeds() const { return seeds_; }
  WatershedOverlay* overlay() const { return overlay_.get(); }
  // The background label that setBackgroundSeeds writes.
  unsigned char backgroundLabel() const;

  // The reason a run stopped; on the GUI thread, after the result (if any) has been shown.
  Signal<StopReason> stopped;
  // A result is on screen; the argument says whether it is the full-resolution one.
  Signal<bool> resultShown;

 private:
  struct Temp {
    std::unique_ptr<TypedImage<unsigned char>> image;
    int generation = -1;
  };
  void onStopped(bool preview, int reason);
  bool sourceStale() const;
  bool cropping() const;

  const SharedImageSet& image_;
  SharedImageSet& seeds_;
  DisplayWidgetMultiAdapter& views_;
  ExplicitMask* mask_ = nullptr;
  LabelLock locks_;
  bool useWindowLevel_ = false;
  int smoothing_ = 0;
  Eigen::Vector3i cropMin_ = Eigen::Vector3i::Zero(), cropMax_ = Eigen::Vector3i::Zero();
  Eigen::Vector3i roiMin_ = Eigen::Vector3i::Zero(), roiMax_ = Eigen::Vector3i::Zero();
  float lightnessShift_ = 0.3f;
  float opacity_ = 0.5f;
  bool show3D_ = false;
  bool enabled_ = false;
  bool applying_ = false;
  bool sourceCurrent_ = false;
  // What the current source was made from, to notice a changed display window.
  double sourceWindow_ = 0, sourceLevel_ = 0;
  int sourceFrame_ = -1;

  std::unique_ptr<SharedImageSet> result_;
  bool resultIsPreview_ = false;
  // Run results waiting for the GUI thread, under their mutex.
  std::mutex tempMutex_;
  Temp tempFull_, tempPreview_;
  int previewFactor_ = 1;
  long long quickLookVoxels_ = kPreviewVoxels;
  // Each startComputation() is a request with a number; a run notes the request whose seeds it
  // took, so that a late quick look never replaces a newer result.
  std::atomic<int> generation_{0};
  std::atomic<int> fullServing_{-1}, previewServing_{-1};
  int shownGeneration_ = -1;
  // A full run waits for the quick look of its request, which starts it on stopping.
  std::atomic<bool> fullStartPending_{false};

  std::unique_ptr<WatershedComputer> computer_;
  std::unique_ptr<WatershedComputer> previewComputer_;
  std::unique_ptr<WatershedOverlay> overlay_;
  std::unique_ptr<QObject> guiContext_;  // posts to the GUI thread; its death drops the posts
};

}  // namespace Merivane::Seg
