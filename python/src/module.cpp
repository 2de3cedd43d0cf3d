// _merivane: the compiled half of the Python package `merivane`.
//
// Data crosses in both directions without copies: an Image's `array` is a NumPy view of the
// C++ frame buffer, kept alive by a capsule that holds the frame's memory image, and an Image
// made from a NumPy array borrows the array's buffer (the C++ image holds a reference on the
// array until it is deleted). Algorithms run through the command line's run core
// (Cli::runOnData), so Python and `merivane run` compute every result the same way.
//
// A run computes on a worker thread while the calling thread, without the GIL for most of
// the time, wakes ten times a second to check for Ctrl-C (PyErr_CheckSignals, which only the
// main thread can act on) and to hand the latest progress to the Python callback. Either one
// failing cancels the run; the Python exception is raised once the worker has stopped.
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <limits>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <optional>
#include <thread>

#include "Algorithm.h"
#include "ExtractionTools.h"
#include "FactoryRegistry.h"
#include "FiducialFile.h"
#include "DicomIO.h"
#include "DicomSeriesComponent.h"
#include "ImageIO.h"
#include "LabelDataComponent.h"
#include "Log.h"
#include "MLPlugin.h"
#include "Mesh.h"
#include "MeshIO.h"
#include "Plugin.h"
#include "PointSet.h"
#include "PointSetIO.h"
#include "Progress.h"
#include "Runner.h"
#include "SharedImageSet.h"

namespace py = pybind11;
using namespace pybind11::literals;
using namespace Merivane;

namespace {

// ---------------------------------------------------------------------------------------
// The plug-in, loaded once on first use.

std::mutex g_pluginMutex;
std::string g_pluginPath;  // empty until loaded

const std::string& ensurePlugin() {
  std::lock_guard lock(g_pluginMutex);
  if (!g_pluginPath.empty()) return g_pluginPath;
  // Never deleted: Python may hold data whose code lives in the plug-in until the process
  // ends, so the library must stay mapped.
  static PluginManager* manager = [] {
    auto* m = new PluginManager;
    ML::registerBuiltin(*m);
    return m;
  }();
  const char* env = std::getenv("MERIVANE_PLUGIN");
  std::string path = env && *env ? env : MERIVANE_DEFAULT_PLUGIN;
  // dlopen would search the library path for a name without a slash.
  if (path.find('/') == std::string::npos) path = "./" + path;
  std::string error;
  if (!manager->load(path, &error)) throw std::runtime_error("merivane: cannot load the plug-in: " + error);
  Cli::registerExtractionTools();
  g_pluginPath = path;
  return g_pluginPath;
}

// ---------------------------------------------------------------------------------------
// Pixel types and NumPy dtypes.

const char* dtypeName(PixelType t) {
  switch (t) {
    case I8: return "int8";
    case U8: return "uint8";
    case I16: return "int16";
    case U16: return "uint16";
    case I32: return "int32";
    case U32: return "uint32";
    case F32: return "float32";
    case F64: return "float64";
    default: return nullptr;
  }
}

std::optional<PixelType> pixelTypeOf(const py::dtype& d) {
  const char kind = d.kind();
  const auto size = d.itemsize();
  if (kind == 'i') {
    if (size == 1) return I8;
    if (size == 2) return I16;
    if (size == 4) return I32;
  } else if (kind == 'u') {
    if (size == 1) return U8;
    if (size == 2) return U16;
    if (size == 4) return U32;
  } else if (kind == 'f') {
    if (size == 4) return F32;
    if (size == 8) return F64;
  }
  return std::nullopt;
}

const char* kSupportedDtypes = "int8, uint8, int16, uint16, int32, uint32, float32, float64 (and bool, stored as uint8)";

// ---------------------------------------------------------------------------------------
// Wrappers. Each Python object holds its C++ data by shared pointer; arrays handed out hold
// the pixel memory itself, so they stay valid when the object goes.

struct PyData {
  std::shared_ptr<Data> data;
  virtual ~PyData() = default;
};
struct PyImage : PyData {
  SharedImageSet& set() const { return *static_cast<SharedImageSet*>(data.get()); }
};
struct PyMesh : PyData {
  Mesh& mesh() const { return *static_cast<Mesh*>(data.get()); }
};
struct PyPointSet : PyData {
  PointSet& points() const { return *static_cast<PointSet*>(data.get()); }
};

std::unique_ptr<PyData> wrap(std::shared_ptr<Data> d) {
  std::unique_ptr<PyData> w;
  if (d->asImageSet()) w = std::make_unique<PyImage>();
  else if (d->asMesh()) w = std::make_unique<PyMesh>();
  else if (d->kind() == Data::kindPointSet) w = std::make_unique<PyPointSet>();
  else w = std::make_unique<PyData>();
  w->data = std::move(d);
  return w;
}

// PyData is polymorphic, so pybind11 hands Python the most derived wrapper: Image, Mesh, ...
py::object toPython(std::shared_ptr<Data> d) { return py::cast(wrap(std::move(d))); }

// The C++ image that borrows a NumPy buffer holds a reference on its owner, given back when
// the image goes (on whichever thread that happens).
struct ReleaseNumpyOwner {
  PyObject* owner;
  void operator()(MemImage* image) const {
    delete image;
    // At exit the reference goes with the interpreter; taking the GIL then could block.
#if PY_VERSION_HEX >= 0x030D0000
    if (!Py_IsInitialized() || Py_IsFinalizing()) return;
#else
    if (!Py_IsInitialized() || _Py_IsFinalizing()) return;
#endif
    py::gil_scoped_acquire gil;
    Py_DECREF(owner);
  }
};

// A frame image over the buffer of `array` (C-contiguous, aligned, writeable, native order,
// a supported dtype: the caller has made sure).
std::shared_ptr<MemImage> borrow(const py::array& array, PixelType type) {
  const auto nd = array.ndim();
  Eigen::Vector3i dims;
  int channels = 1;
  if (nd == 2) {
    dims = Eigen::Vector3i(static_cast<int>(array.shape(1)), static_cast<int>(array.shape(0)), 1);
  } else {
    dims = Eigen::Vector3i(static_cast<int>(array.shape(2)), static_cast<int>(array.shape(1)),
                           static_cast<int>(array.shape(0)));
    if (nd == 4) channels = static_cast<int>(array.shape(3));
  }
  ImageDescriptor desc(type, dims, channels);
  std::shared_ptr<MemImage> image;
  dispatchPixelType(type, [&](auto tag) {
    using T = decltype(tag);
    auto* typed = new TypedImage<T>(desc, static_cast<T*>(const_cast<void*>(array.data())),
                                    MemImage::Ownership::Borrowed, false);
    PyObject* owner = array.ptr();
    Py_INCREF(owner);
    image = std::shared_ptr<MemImage>(typed, ReleaseNumpyOwner{owner});
  });
  return image;
}

// A NumPy array ready to be borrowed: converted or copied where the buffer cannot be used as
// it is. Throws TypeError for dtypes without a pixel type, ValueError for bad shapes.
std::pair<py::array, PixelType> prepareArray(py::object object) {
  py::module_ np = py::module_::import("numpy");
  py::array array = py::isinstance<py::array>(object) ? object.cast<py::array>() : np.attr("asarray")(object);
  py::dtype dt = array.dtype();
  if (dt.kind() == 'b') {
    array = array.attr("astype")("uint8");
    dt = array.dtype();
  }
  std::optional<PixelType> type = pixelTypeOf(dt);
  if (!type) {
    const std::string name = py::str(dt).cast<std::string>();
    throw py::type_error("merivane: arrays of dtype " + name + " cannot be images; supported dtypes are " +
                         kSupportedDtypes + " (convert first, e.g. array.astype(numpy.float32))");
  }
  if (!dt.attr("isnative").cast<bool>()) array = array.attr("astype")(dt.attr("newbyteorder")("="));
  const auto nd = array.ndim();
  if (nd < 2 || nd > 4)
    throw py::value_error("merivane: an image array has shape (y, x), (z, y, x) or (z, y, x, channels), not " +
                          std::to_string(nd) + " dimensions");
  for (py::ssize_t i = 0; i < nd; ++i) {
    if (array.shape(i) <= 0) throw py::value_error("merivane: an image array must not be empty");
    if (array.shape(i) > std::numeric_limits<int>::max())
      throw py::value_error("merivane: image sizes are limited to 2^31 - 1 along each axis");
  }
  const int flags = array.flags();
  const bool usable = (flags & py::array::c_style) && (flags & py::detail::npy_api::NPY_ARRAY_ALIGNED_) &&
                      (flags & py::detail::npy_api::NPY_ARRAY_WRITEABLE_);
  // Strided views are gathered into a new buffer, and read-only buffers are copied so that an
  // algorithm that edits its input in place cannot write into memory that forbids it.
  if (!usable) array = np.attr("array")(array, "copy"_a = true, "order"_a = "C");
  return {array, *type};
}

std::shared_ptr<SharedImageSet> imageFromArray(py::object object) {
  auto [array, type] = prepareArray(std::move(object));
  auto set = std::make_shared<SharedImageSet>(std::shared_ptr<Image>(borrow(array, type)));
  return set;
}

// A view of the frame's pixels; shape (z, y, x), with a last axis for several channels.
py::array frameArray(SharedImage& frame) {
  std::shared_ptr<MemImage> mem = frame.sharedMem();
  if (!mem) throw std::runtime_error("merivane: this frame has no pixels in memory");
  const char* name = dtypeName(mem->type());
  if (!name) throw py::type_error(std::string("merivane: no NumPy dtype for pixel type ") + pixelTypeName(mem->type()));
  // The caller may write through the view: the memory copy is the current one from now on.
  frame.setDirtyMem();
  const ImageDescriptor& d = mem->descriptor();
  const auto item = static_cast<py::ssize_t>(d.typeSize());
  std::vector<py::ssize_t> shape{d.slices(), d.height(), d.width()};
  if (d.channels > 1) shape.push_back(d.channels);
  std::vector<py::ssize_t> strides(shape.size());
  py::ssize_t stride = item;
  for (size_t i = shape.size(); i-- > 0;) {
    strides[i] = stride;
    stride *= shape[i];
  }
  auto* holder = new std::shared_ptr<MemImage>(mem);
  py::capsule base(holder, [](void* p) { delete static_cast<std::shared_ptr<MemImage>*>(p); });
  return py::array(py::dtype(name), shape, strides, mem->data(), base);
}

SharedImage& frameOf(const PyImage& image, int index) {
  SharedImageSet& set = image.set();
  if (set.empty()) throw py::value_error("merivane: the image has no frames");
  if (index < 0) index += set.size();
  SharedImage* frame = index >= 0 ? set.get(index) : nullptr;
  if (!frame) throw py::index_error("merivane: frame " + std::to_string(index) + " out of range");
  return *frame;
}

Eigen::Matrix4d matrixFrom(py::object object) {
  py::array_t<double, py::array::c_style | py::array::forcecast> m(object);
  if (m.ndim() != 2 || m.shape(0) != 4 || m.shape(1) != 4)
    throw py::value_error("merivane: the matrix must be 4 x 4");
  Eigen::Matrix4d out;
  for (int r = 0; r < 4; ++r)
    for (int c = 0; c < 4; ++c) {
      out(r, c) = m.at(r, c);
      if (!std::isfinite(out(r, c))) throw py::value_error("merivane: the matrix must be finite");
    }
  return out;
}

py::array_t<double> matrixTo(const Eigen::Matrix4d& m) {
  py::array_t<double> out({4, 4});
  auto view = out.mutable_unchecked<2>();
  for (int r = 0; r < 4; ++r)
    for (int c = 0; c < 4; ++c) view(r, c) = m(r, c);
  return out;
}

const char* const kModalities[] = {nullptr, "XRAY", "CT", "MRI", "ULTRASOUND", "VIDEO", "NM", "OCT", "LABEL"};

py::object modalityName(Data::Modality m) {
  if (m <= Data::modalityAny || m > Data::LABEL) return py::none();
  return py::str(kModalities[m]);
}

Data::Modality modalityFrom(py::object value) {
  if (value.is_none()) return Data::modalityAny;
  std::string text = py::str(value).cast<std::string>();
  for (char& c : text) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  for (int m = Data::XRAY; m <= Data::LABEL; ++m)
    if (text == kModalities[m]) return static_cast<Data::Modality>(m);
  throw py::value_error("merivane: unknown modality '" + text +
                        "' (XRAY, CT, MRI, ULTRASOUND, VIDEO, NM, OCT, LABEL or None)");
}

// Marks an image as a label map the way `--in-labels` does: uint8 as it is, other integer
// images with values 0..255 converted.
void markAsLabelMap(PyImage& image) {
  if (image.set().modality() == Data::LABEL) return;
  std::string error;
  if (!IO::markAsLabelMap(image.set(), &error)) {
    const size_t colon = error.find(": ");
    throw py::value_error("merivane: " + (colon == 0 ? error.substr(2) : error));
  }
}

py::dict labelsOf(const PyImage& image) {
  py::dict out;
  const auto* labels = image.set().components().get<LabelDataComponent>();
  if (!labels) return out;
  for (const auto& [value, config] : labels->labelConfigs()) {
    const auto& c = config.color;
    out[py::int_(value)] = py::make_tuple(config.name, py::make_tuple(c[0], c[1], c[2], c[3]));
  }
  return out;
}

// `labels` maps values 1..255 to a name or to (name, (r, g, b[, a])) with components in 0..1.
void setLabels(PyImage& image, py::dict labels) {
  std::map<int, LabelDataComponent::LabelConfig> configs;
  for (auto [key, value] : labels) {
    const int v = key.cast<int>();
    if (v < 0 || v > 255) throw py::value_error("merivane: label values lie in 0..255, not " + std::to_string(v));
    LabelDataComponent::LabelConfig config = LabelDataComponent::defaultLabelConfig(v);
    if (py::isinstance<py::str>(value)) {
      config.name = value.cast<std::string>();
    } else {
      auto pair = value.cast<py::sequence>();
      if (pair.size() != 2) throw py::value_error("merivane: a label is a name or (name, colour)");
      config.name = pair[0].cast<std::string>();
      auto colour = pair[1].cast<std::vector<double>>();
      if (colour.size() != 3 && colour.size() != 4)
        throw py::value_error("merivane: a label colour is (r, g, b) or (r, g, b, a) in 0..1");
      for (size_t i = 0; i < colour.size(); ++i) config.color[static_cast<int>(i)] = colour[i];
      if (colour.size() == 3) config.color[3] = 1.0;
    }
    configs[v] = config;
  }
  markAsLabelMap(image);
  image.set().components().getOrCreate<LabelDataComponent>(&image.set())->setLabelConfigs(std::move(configs));
}

template <typename V>
py::array_t<typename V::Scalar> rowsToArray(const std::vector<V>& rows) {
  using S = typename V::Scalar;
  constexpr int n = V::RowsAtCompileTime;
  py::array_t<S> out({static_cast<py::ssize_t>(rows.size()), static_cast<py::ssize_t>(n)});
  auto view = out.template mutable_unchecked<2>();
  for (size_t i = 0; i < rows.size(); ++i)
    for (int k = 0; k < n; ++k) view(static_cast<py::ssize_t>(i), k) = rows[i][k];
  // A copy: writing into it would change nothing, so say so at once.
  out.attr("setflags")("write"_a = false);
  return out;
}

template <typename V>
std::vector<V> rowsFromArray(py::object object, const char* what) {
  using S = typename V::Scalar;
  constexpr int n = V::RowsAtCompileTime;
  std::vector<V> rows;
  if (object.is_none()) return rows;
  py::array_t<S, py::array::c_style | py::array::forcecast> a(object);
  if (a.size() == 0) return rows;
  if (a.ndim() != 2 || a.shape(1) != n)
    throw py::value_error(std::string("merivane: ") + what + " must have shape (N, " + std::to_string(n) + ")");
  auto view = a.template unchecked<2>();
  rows.resize(static_cast<size_t>(a.shape(0)));
  for (size_t i = 0; i < rows.size(); ++i)
    for (int k = 0; k < n; ++k) rows[i][k] = view(static_cast<py::ssize_t>(i), k);
  return rows;
}

const char* kindName(Data::Kind k) {
  switch (k) {
    case Data::kindImage: return "image";
    case Data::kindVolume: return "volume";
    case Data::kindImageSet: return "image set";
    case Data::kindVolumeSet: return "volume set";
    case Data::kindTensor: return "tensor";
    case Data::kindMesh: return "mesh";
    case Data::kindPointSet: return "point set";
    case Data::kindTable: return "table";
    default: return "other";
  }
}

// ---------------------------------------------------------------------------------------
// Files.

// Returns the data read, or None with the error (naming the file) as second item.
py::tuple readFile(const std::string& path, bool asLabels, const std::string& series) {
  std::vector<std::unique_ptr<Data>> owned;
  std::string error;
  bool ok;
  {
    py::gil_scoped_release release;
    ok = Cli::readInputs({{path, asLabels, series}}, owned, &error);
  }
  if (!ok || owned.empty()) return py::make_tuple(py::none(), error.empty() ? path + ": cannot be read" : error);
  return py::make_tuple(toPython(std::shared_ptr<Data>(std::move(owned.front()))), "");
}

// The image series of a DICOM folder or file as (uid, modality, description, number, width,
// height, slices, files) tuples, or None with the error as second item.
py::tuple dicomSeries(const std::string& path) {
  std::vector<IO::DicomSeriesInfo> series;
  std::string error;
  bool ok;
  {
    py::gil_scoped_release release;
    ok = IO::listDicomSeries(path, series, &error);
  }
  if (!ok) return py::make_tuple(py::none(), error.empty() ? path + ": no DICOM image series" : error);
  py::list out;
  for (const IO::DicomSeriesInfo& s : series)
    out.append(py::make_tuple(s.seriesInstanceUid, s.modality, s.description, s.seriesNumber, s.width, s.height,
                              s.slices, s.files));
  return py::make_tuple(out, "");
}

// Returns an empty string on success, else the error naming the file.
std::string writeFile(const PyData& item, const std::string& path, bool compress, const PyData* reference) {
  std::string error;
  bool ok = false;
  const DicomSeriesComponent* series = nullptr;
  if (reference) {
    const SharedImageSet* r = reference->data->asImageSet();
    series = r ? r->components().get<DicomSeriesComponent>() : nullptr;
    if (!series) return path + ": the reference was not read from a DICOM series";
  }
  py::gil_scoped_release release;
  if (const SharedImageSet* set = item.data->asImageSet()) {
    IO::WriteOptions options;
    options.compress = compress;
    options.dicomReference = series;
    ok = IO::writeImage(*set, path, &error, options);
  } else if (const Mesh* mesh = item.data->asMesh()) {
    ok = IO::writeMesh(*mesh, path, &error);
  } else if (item.data->kind() == Data::kindPointSet) {
    const auto& points = static_cast<const PointSet&>(*item.data);
    if (path.size() >= 4 && path.compare(path.size() - 4, 4, ".txt") == 0) {
      const auto* radii = points.components().get<FiducialRadiiComponent>();
      std::vector<FiducialFile::Fiducial> fiducials;
      for (size_t i = 0; i < points.points().size(); ++i)
        fiducials.push_back({points.points()[i], radii && i < radii->radii.size() ? radii->radii[i] : 0.0});
      ok = FiducialFile::write(path, fiducials, radii != nullptr, &error);
    } else {
      ok = IO::writePointSet(points, path, &error);
    }
  } else {
    error = path + ": no file format for " + item.data->describe();
  }
  if (ok) return {};
  return error.empty() ? path + ": cannot be written" : error;
}

// ---------------------------------------------------------------------------------------
// Algorithms.

py::list algorithmList() {
  ensurePlugin();
  py::list out;
  for (AlgorithmFactory* f : FactoryRegistry::get().algorithmFactories())
    for (auto* d : f->algorithmDescriptors()) out.append(py::make_tuple(d->id, d->menuPath));
  return out;
}

DataList dataListOf(const std::vector<PyData*>& inputs) {
  DataList list;
  for (PyData* p : inputs) {
    if (!p || !p->data) throw py::value_error("merivane: an input is empty");
    list.add(p->data.get());
  }
  return list;
}

// (factory name, [(key, value, default or None, {attribute: value})]), or None for an
// unknown name; raises ValueError when the algorithm cannot be created.
py::object parameterList(const std::string& name, const std::vector<PyData*>& inputs) {
  ensurePlugin();
  const std::string id = Cli::resolveAlgorithmName(name);
  if (id.empty()) return py::none();
  DataList list = dataListOf(inputs);
  std::vector<std::unique_ptr<Data>> standIns;
  std::unique_ptr<Algorithm> algorithm = Cli::createForInspection(id, list, standIns);
  if (!algorithm)
    throw py::value_error("merivane: " + id + " could not be created on " +
                          (inputs.empty() ? std::string("stand-in images; pass inputs that it accepts")
                                          : std::string("these inputs")));
  Properties p(id);
  algorithm->configuration(&p);
  py::list rows;
  for (const std::string& key : p.paramKeys()) {
    const std::string* value = p.rawParam(key);
    const std::string* def = p.rawDefault(key);
    py::dict attributes;
    for (const auto& [attr, v] : p.paramAttributes(key)) attributes[py::str(attr)] = v;
    rows.append(py::make_tuple(key, value ? *value : std::string(), def ? py::object(py::str(*def)) : py::none(),
                               attributes));
  }
  return py::make_tuple(id, rows);
}

// Progress for a run: the compute threads record the latest state of the visible tasks and
// wake the calling thread when the last delivery is at least 100 ms old; the calling thread
// picks the state up and calls Python.
class PollingProgress : public Progress {
 public:
  struct Event {
    double fraction;
    std::string text;
    bool operator==(const Event&) const = default;
  };
  using Clock = std::chrono::steady_clock;
  static constexpr auto kInterval = std::chrono::milliseconds(100);

  // The calling thread waits on this; `done` ends the run, `ready` says an event is due.
  std::mutex waitMutex;
  std::condition_variable wake;
  bool done = false;
  bool ready = false;

  // The event to deliver now, if there is a new one.
  std::optional<Event> take() {
    std::lock_guard lock(mutex_);
    std::optional<Event> e = std::move(latest_);
    latest_.reset();
    if (e && delivered_ && *e == *delivered_) return std::nullopt;
    if (e) delivered_ = e;
    due_ = Clock::now() + kInterval;
    return e;
  }

 protected:
  void onTaskAdded(TaskState& task) override { record(task, false); }
  void onTaskUpdated(TaskState& task) override { record(task, false); }
  void onTaskRemoved(TaskState& task) override { record(task, true); }

 private:
  void record(TaskState& task, bool finished) {
    if (!task.visible.load()) return;
    const int steps = task.steps.load();
    const int current = task.current.load();
    double fraction = steps > 0 ? std::clamp(static_cast<double>(current) / steps, 0.0, 1.0) : 0.0;
    if (finished) {
      if (isCanceled() || task.canceled.load()) return;
      fraction = 1.0;
    }
    bool notify;
    {
      std::lock_guard lock(mutex_);
      latest_ = Event{fraction, task.text};
      notify = Clock::now() >= due_;
    }
    if (notify) {
      std::lock_guard lock(waitMutex);
      ready = true;
      wake.notify_all();
    }
  }
  std::mutex mutex_;
  std::optional<Event> latest_;
  std::optional<Event> delivered_;
  Clock::time_point due_{};
};

// Whole volumes are allocated and freed many times in one run; the command line keeps freed
// volumes in the heap for reuse (Cli::useVolumeHeap). A run here does the same, and gives the
// memory back when it ends, since the Python process lives on.
class HeapTuning {
 public:
  HeapTuning() { Cli::useVolumeHeap(); }
  ~HeapTuning() { Cli::useDefaultHeap(); }
};

std::mutex g_runMutex;  // one run at a time: each run already uses every core
thread_local bool t_inRun = false;  // a progress callback must not start a run of its own

// (exit code, status, message, [outputs]); raises what the progress callback or Ctrl-C raised.
py::tuple runAlgorithm(const std::string& name, const std::vector<PyData*>& inputs,
                       const std::map<std::string, std::string>& params, py::object callback) {
  if (t_inRun) throw std::runtime_error("merivane: run cannot be called from a progress callback");
  ensurePlugin();
  Cli::RunOptions options;
  options.algorithm = name;
  options.writeOutputs = false;
  for (const auto& [key, value] : params) options.configuration.setRawParam(key, value);
  DataList list = dataListOf(inputs);
  // The NumPy arrays are the truth: textures made by an earlier run may be stale.
  for (Data* d : list.items())
    if (SharedImageSet* s = d->asImageSet())
      for (int i = 0; i < s->size(); ++i)
        if (s->get(i)->hasMem()) s->get(i)->setDirtyMem();

  PollingProgress progress;
  std::atomic<bool> interrupted{false};
  Cli::RunResult result;
  std::exception_ptr failure;
  std::optional<py::error_already_set> pending;
  const bool hasCallback = !callback.is_none();

  auto stop = [&] {
    interrupted.store(true);
    progress.cancelAllTasks();
  };
  auto poll = [&] {
    // Called with the GIL held.
    if (pending) return;
    if (PyErr_CheckSignals() != 0) {
      pending.emplace();
      stop();
      return;
    }
    if (!hasCallback) return;
    if (auto e = progress.take()) {
      try {
        callback(e->fraction, e->text);
      } catch (py::error_already_set& error) {
        pending.emplace(std::move(error));
        stop();
      }
    }
  };

  {
    t_inRun = true;
    struct Leave {
      ~Leave() { t_inRun = false; }
    } leave;
    py::gil_scoped_release release;
    std::lock_guard runLock(g_runMutex);
    HeapTuning heap;
    std::thread worker([&] {
      try {
        result = Cli::runOnData(options, list, {}, &progress, &interrupted);
      } catch (...) {
        failure = std::current_exception();
      }
      std::lock_guard lock(progress.waitMutex);
      progress.done = true;
      progress.wake.notify_all();
    });
    std::unique_lock lock(progress.waitMutex);
    while (!progress.done) {
      progress.wake.wait_for(lock, PollingProgress::kInterval, [&] { return progress.done || progress.ready; });
      if (progress.done) break;
      progress.ready = false;
      lock.unlock();
      {
        py::gil_scoped_acquire gil;
        poll();
      }
      lock.lock();
    }
    lock.unlock();
    worker.join();
  }
  if (pending) throw std::move(*pending);
  if (failure) std::rethrow_exception(failure);
  // The last state, so that a callback sees the end of a short run too.
  if (hasCallback && result.exitCode == Cli::exitSuccess)
    if (auto e = progress.take()) callback(e->fraction, e->text);

  py::list outputs;
  for (auto& item : result.outputs) outputs.append(toPython(std::shared_ptr<Data>(std::move(item))));
  return py::make_tuple(result.exitCode, result.status, result.message, outputs);
}


// ---------------------------------------------------------------------------------------
// Image geometry.

void setSpacing(PyImage& i, const std::vector<double>& s) {
  if (s.size() != 3) throw py::value_error("merivane: spacing is (x, y, z) in millimetres");
  for (double v : s)
    if (!(v > 0) || !std::isfinite(v)) throw py::value_error("merivane: spacing must be positive and finite");
  for (int k = 0; k < i.set().size(); ++k) i.set().get(k)->setSpacing(Eigen::Vector3d(s[0], s[1], s[2]));
}

void setShiftScale(PyImage& i, double shift, double scale) {
  if (!std::isfinite(shift)) throw py::value_error("merivane: shift must be finite");
  if (!std::isfinite(scale) || scale == 0) throw py::value_error("merivane: scale must be finite and not 0");
  for (int k = 0; k < i.set().size(); ++k) i.set().get(k)->setShiftScale(shift, scale);
}

void setModality(PyImage& i, py::object m) {
  const Data::Modality modality = modalityFrom(std::move(m));
  if (modality == Data::LABEL) markAsLabelMap(i);
  else i.set().setModality(modality);
}

std::unique_ptr<PyImage> makeImage(py::object array, py::object spacing, py::object matrix, double shift,
                                   double scale, py::object modality, py::object labels, bool labelMap,
                                   const std::string& name) {
  auto image = std::make_unique<PyImage>();
  image->data = imageFromArray(std::move(array));
  image->data->setName(name);
  if (!spacing.is_none()) setSpacing(*image, spacing.cast<std::vector<double>>());
  if (!matrix.is_none()) image->set().setMatrix(matrixFrom(std::move(matrix)));
  if (shift != 0.0 || scale != 1.0) setShiftScale(*image, shift, scale);
  if (!modality.is_none()) setModality(*image, std::move(modality));
  if (labelMap) markAsLabelMap(*image);
  if (!labels.is_none()) setLabels(*image, labels.cast<py::dict>());
  return image;
}

std::unique_ptr<PyImage> frameImage(const PyImage& i, int index) {
  frameOf(i, index);
  if (index < 0) index += i.set().size();
  auto set = std::make_shared<SharedImageSet>(i.set().getShared(index));
  set->setModality(i.set().modality());
  set->setName(i.set().name());
  if (auto* labels = i.set().components().get<LabelDataComponent>())
    set->components().add(std::make_unique<LabelDataComponent>(*labels));
  auto out = std::make_unique<PyImage>();
  out->data = set;
  return out;
}

}  // namespace

PYBIND11_MODULE(_merivane, m) {
  m.doc() = "Compiled core of merivane: data wrappers, file input and output, algorithm runs.";

  py::class_<PyData>(m, "Data", "Anything that algorithms take or give: images, meshes, point sets.")
      .def_property(
          "name", [](const PyData& d) { return d.data->name(); },
          [](PyData& d, const std::string& name) { d.data->setName(name); })
      .def_property_readonly(
          "kind", [](const PyData& d) { return kindName(d.data->kind()); },
          "'image', 'volume', 'image set', 'volume set', 'mesh', 'point set', ...")
      .def("describe", [](const PyData& d) { return d.data->describe(); });

  py::class_<PyImage, PyData>(m, "Image")
      .def(py::init(&makeImage), "array"_a, py::kw_only(), "spacing"_a = py::none(), "matrix"_a = py::none(),
           "shift"_a = 0.0, "scale"_a = 1.0, "modality"_a = py::none(), "labels"_a = py::none(),
           "label_map"_a = false, "name"_a = "")
      .def_property_readonly("frames", [](const PyImage& i) { return i.set().size(); })
      .def(
          "frame_array", [](const PyImage& i, int index) { return frameArray(frameOf(i, index)); }, "index"_a)
      .def("frame", &frameImage, "index"_a)
      .def_property_readonly("array", [](const PyImage& i) { return frameArray(frameOf(i, 0)); })
      .def_property(
          "spacing",
          [](const PyImage& i) {
            const auto& s = frameOf(i, 0).descriptor().spacing;
            return py::make_tuple(s[0], s[1], s[2]);
          },
          &setSpacing)
      .def_property(
          "matrix", [](const PyImage& i) { return matrixTo(i.set().matrix()); },
          [](PyImage& i, py::object m) { i.set().setMatrix(matrixFrom(std::move(m))); })
      .def_property(
          "shift", [](const PyImage& i) { return frameOf(i, 0).descriptor().shift; },
          [](PyImage& i, double shift) { setShiftScale(i, shift, frameOf(i, 0).descriptor().scale); })
      .def_property(
          "scale", [](const PyImage& i) { return frameOf(i, 0).descriptor().scale; },
          [](PyImage& i, double scale) { setShiftScale(i, frameOf(i, 0).descriptor().shift, scale); })
      .def_property(
          "modality", [](const PyImage& i) { return modalityName(i.set().modality()); }, &setModality)
      .def_property(
          "is_label_map", [](const PyImage& i) { return i.set().modality() == Data::LABEL; },
          [](PyImage& i, bool label) {
            if (label) markAsLabelMap(i);
            else if (i.set().modality() == Data::LABEL) i.set().setModality(Data::modalityAny);
          })
      .def("_labels", &labelsOf)
      .def("_set_labels", &setLabels);

  py::class_<PyMesh, PyData>(m, "Mesh", "A triangle mesh in world millimetres (LPS).")
      .def(py::init([](py::object vertices, py::object faces, py::object normals, py::object colors) {
             auto mesh = std::make_shared<Mesh>();
             mesh->vertices = rowsFromArray<Eigen::Vector3f>(vertices, "vertices");
             mesh->faces = rowsFromArray<Eigen::Vector3i>(faces, "faces");
             mesh->normals = rowsFromArray<Eigen::Vector3f>(normals, "normals");
             mesh->colors = rowsFromArray<Eigen::Vector4f>(colors, "colors");
             if (!mesh->isValid())
               throw py::value_error("merivane: face indices must lie within the vertices, and normals and colours "
                                     "need one row per vertex");
             auto out = std::make_unique<PyMesh>();
             out->data = mesh;
             return out;
           }),
           "vertices"_a, "faces"_a, "normals"_a = py::none(), "colors"_a = py::none())
      .def_property_readonly("vertices", [](const PyMesh& m) { return rowsToArray(m.mesh().vertices); })
      .def_property_readonly("faces", [](const PyMesh& m) { return rowsToArray(m.mesh().faces); })
      .def_property_readonly("normals", [](const PyMesh& m) -> py::object {
        if (!m.mesh().hasNormals()) return py::none();
        return rowsToArray(m.mesh().normals);
      })
      .def_property_readonly("colors", [](const PyMesh& m) -> py::object {
        if (!m.mesh().hasColors()) return py::none();
        return rowsToArray(m.mesh().colors);
      });

  py::class_<PyPointSet, PyData>(m, "PointSet", "Points in world millimetres (LPS); fiducials carry radii.")
      .def(py::init([](py::object points, py::object radii) {
             auto set = std::make_shared<PointSet>(rowsFromArray<Eigen::Vector3d>(points, "points"));
             if (!radii.is_none()) {
               auto r = radii.cast<std::vector<double>>();
               if (r.size() != set->points().size())
                 throw py::value_error("merivane: one radius per point");
               set->components().add(std::make_unique<FiducialRadiiComponent>(std::move(r)));
             }
             auto out = std::make_unique<PyPointSet>();
             out->data = set;
             return out;
           }),
           "points"_a, "radii"_a = py::none())
      .def_property_readonly("points", [](const PyPointSet& p) { return rowsToArray(p.points().points()); })
      .def_property_readonly("radii", [](const PyPointSet& p) -> py::object {
        const auto* radii = p.points().components().get<FiducialRadiiComponent>();
        if (!radii) return py::none();
        return py::array_t<double>(static_cast<py::ssize_t>(radii->radii.size()), radii->radii.data());
      });

  m.def("_read", &readFile, "path"_a, "as_labels"_a = false, "series"_a = "");
  m.def("_dicom_series", &dicomSeries, "path"_a);
  m.def("_write", &writeFile, "data"_a, "path"_a, "compress"_a = true, "reference"_a = nullptr);
  m.def("_algorithms", &algorithmList);
  m.def("_parameters", &parameterList, "name"_a, "inputs"_a);
  m.def("_run", &runAlgorithm, "name"_a, "inputs"_a, "params"_a, "progress"_a);
  m.def("_plugin_path", [] { return ensurePlugin(); });
  m.def(
      "_set_log_level", [](int level) { Log::g_globalLevel = level; }, "level"_a);
  m.def("_log_level", [] { return Log::g_globalLevel; });
  m.attr("_supported_dtypes") = py::str(kSupportedDtypes);
}
