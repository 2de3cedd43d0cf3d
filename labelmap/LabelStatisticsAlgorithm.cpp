#include "LabelStatisticsAlgorithm.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "ImageComponents.h"
#include "LabelDataComponent.h"
#include "LabelMap.h"
#include "Log.h"
#include "SharedImageSet.h"

namespace Merivane {

namespace {
constexpr const char* kCategory = "Seg.LabelStatisticsAlgorithm";

const RealWorldMappingDataComponent::Mapping* firstMapping(const SharedImageSet* image) {
  if (!image) return nullptr;
  const auto* rw = image->components().get<RealWorldMappingDataComponent>();
  return rw && !rw->getMappings().empty() ? &rw->getMappings().front() : nullptr;
}

// Writes through a temporary file beside the target, so a failure leaves no partial file.
bool writeTextFile(const std::string& path, const std::string& text) {
  namespace fs = std::filesystem;
  const fs::path target(path);
  const fs::path tmp = target.parent_path() / ("." + target.filename().string() + ".tmp" + std::to_string(::getpid()));
  {
    std::ofstream out(tmp, std::ios::binary);
    if (!out) return false;
    out << text;
    out.close();
    if (!out) {
      std::error_code ec;
      fs::remove(tmp, ec);
      return false;
    }
  }
  std::error_code ec;
  fs::rename(tmp, target, ec);
  if (ec) fs::remove(tmp, ec);
  return !ec;
}
}  // namespace

LabelStatisticsAlgorithm::LabelStatisticsAlgorithm(const SharedImageSet* image,
                                                   std::vector<const SharedImageSet*> labelMaps)
    : image_(image), labelMaps_(std::move(labelMaps)) {
  csvPath.setLabel("CSV Export");
  csvPath.setAttribute("type", "SaveFile");
  csvPath.setAttribute("filter", "CSV Files (*.csv);;Text files (*.txt)");
  floatPrecision.setLabel("Float Precision");
  floatFormatting.setLabel("Float Formatting");
  floatFormatting.setAttribute("values", "Default, Fixed, Scientific");
  if (labelMaps_.empty()) labelMaps_.push_back(nullptr);
}

bool LabelStatisticsAlgorithm::createCompatible(const DataList& data, Algorithm** algorithm) {
  auto images = data.getImages();
  if (images.empty() || static_cast<int>(images.size()) != data.size()) return false;
  const SharedImageSet* image = nullptr;
  std::vector<const SharedImageSet*> labelMaps;
  for (const SharedImageSet* s : images) {
    if (s->modality() == Data::LABEL) {
      if (s->size() != 1 || s->img(0)->type() != U8) return false;
      labelMaps.push_back(s);
    } else {
      if (image) return false;  // exactly one intensity image
      if (s->size() != 1 || s->img(0)->channels() != 1) return false;
      image = s;
    }
  }
  if (!image) return false;
  if (algorithm) *algorithm = new LabelStatisticsAlgorithm(image, std::move(labelMaps));
  return true;
}

void LabelStatisticsAlgorithm::configure(const Properties* properties) {
  if (!properties) return;
  Algorithm::configure(properties);
  properties->param("useRealWorldValues", useRealWorldValues_);
}

void LabelStatisticsAlgorithm::configuration(Properties* properties) const {
  if (!properties) return;
  Algorithm::configuration(properties);
  if (image_ && image_->components().get<RealWorldMappingDataComponent>()) {
    properties->setParam("useRealWorldValues", useRealWorldValues_, false);
    if (const auto* m = firstMapping(image_))
      properties->setParamAttributes("useRealWorldValues", {{"label", "Use Real-World values (" + m->unit + ")"}});
  }
}

bool LabelStatisticsAlgorithm::inputValid() const {
  if (!image_ || !image_->img(-1)) return false;
  for (const SharedImageSet* lm : labelMaps_) {
    if (!lm) continue;
    if (!lm->img(-1) || !lm->img(-1)->compatible(*image_->img(-1), true, false, false)) return false;
  }
  return true;
}

std::optional<Seg::LabelStatisticsRecord> LabelStatisticsAlgorithm::statistics(int index, int label) const {
  if (index < 0 || index >= static_cast<int>(statistics_.size())) return std::nullopt;
  const auto& m = statistics_[static_cast<size_t>(index)];
  auto it = m.find(label);
  if (it == m.end()) return std::nullopt;
  return it->second;
}

void LabelStatisticsAlgorithm::compute() {
  statistics_.clear();
  csv_.clear();
  if (!validateParameters(kCategory)) return;
  if (!inputValid()) {
    LOG_ERROR(kCategory, "The label maps do not match the image in size and spacing");
    setStatus(statusInvalidInput);
    return;
  }
  for (const SharedImageSet* lm : labelMaps_) {
    if (!lm || Seg::overlapsInWorld(*image_->get(-1), *lm->get(-1))) continue;
    LOG_ERROR(kCategory, "The label map " << lm->name() << " lies outside the image in world space: "
                                          << Seg::describeWorldExtents(*image_->get(-1), *lm->get(-1)));
    setStatus(statusInvalidInput);
    return;
  }
  const auto* mapping = firstMapping(image_);
  bool realWorld = useRealWorldValues_ && mapping;
  if (realWorld && useGPU) {
    LOG_ERROR(kCategory, "RealWorldValue mapping is not supported on GPU");
    realWorld = false;
  }
  try {
    statistics_ = useGPU ? Seg::computeLabelStatisticsGPU(*image_, labelMaps_, progress_)
                         : Seg::computeLabelStatistics(*image_, labelMaps_, realWorld, -1, progress_);
  } catch (const std::bad_alloc&) {
    throw;
  } catch (const std::exception& e) {
    LOG_ERROR(kCategory, "Computing the statistics failed: " << e.what());
    setStatus(statusError);
    return;
  }
  if (statistics_.size() != labelMaps_.size()) {
    LOG_WARN(kCategory, "Label statistics canceled");
    statistics_.clear();
    setStatus(statusCanceled);
    return;
  }

  const Image& img = *image_->img(-1);
  const double pixelSize = img.spacing().prod();
  std::vector<std::string> header{"Label"};
  const std::string suffix = realWorld ? " (" + mapping->unit + ")" : "";
  for (const char* h : {"Minimum", "Maximum", "Mean", "SD"}) header.push_back(h + suffix);
  header.push_back(img.slices() == 1 ? "Area (mm²)" : "Volume (mm³)");
  header.push_back("#Pixels");

  auto number = [&](const std::optional<double>& v) -> std::string {
    if (!v) return "--";
    std::ostringstream s;
    // Any value is taken: the stream decides what a precision means, and a formatting other
    // than 1 or 2 leaves its default notation.
    s.precision(floatPrecision);
    if (floatFormatting == 1) s << std::fixed;
    else if (floatFormatting == 2) s << std::scientific;
    s << *v;
    return s.str();
  };
  std::vector<std::vector<std::string>> rows;
  for (size_t i = 0; i < labelMaps_.size(); ++i) {
    const SharedImageSet* owner = labelMaps_[i] ? labelMaps_[i] : image_;
    const auto* labels = owner->components().get<LabelDataComponent>();
    std::vector<int> values;
    for (const auto& [label, record] : statistics_[i]) values.push_back(label);
    std::sort(values.begin(), values.end());
    for (int label : values) {
      const auto& r = statistics_[i].at(label);
      std::string name;
      if (labels && labels->hasLabel(label)) name = labels->labelConfig(label)->name;
      if (name.empty()) name = LabelDataComponent::defaultLabelConfig(label).name;
      if (!owner->name().empty()) name = owner->name() + "/" + name;
      rows.push_back({name, number(r.minimum), number(r.maximum), number(r.mean), number(r.standardDeviation),
                      number(static_cast<double>(r.pixelCount) * pixelSize), std::to_string(r.pixelCount)});
    }
  }
  LOG_INFO(kCategory, "\033[0;11m" << createAsciiTable(rows, header));
  std::ostringstream csv;
  writeCsvToStream(csv, rows, header);
  csv_ = csv.str();

  if (!csvPath.value().empty()) {
    if (!writeTextFile(csvPath, csv_)) {
      LOG_ERROR(kCategory, "Could not open CSV path: " << csvPath.value());
      setStatus(statusUnknown);
      return;
    }
  }
  setStatus(statusSuccess);
}

bool LabelStatisticsAlgorithm::isValidTable(const std::vector<std::vector<std::string>>& rows,
                                            const std::vector<std::string>& header) {
  const size_t columns = rows.empty() ? header.size() : rows.front().size();
  for (const auto& r : rows)
    if (r.size() != columns) {
      LOG_ERROR(kCategory, "Cannot create table with different number of columns");
      return false;
    }
  if (header.size() != columns) {
    LOG_ERROR(kCategory, "Header has wrong amount of colums");
    return false;
  }
  return true;
}

bool LabelStatisticsAlgorithm::writeCsvToStream(std::ostream& out, const std::vector<std::vector<std::string>>& rows,
                                                const std::vector<std::string>& header) {
  if (!isValidTable(rows, header)) return false;
  auto line = [&](const std::vector<std::string>& fields) {
    for (size_t i = 0; i < fields.size(); ++i) out << (i ? ";" : "") << fields[i];
    out << "\n";
  };
  line(header);
  for (const auto& r : rows) line(r);
  return true;
}

std::string LabelStatisticsAlgorithm::createAsciiTable(const std::vector<std::vector<std::string>>& rows,
                                                       const std::vector<std::string>& header) {
  if (!isValidTable(rows, header)) return {};
  // Widths in code points, so that "mm²" lines up.
  auto width = [](const std::string& s) {
    size_t n = 0;
    for (unsigned char c : s) n += (c & 0xC0) != 0x80;
    return n;
  };
  std::vector<size_t> w(header.size(), 0);
  for (size_t c = 0; c < header.size(); ++c) w[c] = width(header[c]);
  for (const auto& r : rows)
    for (size_t c = 0; c < r.size(); ++c) w[c] = std::max(w[c], width(r[c]));
  size_t total = 1;
  for (size_t x : w) total += x + 3;
  const std::string rule(total, '-');
  std::ostringstream s;
  auto line = [&](const std::vector<std::string>& fields) {
    s << "|";
    // Names to the left, numbers to the right.
    for (size_t c = 0; c < fields.size(); ++c) {
      const std::string pad(w[c] - width(fields[c]), ' ');
      s << " " << (c == 0 ? fields[c] + pad : pad + fields[c]) << " |";
    }
    s << "\n";
  };
  s << "\n" << rule << "\n";
  line(header);
  s << rule << "\n";
  for (const auto& r : rows) line(r);
  s << rule;
  return s.str();
}

}  // namespace Merivane
