#include "DicomSeriesComponent.h"

#include <sstream>

#include "Properties.h"

namespace Merivane {

namespace {

// Lists are saved as DICOM writes multiple values: separated by backslashes.
template <typename T>
std::string join(const std::vector<T>& values) {
  std::ostringstream out;
  out.precision(17);
  for (size_t i = 0; i < values.size(); ++i) out << (i ? "\\" : "") << values[i];
  return out.str();
}

template <typename T>
std::vector<T> split(const std::string& text) {
  std::vector<T> out;
  if (text.empty()) return out;
  std::istringstream in(text);
  std::string item;
  while (std::getline(in, item, '\\')) {
    std::istringstream value(item);
    T v{};
    value >> v;
    out.push_back(v);
  }
  return out;
}

template <>
std::vector<std::string> split(const std::string& text) {
  std::vector<std::string> out;
  if (text.empty()) return out;
  std::istringstream in(text);
  std::string item;
  while (std::getline(in, item, '\\')) out.push_back(item);
  return out;
}

}  // namespace

void DicomSeriesComponent::configure(const Properties* p) {
  if (!p) return;
  auto get = [&](const char* key, std::string& field) {
    if (const std::string* v = p->rawParam(key)) field = *v;
  };
  get("PatientName", patientName);
  get("PatientID", patientId);
  get("PatientBirthDate", patientBirthDate);
  get("PatientSex", patientSex);
  get("StudyInstanceUID", studyInstanceUid);
  get("StudyDate", studyDate);
  get("StudyTime", studyTime);
  get("StudyID", studyId);
  get("AccessionNumber", accessionNumber);
  get("ReferringPhysicianName", referringPhysician);
  get("SeriesInstanceUID", seriesInstanceUid);
  get("FrameOfReferenceUID", frameOfReferenceUid);
  get("Modality", modality);
  get("SOPClassUID", sopClassUid);
  if (const std::string* v = p->rawParam("SOPInstanceUIDs")) sopInstanceUids = split<std::string>(*v);
  if (const std::string* v = p->rawParam("FrameNumbers")) frameNumbers = split<int>(*v);
  if (const std::string* v = p->rawParam("Columns")) columns = std::atoi(v->c_str());
  if (const std::string* v = p->rawParam("Rows")) rows = std::atoi(v->c_str());
  if (const std::string* v = p->rawParam("Orientation")) orientation = split<double>(*v);
  if (const std::string* v = p->rawParam("SlicePositions")) slicePositions = split<double>(*v);
}

void DicomSeriesComponent::configuration(Properties* p) const {
  if (!p) return;
  p->setRawParam("PatientName", patientName);
  p->setRawParam("PatientID", patientId);
  p->setRawParam("PatientBirthDate", patientBirthDate);
  p->setRawParam("PatientSex", patientSex);
  p->setRawParam("StudyInstanceUID", studyInstanceUid);
  p->setRawParam("StudyDate", studyDate);
  p->setRawParam("StudyTime", studyTime);
  p->setRawParam("StudyID", studyId);
  p->setRawParam("AccessionNumber", accessionNumber);
  p->setRawParam("ReferringPhysicianName", referringPhysician);
  p->setRawParam("SeriesInstanceUID", seriesInstanceUid);
  p->setRawParam("FrameOfReferenceUID", frameOfReferenceUid);
  p->setRawParam("Modality", modality);
  p->setRawParam("SOPClassUID", sopClassUid);
  p->setRawParam("SOPInstanceUIDs", join(sopInstanceUids));
  p->setRawParam("FrameNumbers", join(frameNumbers));
  p->setRawParam("Columns", std::to_string(columns));
  p->setRawParam("Rows", std::to_string(rows));
  p->setRawParam("Orientation", join(orientation));
  p->setRawParam("SlicePositions", join(slicePositions));
}

}  // namespace Merivane
