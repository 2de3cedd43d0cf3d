#include "SectionWidget.h"

#include <QToolButton>
#include <QVBoxLayout>

namespace Merivane {

SectionWidget::SectionWidget(QWidget* parent) : QWidget(parent) {
  layout_ = new QVBoxLayout(this);
  layout_->setContentsMargins(0, 0, 0, 0);
  layout_->addStretch(1);
}

int SectionWidget::addSection(const QString& title, QWidget* content, bool open) {
  auto* header = new QToolButton(this);
  header->setCheckable(true);
  header->setToolButtonStyle(Qt::ToolButtonTextBesideIcon);
  header->setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Fixed);
  header->setStyleSheet("QToolButton { border: none; font-weight: bold; text-align: left; }");
  content->setParent(this);
  const int index = static_cast<int>(sections_.size());
  sections_.push_back({header, content, title});
  layout_->insertWidget(layout_->count() - 1, header);
  layout_->insertWidget(layout_->count() - 1, content);
  connect(header, &QToolButton::toggled, this, [this, index](bool on) { setSectionOpen(index, on); });
  retitle();
  setSectionOpen(index, open && (!workflow_ || index == 0));
  return index;
}

void SectionWidget::setWorkflowMode(bool on) {
  workflow_ = on;
  retitle();
  if (on) {
    int first = -1;
    for (int i = 0; i < count(); ++i)
      if (isSectionOpen(i) && first < 0) first = i;
    for (int i = 0; i < count(); ++i) setSectionOpen(i, i == std::max(first, 0));
  }
}

void SectionWidget::setSectionOpen(int index, bool open) {
  if (index < 0 || index >= count()) return;
  Section& s = sections_[static_cast<size_t>(index)];
  const bool was = s.content->isVisibleTo(this);
  s.content->setVisible(open);
  s.header->blockSignals(true);
  s.header->setChecked(open);
  s.header->setArrowType(open ? Qt::DownArrow : Qt::RightArrow);
  s.header->blockSignals(false);
  if (open && workflow_)
    for (int i = 0; i < count(); ++i)
      if (i != index) setSectionOpen(i, false);
  if (was != open) emit sectionToggled(index, open);
}

bool SectionWidget::isSectionOpen(int index) const {
  return index >= 0 && index < count() && sections_[static_cast<size_t>(index)].header->isChecked();
}

QWidget* SectionWidget::section(int index) const {
  return index >= 0 && index < count() ? sections_[static_cast<size_t>(index)].content : nullptr;
}

void SectionWidget::retitle() {
  for (int i = 0; i < count(); ++i) {
    Section& s = sections_[static_cast<size_t>(i)];
    s.header->setText(workflow_ ? QString("%1. %2").arg(i + 1).arg(s.title) : s.title);
  }
}

}  // namespace Merivane
