#pragma once
// What panels may ask of the application's window: its data model and its views. The window
// registers itself; panels reach it through instance(), which is null in programs without one.
namespace Merivane {

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

 protected:
  MainWindowBase();
};

}  // namespace Merivane
