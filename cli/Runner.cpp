#include "Runner.h"

#include <malloc.h>

#include <cctype>
#include <filesystem>
#include <map>
#include <set>

#include "Algorithm.h"
#include "DicomIO.h"
#include "DicomSeriesComponent.h"
#include "FactoryRegistry.h"
#include "FiducialFile.h"
#include "ImageIO.h"
#include "InputChecks.h"
#include "LabelDataComponent.h"
#include "Log.h"
#include "Mesh.h"
#include "MeshIO.h"
#include "Parameter.h"
#include "PointSet.h"
#include "PointSetIO.h"
#include "SharedImageSet.h"

namespace fs = std::filesystem;

namespace Merivane::Cli {

namespace {

const char* statusName(int status) {
  switch (status) {
    case Algorithm::statusSuccess: return "success";
    case Algorithm::statusError: return "error";
    case Algorithm::statusInvalidInput: return "invalid input";
    case Algorithm::statusIncompleteInput: return "incomplete input";
    case Algorithm::statusCanceled: return "canceled";
    default: return "unknown";
  }
}

// A fingerprint of what an algorithm may change in place: pixels, frames, modality, labels.
uint64_t fingerprint(const Data* d) {
  uint64_t h = 1469598103934665603ull;
  auto mix = [&](const void* p, size_t n) {
    const auto* b = static_cast<const unsigned char*>(p);
    for (size_t i = 0; i < n; ++i) h = (h ^ b[i]) * 1099511628211ull;
  };
  const SharedImageSet* s = d ? d->asImageSet() : nullptr;
  if (!s) return h;
  const int frames = s->size(), modality = s->modality();
  mix(&frames, sizeof frames);
  mix(&modality, sizeof modality);
  for (int i = 0; i < s->size(); ++i) {
    const MemImage* m = s->mem(i);
    if (!m) continue;
    const auto& desc = m->descriptor();
    mix(&desc.pixelType, sizeof desc.pixelType);
    mix(desc.dimensions.data(), sizeof(int) * 3);
    mix(m->data(), desc.byteSize());
  }
  for (const DataComponentBase* c : s->components().getAll()) {
    const std::string id = c->id();
    mix(id.data(), id.size());
  }
  if (const auto* labels = s->components().get<LabelDataComponent>())
    for (const auto& [value, config] : labels->labelConfigs()) {
      mix(&value, sizeof value);
      mix(config.name.data(), config.name.size());
    }
  return h;
}

std::string slug(const std::string& name) {
  std::string out;
  for (char c : name) {
    if (std::isalnum(static_cast<unsigned char>(c)) || c == '-' || c == '_') out += c;
    else if (!out.empty() && out.back() != '_') out += '_';
  }
  while (!out.empty() && out.back() == '_') out.pop_back();
  return out;
}

std::string defaultName(const Data& d) {
  if (const_cast<Data&>(d).asMesh()) return "mesh";
  if (const SharedImageSet* s = d.asImageSet()) {
    if (s->modality() == Data::LABEL) return "labelmap";
    if (s->img(0) && (s->img(0)->type() == F32 || s->img(0)->type() == F64)) return "map";
    return "image";
  }
  return "output";
}

// Picks an extension that can hold the image: PNG takes 2D U8/U16 only, DICOM label maps only
// (as Segmentation objects).
std::string extensionFor(const SharedImageSet& s, const std::string& wanted) {
  const MemImage* m = s.mem(0);
  if (wanted == ".dcm" || wanted == ".seg.dcm") {
    const bool labelMap = s.modality() == Data::LABEL && m && m->type() == U8 && m->channels() == 1;
    if (labelMap) return ".seg.dcm";
    LOG_INFO("merivane", "'" << s.name() << "' is not a label map; written as .nrrd, not as DICOM");
    return ".nrrd";
  }
  if (wanted == ".png" && m) {
    const auto& d = m->descriptor();
    if (d.slices() > 1 || (d.pixelType != U8 && d.pixelType != U16) || d.channels > 4) return ".nrrd";
  }
  return wanted.empty() ? ".nrrd" : wanted;
}

class ErrorLineCatcher {
 public:
  ErrorLineCatcher() {
    id_ = Log::addSink([this](int level, const std::string& category, const std::string& message) {
      if (level < Log::Error) return;
      // The first error names the cause; later ones are usually its consequences.
      if (count_++ == 0) first_ = category.empty() ? message : category + ": " + message;
    });
  }
  ~ErrorLineCatcher() { Log::removeSink(id_); }
  int count() const { return count_; }
  const std::string& first() const { return first_; }

 private:
  int id_;
  int count_ = 0;
  std::string first_;
};

// Writes one data item as `base` + extension (frames of a set as base-<i>); false on failure.
bool writeData(const Data& d, const fs::path& base, const RunOptions& options, const std::atomic<bool>* interrupted,
               std::vector<std::string>& written, std::string& error) {
  if (const Mesh* mesh = const_cast<Data&>(d).asMesh()) {
    const std::string path = base.string() + options.meshExtension;
    if (!IO::writeMesh(*mesh, path, &error)) return false;
    written.push_back(path);
    return true;
  }
  if (d.kind() == Data::kindPointSet) {
    const auto& points = static_cast<const PointSet&>(d);
    // Fiducials go to the fiducial text file, each centre followed by its radius.
    if (const auto* radii = points.components().get<FiducialRadiiComponent>()) {
      std::vector<FiducialFile::Fiducial> fiducials;
      for (size_t i = 0; i < points.points().size(); ++i)
        fiducials.push_back({points.points()[i], i < radii->radii.size() ? radii->radii[i] : 0.0});
      const std::string path = base.string() + ".txt";
      if (!FiducialFile::write(path, fiducials, true, &error)) return false;
      written.push_back(path);
      return true;
    }
    const std::string path = base.string() + ".csv";
    if (!IO::writePointSet(static_cast<const PointSet&>(d), path, &error)) return false;
    written.push_back(path);
    return true;
  }
  const SharedImageSet* s = d.asImageSet();
  if (!s) {
    LOG_WARN("merivane", "No file format for output '" << d.describe() << "' (kind " << d.kind() << "); skipped");
    return true;
  }
  // Components that no image format carries (contours) go beside the image in the
  // Properties text form.
  Properties extra("components");
  for (const DataComponentBase* c : s->components().getAll())
    if (c->id().find("Contours") != std::string::npos) c->configuration(extra.addSubProperties(c->id()));
  if (!extra.subProperties().empty()) {
    const std::string path = base.string() + "-contours.xml";
    if (!PropertiesIO::saveToFile(extra, path, &error)) return false;
    written.push_back(path);
  }
  const std::string ext = extensionFor(*s, options.imageExtension);
  for (int i = 0; i < s->size(); ++i) {
    if (interrupted && interrupted->load()) {
      error = "canceled before all outputs were written";
      return false;
    }
    std::string path = base.string();
    if (s->size() > 1) path += "-" + std::to_string(i);
    path += ext;
    IO::WriteOptions write;
    write.dicomReference = options.dicomReference;
    if (ext == ".seg.dcm" && !write.dicomReference && !s->components().get<DicomSeriesComponent>())
      LOG_WARN("merivane", "no DICOM input series to refer to: " << fs::path(path).filename().string()
                                                                 << " is a standalone segmentation in a study of its own");
    if (s->size() == 1) {
      if (!IO::writeImage(*s, path, &error, write)) return false;
    } else {
      // One file per frame, each with the set's modality and labels.
      SharedImageSet frame;
      frame.add(s->getShared(i));
      frame.setModality(s->modality());
      frame.setName(s->name());
      if (auto* labels = s->components().get<LabelDataComponent>())
        frame.components().add(std::make_unique<LabelDataComponent>(*labels));
      if (!IO::writeImage(frame, path, &error, write)) return false;
    }
    written.push_back(path);
  }
  return true;
}

// Small stand-in inputs for creating an algorithm only to read its parameters.
std::vector<std::vector<std::unique_ptr<SharedImageSet>>> probeLists() {
  auto volume = [](PixelType t, Data::Modality m, const Eigen::Vector3i& dims) {
    auto s = std::make_unique<SharedImageSet>(std::shared_ptr<Image>(MemImage::create(ImageDescriptor(t, dims, 1))));
    if (m != Data::modalityAny) s->setModality(m);
    if (m == Data::LABEL) s->components().getOrCreate<LabelDataComponent>(s.get());
    return s;
  };
  std::vector<std::vector<std::unique_ptr<SharedImageSet>>> lists;
  for (const Eigen::Vector3i& dims : {Eigen::Vector3i(8, 8, 8), Eigen::Vector3i(8, 8, 1)}) {
    for (Data::Modality m : {Data::CT, Data::MRI}) {
      std::vector<std::unique_ptr<SharedImageSet>> a;
      a.push_back(volume(F32, m, dims));
      a.push_back(volume(U8, Data::LABEL, dims));
      lists.push_back(std::move(a));
      std::vector<std::unique_ptr<SharedImageSet>> b;
      b.push_back(volume(F32, m, dims));
      lists.push_back(std::move(b));
    }
    std::vector<std::unique_ptr<SharedImageSet>> c;
    c.push_back(volume(U8, Data::LABEL, dims));
    lists.push_back(std::move(c));
    std::vector<std::unique_ptr<SharedImageSet>> d;
    d.push_back(volume(U8, Data::modalityAny, dims));
    lists.push_back(std::move(d));
    std::vector<std::unique_ptr<SharedImageSet>> e;
    e.push_back(volume(U16, Data::modalityAny, dims));
    lists.push_back(std::move(e));
  }
  return lists;
}

}  // namespace

std::unique_ptr<Algorithm> createForInspection(const std::string& id, const DataList& inputs,
                                               std::vector<std::unique_ptr<Data>>& standIns) {
  if (!inputs.empty()) return FactoryRegistry::instantiateAlgorithm(id, inputs);
  for (auto& probe : probeLists()) {
    DataList list;
    for (auto& s : probe) list.add(s.get());
    if (auto algorithm = FactoryRegistry::instantiateAlgorithm(id, list)) {
      for (auto& s : probe) standIns.push_back(std::move(s));
      return algorithm;
    }
  }
  return nullptr;
}

std::string resolveAlgorithmName(const std::string& name) {
  if (FactoryRegistry::descriptor(name)) return name;
  if (name.find('.') == std::string::npos && FactoryRegistry::descriptor("Seg." + name)) return "Seg." + name;
  return {};
}

bool readInputs(const std::vector<InputFile>& inputs, std::vector<std::unique_ptr<Data>>& owned, std::string* error) {
  const SharedImageSet* dicomSeries = nullptr;  // the grid for Segmentation objects that follow
  for (const auto& in : inputs) {
    if (IO::isPointSetPath(in.path) && !in.asLabels) {
      auto points = IO::readPointSet(in.path, error);
      if (!points) return false;
      owned.push_back(std::move(points));
      continue;
    }
    if (IO::isMeshPath(in.path) && !in.asLabels) {
      auto mesh = IO::readMesh(in.path, error);
      if (!mesh) return false;
      owned.push_back(std::move(mesh));
      continue;
    }
    std::unique_ptr<SharedImageSet> image;
    if (IO::imageFormatOf(in.path) == IO::ImageFormat::Dicom) {
      image = IO::readDicomSeries(in.path, in.series, error);
      std::error_code ec;
      if (image && image->modality() == Data::LABEL && dicomSeries && fs::is_regular_file(in.path, ec))
        image = IO::readDicomSegmentation(in.path, dicomSeries, error);
    } else {
      image = IO::readImage(in.path, error);
    }
    if (!image) return false;
    if (image->modality() != Data::LABEL && image->components().get<DicomSeriesComponent>()) dicomSeries = image.get();
    if (in.asLabels && image->modality() != Data::LABEL && !IO::markAsLabelMap(*image, error)) {
      if (error) *error = fs::path(in.path).filename().string() + ": " + *error;
      return false;
    }
    owned.push_back(std::move(image));
  }
  return true;
}

RunResult runOnData(const RunOptions& options, const DataList& inputs, const std::vector<std::string>& inputNames,
                    Progress* progress, const std::atomic<bool>* interrupted) {
  RunResult result;
  auto fail = [&](int code, std::string message) {
    result.exitCode = code;
    result.message = std::move(message);
    return std::move(result);
  };
  const std::string id = resolveAlgorithmName(options.algorithm);
  if (id.empty()) return fail(exitNotApplicable, "unknown algorithm '" + options.algorithm + "' (see merivane list)");
  std::unique_ptr<Algorithm> algorithm = FactoryRegistry::instantiateAlgorithm(id, inputs);
  if (!algorithm) {
    std::string what;
    for (Data* d : inputs.items()) what += (what.empty() ? "" : ", ") + (d ? d->describe() : std::string("null"));
    return fail(exitNotApplicable, id + " does not accept these inputs: " + (what.empty() ? "none" : what));
  }

  // Unknown keys are most likely typing mistakes.
  Properties known;
  algorithm->configuration(&known);
  for (const std::string& key : options.configuration.paramKeys())
    if (!known.contains(key)) LOG_WARN("merivane", id << " has no parameter '" << key << "'; it may be ignored");
  // A value that does not read as its parameter's type would be dropped by configure.
  for (const std::string& key : options.configuration.paramKeys()) {
    const ParameterBase* p = algorithm->findParameter(key);
    const std::string* text = options.configuration.rawParam(key);
    if (p && text && !p->canRead(*text))
      return fail(exitUsage, "'" + key + "' cannot be read from '" + excerpt(*text) + "'; nothing was run");
  }
  algorithm->configure(&options.configuration);
  // Relative output paths of an algorithm's own (SaveFile) parameters land in the output folder.
  Properties paths;
  for (ParameterBase* p : algorithm->parameters()) {
    if (p->attribute("type") != "SaveFile") continue;
    const std::string value = p->text();
    if (!value.empty() && fs::path(value).is_relative() && !options.outDir.empty())
      paths.setRawParam(p->name(), (fs::path(options.outDir) / value).string());
  }
  if (!paths.empty()) algorithm->configure(&paths);

  std::error_code ec;
  if (!options.outDir.empty()) {
    fs::create_directories(options.outDir, ec);
    if (ec) return fail(exitFileError, options.outDir + ": cannot create the output folder (" + ec.message() + ")");
  }

  // Only --write-inputs asks which inputs changed; hashing every input costs a pass over it.
  std::vector<uint64_t> before;
  if (options.writeInputs)
    for (Data* d : inputs.items()) before.push_back(fingerprint(d));
  if (progress) algorithm->setProgress(progress);
  ErrorLineCatcher errors;
  try {
    algorithm->compute();
  } catch (const std::exception& e) {
    return fail(exitAlgorithmFailed, id + " threw: " + e.what());
  }
  result.status = algorithm->status();
  if ((interrupted && interrupted->load()) || result.status == Algorithm::statusCanceled)
    return fail(exitCanceled, id + " canceled; nothing written");
  const bool failed = result.status > 0 || (result.status == Algorithm::statusUnknown && errors.count() > 0);
  if (failed) {
    return fail(exitAlgorithmFailed, id + " failed with status " + std::to_string(result.status) + " (" +
                                         statusName(result.status) + ")" +
                                         (errors.first().empty() ? "" : ": " + errors.first()));
  }

  OwningDataList output = algorithm->takeOutput();
  std::vector<std::unique_ptr<Data>> items = output.release();
  if (!options.writeOutputs) {
    for (auto& item : items)
      if (item) result.outputs.push_back(std::move(item));
    return result;
  }
  std::string error;
  std::set<std::string> used;
  auto uniqueBase = [&](std::string name) {
    if (name.empty()) name = "output";
    std::string candidate = name;
    for (int k = 2; used.count(candidate); ++k) candidate = name + "-" + std::to_string(k);
    used.insert(candidate);
    return fs::path(options.outDir.empty() ? "." : options.outDir) / candidate;
  };
  RunOptions writeOptions = options;
  // Segmentation objects refer to the first input read from a DICOM series.
  if (!writeOptions.dicomReference)
    for (Data* d : inputs.items())
      if (const SharedImageSet* s = d ? d->asImageSet() : nullptr)
        if ((writeOptions.dicomReference = s->components().get<DicomSeriesComponent>())) break;
  if (writeOptions.imageExtension.empty()) {
    for (const std::string& n : inputNames) {
      const std::string ext = IO::imageExtensionOf(n);
      if (!ext.empty()) {
        writeOptions.imageExtension = ext;
        break;
      }
    }
  }
  for (const auto& item : items) {
    if (!item) continue;
    std::string name = slug(item->name());
    if (name.empty()) name = defaultName(*item);
    if (!writeData(*item, uniqueBase(name), writeOptions, interrupted, result.written, error))
      return fail(interrupted && interrupted->load() ? exitCanceled : exitFileError, error);
  }
  if (options.writeInputs) {
    for (int i = 0; i < inputs.size(); ++i) {
      if (fingerprint(inputs[i]) == before[static_cast<size_t>(i)]) continue;
      std::string stem = i < static_cast<int>(inputNames.size()) ? fs::path(inputNames[static_cast<size_t>(i)]).filename().string() : "";
      stem = stem.substr(0, stem.find('.'));
      if (stem.empty()) stem = slug(inputs[i]->name());
      if (stem.empty()) stem = "input" + std::to_string(i + 1);
      if (!writeData(*inputs[i], uniqueBase(stem + "-updated"), writeOptions, interrupted, result.written, error))
        return fail(interrupted && interrupted->load() ? exitCanceled : exitFileError, error);
    }
  }
  return result;
}

RunResult runAlgorithm(const RunOptions& options, const std::vector<InputFile>& inputs, Progress* progress,
                       const std::atomic<bool>* interrupted) {
  std::vector<std::unique_ptr<Data>> owned;
  std::string error;
  if (!readInputs(inputs, owned, &error)) {
    RunResult r;
    r.exitCode = exitFileError;
    r.message = error;
    return r;
  }
  DataList list;
  std::vector<std::string> names;
  for (size_t i = 0; i < owned.size(); ++i) {
    list.add(owned[i].get());
    names.push_back(inputs[i].path);
  }
  return runOnData(options, list, names, progress, interrupted);
}

bool loadConfigurationFiles(const std::vector<std::string>& files, Properties& into, std::string* error) {
  for (const std::string& file : files) {
    auto p = PropertiesIO::loadFromFile(file, error);
    if (!p) return false;
    into.copyFrom(*p, Properties::CopyOptions::Params);
  }
  return true;
}

void useVolumeHeap() {
  // Whole volumes are allocated and freed many times in one run. Served by mmap, each one
  // costs the kernel a page fault and a cleared page per 4 KiB, and its unmapping; kept in the
  // heap, a freed volume is reused at once (a dose run on 256^3: 2.5 s to 2.1-2.4 s). Blocks
  // above 128 MiB (a whole-volume Laplacian, the multigrid's largest arrays) still go to mmap
  // and back to the system when freed: kept in the heap they only left holes that raised the
  // peak (the demo brain's whole-volume segmentation: 1,812 MiB with every block kept, 1,678
  // MiB and a second faster with this limit).
  constexpr int kHeapBlockLimit = 128 << 20;
  mallopt(M_MMAP_THRESHOLD, kHeapBlockLimit);
  mallopt(M_TRIM_THRESHOLD, kHeapBlockLimit);
}

void useDefaultHeap() {
  mallopt(M_MMAP_THRESHOLD, 128 * 1024);
  mallopt(M_TRIM_THRESHOLD, 128 * 1024);
  malloc_trim(0);
}

}  // namespace Merivane::Cli
