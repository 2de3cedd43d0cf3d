#include "Selection.h"

namespace Merivane {

bool Selection::isSelected(int index, NonePolicy policy) const {
  if (!selected_.empty()) return selected_.count(index) > 0;
  switch (policy) {
    case AllSelected: return true;
    case NoneSelected: return false;
    case FocusSelected: return index == focus_;
  }
  return false;
}

void Selection::select(int index, bool on) {
  if (on)
    selected_.insert(index);
  else
    selected_.erase(index);
}

void Selection::clamp(int count) {
  std::erase_if(selected_, [count](int i) { return i < 0 || i >= count; });
  if (focus_ >= count) focus_ = count > 0 ? count - 1 : 0;
  if (focus_ < 0) focus_ = 0;
}

}  // namespace Merivane
