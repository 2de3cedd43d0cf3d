#pragma once
// Annotations the user sees over the data: meshes, balls, points and curves, each an
// InteractiveObject that owns its GlObject and, optionally, a manipulator that lets the user
// move it. The model owns them, optionally under a data item they belong to; the window draws
// every annotation in its views and hands their manipulators the pointer events.
#include <memory>
#include <string>
#include <vector>

#include "Signal.h"
#include "ViewObject.h"

namespace Merivane {

class Data;

class InteractiveObject : public GUI::ViewObject {
 public:
  explicit InteractiveObject(std::unique_ptr<GlObject> object,
                             std::unique_ptr<GUI::ViewObject::EventHandler> manipulator = nullptr);
  ~InteractiveObject() override;
  GlObject* object() const override { return object_.get(); }
  GUI::ViewObject::EventHandler* eventHandler() const override { return manipulator_.get(); }
  void setManipulator(std::unique_ptr<GUI::ViewObject::EventHandler> manipulator) {
    manipulator_ = std::move(manipulator);
  }
  const std::string& name() const { return name_; }
  void setName(std::string name) { name_ = std::move(name); }

 private:
  std::unique_ptr<GlObject> object_;
  std::unique_ptr<GUI::ViewObject::EventHandler> manipulator_;
  std::string name_;
};

class AnnotationModel {
 public:
  AnnotationModel();
  ~AnnotationModel();
  AnnotationModel(const AnnotationModel&) = delete;
  AnnotationModel& operator=(const AnnotationModel&) = delete;

  // Takes the annotation; `parent` (not owned, may be null) is the data item it belongs to.
  InteractiveObject* add(std::unique_ptr<InteractiveObject> annotation, const Data* parent = nullptr);
  // Wraps the object with its default manipulator and a name.
  InteractiveObject* add(std::unique_ptr<GlObject> object, const std::string& name, const Data* parent = nullptr);
  bool remove(const InteractiveObject* annotation);
  // Removes the annotations of a data item (when the item goes).
  void removeAll(const Data* parent);
  void clear();
  // Annotations in the order added; with a parent, only that item's.
  std::vector<InteractiveObject*> annotations() const;
  std::vector<InteractiveObject*> annotations(const Data* parent) const;
  InteractiveObject* find(const std::string& name) const;

  // The manipulator the model gives an object: points and balls move with a left drag that
  // starts on them; other objects get none.
  static std::unique_ptr<GUI::ViewObject::EventHandler> createDefaultManipulator(GlObject& object);

  Signal<InteractiveObject*> annotationAdded;
  Signal<InteractiveObject*> annotationAboutToBeRemoved;
  // An annotation was moved or changed by its manipulator.
  Signal<InteractiveObject*> annotationChanged;

 private:
  struct Entry {
    std::unique_ptr<InteractiveObject> annotation;
    const Data* parent;
  };
  std::vector<Entry> entries_;
};

}  // namespace Merivane
