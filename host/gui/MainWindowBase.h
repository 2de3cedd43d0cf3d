#pragma once
// What panels may ask of the application's window: its data model and its views. The window
// registers itself; panels reach it through instance(), which is null in programs without one.
namespace Merivane {

class AlgorithmController;
class AnnotationModel;
class DataModel;
class DisplayWidgetMultiAdapter;
class GlObject;

class MainWindowBase {
 public:
  virtual ~MainWindowBase();
  static MainWindowBase* instance();

  virtual DataModel* dataModel() = 0;
  virtual AnnotationModel* annotationModel() = 0;
  virtual DisplayWidgetMultiAdapter* displayWidget() = 0;
  // Objects drawn over the images in the slice views, or in the 3D view; not owned.
  virtual void addSliceObject(GlObject* object) = 0;
  virtual void add3DObject(GlObject* object) = 0;
  virtual void removeObject(GlObject* object) = 0;
  virtual void updateViews() = 0;
  // A panel asks to be closed with its algorithm (after handing its result over). The window
  // closes it once the panel's slot has returned; a controller it does not show is ignored.
  virtual void requestCloseAlgorithm(AlgorithmController* controller) { (void)controller; }

 protected:
  MainWindowBase();
};

}  // namespace Merivane
