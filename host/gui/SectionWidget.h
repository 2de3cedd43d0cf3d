#pragma once
// A column of titled sections that fold open and shut. In workflow mode only one section is
// open at a time and the titles are numbered, for panels that lead the user through steps.
#include <QWidget>
#include <vector>

class QVBoxLayout;
class QToolButton;

namespace Merivane {

class SectionWidget : public QWidget {
  Q_OBJECT
 public:
  explicit SectionWidget(QWidget* parent = nullptr);
  // Adds a section; the widget becomes a child. Returns its index.
  int addSection(const QString& title, QWidget* content, bool open = true);
  void setWorkflowMode(bool on);
  bool workflowMode() const { return workflow_; }
  void setSectionOpen(int index, bool open);
  bool isSectionOpen(int index) const;
  int count() const { return static_cast<int>(sections_.size()); }
  QWidget* section(int index) const;

 signals:
  void sectionToggled(int index, bool open);

 private:
  struct Section {
    QToolButton* header;
    QWidget* content;
    QString title;
  };
  void retitle();
  QVBoxLayout* layout_;
  std::vector<Section> sections_;
  bool workflow_ = false;
};

}  // namespace Merivane
