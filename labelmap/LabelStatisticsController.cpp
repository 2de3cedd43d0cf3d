#include "LabelStatisticsController.h"

#include <QDialog>
#include <QGuiApplication>
#include <QClipboard>
#include <QHeaderView>
#include <QPushButton>
#include <QTableWidget>
#include <QVBoxLayout>

#include "LabelStatisticsAlgorithm.h"

namespace Merivane {

namespace {

// The table of one computation; it keeps the CSV text it shows.
class CsvDialog : public QDialog {
 public:
  CsvDialog(const QString& csv, QWidget* parent) : QDialog(parent), csv_(csv) {
    setWindowTitle("Label Statistics");
    setObjectName("LabelStatisticsDialog");
    auto* layout = new QVBoxLayout(this);
    auto* table = new QTableWidget(this);
    auto* copy = new QPushButton("Copy CSV to Clipboard", this);
    layout->addWidget(table);
    layout->addWidget(copy);
    connect(copy, &QPushButton::clicked, this, [this] { copyToClipboard(); });
    QStringList lines = csv_.split('\n', Qt::SkipEmptyParts);
    if (!lines.isEmpty()) {
      const QStringList header = lines.takeFirst().split(';');
      table->setColumnCount(std::max(0, static_cast<int>(header.size()) - 1));
      table->setHorizontalHeaderLabels(header.mid(1));
      table->setRowCount(static_cast<int>(lines.size()));
      QStringList rowNames;
      for (int r = 0; r < lines.size(); ++r) {
        const QStringList fields = lines[r].split(';');
        rowNames << (fields.isEmpty() ? QString() : fields.front());
        for (int c = 1; c < fields.size(); ++c) {
          auto* item = new QTableWidgetItem(fields[c]);
          item->setData(Qt::TextAlignmentRole, static_cast<int>(Qt::AlignRight | Qt::AlignVCenter));
          table->setItem(r, c - 1, item);
        }
      }
      table->setVerticalHeaderLabels(rowNames);
    }
    table->horizontalHeader()->setStretchLastSection(true);
    table->resizeRowsToContents();
    table->resizeColumnsToContents();
    adjustSize();
  }
  void copyToClipboard() { QGuiApplication::clipboard()->setText(csv_); }

 private:
  QString csv_;
};

}  // namespace

LabelStatisticsController::LabelStatisticsController(LabelStatisticsAlgorithm* algorithm)
    : DefaultAlgorithmController(algorithm, "", true, false), statistics_(algorithm) {}

void LabelStatisticsController::onComputeFinished(int status) {
  if (status != 0) return;
  CsvDialog dialog(QString::fromStdString(statistics_->csv()), this);
  dialog.exec();
}

}  // namespace Merivane
