#pragma once
#include <set>

namespace Merivane {

// Selected frame indices and the frame in focus.
class Selection {
 public:
  // How an empty selection answers isSelected: AllSelected = every index counts,
  // NoneSelected = none does, FocusSelected = the focus frame counts.
  enum NonePolicy : int { AllSelected = 0, NoneSelected = 1, FocusSelected = 2 };

  int size() const { return static_cast<int>(selected_.size()); }
  bool empty() const { return selected_.empty(); }
  int firstSelected() const { return selected_.empty() ? -1 : *selected_.begin(); }
  int lastSelected() const { return selected_.empty() ? -1 : *selected_.rbegin(); }
  int focus() const { return focus_; }
  void setFocus(int index) { focus_ = index; }
  bool isSelected(int index, NonePolicy policy = FocusSelected) const;
  bool isSelected(int index, int policy) const { return isSelected(index, static_cast<NonePolicy>(policy)); }
  void select(int index, bool on = true);
  void setSelected(std::set<int> indices) { selected_ = std::move(indices); }
  void clear() { selected_.clear(); }
  const std::set<int>& selected() const { return selected_; }
  // Keeps indices and focus within [0, count).
  void clamp(int count);

 private:
  std::set<int> selected_;
  int focus_ = 0;
};

class Selectable {
 public:
  virtual ~Selectable() = default;
  Selection& selection() { return selection_; }
  const Selection& selection() const { return selection_; }

 protected:
  Selection selection_;
};

}  // namespace Merivane
